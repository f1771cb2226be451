// bgpcommon events-tracking demo: events tracking at work on a simulated burst of updates.
//
// Starts tracking as the operator's "show bgp instance internal events tracking start" would, lets
// worker threads process a burst of paths spread over the VRFs (the RIB adds each path, then every
// RibOut of the VRF advertises it) while they stamp the times, summarizes from the command thread
// meanwhile, and finally prints the summary and the detail report. With --json it prints only
// the final reports, as one JSON object (see ReportShown).
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "BgpCommon/BgpTestHelpers.h"
#include "tools/Command.h"
#include "tools/JsonSupport.h"
#include "tools/Progress.h"

namespace {

using namespace Routing::Bgp;

struct DemoOptions {
  unsigned vrfs = 3;
  unsigned ribOuts = 2;
  unsigned paths = 20000;
  unsigned workers = 2;
  std::vector<unsigned> thresholds;  // RIB and RibOut path thresholds; none given: see thresholdsOf
  bool json = false;
};

// ---- The reports in JSON: the stamps as seconds since 1970 (null: never) and the counts ----------

using tools::JsonStamp;

struct RibStampsShown {
  JsonStamp firstUpdateMessage, processingStart, processingEnd, thresholdReached;
  static RibStampsShown of(const Kelp::Ptr<TestTimeStampsRib>& t) {
    if (!t) return {};
    return {{t->firstUpdateMessage()}, {t->processingStart()}, {t->processingEnd()}, {t->thresholdReached()}};
  }
  friend constexpr auto kelpType(Kelp::Tag<RibStampsShown>) {
    using S = RibStampsShown;
    return Kelp::valueType<S>("tools::RibStamps", Kelp::field("firstUpdateMessage", &S::firstUpdateMessage),
                              Kelp::field("processingStart", &S::processingStart),
                              Kelp::field("processingEnd", &S::processingEnd),
                              Kelp::field("thresholdReached", &S::thresholdReached));
  }
};

struct RibOutStampsShown {
  JsonStamp processingStart, processingEnd, thresholdReached;
  static RibOutStampsShown of(const Kelp::Ptr<TestTimeStampsRibOut>& t) {
    if (!t) return {};
    return {{t->processingStart()}, {t->processingEnd()}, {t->thresholdReached()}};
  }
  friend constexpr auto kelpType(Kelp::Tag<RibOutStampsShown>) {
    using S = RibOutStampsShown;
    return Kelp::valueType<S>("tools::RibOutStamps", Kelp::field("processingStart", &S::processingStart),
                              Kelp::field("processingEnd", &S::processingEnd),
                              Kelp::field("thresholdReached", &S::thresholdReached));
  }
};

struct RibOutShown {
  U32 ribOutId = 0;
  std::int32_t paths = 0;
  RibOutStampsShown ribOut;
  friend constexpr auto kelpType(Kelp::Tag<RibOutShown>) {
    using S = RibOutShown;
    return Kelp::valueType<S>("tools::RibOut", Kelp::field("ribOutId", &S::ribOutId), Kelp::field("paths", &S::paths),
                              Kelp::field("ribOut", &S::ribOut));
  }
};

struct VrfShown {
  Vrf::VrfIdMap::VrfId vrfId = 0;
  Kelp::String name;
  U32 paths = 0;
  RibStampsShown rib;
  tools::JsonList<RibOutShown> ribOuts;
  friend constexpr auto kelpType(Kelp::Tag<VrfShown>) {
    using S = VrfShown;
    return Kelp::valueType<S>("tools::Vrf", Kelp::field("vrfId", &S::vrfId), Kelp::field("name", &S::name),
                              Kelp::field("paths", &S::paths), Kelp::field("rib", &S::rib),
                              Kelp::field("ribOuts", &S::ribOuts));
  }
};

// The summary: how many VRFs and RibOuts processed events, and their stamps merged.
struct SummaryShown {
  U32 vrfs = 0;
  U32 ribOuts = 0;
  RibStampsShown rib;
  RibOutStampsShown ribOut;
  friend constexpr auto kelpType(Kelp::Tag<SummaryShown>) {
    using S = SummaryShown;
    return Kelp::valueType<S>("tools::Summary", Kelp::field("vrfs", &S::vrfs), Kelp::field("ribOuts", &S::ribOuts),
                              Kelp::field("rib", &S::rib), Kelp::field("ribOut", &S::ribOut));
  }
};

// Both reports: when they were taken, the BGP RIB's paths before and after, the thresholds, the
// summary, and the detail (every VRF with its RibOuts, in ascending id order).
struct ReportShown {
  JsonStamp reportedAt;
  U32 pathsBefore = 0;
  U32 pathsAfter = 0;
  U32 ribThreshold = 0;
  U32 ribOutThreshold = 0;
  SummaryShown summary;
  tools::JsonList<VrfShown> vrfs;
  friend constexpr auto kelpType(Kelp::Tag<ReportShown>) {
    using S = ReportShown;
    return Kelp::valueType<S>("tools::EventsTrackingReport", Kelp::field("reportedAt", &S::reportedAt),
                              Kelp::field("pathsBefore", &S::pathsBefore), Kelp::field("pathsAfter", &S::pathsAfter),
                              Kelp::field("ribThreshold", &S::ribThreshold),
                              Kelp::field("ribOutThreshold", &S::ribOutThreshold), Kelp::field("summary", &S::summary),
                              Kelp::field("vrfs", &S::vrfs));
  }
};

ReportShown reportOf(const TestTrackleControlBase& control, U32 pathsBefore, U32 pathsAfter,
                     std::pair<U32, U32> thresholds) {
  const Kelp::Ptr<TestControlStatus>& status = control.testControlStatus();
  ReportShown report{{Kelp::currentTime()}, pathsBefore, pathsAfter, thresholds.first, thresholds.second, {}, {}};
  Kelp::Ptr<TestControlSummaryResult> summary = status->summarizeEventsTrackingData();
  report.summary = {summary->numVrfs(), summary->numRibOuts(), RibStampsShown::of(summary->timeStampsRib()),
                    RibOutStampsShown::of(summary->timeStampsRibOut())};
  for (const TestControlStatus::VrfInOrder& v : status->vrfsAndRibOutsInOrder()) {
    VrfShown vrf{v.vrf->vrfId(), v.vrf->vrfName(), v.vrf->numBribPaths(), RibStampsShown::of(v.vrf->timeStampsRib()),
                 {}};
    for (const Kelp::Ptr<TestControlStatusRibOut>& r : v.ribOuts) {
      vrf.ribOuts.items.push_back({r->ribOutId(), r->processedPathCnt(), RibOutStampsShown::of(r->timeStampsRibOut())});
    }
    report.vrfs.items.push_back(std::move(vrf));
  }
  return report;
}

// The RIB and RibOut thresholds of the run. Both count per VRF and per RibOut, so when none are
// given, half of a VRF's share of the burst is a threshold every VRF and RibOut reaches midway.
std::pair<U32, U32> thresholdsOf(const DemoOptions& opt) {
  if (opt.thresholds.size() == 2) return {opt.thresholds[0], opt.thresholds[1]};
  const U32 half = opt.paths / opt.vrfs / 2;
  return {half, half};
}

// The RibOut ids of a VRF: VRF v owns v * 100 + 1, v * 100 + 2, ...
U32 ribOutId(U32 vrf, unsigned k) { return vrf * 100 + k + 1; }

void processBurst(const DemoOptions& opt, TestTrackleControlBase& control, unsigned worker,
                  std::atomic<std::uint64_t>& processed) {
  const Kelp::Ptr<TestControlStatus> status = control.testControlStatus();
  unsigned done = 0;
  for (unsigned p = worker; p < opt.paths; p += opt.workers, ++done) {
    if (!control.eventsTrackingEnabled()) return;
    const U32 vrfId = p % opt.vrfs;
    Kelp::Ptr<TestControlStatusVrf> vrf = status->findOrCreateVrfData(vrfId, true);
    if (vrf->vrfName().empty()) vrf->vrfNameIs(vrfId == 0 ? "default" : "vrf-" + std::to_string(vrfId));
    // The UPDATE message carrying the path arrived before the RIB takes the path. Workers take a
    // VRF's paths in no fixed order, so whichever comes first stamps its message (later calls
    // leave the first stamp).
    vrf->timeStampsRib()->noteUpdateMessage(Kelp::currentTime());
    // The RIB adds the path.
    Kelp::Seconds now = Kelp::currentTime();
    vrf->timeStampsRib()->noteEventProcessed(now);
    if (vrf->numBribPathsInc(1) == control.ribAddThreshold()) vrf->timeStampsRib()->noteThresholdReached(now);
    // Every RibOut of the VRF advertises it.
    for (unsigned k = 0; k < opt.ribOuts; ++k) {
      Kelp::Ptr<TestControlStatusRibOut> ribOut = status->findOrCreateRibOutData(vrfId, ribOutId(vrfId, k), true);
      now = Kelp::currentTime();
      ribOut->timeStampsRibOut()->noteEventProcessed(now);
      if (ribOut->processedPathCntInc(1) == static_cast<std::int32_t>(control.ribOutPathAdvertiseThreshold())) {
        ribOut->timeStampsRibOut()->noteThresholdReached(now);
      }
    }
    // Processing a path takes time; let the clock move so the report has something to show.
    if (done % 64 == 63) {
      processed.fetch_add(64, std::memory_order_relaxed);
      std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
  }
}

void runDemo(const DemoOptions& opt) {
  auto control = Kelp::makePtr<TestTrackleControlBase>();
  control->testControlStatusIs();
  // With --json the commands and their reports are written aside, and only the JSON is printed.
  std::string aside;
  Brim::DumpContext asideCtx(aside);
  Brim::DumpContext stdoutCtx(stdout);
  Brim::DumpContext& out = opt.json ? asideCtx : stdoutCtx;
  const auto [ribThreshold, ribOutThreshold] = thresholdsOf(opt);
  const U32 pathsBefore = 0;

  out.printf("$ show bgp instance internal events tracking start");
  if (ribThreshold != 0 || ribOutThreshold != 0) {
    out.printf(" advertise-threshold %u %u", ribThreshold, ribOutThreshold);
  }
  out.printf("\n");
  control->updateEventsTracking(out, eventsTrackingStart, ribThreshold, ribOutThreshold, pathsBefore);

  out.printf("\n(%u worker threads process %u paths over %u VRFs with %u RibOuts each; the command thread\n"
             " summarizes meanwhile)\n",
             opt.workers, opt.paths, opt.vrfs, opt.ribOuts);
  std::atomic<bool> done{false};
  std::atomic<std::uint64_t> processed{0};
  std::vector<std::thread> workers;
  for (unsigned w = 0; w < opt.workers; ++w) {
    workers.emplace_back([&, w] { processBurst(opt, *control, w, processed); });
  }
  unsigned summaries = 0;
  std::thread command([&] {
    std::string scratch;
    Brim::DumpContext ctx(scratch);
    tools::Progress progress("paths processed", opt.paths);
    while (!done.load()) {
      progress.update(processed.load(std::memory_order_relaxed));
      scratch.clear();
      control->updateEventsTracking(ctx, eventsTrackingSummary, 0, 0, pathsBefore);
      ++summaries;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  for (auto& t : workers) t.join();
  done = true;
  command.join();
  out.printf("(%u summaries taken while the workers ran)\n", summaries);
  std::this_thread::sleep_for(std::chrono::milliseconds(150));  // the operator looks a little later

  const U32 pathsAfter = pathsBefore + opt.paths;
  if (opt.json) {
    std::printf("%s\n", Kelp::valueToJson(reportOf(*control, pathsBefore, pathsAfter,
                                                   {ribThreshold, ribOutThreshold}))
                            .c_str());
  } else {
    out.printf("\n$ show bgp instance internal events tracking summary\n");
    control->updateEventsTracking(out, eventsTrackingSummary, 0, 0, pathsAfter);
    out.printf("\n$ show bgp instance internal events tracking detail\n");
    control->printEventsTrackingDetail(out, pathsAfter);
    out.printf("\n$ show bgp instance internal events tracking stop\n");
  }
  control->updateEventsTracking(out, eventsTrackingStop, 0, 0, pathsAfter);
  std::fflush(stdout);
}

tools::CommandRegistration reg("events-tracking", [](CLI::App& app) {
  auto* cmd = app.add_subcommand("events-tracking", "Time how fast the RIB and RibOuts work through updates");
  cmd->require_subcommand(1);
  static DemoOptions opt;
  auto* demo = cmd->add_subcommand("demo", "Track a simulated burst of updates and print the reports");
  demo->add_option("--vrfs", opt.vrfs, "Number of VRFs")->check(CLI::Range(1u, 10000u))->capture_default_str();
  demo->add_option("--ribouts", opt.ribOuts, "RibOuts per VRF")->check(CLI::Range(0u, 99u))->capture_default_str();
  demo->add_option("--paths", opt.paths, "Paths in the burst")->check(CLI::Range(0u, 100000000u))->capture_default_str();
  demo->add_option("--workers", opt.workers, "Worker threads")->check(CLI::Range(1u, 64u))->capture_default_str();
  demo->add_option("--advertise-threshold", opt.thresholds,
                   "RIB and RibOut path thresholds, counted per VRF and per RibOut: the reports show how long "
                   "each VRF's RIB and each RibOut took to reach its own (default: half of a VRF's share of "
                   "the paths, both)")
      ->expected(2);
  demo->add_flag("--json", opt.json,
                 "Print only the final summary and detail reports, as one JSON object (stamps in seconds since "
                 "1970, null for never)");
  demo->callback([] { runDemo(opt); });
});

}  // namespace

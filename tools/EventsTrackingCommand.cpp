// bgpcommon events-tracking demo: events tracking at work on a simulated burst of updates.
//
// Starts tracking as the operator's "show bgp instance internal events tracking start" would, lets
// worker threads process a burst of paths spread over the VRFs (the RIB adds each path, then every
// RibOut of the VRF advertises it) while they stamp the times, summarizes from the command thread
// meanwhile, and finally prints the summary and the detail report.
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

namespace {

using namespace Routing::Bgp;

struct DemoOptions {
  unsigned vrfs = 3;
  unsigned ribOuts = 2;
  unsigned paths = 20000;
  unsigned workers = 2;
  std::vector<unsigned> thresholds;  // RIB and RibOut path thresholds; none given: see thresholdsOf
};

// The RIB and RibOut thresholds of the run. Both count per VRF and per RibOut, so when none are
// given, half of a VRF's share of the burst is a threshold every VRF and RibOut reaches midway.
std::pair<U32, U32> thresholdsOf(const DemoOptions& opt) {
  if (opt.thresholds.size() == 2) return {opt.thresholds[0], opt.thresholds[1]};
  const U32 half = opt.paths / opt.vrfs / 2;
  return {half, half};
}

// The RibOut ids of a VRF: VRF v owns v * 100 + 1, v * 100 + 2, ...
U32 ribOutId(U32 vrf, unsigned k) { return vrf * 100 + k + 1; }

void processBurst(const DemoOptions& opt, TestTrackleControlBase& control, unsigned worker) {
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
    if (done % 64 == 63) std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
}

void runDemo(const DemoOptions& opt) {
  auto control = Kelp::makePtr<TestTrackleControlBase>();
  control->testControlStatusIs();
  Brim::DumpContext out(stdout);
  const auto [ribThreshold, ribOutThreshold] = thresholdsOf(opt);
  const U32 pathsBefore = 0;

  std::printf("$ show bgp instance internal events tracking start");
  if (ribThreshold != 0 || ribOutThreshold != 0) {
    std::printf(" advertise-threshold %u %u", ribThreshold, ribOutThreshold);
  }
  std::printf("\n");
  control->updateEventsTracking(out, eventsTrackingStart, ribThreshold, ribOutThreshold, pathsBefore);

  std::printf("\n(%u worker threads process %u paths over %u VRFs with %u RibOuts each; the command thread\n"
              " summarizes meanwhile)\n",
              opt.workers, opt.paths, opt.vrfs, opt.ribOuts);
  std::atomic<bool> done{false};
  std::vector<std::thread> workers;
  for (unsigned w = 0; w < opt.workers; ++w) {
    workers.emplace_back([&, w] { processBurst(opt, *control, w); });
  }
  unsigned summaries = 0;
  std::thread command([&] {
    std::string scratch;
    Brim::DumpContext ctx(scratch);
    while (!done.load()) {
      scratch.clear();
      control->updateEventsTracking(ctx, eventsTrackingSummary, 0, 0, pathsBefore);
      ++summaries;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  for (auto& t : workers) t.join();
  done = true;
  command.join();
  std::printf("(%u summaries taken while the workers ran)\n", summaries);
  std::this_thread::sleep_for(std::chrono::milliseconds(150));  // the operator looks a little later

  const U32 pathsAfter = pathsBefore + opt.paths;
  std::printf("\n$ show bgp instance internal events tracking summary\n");
  control->updateEventsTracking(out, eventsTrackingSummary, 0, 0, pathsAfter);
  std::printf("\n$ show bgp instance internal events tracking detail\n");
  control->printEventsTrackingDetail(out, pathsAfter);
  std::printf("\n$ show bgp instance internal events tracking stop\n");
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
  demo->callback([] { runDemo(opt); });
});

}  // namespace

#include "BgpCommon/BgpTestHelpers.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/Support/ValueConformance.h"

namespace Routing::Bgp {
namespace {

constexpr Kelp::Seconds T0 = 1700000000.0;  // 2023-11-14 22:13:20 UTC, 23:13:20 in CET-1

// Sets a RIB's or RibOut's processing stamps and returns it.
template <typename Stamps>
Stamps stamped(Stamps s, Kelp::Seconds start, Kelp::Seconds end, Kelp::Seconds reached) {
  s->processingStartIs(start);
  s->processingEndIs(end);
  s->thresholdReachedIs(reached);
  return s;
}

// A control class of the agent's, counting its hook calls.
struct AgentControl : TestTrackleControlBase {
  int resets = 0;
  void resetDerivedClassData() override { ++resets; }
};

// Reports are checked under a fixed time zone and a frozen "now", with a control that has its
// status and a report sink.
class EventsTracking : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "CET-1", 1);
    tzset();
    Kelp::currentTimeIs(T0 + 10.0);
  }
  void TearDown() override {
    Kelp::currentTimeDel();
    unsetenv("TZ");
    tzset();
  }

  // Two VRFs, three RibOuts; RibOut 20 has processed nothing yet, and only red's RIB has reached
  // its threshold.
  static void record(TestControlStatus& status) {
    auto blue = status.findOrCreateVrfData(1, true), red = status.findOrCreateVrfData(2, true);
    blue->vrfNameIs("blue");
    red->vrfNameIs("red");
    stamped(blue->timeStampsRib(), T0 + 0.5, T0 + 2.75, 0.0)->firstUpdateMessageIs(T0 + 0.25);
    stamped(red->timeStampsRib(), T0 + 1.0, T0 + 3.5, T0 + 1.5)->firstUpdateMessageIs(T0 + 0.125);
    auto r10 = status.findOrCreateRibOutData(1, 10, true), r11 = status.findOrCreateRibOutData(1, 11, true);
    stamped(r10->timeStampsRibOut(), T0 + 1.0, T0 + 4.0, T0 + 2.0);
    stamped(r11->timeStampsRibOut(), T0 + 0.75, T0 + 3.0, 0.0);
    r10->processedPathCntIs(1000);
    r11->processedPathCntInc(500);
    status.findOrCreateRibOutData(2, 20, true);
  }

  Kelp::Ptr<AgentControl> control = Kelp::makePtr<AgentControl>();
  Kelp::Ptr<TestControlStatus> status = control->testControlStatusIs();
  std::string out;
  Brim::DumpContext ctx{out};
};

TEST_F(EventsTracking, ConvertTimestamp) {
  struct Row { Kelp::Seconds t; bool micro; const char* text; };
  const Row rows[] = {
      {0.0, false, ""},  {1.5, false, "1970-01-01 01:00:01.500"},  // never, and the epoch in CET
      {T0 + 0.5, false, "2023-11-14 23:13:20.500"}, {T0 + 0.5, true, "2023-11-14 23:13:20.500000"},
      // Truncated, not rounded.
      {T0 + 0.99951171875, false, "2023-11-14 23:13:20.999"}, {T0 + 0.99951171875, true, "2023-11-14 23:13:20.999511"},
  };
  for (const Row& row : rows) EXPECT_EQ(convertTimestamp(row.t, row.micro), row.text) << row.t;
}

TEST_F(EventsTracking, SummaryAndDetailReports) {
  // Before any start: the not-started text, then the whole summary all the same. A zero time
  // prints as an empty field, durations without a last event as 0.000.
  control->updateEventsTracking(ctx, eventsTrackingSummary, 0, 0, 12);
  const std::string notStarted =
      "BGP Events Tracking has not been started.\n"
      "Use the following command to start BGP Events Tracking:\n"
      "   show bgp instance internal events tracking start\n"
      "      [ advertise-threshold <RIB-path-threshold> <RibOut-path-threshold> ]\n"
      "BGP Events Tracking Summary:\n"
      "Total paths in BGP RIB changed from 0 to 12\n"
      "\nNumber of Vrfs that processed events: \t 0\n"
      "  First update message received at: \t \n";
  EXPECT_EQ(out.substr(0, notStarted.size()), notStarted);
  EXPECT_NE(out.find("  RibOut idle time since last event:       \t 0.000 seconds\n"), std::string::npos) << out;

  control->updateEventsTracking(ctx, eventsTrackingStart, 1000, 500, 100);
  record(*status);
  out.clear();
  control->updateEventsTracking(ctx, eventsTrackingSummary, 0, 0, 1600);
  EXPECT_EQ(out,
            "BGP Events Tracking Summary:\n"
            "Total paths in BGP RIB changed from 100 to 1600\n"
            "\nNumber of Vrfs that processed events: \t 2\n"
            "  First update message received at: \t 2023-11-14 23:13:20.125\n"
            "  First event processed by RIB at:\t 2023-11-14 23:13:20.500\n"
            "  Last event processed by RIB at: \t 2023-11-14 23:13:23.500\n"
            "  RIB processing time since first event:\t 3.000 seconds\n"
            "  RIB idle time since last event:       \t 6.500 seconds\n"
            "  RIB processing time to reach 1000 paths threshold:\t 1.000 seconds\n"
            "\nNumber of RibOuts that processed events: \t 2\n"  // the VRF count, as the report has it
            "  First event processed by RibOut at:\t 2023-11-14 23:13:20.750\n"
            "  Last event processed by RibOut at: \t 2023-11-14 23:13:24.000\n"
            "  RibOut processing time since first event:\t 3.250 seconds\n"
            "  RibOut idle time since last event:       \t 6.000 seconds\n"
            "  RibOut processing time to reach 500 paths threshold:\t 1.250 seconds\n");

  control->updateEventsTracking(ctx, eventsTrackingStop, 0, 0, 0);  // the data stays; thresholds go
  status->vrfDataDel(2);
  status->vrfData(1)->ribOutDataDel(11);
  control->ribAddThresholdIs(1000);
  control->ribOutPathAdvertiseThresholdIs(500);
  out.clear();
  control->printEventsTrackingDetail(ctx, 1600);
  EXPECT_EQ(out,
            "BGP Events Tracking Detail:\n"
            "Total paths in BGP RIB changed from 100 to 1600\n"
            "\nVrf Name : \t blue\n"
            "  First update message received at: \t 2023-11-14 23:13:20.250\n"
            "  First event processed by RIB at:\t 2023-11-14 23:13:20.500\n"
            "  Last event processed by RIB at: \t 2023-11-14 23:13:22.750\n"
            "  RIB processing time since first event:\t 2.250 seconds\n"
            "  RIB idle time since last event:       \t 7.250 seconds\n"
            "  RIB processing time to reach 1000 paths threshold:\t 0.000 seconds\n"
            "\nRibOut Id : \t 10\n"
            "  Number of paths processed:\t 1000\n"
            "  First event processed by RibOut at:\t 2023-11-14 23:13:21.000\n"
            "  Last event processed by RibOut at: \t 2023-11-14 23:13:24.000\n"
            "  RibOut processing time since first event:\t 3.000 seconds\n"
            "  RibOut idle time since last event:       \t 6.000 seconds\n"
            "  RibOut processing time to reach 500 paths threshold:\t 1.000 seconds\n");

  // A stored 4294967295 means "no threshold": the lines are left out.
  control->ribAddThresholdIs(TestTrackleControlBase::kNoThreshold);
  control->ribOutPathAdvertiseThresholdIs(0);
  out.clear();
  control->printEventsTrackingDetailOneVrf(ctx, status->vrfData(1));
  EXPECT_EQ(out.find("threshold"), std::string::npos) << out;
  EXPECT_EQ(out.substr(0, 20), "\nVrf Name : \t blue\n ");
}

// Every stamp of mine / other; the merged starts / ends. An unset stamp takes the other's, a set
// one keeps its own against "never".
TEST_F(EventsTracking, MergingKeepsEarliestStartsAndLatestEnds) {
  struct Row { Kelp::Seconds mine, other, start, end; };
  const Row rows[] = {{0.0, 0.0, 0.0, 0.0}, {0.0, 5.0, 5.0, 5.0}, {5.0, 0.0, 5.0, 5.0}, {5.0, 3.0, 3.0, 5.0},
                      {3.0, 5.0, 3.0, 5.0}};
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.mine << " " << row.other);
    auto mine = stamped(Kelp::makePtr<TestTimeStampsRib>(), row.mine, row.mine, row.mine);
    auto other = stamped(Kelp::makePtr<TestTimeStampsRib>(), row.other, row.other, row.other);
    mine->firstUpdateMessageIs(row.mine);
    other->firstUpdateMessageIs(row.other);
    mine->updateEventsTrackingResult(other);
    EXPECT_EQ(mine->firstUpdateMessage(), row.start);
    EXPECT_EQ(mine->processingStart(), row.start);
    EXPECT_EQ(mine->processingEnd(), row.end);
    EXPECT_EQ(mine->thresholdReached(), row.end);
  }
}

TEST_F(EventsTracking, StartAndStop) {
  std::vector<std::string> changes;
  Kelp::FunctionNotifiee watcher([&](std::string_view attr) { changes.emplace_back(attr); });
  control->notifiees().notifieeIs(&watcher);
  auto next = [&] { out.clear(), changes.clear(); };
  // The report line, the thresholds, the start epoch, whether enabled, and the agent's resets.
  auto state = [&] {
    return out + std::to_string(control->ribAddThreshold()) + " " + std::to_string(control->ribOutPathAdvertiseThreshold()) +
           " " + std::to_string(control->peerFirstUpdateMessageEpoch()) + (control->eventsTrackingEnabled() ? " on " : " off ") +
           std::to_string(control->resets);
  };
  control->updateEventsTracking(ctx, eventsTrackingStart, 0, 0, 5);
  EXPECT_EQ(state(), "Starting BGP Events Tracking\n4294967295 4294967295 1 on 1");  // no thresholds given
  EXPECT_EQ(changes, (std::vector<std::string>{"prevBribPathsCount", "ribAddThreshold", "ribOutPathAdvertiseThreshold",
                                               "peerFirstUpdateMessageEpoch", "eventsTrackingEnabled"}));

  // A second start keeps the first thresholds but clears the data. Tracking is disabled and enabled
  // again; the path count did not change, so it is not announced.
  status->findOrCreateRibOutData(4, 40, true);
  next();
  control->updateEventsTracking(ctx, eventsTrackingStart, 7, 8, 5);
  EXPECT_EQ(state(), "Starting BGP Events Tracking\n4294967295 4294967295 2 on 2");
  EXPECT_TRUE(status->vrfData().empty());
  EXPECT_EQ(changes, (std::vector<std::string>{"eventsTrackingEnabled", "peerFirstUpdateMessageEpoch",
                                               "eventsTrackingEnabled"}));

  // Stop keeps the data.
  status->findOrCreateRibOutData(4, 40, true);
  next();
  control->updateEventsTracking(ctx, eventsTrackingStop, 1, 2, 3);
  EXPECT_EQ(state(), "Stopping BGP Events Tracking\n0 0 2 off 2");
  EXPECT_EQ(changes, (std::vector<std::string>{"eventsTrackingEnabled", "ribAddThreshold", "ribOutPathAdvertiseThreshold"}));
  EXPECT_NE(status->findOrCreateRibOutData(4, 40, false), nullptr);
  next();
  control->updateEventsTracking(ctx, eventsTrackingStart, 7, 8, 5);
  EXPECT_EQ(state(), "Starting BGP Events Tracking\n7 8 3 on 3");

  // Operations above detail are ignored.
  next();
  for (unsigned op : {5u, 6u, 255u}) control->updateEventsTracking(ctx, static_cast<EventsTrackingOp>(op), 1, 2, 3);
  EXPECT_EQ(state(), "7 8 3 on 3");
  EXPECT_TRUE(changes.empty());
}

TEST_F(EventsTracking, NoneAndDetailAreNotCommandOperations) {
  const char* report = "BgpCommon/BgpTestHelpers:[0-9]+: .*updateEventsTracking.*Assertion `0' failed";
  EXPECT_DEATH(control->updateEventsTracking(ctx, eventsTrackingNone, 0, 0, 0), report);
  EXPECT_DEATH(control->updateEventsTracking(ctx, eventsTrackingDetail, 0, 0, 0), report);
}

TEST_F(EventsTracking, Collections) {
  // Lookups without create make nothing; find-or-create makes an entry with its stamps once.
  EXPECT_EQ(status->findOrCreateRibOutData(9, 1, false), nullptr);
  EXPECT_TRUE(status->vrfData().empty());
  auto ribOut = status->findOrCreateRibOutData(9, 1, true);
  auto vrf = status->vrfData(9);
  ASSERT_TRUE(vrf && vrf->timeStampsRib() && ribOut->timeStampsRibOut());
  EXPECT_EQ(status->findOrCreateRibOutData(9, 2, false), nullptr);  // the VRF exists, the RibOut not
  EXPECT_EQ(status->findOrCreateRibOutData(9, 1, true), ribOut);
  // VRF names: at most 100 bytes; a longer one is refused and changes nothing.
  vrf->vrfNameIs(std::string(100, 'v'));
  EXPECT_EQ(testing_support::rangeMessage([&] { vrf->vrfNameIs(std::string(101, 'w')); }),
            "Kelp::String::bytes > maxLength() not allowed");
  EXPECT_EQ(vrf->vrfName(), std::string(100, 'v'));
}

// Processing threads record while the command thread starts, summarizes and prints the detail.
TEST_F(EventsTracking, RecordingWhileReporting) {
  Kelp::currentTimeDel();
  control->updateEventsTracking(ctx, eventsTrackingStart, 50, 20, 0);
  constexpr U32 kVrfs = 4;
  std::atomic<bool> done{false};
  std::atomic<int> recorded{0};  // iterations of all workers
  std::atomic<int> restarts{0};  // starts the command thread made while workers recorded
  std::vector<std::thread> workers;
  for (U32 w = 0; w < 3; ++w) {
    workers.emplace_back([&, w] {
      // Record until the command thread has restarted twice, and then some more, so that the data
      // collected since the last restart covers every VRF.
      for (U32 i = 0, seen = 0, since = 0; seen < 2 || since < 400; ++i, ++since, ++recorded) {
        if (const U32 r = restarts.load(); r != seen) seen = r, since = 0;
        if (!control->eventsTrackingEnabled()) continue;
        const U32 vrfId = (i + w) % kVrfs;
        auto vrf = status->findOrCreateVrfData(vrfId, true);
        const Kelp::Seconds now = Kelp::currentTime();
        vrf->timeStampsRib()->noteUpdateMessage(now);
        vrf->timeStampsRib()->noteEventProcessed(now);
        if (vrf->numBribPathsInc(1) == control->ribAddThreshold()) vrf->timeStampsRib()->noteThresholdReached(now);
        if (i % 10 == 0) vrf->vrfNameIs("vrf" + std::to_string(vrfId));
        auto ribOut = status->findOrCreateRibOutData(vrfId, i % 3, true);
        ribOut->timeStampsRibOut()->noteEventProcessed(now);
        if (ribOut->processedPathCntInc(1) == static_cast<std::int32_t>(control->ribOutPathAdvertiseThreshold())) {
          ribOut->timeStampsRibOut()->noteThresholdReached(now);
        }
      }
    });
  }
  std::thread command([&] {
    while (!done.load()) {
      out.clear();
      if (const int r = restarts.load(); r < 2 && recorded.load() >= (r + 1) * 1000) {
        control->updateEventsTracking(ctx, eventsTrackingStart, 50, 20, 0);
        restarts.store(r + 1);
      }
      control->updateEventsTracking(ctx, eventsTrackingSummary, 0, 0, 100);
      control->printEventsTrackingDetail(ctx, 100);
    }
  });
  for (auto& t : workers) t.join();
  done = true;
  command.join();

  // The summary agrees with the collections, and every recorded entry has sane stamps.
  auto summary = status->summarizeEventsTrackingData();
  EXPECT_EQ(summary->numVrfs(), kVrfs);
  U32 ribOuts = 0;
  for (const auto& [id, vrf] : status->vrfData()) {
    ribOuts += static_cast<U32>(vrf->ribOutData().size());
    auto rib = vrf->timeStampsRib();
    EXPECT_TRUE(rib->processingStart() > 0.0 && rib->processingStart() <= rib->processingEnd());
    EXPECT_LE(summary->timeStampsRib()->processingStart(), rib->processingStart());
    EXPECT_GE(summary->timeStampsRib()->processingEnd(), rib->processingEnd());
    EXPECT_EQ(vrf->vrfName(), "vrf" + std::to_string(id));
  }
  EXPECT_EQ(summary->numRibOuts(), ribOuts);
  EXPECT_NE(out.find("BGP Events Tracking Detail:"), std::string::npos);
}

// A report sink that stops at the first VRF block until released, as a slow terminal would.
struct StallingSink {
  std::mutex mutex;
  std::condition_variable changed;
  bool stalled = false, released = false;
  static ssize_t write(void* cookie, const char* data, std::size_t size) {
    auto* self = static_cast<StallingSink*>(cookie);
    std::unique_lock<std::mutex> lock(self->mutex);
    if (std::string_view(data, size).find("Vrf Name") != std::string_view::npos) {
      self->stalled = true;
      self->changed.notify_all();
      self->changed.wait_for(lock, std::chrono::seconds(30), [self] { return self->released; });
    }
    return static_cast<ssize_t>(size);
  }
};

// The detail report prints outside the status mutex: a stalled sink does not stall processing.
TEST_F(EventsTracking, SlowDetailSinkDoesNotBlockRecording) {
  record(*status);
  StallingSink sink;
  std::FILE* file = fopencookie(&sink, "w", cookie_io_functions_t{nullptr, &StallingSink::write, nullptr, nullptr});
  ASSERT_NE(file, nullptr);
  std::setvbuf(file, nullptr, _IONBF, 0);
  std::thread reporter([&] {
    Brim::DumpContext slow(file);
    control->printEventsTrackingDetail(slow, 100);
  });
  {
    std::unique_lock<std::mutex> lock(sink.mutex);
    ASSERT_TRUE(sink.changed.wait_for(lock, std::chrono::seconds(30), [&] { return sink.stalled; }));
  }
  auto recording = std::async(std::launch::async, [&] {
    status->findOrCreateRibOutData(3, 30, true)->timeStampsRibOut()->noteEventProcessed(T0 + 5.0);
  });
  EXPECT_EQ(recording.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  {
    std::lock_guard<std::mutex> lock(sink.mutex);
    sink.released = true;
    sink.changed.notify_all();
  }
  recording.wait();
  reporter.join();
  std::fclose(file);
}

}  // namespace
}  // namespace Routing::Bgp

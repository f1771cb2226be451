#pragma once
// Events tracking: how fast the RIB and the RibOuts work through a burst of updates.
//
// An operator starts tracking with
//   show bgp instance internal events tracking start [ advertise-threshold <RIB> <RibOut> ]
// and the agent's processing threads then stamp, per VRF, when the first update message arrived
// and when the RIB processed its first and last event (and when the VRF's RIB reached the RIB path
// threshold), and per RibOut the same for advertisement. A later summary or detail command prints
// how long processing took and how long each has been idle since.
//
//   TestTrackleControlBase        the control object the command handler drives (start, stop,
//                                 summary) and the agent derives its own control class from;
//   TestControlStatus             the collected data: VRFs by id, each with its RIB stamps and its
//                                 RibOuts by id, each with its RibOut stamps;
//   TestTimeStampsRib/RibOut      the stamps (Kelp::Seconds, 0.0 = not yet);
//   TestControlSummaryResult      all VRFs' and RibOuts' stamps merged, for the summary.
//
//   auto control = Kelp::makePtr<TestTrackleControlBase>();
//   control->testControlStatusIs();
//   control->updateEventsTracking(ctx, eventsTrackingStart, 1000, 500, bribPaths);
//   // processing threads:
//   auto vrf = control->testControlStatus()->findOrCreateVrfData(vrfId, true);
//   vrf->timeStampsRib()->noteEventProcessed(Kelp::currentTime());
//   // command thread:
//   control->updateEventsTracking(ctx, eventsTrackingSummary, 0, 0, bribPaths);
//
// Threads: processing threads record while the command thread starts, stops and reports. The
// TestControlStatus mutex is held for the whole of findOrCreateVrfData, findOrCreateRibOutData,
// deleteAllEventsTrackingData, summarizeEventsTrackingData and while the detail report collects the
// entries it prints (never while it prints them); the stamps,
// counters and control fields that processing threads touch outside it are atomic. The control
// object's fields are changed (and its notifiees told) only by the command path, and the
// status must be in place (testControlStatusIs()) before processing threads look it up.

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string_view>
#include <vector>

#include "platform/Brim/DumpContext.h"
#include "platform/Kelp/EnumType.h"
#include "platform/Kelp/HashMap2018.h"
#include "platform/Kelp/Notifiee.h"
#include "platform/Kelp/Ptr.h"
#include "platform/Kelp/Time.h"
#include "platform/Pico/Integers.h"
#include "platform/Routing/VrfId.h"

namespace Routing::Bgp {

// The operations of the events tracking command.
KELP_ENUM(enum, EventsTrackingOp, U8, "Routing::Bgp::EventsTrackingOp", named,
          eventsTrackingNone = 0,
          eventsTrackingStart = 1,
          eventsTrackingStop = 2,
          eventsTrackingSummary = 3,
          eventsTrackingDetail = 4)

// "YYYY-MM-DD hh:mm:ss.mmm" (or ".uuuuuu" with `micro`) in local time, the fraction truncated;
// the empty string for 0.0 (never).
Kelp::String convertTimestamp(Kelp::Seconds t, bool micro);

// One time stamp that processing threads write while the command thread reads it.
class TrackingStamp {
 public:
  Kelp::Seconds get() const { return t_.load(std::memory_order_relaxed); }
  void set(Kelp::Seconds t) { t_.store(t, std::memory_order_relaxed); }
  // Stores `t` only while the stamp is 0.0 (the first event wins).
  void setIfUnset(Kelp::Seconds t) {
    Kelp::Seconds unset = 0.0;
    t_.compare_exchange_strong(unset, t, std::memory_order_relaxed);
  }
  // Stores `t` when it is later than the stamp (the last event wins).
  void raiseTo(Kelp::Seconds t) {
    Kelp::Seconds cur = get();
    while (t > cur && !t_.compare_exchange_weak(cur, t, std::memory_order_relaxed)) {
    }
  }
  // Merging: an unset stamp takes the other's (even 0.0); two set stamps keep the earlier.
  void mergeEarliest(Kelp::Seconds other) {
    Kelp::Seconds cur = get();
    if (cur == 0.0 || (other != 0.0 && other < cur)) set(other);
  }

 private:
  std::atomic<Kelp::Seconds> t_{0.0};
};

// The stamps a RIB and a RibOut both keep: when processing started and ended, and when the number of
// paths reached the tracking threshold.
class ProcessingStamps {
 public:
  // When the first event was processed.
  Kelp::Seconds processingStart() const { return processingStart_.get(); }
  void processingStartIs(Kelp::Seconds t) { processingStart_.set(t); }
  // When the last event was processed.
  Kelp::Seconds processingEnd() const { return processingEnd_.get(); }
  void processingEndIs(Kelp::Seconds t) { processingEnd_.set(t); }
  // When the paths reached the threshold.
  Kelp::Seconds thresholdReached() const { return thresholdReached_.get(); }
  void thresholdReachedIs(Kelp::Seconds t) { thresholdReached_.set(t); }

  // For processing threads: an event was processed / the threshold was reached at `now`. The start
  // and the threshold keep the first time, the end the last.
  void noteEventProcessed(Kelp::Seconds now) {
    processingStart_.setIfUnset(now);
    processingEnd_.raiseTo(now);
  }
  void noteThresholdReached(Kelp::Seconds now) { thresholdReached_.setIfUnset(now); }

 protected:
  // The earliest start, the latest end and threshold time of the two.
  void mergeProcessing(const ProcessingStamps& other) {
    processingStart_.mergeEarliest(other.processingStart());
    processingEnd_.raiseTo(other.processingEnd());
    thresholdReached_.raiseTo(other.thresholdReached());
  }

 private:
  TrackingStamp processingStart_;
  TrackingStamp processingEnd_;
  TrackingStamp thresholdReached_;
};

// A RIB's stamps: processing, plus when the first update message arrived.
class TestTimeStampsRib : public Kelp::PtrInterface, public ProcessingStamps {
 public:
  // When the first update message was received.
  Kelp::Seconds firstUpdateMessage() const { return firstUpdateMessage_.get(); }
  void firstUpdateMessageIs(Kelp::Seconds t) { firstUpdateMessage_.set(t); }
  void noteUpdateMessage(Kelp::Seconds now) { firstUpdateMessage_.setIfUnset(now); }

  // Merges `other` into this: the earliest first update and processing start, the latest
  // processing end and threshold time.
  void updateEventsTrackingResult(const Kelp::Ptr<const TestTimeStampsRib>& other);
  // The stamps, the processing and idle times and, for a non-zero threshold, the time it took to
  // reach it.
  void printTimeStamps(Brim::DumpContext& ctx, U32 threshold) const;

 private:
  TrackingStamp firstUpdateMessage_;
};

// A RibOut's stamps: processing only.
class TestTimeStampsRibOut : public Kelp::PtrInterface, public ProcessingStamps {
 public:
  void updateEventsTrackingResult(const Kelp::Ptr<const TestTimeStampsRibOut>& other) { mergeProcessing(*other); }
  void printTimeStamps(Brim::DumpContext& ctx, U32 threshold) const;
};

class TestControlStatusRibOut : public Kelp::PtrInterface {
 public:
  explicit TestControlStatusRibOut(U32 ribOutId) : ribOutId_(ribOutId) {}

  U32 ribOutId() const { return ribOutId_; }

  const Kelp::Ptr<TestTimeStampsRibOut>& timeStampsRibOut() const { return timeStampsRibOut_; }
  // Gives the RibOut a new, unset stamps object and returns it.
  Kelp::Ptr<TestTimeStampsRibOut> timeStampsRibOutIs();
  void timeStampsRibOutDel() { timeStampsRibOut_ = nullptr; }

  // Paths this RibOut processed.
  std::int32_t processedPathCnt() const { return processedPathCnt_.load(std::memory_order_relaxed); }
  void processedPathCntIs(std::int32_t n) { processedPathCnt_.store(n, std::memory_order_relaxed); }
  // Adds `n` and returns the new count.
  std::int32_t processedPathCntInc(std::int32_t n) {
    return processedPathCnt_.fetch_add(n, std::memory_order_relaxed) + n;
  }

  // "RibOut Id", the processed paths and the stamps.
  void printEventsTrackingDetail(Brim::DumpContext& ctx, U32 ribOutThreshold) const;

 private:
  const U32 ribOutId_;
  Kelp::Ptr<TestTimeStampsRibOut> timeStampsRibOut_;
  std::atomic<std::int32_t> processedPathCnt_{0};
};

class TestControlStatusVrf : public Kelp::PtrInterface {
 public:
  using RibOutMap = Kelp::HashMap2018<U32, Kelp::Ptr<TestControlStatusRibOut>>;
  static constexpr std::size_t kVrfNameMaxLength = 100;

  explicit TestControlStatusVrf(Vrf::VrfIdMap::VrfId vrfId);

  Vrf::VrfIdMap::VrfId vrfId() const { return vrfId_; }

  Kelp::String vrfName() const;
  // Names longer than 100 bytes are refused with RangeException
  // "Kelp::String::bytes > maxLength() not allowed" and the name is left as it was.
  void vrfNameIs(const Kelp::String& name);

  // Paths of this VRF in the BGP RIB, kept for the agent.
  U32 numBribPaths() const { return numBribPaths_.load(std::memory_order_relaxed); }
  void numBribPathsIs(U32 n) { numBribPaths_.store(n, std::memory_order_relaxed); }
  U32 numBribPathsInc(U32 n) { return numBribPaths_.fetch_add(n, std::memory_order_relaxed) + n; }

  const Kelp::Ptr<TestTimeStampsRib>& timeStampsRib() const { return timeStampsRib_; }
  // Gives the VRF a new, unset stamps object and returns it.
  Kelp::Ptr<TestTimeStampsRib> timeStampsRibIs();
  void timeStampsRibDel() { timeStampsRib_ = nullptr; }

  // The RibOuts, by id. Changed under the TestControlStatus mutex (see findOrCreateRibOutData).
  Kelp::Ptr<TestControlStatusRibOut> ribOutData(U32 ribOutId) const;
  // The RibOut entry, made (without stamps) when absent.
  Kelp::Ptr<TestControlStatusRibOut> ribOutDataIs(U32 ribOutId);
  void ribOutDataDel(U32 ribOutId) { ribOutData_.erase(ribOutId); }
  void ribOutDataDelAll() { ribOutData_.clear(); }
  const RibOutMap& ribOutData() const { return ribOutData_; }

  // "Vrf Name" and the RIB stamps.
  void printEventsTrackingDetail(Brim::DumpContext& ctx, U32 ribThreshold) const;

 private:
  const Vrf::VrfIdMap::VrfId vrfId_;
  mutable std::mutex nameMutex_;  // the name may be set while a report reads it
  Kelp::String vrfName_;
  std::atomic<U32> numBribPaths_{0};
  Kelp::Ptr<TestTimeStampsRib> timeStampsRib_;
  RibOutMap ribOutData_;
};

class TestControlSummaryResult : public Kelp::PtrInterface {
 public:
  U32 numVrfs() const { return numVrfs_; }
  U32 numVrfsInc(U32 n) { return numVrfs_ += n; }
  U32 numRibOuts() const { return numRibOuts_; }
  U32 numRibOutsInc(U32 n) { return numRibOuts_ += n; }

  const Kelp::Ptr<TestTimeStampsRib>& timeStampsRib() const { return timeStampsRib_; }
  Kelp::Ptr<TestTimeStampsRib> timeStampsRibIs();
  const Kelp::Ptr<TestTimeStampsRibOut>& timeStampsRibOut() const { return timeStampsRibOut_; }
  Kelp::Ptr<TestTimeStampsRibOut> timeStampsRibOutIs();

  // The VRF count, the merged RIB stamps, the RibOut count line and the merged RibOut stamps.
  void printEventsTrackingSummary(Brim::DumpContext& ctx, U32 ribThreshold, U32 ribOutThreshold) const;

 private:
  U32 numVrfs_ = 0;
  U32 numRibOuts_ = 0;
  Kelp::Ptr<TestTimeStampsRib> timeStampsRib_;
  Kelp::Ptr<TestTimeStampsRibOut> timeStampsRibOut_;
};

class TestControlStatus : public Kelp::PtrInterface {
 public:
  using VrfMap = Kelp::HashMap2018<Vrf::VrfIdMap::VrfId, Kelp::Ptr<TestControlStatusVrf>>;

  TestControlStatus();

  // Plain accessors of the VRF collection; they take no lock (the operations below do).
  Kelp::Ptr<TestControlStatusVrf> vrfData(Vrf::VrfIdMap::VrfId vrfId) const;
  // The VRF entry, made (without stamps) when absent.
  Kelp::Ptr<TestControlStatusVrf> vrfDataIs(Vrf::VrfIdMap::VrfId vrfId);
  void vrfDataDel(Vrf::VrfIdMap::VrfId vrfId) { vrfData_.erase(vrfId); }
  void vrfDataDelAll() { vrfData_.clear(); }
  const VrfMap& vrfData() const { return vrfData_; }

  // Under the mutex: the VRF entry; with `create`, a missing one is made with its RIB stamps.
  // Null when absent and not to be created.
  Kelp::Ptr<TestControlStatusVrf> findOrCreateVrfData(Vrf::VrfIdMap::VrfId vrfId, bool create);
  // Under the mutex: the RibOut entry of the VRF; with `create`, a missing VRF or RibOut is made
  // with its stamps. Null when either is absent and not to be created (nothing is made then).
  Kelp::Ptr<TestControlStatusRibOut> findOrCreateRibOutData(Vrf::VrfIdMap::VrfId vrfId, U32 ribOutId,
                                                            bool create);
  // Under the mutex: forgets every VRF.
  void deleteAllEventsTrackingData();
  // Under the mutex: counts the VRFs and RibOuts and merges their stamps.
  Kelp::Ptr<TestControlSummaryResult> summarizeEventsTrackingData();
  // One VRF as the detail report shows it: the entry and its RibOuts in ascending id order.
  struct VrfInOrder {
    Kelp::Ptr<TestControlStatusVrf> vrf;
    std::vector<Kelp::Ptr<TestControlStatusRibOut>> ribOuts;
  };
  // Under the mutex: every VRF in ascending id order, with its RibOuts. The entries are shared,
  // not copied: their stamps and counters may be read and printed without the mutex.
  std::vector<VrfInOrder> vrfsAndRibOutsInOrder() const;

 private:
  std::vector<Kelp::Ptr<TestControlStatusVrf>> vrfsInOrder() const;

  mutable std::mutex mutex_;  // guards vrfData_ and the collections below it
  VrfMap vrfData_;
};

class TestTrackleControlBase : public Kelp::PtrInterface {
 public:
  // Stored for thresholds that were not given: no threshold, reported as 0.
  static constexpr U32 kNoThreshold = 4294967295u;

  TestTrackleControlBase() = default;

  // Every setter stores and tells the notifiees (attribute named as the field) only on a change.
  // Increased by 1 at every start.
  U32 peerFirstUpdateMessageEpoch() const { return load(peerFirstUpdateMessageEpoch_); }
  void peerFirstUpdateMessageEpochIs(U32 v) { store(peerFirstUpdateMessageEpoch_, v, "peerFirstUpdateMessageEpoch"); }
  // RibOut paths to advertise before the RibOut threshold time is stamped; 0 = not started.
  U32 ribOutPathAdvertiseThreshold() const { return load(ribOutPathAdvertiseThreshold_); }
  void ribOutPathAdvertiseThresholdIs(U32 v) {
    store(ribOutPathAdvertiseThreshold_, v, "ribOutPathAdvertiseThreshold");
  }
  U32 ribOutPathWithdrawThreshold() const { return load(ribOutPathWithdrawThreshold_); }
  void ribOutPathWithdrawThresholdIs(U32 v) {
    store(ribOutPathWithdrawThreshold_, v, "ribOutPathWithdrawThreshold");
  }
  // RIB paths to add before the RIB threshold time is stamped; 0 = not started.
  U32 ribAddThreshold() const { return load(ribAddThreshold_); }
  void ribAddThresholdIs(U32 v) { store(ribAddThreshold_, v, "ribAddThreshold"); }
  U32 ribRemoveThreshold() const { return load(ribRemoveThreshold_); }
  void ribRemoveThresholdIs(U32 v) { store(ribRemoveThreshold_, v, "ribRemoveThreshold"); }
  // Paths in the BGP RIB when tracking was started.
  U32 prevBribPathsCount() const { return load(prevBribPathsCount_); }
  void prevBribPathsCountIs(U32 v) { store(prevBribPathsCount_, v, "prevBribPathsCount"); }
  bool eventsTrackingEnabled() const { return eventsTrackingEnabled_.load(std::memory_order_acquire); }
  void eventsTrackingEnabledIs(bool v);

  const Kelp::Ptr<TestControlStatus>& testControlStatus() const { return testControlStatus_; }
  // Makes a new, empty status and stores it.
  Kelp::Ptr<TestControlStatus> testControlStatusIs();
  void testControlStatusDel();

  Kelp::NotifieeList& notifiees() { return notifiees_; }

  // The command entry: start (a RIB path threshold, b RibOut path threshold, c paths in the BGP
  // RIB), stop, or summary (c paths in the BGP RIB). None and detail are not accepted here (fatal);
  // values above detail are ignored.
  void updateEventsTracking(Brim::DumpContext& ctx, EventsTrackingOp op, U32 a, U32 b, U32 c);
  void updateEventsTrackingStart(Brim::DumpContext& ctx, U32 ribThreshold, U32 ribOutThreshold,
                                 U32 currentPaths);
  void updateEventsTrackingStop(Brim::DumpContext& ctx);
  void updateEventsTrackingSummary(Brim::DumpContext& ctx, U32 currentPaths);

  // The not-started notice (when neither threshold is set), the title and the total-paths line.
  void printEventsTrackingHeader(Brim::DumpContext& ctx, U32 currentPaths, bool summary) const;
  // One VRF and its RibOuts (in ascending id order).
  void printEventsTrackingDetailOneVrf(Brim::DumpContext& ctx, const Kelp::Ptr<TestControlStatusVrf>& vrf) const;
  void printEventsTrackingDetailOneVrf(Brim::DumpContext& ctx, const TestControlStatus::VrfInOrder& entry) const;
  // The detail report: the header, then every VRF in ascending id order. The VRFs and RibOuts are
  // collected under the status mutex and printed after it is released, so that processing
  // threads never wait for the report's sink.
  void printEventsTrackingDetail(Brim::DumpContext& ctx, U32 currentPaths) const;

  // Hooks for the agent's derived control class; empty here.
  virtual void resetDerivedClassData() {}
  virtual void printDerivedClassData(Brim::DumpContext& ctx) const { (void)ctx; }

 private:
  static U32 load(const std::atomic<U32>& f) { return f.load(std::memory_order_acquire); }
  void store(std::atomic<U32>& f, U32 v, std::string_view attr) {
    if (f.load(std::memory_order_relaxed) == v) return;
    f.store(v, std::memory_order_release);
    notifiees_.notify(attr);
  }
  // A threshold as reported: the stored value, 0 for "no threshold".
  static U32 reported(U32 threshold) { return threshold == kNoThreshold ? 0 : threshold; }

  std::atomic<U32> peerFirstUpdateMessageEpoch_{0};
  std::atomic<U32> ribOutPathAdvertiseThreshold_{0};
  std::atomic<U32> ribOutPathWithdrawThreshold_{0};
  std::atomic<U32> ribAddThreshold_{0};
  std::atomic<U32> ribRemoveThreshold_{0};
  Kelp::Ptr<TestControlStatus> testControlStatus_;
  std::atomic<U32> prevBribPathsCount_{0};
  std::atomic<bool> eventsTrackingEnabled_{false};
  Kelp::NotifieeList notifiees_;
};

}  // namespace Routing::Bgp

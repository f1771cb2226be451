#include "BgpCommon/BgpTestHelpers.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "platform/Kelp/Registry.h"
#include "platform/Pico/Assert.h"

namespace Routing::Bgp {

namespace {

// Seeds of the VRF and RibOut collections (each mixed with the process seed).
constexpr U32 kVrfDataSeed = 0x7e57a1f;
constexpr U32 kRibOutDataSeed = 0x7e57b0d;

// The lines of one stamps block; the RIB and the RibOut blocks differ only in their words.
struct StampTexts {
  const char* firstEvent;
  const char* lastEvent;
  const char* processingTime;
  const char* idleTime;
  const char* thresholdTime;
};

constexpr StampTexts kRibTexts = {
    "  First event processed by RIB at:\t %s\n",
    "  Last event processed by RIB at: \t %s\n",
    "  RIB processing time since first event:\t %.3f seconds\n",
    "  RIB idle time since last event:       \t %.3f seconds\n",
    "  RIB processing time to reach %u paths threshold:\t %.3f seconds\n",
};

constexpr StampTexts kRibOutTexts = {
    "  First event processed by RibOut at:\t %s\n",
    "  Last event processed by RibOut at: \t %s\n",
    "  RibOut processing time since first event:\t %.3f seconds\n",
    "  RibOut idle time since last event:       \t %.3f seconds\n",
    "  RibOut processing time to reach %u paths threshold:\t %.3f seconds\n",
};

void printStamps(Brim::DumpContext& ctx, const StampTexts& texts, Kelp::Seconds start, Kelp::Seconds end,
                 Kelp::Seconds reached, U32 threshold) {
  ctx.printf(texts.firstEvent, convertTimestamp(start, false).c_str());
  ctx.printf(texts.lastEvent, convertTimestamp(end, false).c_str());
  // Nothing processed yet: no processing time and no idle time.
  double processing = 0.0;
  double idle = 0.0;
  if (end != 0.0) {
    processing = end - start;
    idle = Kelp::currentTime() - end;
  }
  ctx.printf(texts.processingTime, processing);
  ctx.printf(texts.idleTime, idle);
  if (threshold != 0) ctx.printf(texts.thresholdTime, threshold, reached != 0.0 ? reached - start : 0.0);
}

template <typename Map>
auto inIdOrder(const Map& map) {
  std::vector<std::pair<typename Map::key_type, typename Map::mapped_type>> out(map.begin(), map.end());
  std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<typename Map::mapped_type> values;
  values.reserve(out.size());
  for (auto& [id, v] : out) values.push_back(std::move(v));
  return values;
}

}  // namespace

Kelp::String convertTimestamp(Kelp::Seconds t, bool micro) {
  if (t == 0.0) return {};
  const double whole = std::trunc(t);
  const double fraction = std::fabs(t - whole);
  const Kelp::LocalTime lt = Kelp::localTime(static_cast<std::int64_t>(whole));
  char buf[64];
  if (micro) {
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d.%06u", lt.year, lt.month, lt.day, lt.hour,
                  lt.minute, lt.second, static_cast<unsigned>(fraction * 1000000));
  } else {
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d.%03u", lt.year, lt.month, lt.day, lt.hour,
                  lt.minute, lt.second, static_cast<unsigned>(fraction * 1000));
  }
  return buf;
}

// ---- Stamps ----------------------------------------------------------------------------------

void TestTimeStampsRib::updateEventsTrackingResult(const Kelp::Ptr<const TestTimeStampsRib>& other) {
  firstUpdateMessage_.mergeEarliest(other->firstUpdateMessage());
  mergeProcessing(*other);
}

void TestTimeStampsRib::printTimeStamps(Brim::DumpContext& ctx, U32 threshold) const {
  ctx.printf("  First update message received at: \t %s\n", convertTimestamp(firstUpdateMessage(), false).c_str());
  printStamps(ctx, kRibTexts, processingStart(), processingEnd(), thresholdReached(), threshold);
}

void TestTimeStampsRibOut::printTimeStamps(Brim::DumpContext& ctx, U32 threshold) const {
  printStamps(ctx, kRibOutTexts, processingStart(), processingEnd(), thresholdReached(), threshold);
}

// ---- RibOut and VRF entries -----------------------------------------------------------------

Kelp::Ptr<TestTimeStampsRibOut> TestControlStatusRibOut::timeStampsRibOutIs() {
  timeStampsRibOut_ = Kelp::makePtr<TestTimeStampsRibOut>();
  return timeStampsRibOut_;
}

void TestControlStatusRibOut::printEventsTrackingDetail(Brim::DumpContext& ctx, U32 ribOutThreshold) const {
  ctx.printf("\nRibOut Id : \t %u\n", ribOutId_);
  ctx.printf("  Number of paths processed:\t %d\n", processedPathCnt());
  timeStampsRibOut_->printTimeStamps(ctx, ribOutThreshold);
}

TestControlStatusVrf::TestControlStatusVrf(Vrf::VrfIdMap::VrfId vrfId)
    : vrfId_(vrfId), ribOutData_(Kelp::processHashSeed() ^ kRibOutDataSeed) {}

Kelp::String TestControlStatusVrf::vrfName() const {
  std::lock_guard<std::mutex> lock(nameMutex_);
  return vrfName_;
}

void TestControlStatusVrf::vrfNameIs(const Kelp::String& name) {
  if (name.size() > kVrfNameMaxLength) throw Kelp::RangeException("Kelp::String::bytes > maxLength() not allowed");
  std::lock_guard<std::mutex> lock(nameMutex_);
  vrfName_ = name;
}

Kelp::Ptr<TestTimeStampsRib> TestControlStatusVrf::timeStampsRibIs() {
  timeStampsRib_ = Kelp::makePtr<TestTimeStampsRib>();
  return timeStampsRib_;
}

Kelp::Ptr<TestControlStatusRibOut> TestControlStatusVrf::ribOutData(U32 ribOutId) const {
  const Kelp::Ptr<TestControlStatusRibOut>* p = ribOutData_.find(ribOutId);
  return p != nullptr ? *p : nullptr;
}

Kelp::Ptr<TestControlStatusRibOut> TestControlStatusVrf::ribOutDataIs(U32 ribOutId) {
  auto [p, added] = ribOutData_.tryEmplace(ribOutId);
  if (added) *p = Kelp::makePtr<TestControlStatusRibOut>(ribOutId);
  return *p;
}

void TestControlStatusVrf::printEventsTrackingDetail(Brim::DumpContext& ctx, U32 ribThreshold) const {
  ctx.printf("\nVrf Name : \t %s\n", vrfName().c_str());
  timeStampsRib_->printTimeStamps(ctx, ribThreshold);
}

// ---- Summary --------------------------------------------------------------------------------

Kelp::Ptr<TestTimeStampsRib> TestControlSummaryResult::timeStampsRibIs() {
  timeStampsRib_ = Kelp::makePtr<TestTimeStampsRib>();
  return timeStampsRib_;
}

Kelp::Ptr<TestTimeStampsRibOut> TestControlSummaryResult::timeStampsRibOutIs() {
  timeStampsRibOut_ = Kelp::makePtr<TestTimeStampsRibOut>();
  return timeStampsRibOut_;
}

void TestControlSummaryResult::printEventsTrackingSummary(Brim::DumpContext& ctx, U32 ribThreshold,
                                                          U32 ribOutThreshold) const {
  ctx.printf("\nNumber of Vrfs that processed events: \t %u\n", numVrfs_);
  timeStampsRib_->printTimeStamps(ctx, ribThreshold);
  // This line shows the VRF count, not numRibOuts: the tools that read this report expect the
  // number of VRFs in both count lines.
  ctx.printf("\nNumber of RibOuts that processed events: \t %u\n", numVrfs_);
  timeStampsRibOut_->printTimeStamps(ctx, ribOutThreshold);
}

// ---- The collected data ---------------------------------------------------------------------

TestControlStatus::TestControlStatus() : vrfData_(Kelp::processHashSeed() ^ kVrfDataSeed) {}

Kelp::Ptr<TestControlStatusVrf> TestControlStatus::vrfData(Vrf::VrfIdMap::VrfId vrfId) const {
  const Kelp::Ptr<TestControlStatusVrf>* p = vrfData_.find(vrfId);
  return p != nullptr ? *p : nullptr;
}

Kelp::Ptr<TestControlStatusVrf> TestControlStatus::vrfDataIs(Vrf::VrfIdMap::VrfId vrfId) {
  auto [p, added] = vrfData_.tryEmplace(vrfId);
  if (added) *p = Kelp::makePtr<TestControlStatusVrf>(vrfId);
  return *p;
}

Kelp::Ptr<TestControlStatusVrf> TestControlStatus::findOrCreateVrfData(Vrf::VrfIdMap::VrfId vrfId, bool create) {
  std::lock_guard<std::mutex> lock(mutex_);
  Kelp::Ptr<TestControlStatusVrf> vrf = vrfData(vrfId);
  if (vrf == nullptr && create) {
    vrf = vrfDataIs(vrfId);
    vrf->timeStampsRibIs();
  }
  return vrf;
}

Kelp::Ptr<TestControlStatusRibOut> TestControlStatus::findOrCreateRibOutData(Vrf::VrfIdMap::VrfId vrfId,
                                                                             U32 ribOutId, bool create) {
  std::lock_guard<std::mutex> lock(mutex_);
  Kelp::Ptr<TestControlStatusVrf> vrf = vrfData(vrfId);
  if (vrf == nullptr) {
    if (!create) return nullptr;
    vrf = vrfDataIs(vrfId);
    vrf->timeStampsRibIs();
  }
  Kelp::Ptr<TestControlStatusRibOut> ribOut = vrf->ribOutData(ribOutId);
  if (ribOut == nullptr && create) {
    ribOut = vrf->ribOutDataIs(ribOutId);
    ribOut->timeStampsRibOutIs();
  }
  return ribOut;
}

void TestControlStatus::deleteAllEventsTrackingData() {
  std::lock_guard<std::mutex> lock(mutex_);
  vrfDataDelAll();
}

Kelp::Ptr<TestControlSummaryResult> TestControlStatus::summarizeEventsTrackingData() {
  std::lock_guard<std::mutex> lock(mutex_);
  auto result = Kelp::makePtr<TestControlSummaryResult>();
  Kelp::Ptr<TestTimeStampsRib> rib = result->timeStampsRibIs();
  Kelp::Ptr<TestTimeStampsRibOut> ribOut = result->timeStampsRibOutIs();
  for (const auto& [vrfId, vrf] : vrfData_) {
    result->numVrfsInc(1);
    if (vrf->timeStampsRib() != nullptr) rib->updateEventsTrackingResult(vrf->timeStampsRib());
    for (const auto& [ribOutId, r] : vrf->ribOutData()) {
      result->numRibOutsInc(1);
      if (r->timeStampsRibOut() != nullptr) ribOut->updateEventsTrackingResult(r->timeStampsRibOut());
    }
  }
  return result;
}

std::vector<Kelp::Ptr<TestControlStatusVrf>> TestControlStatus::vrfsInOrder() const { return inIdOrder(vrfData_); }

std::vector<TestControlStatus::VrfInOrder> TestControlStatus::vrfsAndRibOutsInOrder() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<VrfInOrder> out;
  for (auto& vrf : vrfsInOrder()) {
    auto ribOuts = inIdOrder(vrf->ribOutData());
    out.push_back({std::move(vrf), std::move(ribOuts)});
  }
  return out;
}

// ---- The control object ---------------------------------------------------------------------

void TestTrackleControlBase::eventsTrackingEnabledIs(bool v) {
  if (eventsTrackingEnabled_.load(std::memory_order_relaxed) == v) return;
  eventsTrackingEnabled_.store(v, std::memory_order_release);
  notifiees_.notify("eventsTrackingEnabled");
}

Kelp::Ptr<TestControlStatus> TestTrackleControlBase::testControlStatusIs() {
  testControlStatus_ = Kelp::makePtr<TestControlStatus>();
  notifiees_.notify("testControlStatus");
  return testControlStatus_;
}

void TestTrackleControlBase::testControlStatusDel() {
  if (testControlStatus_ == nullptr) return;
  testControlStatus_ = nullptr;
  notifiees_.notify("testControlStatus");
}

void TestTrackleControlBase::updateEventsTracking(Brim::DumpContext& ctx, EventsTrackingOp op, U32 a, U32 b,
                                                  U32 c) {
  switch (op) {
    case eventsTrackingNone:
      PICO_ASSERT(0);
      break;
    case eventsTrackingStart:
      updateEventsTrackingStart(ctx, a, b, c);
      break;
    case eventsTrackingStop:
      updateEventsTrackingStop(ctx);
      break;
    case eventsTrackingSummary:
      updateEventsTrackingSummary(ctx, c);
      break;
    case eventsTrackingDetail:
      // The detail report has an entry of its own (printEventsTrackingDetail).
      PICO_ASSERT(0);
      break;
    default:
      break;  // operations this version does not know are ignored
  }
}

void TestTrackleControlBase::updateEventsTrackingStart(Brim::DumpContext& ctx, U32 ribThreshold,
                                                       U32 ribOutThreshold, U32 currentPaths) {
  ctx.printf("Starting BGP Events Tracking\n");
  if (eventsTrackingEnabled()) eventsTrackingEnabledIs(false);
  PICO_ASSERT(testControlStatus_ != nullptr);
  testControlStatus_->deleteAllEventsTrackingData();
  resetDerivedClassData();
  prevBribPathsCountIs(currentPaths);
  // A start while started keeps the thresholds it was started with.
  if (ribAddThreshold() == 0) ribAddThresholdIs(ribThreshold != 0 ? ribThreshold : kNoThreshold);
  if (ribOutPathAdvertiseThreshold() == 0) {
    ribOutPathAdvertiseThresholdIs(ribOutThreshold != 0 ? ribOutThreshold : kNoThreshold);
  }
  peerFirstUpdateMessageEpochIs(peerFirstUpdateMessageEpoch() + 1);
  eventsTrackingEnabledIs(true);
}

void TestTrackleControlBase::updateEventsTrackingStop(Brim::DumpContext& ctx) {
  ctx.printf("Stopping BGP Events Tracking\n");
  eventsTrackingEnabledIs(false);
  ribAddThresholdIs(0);
  ribOutPathAdvertiseThresholdIs(0);
}

void TestTrackleControlBase::updateEventsTrackingSummary(Brim::DumpContext& ctx, U32 currentPaths) {
  printEventsTrackingHeader(ctx, currentPaths, true);
  Kelp::Ptr<TestControlSummaryResult> summary;
  if (testControlStatus_ != nullptr) {
    summary = testControlStatus_->summarizeEventsTrackingData();
  } else {
    summary = Kelp::makePtr<TestControlSummaryResult>();
    summary->timeStampsRibIs();
    summary->timeStampsRibOutIs();
  }
  summary->printEventsTrackingSummary(ctx, reported(ribAddThreshold()), reported(ribOutPathAdvertiseThreshold()));
}

void TestTrackleControlBase::printEventsTrackingHeader(Brim::DumpContext& ctx, U32 currentPaths, bool summary) const {
  if (ribAddThreshold() == 0 && ribOutPathAdvertiseThreshold() == 0) {
    // The header is printed whole all the same, so that the report keeps its shape.
    ctx.printf("BGP Events Tracking has not been started.\n"
               "Use the following command to start BGP Events Tracking:\n"
               "   show bgp instance internal events tracking start\n"
               "      [ advertise-threshold <RIB-path-threshold> <RibOut-path-threshold> ]\n");
  }
  ctx.printf("BGP Events Tracking %s:\n", summary ? "Summary" : "Detail");
  ctx.printf("Total paths in BGP RIB changed from %u to %u\n", prevBribPathsCount(), currentPaths);
}

void TestTrackleControlBase::printEventsTrackingDetailOneVrf(Brim::DumpContext& ctx,
                                                             const Kelp::Ptr<TestControlStatusVrf>& vrf) const {
  printEventsTrackingDetailOneVrf(ctx, TestControlStatus::VrfInOrder{vrf, inIdOrder(vrf->ribOutData())});
}

void TestTrackleControlBase::printEventsTrackingDetailOneVrf(Brim::DumpContext& ctx,
                                                             const TestControlStatus::VrfInOrder& entry) const {
  entry.vrf->printEventsTrackingDetail(ctx, reported(ribAddThreshold()));
  const U32 ribOut = reported(ribOutPathAdvertiseThreshold());
  for (const auto& r : entry.ribOuts) r->printEventsTrackingDetail(ctx, ribOut);
}

void TestTrackleControlBase::printEventsTrackingDetail(Brim::DumpContext& ctx, U32 currentPaths) const {
  printEventsTrackingHeader(ctx, currentPaths, false);
  if (testControlStatus_ == nullptr) return;
  // A slow sink (a terminal, a full pipe) must not hold up the processing threads, which take the
  // status mutex to find their entries: only the collecting is done under it.
  for (const auto& entry : testControlStatus_->vrfsAndRibOutsInOrder()) printEventsTrackingDetailOneVrf(ctx, entry);
}

namespace {
const Kelp::TypeInfo controlType = Kelp::entityType(
    "Routing::Bgp::TestTrackleControlBase",
    {"peerFirstUpdateMessageEpoch", "ribOutPathAdvertiseThreshold", "ribOutPathWithdrawThreshold", "ribAddThreshold",
     "ribRemoveThreshold", "testControlStatus", "prevBribPathsCount", "eventsTrackingEnabled"});
const Kelp::TypeInfo statusType = Kelp::entityType("Routing::Bgp::TestControlStatus", {"vrfData"});
const Kelp::TypeInfo vrfType = Kelp::entityType(
    "Routing::Bgp::TestControlStatusVrf", {"vrfId", "vrfName", "numBribPaths", "timeStampsRib", "ribOutData"});
const Kelp::TypeInfo ribOutType = Kelp::entityType("Routing::Bgp::TestControlStatusRibOut",
                                                   {"ribOutId", "timeStampsRibOut", "processedPathCnt"});
const Kelp::TypeInfo ribStampsType = Kelp::entityType(
    "Routing::Bgp::TestTimeStampsRib", {"firstUpdateMessage", "processingStart", "processingEnd", "thresholdReached"});
const Kelp::TypeInfo ribOutStampsType = Kelp::entityType("Routing::Bgp::TestTimeStampsRibOut",
                                                         {"processingStart", "processingEnd", "thresholdReached"});
const Kelp::TypeInfo summaryType = Kelp::entityType(
    "Routing::Bgp::TestControlSummaryResult", {"numVrfs", "numRibOuts", "timeStampsRib", "timeStampsRibOut"});
const Kelp::TypeModule module("BgpTestHelpers",
                              {Kelp::typeInfo<EventsTrackingOp>(), &controlType, &statusType, &vrfType, &ribOutType,
                               &ribStampsType, &ribOutStampsType, &summaryType});
}  // namespace

}  // namespace Routing::Bgp

// A reader's change feed: the changes the writer appends to the ring in the file, handed on in
// order as Change, with the whole-table events (resync, the writer closing or opening) made up
// where the ring cannot say them: a reader that fell behind, a file replaced, a writer that died.
#include <time.h>

#include <algorithm>

#include "platform/Shelf/Format.h"
#include "platform/Shelf/Shelf.h"

namespace Shelf {

using namespace detail;

bool Reader::pending(Mapping* m) const {
  return m != cursorMapping_ || load<std::uint64_t>(&m->header->ringHead, __ATOMIC_ACQUIRE) != cursor_ ||
         writerDied(m);
}

// A writer that dies cannot append its writerClosed change: the reader makes one up, once, when the
// table still says open but nobody holds its lock. The lock is looked at once per slice at most.
bool Reader::writerDied(Mapping* m) const {
  if (m != cursorMapping_ || closedSeen_ || load<std::uint32_t>(&m->header->writerOpen, __ATOMIC_ACQUIRE) == 0) {
    return false;
  }
  if (died_) return true;
  const std::uint64_t now = monotonicNs();
  if (now - lastLivenessNs_ < kLivenessIntervalNs) return false;
  lastLivenessNs_ = now;
  died_ = !writerAlive(*m);
  return died_;
}

// A file whose writer has gone stays live until a new writer retires it, which that writer does
// only if it finds the file at the path. When the file was removed meanwhile (by hand, say), the
// new writer publishes its own with nothing to retire, and a reader would read the removed one for
// ever. So once the writer is known gone, the path is looked at every kGoneWriterRecheckNs, and
// another file there is attached in its place. A lookup still in the old file finishes there, with
// the contents it had when its writer left.
Mapping* Reader::afterGoneWriter(Mapping* m) {
  if (writerOpenTold_ || m != cursorMapping_) return m;  // gone as last told, however it was learnt
  const std::uint64_t now = monotonicNs();
  if (now - lastPathCheckNs_ < kGoneWriterRecheckNs) return m;
  lastPathCheckNs_ = now;
  std::string problem;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    m = refreshLocked(problem, true);
  }
  if (!problem.empty()) report(problem);
  return m;
}

std::size_t Reader::poll(const std::function<void(const Change&)>& fn) {
  Mapping* m = current();
  if (m == nullptr) return 0;
  m = afterGoneWriter(m);
  std::size_t n = 0;
  auto tell = [&](Change::Kind kind, Bytes key = {}, std::uint32_t scalarIndex = 0) {
    fn(Change{kind, key, scalarIndex});
    ++n;
  };
  // The writer's state as last told: a close is told once, however it was learnt.
  auto writerIs = [&](bool open) {
    if (open == writerOpenTold_) return;
    writerOpenTold_ = open;
    tell(open ? Change::Kind::writerOpen : Change::Kind::writerClosed);
  };
  auto resync = [&] {
    if (cursorMapping_ != m) {
      closedSeen_ = died_ = false;
      lastLivenessNs_ = 0;
    }
    cursorMapping_ = m;
    cursor_ = load<std::uint64_t>(&m->header->ringHead, __ATOMIC_ACQUIRE);
    lastChangeNs_ = monotonicNs();
    tell(Change::Kind::resync);
    // Attached afresh or fallen behind: its writer may have come or gone meanwhile.
    writerIs(writerAlive(*m));
    return n;
  };
  if (m != cursorMapping_) return resync();
  const std::uint64_t head = load<std::uint64_t>(&m->header->ringHead, __ATOMIC_ACQUIRE);
  if (head < cursor_ || head - cursor_ > m->ringCapacity) return resync();
  alignas(8) std::uint8_t img[kRingHeaderBytes + kMaxKeyBytes + 8];
  const std::size_t entryBytes = roundUp(kRingHeaderBytes + m->keyMax, 8);
  for (std::uint64_t p = cursor_; p < head; ++p) {
    const std::uint8_t* e = m->ringEntry(p);
    bool whole = load<std::uint64_t>(e, __ATOMIC_ACQUIRE) == p + 1;
    if (whole) {
      copyWordsIn(img, e, entryBytes);
      readFence();
      whole = load<std::uint64_t>(e, __ATOMIC_RELAXED) == p + 1;
    }
    if (!whole) return resync();  // the writer lapped us while we read
    const auto kind = static_cast<RingKind>(img[8]);
    const std::uint16_t keyLen = get16(img + 10);
    const std::uint32_t scalarIndex = get32(img + 12);
    if (img[8] > static_cast<std::uint8_t>(RingKind::writerClosed) || keyLen > m->keyMax ||
        scalarIndex >= kScalarCount) {
      report(fmt::format("change ring entry {} is damaged", p));
      return resync();
    }
    cursor_ = p + 1;
    lastChangeNs_ = monotonicNs();
    switch (kind) {
      case RingKind::key:
        tell(Change::Kind::key, Bytes(img + kRingHeaderBytes, keyLen));
        break;
      case RingKind::cleared:
        tell(Change::Kind::resync);
        break;
      case RingKind::scalar:
        tell(Change::Kind::scalar, {}, scalarIndex);
        break;
      case RingKind::writerClosed:
        closedSeen_ = true;
        writerIs(false);
        break;
    }
  }
  if (n == 0 && writerDied(m)) {
    closedSeen_ = true;
    writerIs(false);
  }
  return n;
}

bool Reader::wait(double seconds) {
  const std::uint64_t start = monotonicNs();
  const std::uint64_t budget = seconds <= 0 ? 0 : static_cast<std::uint64_t>(seconds * 1e9);
  while (true) {
    Mapping* m = current();
    if (m != nullptr) m = afterGoneWriter(m);
    if (m != nullptr && pending(m)) return true;
    std::uint64_t now = monotonicNs();
    if (now - start >= budget) return false;
    std::uint64_t left = budget - (now - start);
    if (m == nullptr) {
      std::uint64_t ns = std::min<std::uint64_t>(left, 5'000'000);
      timespec ts{0, static_cast<long>(ns)};
      nanosleep(&ts, nullptr);
      continue;
    }
    std::uint32_t word = load<std::uint32_t>(&m->header->wakeWord, __ATOMIC_ACQUIRE);
    if (pending(m)) continue;
    if (!isLive(*m)) {
      // Replaced, but the new file could not be attached yet: look again in a while.
      timespec ts{0, static_cast<long>(std::min<std::uint64_t>(left, 5'000'000))};
      nanosleep(&ts, nullptr);
      continue;
    }
    // Shortly after a change the writer may be in a burst and wake us only once per interval, so
    // look again after an interval; when it has been quiet, sleep until woken.
    std::uint64_t slice = now - lastChangeNs_ < 2 * kWakeIntervalNs ? kWakeIntervalNs : kLivenessIntervalNs;
    futexWait(&m->header->wakeWord, word, std::min(left, slice));
  }
}

}  // namespace Shelf

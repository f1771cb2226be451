// The writer's changes to its table: finding, writing, linking and freeing records, announcing
// each change. Creating the file, taking the locks and closing are in WriterFile.cpp.
#include "platform/Shelf/Shelf.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "platform/Shelf/Format.h"

namespace Shelf {

using namespace detail;

struct Writer::Found {
  std::uint32_t index = kNone;        // the slot holding the key, or kNone
  std::uint32_t predecessor = kNone;  // the slot linking to it, or kNone for the bucket head
};

std::uint32_t Writer::capacity() const { return map_->capacity; }
std::uint64_t Writer::generation() const { return map_->generation; }

void Writer::corrupt(const std::string& what) const {
  throw CorruptionException(fmt::format("Shelf {}: {}", path_, what));
}

std::uint32_t Writer::stampOf(std::uint32_t index) const {
  return detail::stampOf(load<std::uint64_t>(map_->slot(index) + kStampAt, __ATOMIC_RELAXED));
}

std::uint64_t Writer::headOf(std::uint32_t bucket) const {
  return load<std::uint64_t>(map_->slot(bucket) + kHeadAt, __ATOMIC_RELAXED);
}

// Walks the chain of `bucket` to `key`, checking each link as a reader would: the file may have
// been damaged under the writer too, and a writer that went on through a damaged chain would
// spread the damage.
Writer::Found Writer::locate(Bytes key, std::uint32_t bucket) const {
  const Mapping& m = *map_;
  Found f;
  std::uint64_t link = headOf(bucket);
  std::uint32_t steps = 0;
  while (link != kEndLink) {
    const std::uint32_t idx = linkSlot(link);
    if (idx >= m.slotCount) corrupt(fmt::format("link to slot {} beyond {} slots in bucket {}", idx, m.slotCount, bucket));
    if (++steps > m.slotCount) corrupt(fmt::format("chain of bucket {} loops", bucket));
    const std::uint8_t* s = m.slot(idx);
    const std::uint64_t w0 = load<std::uint64_t>(s + kStampAt, __ATOMIC_RELAXED);
    if (detail::stampOf(w0) != linkStamp(link) || keyLenOf(w0) == 0 || (slotState_[idx] & kSlotFree) != 0) {
      corrupt(fmt::format("a link in the chain of bucket {} names a record slot {} does not hold", bucket, idx));
    }
    const std::uint16_t keyLen = keyLenOf(w0);
    if (keyLen == key.size() && std::memcmp(s + kSlotHeaderBytes, key.data(), keyLen) == 0) {
      f.index = idx;
      return f;
    }
    f.predecessor = idx;
    link = load<std::uint64_t>(s + kLinkAt, __ATOMIC_RELAXED);
  }
  f.predecessor = kNone;
  return f;
}

// The oldest free slot. Entries of slots that were taken out of turn (as a home) since they were
// queued are passed over.
std::uint32_t Writer::takeFreeSlot() {
  PICO_ASSERT(freeCount_ > 0);
  while (true) {
    PICO_ASSERT(queuedCount_ > 0);
    std::uint32_t i = freeFifo_[freeHead_];
    freeHead_ = (freeHead_ + 1) % map_->slotCount;
    --queuedCount_;
    slotState_[i] &= static_cast<std::uint8_t>(~kSlotQueued);
    if (slotState_[i] & kSlotFree) {
      slotState_[i] = 0;
      --freeCount_;
      return i;
    }
  }
}

// Takes the free slot `home` out of turn; its queue entry stays, passed over later.
std::uint32_t Writer::takeHome(std::uint32_t home) {
  slotState_[home] &= static_cast<std::uint8_t>(~kSlotFree);
  --freeCount_;
  return home;
}

// Writes a whole slot image under a new stamp: the odd stamp, then the words, then the even stamp.
std::uint32_t Writer::writeSlot(std::uint32_t index, std::uint64_t next, Bytes key, Bytes value) {
  const std::uint32_t stamp = nextStamp_;
  nextStamp_ += 2;
  if (nextStamp_ == 0) nextStamp_ = 2;  // 0 is no record's: the end of a chain carries it
  std::uint8_t* img = staging_.data();
  const std::size_t size = map_->slotSize;
  std::memset(img, 0, size);
  const std::uint64_t stampWord = stampWordOf(stamp, key.size(), value.size());
  putRaw(img + kStampAt, stampWord);
  putRaw(img + kLinkAt, next);
  if (!key.empty()) std::memcpy(img + kSlotHeaderBytes, key.data(), key.size());
  if (!value.empty()) std::memcpy(img + valueAt(key.size()), value.data(), value.size());
  putRaw(img + kChecksumAt, slotChecksum(img, size, stampWord));

  std::uint8_t* s = map_->slot(index);
  writerStore("slot: odd stamp");
  store<std::uint64_t>(s + kStampAt, stampWord - 1, __ATOMIC_RELAXED);
  writeFence();
  writerStore("slot: words");
  // The link, then (past the head word, which is the bucket's) the checksum, key and value.
  store<std::uint64_t>(s + kLinkAt, next, kWordStore);
  copyWordsOut(s + kChecksumAt, img + kChecksumAt, size - kChecksumAt);
  writerStore("slot: even stamp");
  store<std::uint64_t>(s + kStampAt, stampWord, __ATOMIC_RELEASE);
  return stamp;
}

// Points the bucket head (predecessor kNone) or slot `predecessor` at `next`: one store, which
// readers may be following. Nothing else of a record readers can reach is ever changed in place.
void Writer::link(std::uint32_t predecessor, std::uint32_t bucket, std::uint64_t next) {
  writerStore(predecessor == kNone ? "link: head" : "link: slot");
  std::uint8_t* word = predecessor == kNone ? map_->slot(bucket) + kHeadAt : map_->slot(predecessor) + kLinkAt;
  store<std::uint64_t>(word, next, __ATOMIC_RELEASE);
}

void Writer::freeSlot(std::uint32_t index) {
  writeSlot(index, kEndLink, {}, {});
  PICO_ASSERT((slotState_[index] & kSlotFree) == 0);
  slotState_[index] |= kSlotFree;
  ++freeCount_;
  // A slot still queued from before it was taken out of turn keeps its older place.
  if ((slotState_[index] & kSlotQueued) == 0) {
    PICO_ASSERT(queuedCount_ < map_->slotCount);
    freeFifo_[(freeHead_ + queuedCount_) % map_->slotCount] = index;
    ++queuedCount_;
    slotState_[index] |= kSlotQueued;
  }
}

void Writer::announce(RingKind kind, Bytes key, std::uint32_t scalarIndex) {
  Mapping& m = *map_;
  std::uint8_t* e = m.ringEntry(ringHead_);
  std::uint8_t img[kRingHeaderBytes + kMaxKeyBytes + 8] = {};
  img[8] = static_cast<std::uint8_t>(kind);
  putRaw(img + 10, static_cast<std::uint16_t>(key.size()));
  putRaw(img + 12, scalarIndex);
  if (!key.empty()) std::memcpy(img + kRingHeaderBytes, key.data(), key.size());
  writerStore("ring: entry");
  store<std::uint64_t>(e, 0, __ATOMIC_RELAXED);
  writeFence();
  copyWordsOut(e + 8, img + 8, roundUp(kRingHeaderBytes + key.size(), 8) - 8);
  store<std::uint64_t>(e, ringHead_ + 1, __ATOMIC_RELEASE);
  ++ringHead_;
  writerStore("ring: head");
  store<std::uint64_t>(&m.header->ringHead, ringHead_, __ATOMIC_RELEASE);
  store<std::uint32_t>(&m.header->wakeWord, load<std::uint32_t>(&m.header->wakeWord, __ATOMIC_RELAXED) + 1,
                       __ATOMIC_RELEASE);
  store<std::uint64_t>(&m.header->lastChangeNs, realtimeNs(), __ATOMIC_RELAXED);
  // A wake-up is a system call; during a burst readers are awake and polling anyway, so one per
  // interval is enough.
  std::uint64_t now = monotonicNs();
  if (now - lastWakeNs_ >= kWakeIntervalNs) {
    futexWake(&m.header->wakeWord);
    lastWakeNs_ = now;
  }
}

bool Writer::put(Bytes key, std::uint32_t hash, Bytes value) {
  Mapping& m = *map_;
  if (key.empty() || key.size() > m.keyMax) {
    Pico::fmthrow<Kelp::RangeException>("Shelf key of {} bytes outside 1..{}", key.size(), m.keyMax);
  }
  if (value.size() > m.valueMax) {
    Pico::fmthrow<Kelp::RangeException>("Shelf value of {} bytes above {}", value.size(), m.valueMax);
  }
  const std::uint32_t bucket = m.bucketOf(hash);
  const std::uint32_t home = bucket;
  Found f = locate(key, bucket);
  if (f.index != kNone) {
    const std::uint8_t* old = m.slot(f.index);
    if (valueLenOf(load<std::uint64_t>(old + kStampAt, __ATOMIC_RELAXED)) == value.size() &&
        std::memcmp(old + valueAt(key.size()), value.data(), value.size()) == 0) {
      return false;
    }
    // The new value is a new record, written whole where no link leads and then linked in place
    // of the old one with one store; the old one is freed after.
    const std::uint64_t next = load<std::uint64_t>(old + kLinkAt, __ATOMIC_RELAXED);
    if (f.index == home) {
      // A record at home stays there, where the quick lookup finds it: the new value stands in
      // from a spare slot while the home is rewritten, then the home is linked back.
      const std::uint32_t spare = takeFreeSlot();
      link(f.predecessor, bucket, linkTo(spare, writeSlot(spare, next, key, value)));
      link(f.predecessor, bucket, linkTo(home, writeSlot(home, next, key, value)));
      freeSlot(spare);
    } else {
      // The head of its chain moves home when it can.
      const std::uint32_t n = f.predecessor == kNone && homeFree(home) ? takeHome(home) : takeFreeSlot();
      link(f.predecessor, bucket, linkTo(n, writeSlot(n, next, key, value)));
      freeSlot(f.index);
    }
  } else {
    if (occupancy_ >= m.capacity) {
      throw TableFullException(
          fmt::format("Shelf table full (occupancy:{} tableSize:{}) {}", occupancy_, m.capacity, labels_.tableName));
    }
    const std::uint64_t head = headOf(bucket);
    if (homeFree(home)) {
      // At home, as the head: where the quick lookup finds it. Written whole, then linked.
      takeHome(home);
      const std::uint32_t stamp = writeSlot(home, head, key, value);
      link(kNone, bucket, linkTo(home, stamp));
    } else if (head == linkTo(home, stampOf(home))) {
      // Behind the record at home, which stays the head.
      const std::uint32_t n = takeFreeSlot();
      link(home, bucket, linkTo(n, writeSlot(n, load<std::uint64_t>(m.slot(home) + kLinkAt, __ATOMIC_RELAXED), key, value)));
    } else {
      const std::uint32_t n = takeFreeSlot();
      link(kNone, bucket, linkTo(n, writeSlot(n, head, key, value)));
    }
    ++occupancy_;
    store<std::uint32_t>(&m.header->occupancy, occupancy_, __ATOMIC_RELAXED);
  }
  announce(RingKind::key, key, 0);
  return true;
}

bool Writer::erase(Bytes key, std::uint32_t hash) {
  Mapping& m = *map_;
  if (key.empty() || key.size() > m.keyMax) return false;
  const std::uint32_t bucket = m.bucketOf(hash);
  Found f = locate(key, bucket);
  if (f.index == kNone) return false;
  link(f.predecessor, bucket, load<std::uint64_t>(m.slot(f.index) + kLinkAt, __ATOMIC_RELAXED));
  freeSlot(f.index);
  --occupancy_;
  store<std::uint32_t>(&m.header->occupancy, occupancy_, __ATOMIC_RELAXED);
  announce(RingKind::key, key, 0);
  return true;
}

void Writer::clear() {
  Mapping& m = *map_;
  // Chain by chain: unlink the chain from its head, then free its records from the first to the
  // last. A reader still walking the chain finds a freed record only behind one freed before it,
  // which tells it the writer moved on (had a record been freed before the one linking to it, that
  // link would still name it, which is damage). Slots the chains did not reach (only damage could
  // hide one) are freed after, found by the writer's own record of them.
  std::vector<std::uint32_t> chain;
  for (std::uint32_t b = 0; b < m.slotCount; ++b) {
    std::uint64_t next = headOf(b);
    if (next == kEndLink) continue;
    chain.clear();
    while (next != kEndLink && linkSlot(next) < m.slotCount && chain.size() < m.slotCount &&
           (slotState_[linkSlot(next)] & kSlotFree) == 0 && stampOf(linkSlot(next)) == linkStamp(next)) {
      chain.push_back(linkSlot(next));
      next = load<std::uint64_t>(m.slot(linkSlot(next)) + kLinkAt, __ATOMIC_RELAXED);
    }
    link(kNone, b, kEndLink);
    for (std::uint32_t i : chain) freeSlot(i);
  }
  for (std::uint32_t i = 0; i < m.slotCount; ++i) {
    if ((slotState_[i] & kSlotFree) == 0) freeSlot(i);
  }
  occupancy_ = 0;
  store<std::uint32_t>(&m.header->occupancy, 0, __ATOMIC_RELAXED);
  announce(RingKind::cleared, {}, 0);
}

std::optional<std::uint32_t> Writer::find(Bytes key, std::uint32_t hash, std::uint8_t* out) const {
  if (key.empty() || key.size() > map_->keyMax) return std::nullopt;
  Found f = locate(key, map_->bucketOf(hash));
  if (f.index == kNone) return std::nullopt;
  const std::uint8_t* s = map_->slot(f.index);
  const std::uint16_t valueLen = valueLenOf(load<std::uint64_t>(s + kStampAt, __ATOMIC_RELAXED));
  std::memcpy(out, s + valueAt(key.size()), valueLen);
  return valueLen;
}

void Writer::forEach(const std::function<void(Bytes key, Bytes value)>& fn) const {
  const Mapping& m = *map_;
  for (std::uint32_t b = 0; b < m.slotCount; ++b) {
    std::uint64_t link = headOf(b);
    std::uint32_t steps = 0;
    while (link != kEndLink) {
      const std::uint32_t idx = linkSlot(link);
      if (idx >= m.slotCount || ++steps > m.slotCount) corrupt(fmt::format("chain of bucket {} is damaged", b));
      const std::uint8_t* s = m.slot(idx);
      const std::uint64_t w0 = load<std::uint64_t>(s + kStampAt, __ATOMIC_RELAXED);
      if (detail::stampOf(w0) != linkStamp(link)) corrupt(fmt::format("chain of bucket {} is damaged", b));
      fn(Bytes(s + kSlotHeaderBytes, keyLenOf(w0)), Bytes(s + valueAt(keyLenOf(w0)), valueLenOf(w0)));
      link = load<std::uint64_t>(s + kLinkAt, __ATOMIC_RELAXED);
    }
  }
}

void Writer::scalarIs(std::uint32_t index, std::uint64_t value) {
  PICO_ASSERT(index < kScalarCount);
  if (load<std::uint64_t>(&map_->header->scalars[index], __ATOMIC_RELAXED) == value) return;
  store<std::uint64_t>(&map_->header->scalars[index], value, __ATOMIC_RELEASE);
  announce(RingKind::scalar, {}, index);
}

std::uint64_t Writer::scalar(std::uint32_t index) const {
  PICO_ASSERT(index < kScalarCount);
  return load<std::uint64_t>(&map_->header->scalars[index], __ATOMIC_RELAXED);
}

}  // namespace Shelf

#include "platform/Shelf/Shelf.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "platform/Shelf/Format.h"

namespace Shelf {

using namespace detail;

namespace {

// How often a reader walks a chain again when the writer is changing it under its feet, and for
// how long at most: a writer rewrites a slot in well under a microsecond, so a chain that stays
// mid-write for milliseconds has a writer that is stopped or a damaged counter, and the lookup
// answers absent rather than wait on.
constexpr int kMaxWalks = 40;
constexpr std::uint64_t kMaxWalkWaitNs = 2'000'000;
constexpr int kSnapshotTries = 8;

}  // namespace

namespace {

enum class Snap { ok, unstable, damaged };

// Copies slot `idx` into `buf` under its sequence counter and checks it; `seqOut` receives the
// counter the copy was taken at. `damaged` means the slot held still while it was read and is
// wrong all the same; damageOf(buf) then says how.
Snap snapshot(const Mapping& m, std::uint32_t idx, std::uint8_t* buf, std::uint32_t& seqOut) {
  const std::uint8_t* s = m.slot(idx);
  for (int attempt = 0; attempt < kSnapshotTries; ++attempt) {
    std::uint32_t seq = load<std::uint32_t>(s + kSeqAt, __ATOMIC_ACQUIRE);
    if (seq & 1u) [[unlikely]] {
      cpuRelax();
      continue;
    }
    const std::uint64_t sum = copyAndSum(buf, s, m.slotSize);
    putRaw(buf + kLinkAt, load<std::uint32_t>(s + kLinkAt, __ATOMIC_RELAXED));
    std::atomic_thread_fence(std::memory_order_acquire);
    if (load<std::uint32_t>(s + kSeqAt, __ATOMIC_RELAXED) != seq) [[unlikely]] {
      continue;
    }
    seqOut = seq;
    return slotWhole(m, idx, buf, sum) ? Snap::ok : Snap::damaged;
  }
  return Snap::unstable;
}

std::string damageOf(const Mapping& m, std::uint32_t idx, const std::uint8_t* buf) {
  std::uint16_t keyLen = get16(buf + kKeyLenAt);
  std::uint16_t valueLen = get16(buf + kValueLenAt);
  if (keyLen > m.keyMax || valueLen > m.valueMax) {
    return fmt::format("slot {} claims a key of {} and a value of {} bytes", idx, keyLen, valueLen);
  }
  if (get32(buf + kSelfAt) != idx && slotChecksum(buf, m.slotSize) == get64(buf + kChecksumAt)) {
    return fmt::format("slot {} holds the record of slot {}", idx, get32(buf + kSelfAt));
  }
  return fmt::format("checksum mismatch in slot {}", idx);
}

// Why a walk had to start again: the writer was busy (unstable) or the chain looped (cycle).
enum class Restart { none, unstable, cycle };

// Walks the chain of `bucket`, calling visit(buf) for every slot read whole that belongs to it;
// visit returns true to stop. Returns false, after reporting damage, when the chain cannot be read.
//
// A slot of another bucket (or a free one) in the chain is either a race or damage. The writer
// always changes the link to a slot before it frees or reuses the slot, and the reader has seen the
// slot's new contents through an acquire of its counter, so if the link still points at the slot
// when read again, the table is damaged; otherwise the writer moved on and the walk starts again.
template <typename Report, typename Visit>
bool walkChain(const Mapping& m, std::uint32_t bucket, std::uint8_t* buf, const std::function<bool()>& writerAlive,
               Report&& report, Visit&& visit) {
  Restart last = Restart::none;
  std::uint64_t deadline = 0;
  std::uint32_t stuckSlot = kNone;
  bool writerGone = false;
  for (int walk = 0; walk < kMaxWalks; ++walk) {
    if (walk > 0) {
      // Once the writer has closed the table nothing moves any more: a walk that began after its
      // close and still finds the chain mid-write has found damage. (The walk that saw the close
      // may have raced the writer's last change, so it does not count.)
      bool atOnce = false;
      if (last == Restart::unstable) {
        if (writerGone) {
          report(fmt::format("slot {} in the chain of bucket {} is mid-write, and no writer has the table open",
                             stuckSlot, bucket));
          return false;
        }
        writerGone = atOnce = !writerAlive();
      }
      if (!atOnce) {
        const std::uint64_t now = monotonicNs();
        if (deadline == 0) {
          deadline = now + kMaxWalkWaitNs;
        } else if (now > deadline) {
          break;
        }
        pause(walk - 1);
      }
    }
    last = Restart::none;
    std::uint32_t idx = load<std::uint32_t>(m.bucket(bucket), __ATOMIC_ACQUIRE);
    std::uint32_t predecessor = kNone;  // kNone: the link is the bucket head
    std::uint32_t predecessorSeq = 0;
    std::uint32_t steps = 0;
    while (idx != kNone) {
      if (idx >= m.slotCount) {
        report(fmt::format("link to slot {} beyond {} slots in bucket {}", idx, m.slotCount, bucket));
        return false;
      }
      if (++steps > m.slotCount) {
        last = Restart::cycle;
        break;
      }
      std::uint32_t seq = 0;
      Snap snap = snapshot(m, idx, buf, seq);
      if (snap == Snap::damaged) [[unlikely]] {
        report(damageOf(m, idx, buf));
        return false;
      }
      if (snap == Snap::unstable) {
        last = Restart::unstable;
        stuckSlot = idx;
        break;
      }
      if (std::uint32_t owner = get32(buf + kBucketAt); owner != bucket) {
        // The predecessor still the same record (its counter has not moved) and still linking here.
        bool linkUnchanged = predecessor == kNone
                                 ? load<std::uint32_t>(m.bucket(bucket), __ATOMIC_ACQUIRE) == idx
                                 : load<std::uint32_t>(m.slot(predecessor) + kSeqAt, __ATOMIC_ACQUIRE) == predecessorSeq &&
                                       linkOf(m.slot(predecessor)) == idx;
        if (linkUnchanged) {
          report(owner == kFreeBucket
                     ? fmt::format("free slot {} in the chain of bucket {}", idx, bucket)
                     : fmt::format("slot {} of bucket {} in the chain of bucket {}", idx, owner, bucket));
          return false;
        }
        last = Restart::unstable;
        stuckSlot = idx;
        break;
      }
      if (visit(buf)) return true;
      predecessor = idx;
      predecessorSeq = seq;
      idx = get32(buf + kLinkAt);
    }
    if (last == Restart::none) return true;
  }
  if (last == Restart::cycle) {
    report(fmt::format("chain of bucket {} loops", bucket));
  } else {
    PICO_FMTRACE(Pico::kTraceLevelOperational, " bucket {} stayed mid-write; reading it as absent", bucket);
  }
  return false;
}

}  // namespace

Reader::Reader(Location where, Labels expected, std::uint32_t keyMax, std::uint32_t valueMax, CorruptionHandler handler)
    : where_(std::move(where)),
      expected_(std::move(expected)),
      keyMax_(keyMax),
      valueMax_(valueMax),
      handler_(std::move(handler)) {}

Reader::~Reader() {
  if (lockFd_ >= 0) close(lockFd_);
}

void Reader::corruptionHandlerIs(CorruptionHandler handler) { handler_ = std::move(handler); }

void Reader::report(const std::string& message) const {
  std::string text = fmt::format("Shelf {}: {}", where_.fullPath(), message);
  if (handler_) {
    handler_(text);
  } else {
    std::fprintf(stderr, "%s\n", text.c_str());
  }
}

Mapping* Reader::current() const {
  Mapping* m = current_.load(std::memory_order_acquire);
  if (m != nullptr && isLive(*m)) [[likely]] return m;
  return refresh();
}

// Attaches the file at the path when there is none yet, or when the attached one was replaced.
// Failures are reported once each; the reader keeps whatever it had.
//
// Memory. A lookup running in another thread may still be reading the mapping just replaced, so
// that one stays as it is. The one before it is turned to zeros in place: one mmap over the same
// addresses, of anonymous read-only pages, which drops the file (and its memory, once the writer
// has let go of it too) while every address a late lookup might touch stays readable. Zeros read
// as a replaced table everywhere (the live mark is not kLiveMark, no slot is whole), so such a
// lookup retries on the current file. A reader therefore maps at most two files of a table,
// however often its writer restarts, and no call pays anything on its path for it.
Mapping* Reader::refresh() const {
  // What went wrong is reported after the lock is released: the handler may call the reader.
  std::string problem;
  Mapping* m = nullptr;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    m = refreshLocked(problem);
  }
  if (!problem.empty()) report(problem);
  return m;
}

Mapping* Reader::refreshLocked(std::string& problem) const {
  Mapping* m = current_.load(std::memory_order_acquire);
  if (m != nullptr && isLive(*m)) return m;

  int dirFd = where_.openDirectory(false);
  if (dirFd < 0) return m;
  std::string why;
  int fd = openRegular(dirFd, where_.leaf(), O_RDONLY, why);
  if (fd < 0) {
    const bool absent = errno == ENOENT && why == std::strerror(ENOENT);
    close(dirFd);
    if (!absent && why != refused_) {
      refused_ = why;
      problem = fmt::format("not a table file: {}", why);
    }
    return m;
  }
  refused_.clear();
  struct stat st;
  if (fstat(fd, &st) != 0 || (m != nullptr && st.st_dev == m->dev && st.st_ino == m->ino) ||
      (st.st_dev == failedDev_ && st.st_ino == failedIno_)) {
    close(fd);
    close(dirFd);
    return m;
  }
  auto fresh = std::make_unique<Mapping>();
  auto fail = [&](const std::string& why) {
    failedDev_ = st.st_dev;
    failedIno_ = st.st_ino;
    problem = why;
    return m;
  };
  // The writer's lock, for telling a writer that died from one that is alive.
  std::string lockWhy;
  const int lockFd = openRegular(dirFd, sideName(where_.leaf(), kLockSuffix), O_RDONLY, lockWhy);
  close(dirFd);
  struct LockCloser {
    int fd;
    ~LockCloser() {
      if (fd >= 0) close(fd);
    }
  } lockCloser{lockFd};
  if (static_cast<std::uint64_t>(st.st_size) < kHeaderBytes) {
    close(fd);
    return fail(fmt::format("file of {} bytes is too short to hold a table", st.st_size));
  }
  void* base = mmap(nullptr, static_cast<std::size_t>(st.st_size), PROT_READ, MAP_SHARED, fd, 0);
  close(fd);
  if (base == MAP_FAILED) return fail(fmt::format("cannot map: {}", std::strerror(errno)));
  fresh->base = static_cast<std::uint8_t*>(base);
  fresh->size = static_cast<std::size_t>(st.st_size);
  fresh->dev = st.st_dev;
  fresh->ino = st.st_ino;
  // The header is copied before it is checked, so that what is checked is what is used.
  FileHeader h;
  std::memcpy(&h, fresh->base, sizeof h);
  if (std::string problem = headerProblem(h, fresh->size); !problem.empty()) return fail(problem);
  if (labelOf(h.typeName, sizeof h.typeName) != expected_.typeName ||
      labelOf(h.collectionName, sizeof h.collectionName) != expected_.collectionName) {
    return fail(fmt::format("holds {} collection '{}', not {} collection '{}'", labelOf(h.typeName, sizeof h.typeName),
                            labelOf(h.collectionName, sizeof h.collectionName), expected_.typeName,
                            expected_.collectionName));
  }
  if (h.keyMax > keyMax_ || h.valueMax > valueMax_) {
    return fail(fmt::format("keys of {} and values of {} bytes exceed what this reader takes ({} and {})", h.keyMax,
                            h.valueMax, keyMax_, valueMax_));
  }
  fresh->header = reinterpret_cast<FileHeader*>(fresh->base);
  fresh->adopt(&h);
  Mapping* attached = fresh.get();
  for (const std::unique_ptr<Mapping>& old : mappings_) {
    if (old.get() == m || !old->fileBacked) continue;
    if (mmap(old->base, old->size, PROT_READ, MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0) !=
        MAP_FAILED) {
      old->fileBacked = false;
    }
  }
  mappings_.push_back(std::move(fresh));
  if (lockFd_ >= 0) close(lockFd_);
  lockFd_ = std::exchange(lockCloser.fd, -1);
  view_.store(&attached->view, std::memory_order_release);
  current_.store(attached, std::memory_order_release);
  PICO_FMTRACE(Pico::kTraceLevelOperational, " attached {} generation {}", where_.fullPath(), attached->generation);
  return attached;
}

bool Reader::attached() const { return current() != nullptr; }

Bytes Reader::mappedBytes() const {
  const Mapping* m = current();
  return m == nullptr ? Bytes() : Bytes(m->base, m->size);
}

namespace {

// The first n (1..8) bytes at p as a little-endian word, zero above them; reads no byte outside
// [p, p + n), with at most two loads and no branch but on n.
[[gnu::always_inline]] inline std::uint64_t partialWord(const std::uint8_t* p, std::size_t n) {
  if (n >= 4) return get32(p) | std::uint64_t{get32(p + n - 4)} << (8 * (n - 4));
  return std::uint64_t{p[0]} | std::uint64_t{p[n / 2]} << (8 * (n / 2)) | std::uint64_t{p[n - 1]} << (8 * (n - 1));
}

// Whether the n (>= 1) key bytes at `stored`, which lie in whole words of a slot copy, equal `key`:
// a word at a time, with one branch at the end, in a handful of instructions for a short key.
[[gnu::always_inline]] inline bool sameKey(const std::uint8_t* stored, const std::uint8_t* key, std::size_t n) {
  std::uint64_t diff = 0;
  std::size_t i = 0;
  for (; n - i > 8; i += 8) diff |= get64(stored + i) ^ get64(key + i);
  const std::size_t rest = n - i;
  const std::uint64_t mask = rest == 8 ? ~std::uint64_t{0} : (std::uint64_t{1} << (8 * rest)) - 1;
  diff |= (get64(stored + i) ^ partialWord(key + i, rest)) & mask;
  return diff == 0;
}

enum class Quick { found, absent, unsure };

// Copies slot `idx` into `buf` and checks the copy: true when the slot held still while it was
// copied and is whole, in its place and a record of `bucket`. Branch-free but for the answer.
template <typename Crc>
[[gnu::always_inline]] inline bool readSlot(const Mapping& m, std::uint32_t idx, std::uint32_t bucket, std::uint8_t* buf) {
  const std::uint8_t* s = m.slot(idx);
  const std::uint32_t seq = load<std::uint32_t>(s + kSeqAt, __ATOMIC_ACQUIRE);
  const std::uint64_t sum = copyAndSumSlot<Crc>(buf, s, m.slotSize);
  putRaw(buf + kLinkAt, load<std::uint32_t>(s + kLinkAt, __ATOMIC_RELAXED));
  std::atomic_thread_fence(std::memory_order_acquire);
  const std::uint32_t seqAfter = load<std::uint32_t>(s + kSeqAt, __ATOMIC_RELAXED);
  return (((seq & 1u) | (seqAfter ^ seq) | (get32(buf + kBucketAt) ^ bucket)) == 0) & slotWhole(m, idx, buf, sum);
}

[[gnu::always_inline]] inline bool holdsKey(const std::uint8_t* buf, Bytes key) {
  const std::uint16_t keyLen = get16(buf + kKeyLenAt);
  return keyLen == key.size() && sameKey(buf + kSlotHeaderBytes, key.data(), keyLen);
}

// The common case of a lookup, kept short and free of data-dependent branches: the processor
// overlaps the memory accesses of consecutive lookups only as far as its window of instructions in
// flight holds both, so every instruction here counts. The record is looked for at
// its bucket's home first, where the writer keeps it when it can: found there, the lookup has cost
// one slot and never reads the bucket's head. This is sound because a record at home never moves
// elsewhere while it lives (a new value of it is written back to the home), so a whole record of
// the key at the home is the key's current record, or, while the writer is storing a new one, that
// new one. Otherwise the chain is walked from the bucket's head, expecting every slot stable,
// whole and where it belongs; anything else (a slot being rewritten, a slot of another bucket,
// damage) answers unsure, and the lookup is done again by carefulFind, which retries, tells races
// from damage and reports. On found, `buf` holds the record.
template <typename Crc>
Quick quickFind(const Mapping& m, std::uint32_t bucket, Bytes key, std::uint8_t* buf) {
  if (readSlot<Crc>(m, homeSlot(m, bucket), bucket, buf) && holdsKey(buf, key)) [[likely]] {
    return Quick::found;
  }
  std::uint32_t idx = load<std::uint32_t>(m.bucket(bucket), __ATOMIC_ACQUIRE);
  for (std::uint32_t steps = 0; idx != kNone; ++steps) {
    if (idx >= m.slotCount || steps == m.slotCount || !readSlot<Crc>(m, idx, bucket, buf)) [[unlikely]] {
      return Quick::unsure;
    }
    if (holdsKey(buf, key)) return Quick::found;
    idx = get32(buf + kLinkAt);
  }
  return Quick::absent;
}

}  // namespace

// The lookup by walkChain, for when the quick one was unsure.
Reader::Found Reader::carefulFind(const Mapping& m, std::uint32_t bucket, Bytes key, std::uint8_t* buf) const {
  Found found = Found::absent;
  walkChain(m, bucket, buf, aliveTest(m), reporter(m), [&](const std::uint8_t* slot) {
    std::uint16_t keyLen = get16(slot + kKeyLenAt);
    if (keyLen != key.size() || std::memcmp(slot + kSlotHeaderBytes, key.data(), keyLen) != 0) return false;
    found = Found::present;
    return true;
  });
  return found;
}

std::optional<Bytes> Reader::find(Bytes key, std::uint32_t hash, RecordCopy& copy) const {
  // current(), spelled out: a lookup should not pay for a call to learn that nothing changed.
  const Mapping* m = current_.load(std::memory_order_acquire);
  if (m == nullptr || !isLive(*m)) [[unlikely]] m = refresh();
  std::uint8_t* buf = copy.bytes;
  // A file replaced while it was being read is read again in its successor (a few times at most:
  // each time, a writer has published a whole new table).
  for (int attempt = 0; attempt < 4; ++attempt) {
    if (m == nullptr || key.empty() || key.size() > m->keyMax) return std::nullopt;
    const std::uint32_t bucket = hash & m->bucketMask;
    const Quick quick = kCrcInstruction ? quickFind<CrcInstructionStep>(*m, bucket, key, buf)
                                        : quickFind<CrcTableStep>(*m, bucket, key, buf);
    if (quick == Quick::absent) return std::nullopt;
    if (quick == Quick::found || carefulFind(*m, bucket, key, buf) == Found::present) [[likely]] {
      return Bytes(buf + valueAt(get16(buf + kKeyLenAt)), get16(buf + kValueLenAt));
    }
    if (isLive(*m)) return std::nullopt;
    m = refresh();
  }
  return std::nullopt;
}

std::function<bool()> Reader::aliveTest(const Mapping& m) const {
  return [this, &m] { return writerAlive(m); };
}

std::function<void(const std::string&)> Reader::reporter(const Mapping& m) const {
  // Damage seen in a file that has been replaced meanwhile is not reported: the reader has moved
  // on, and a mapping turned to zeros would read as damaged throughout.
  return [this, &m](const std::string& why) {
    if (isLive(m)) report(why);
  };
}

bool Reader::writerAlive(const Mapping& m) const {
  if (load<std::uint32_t>(&m.header->writerOpen, __ATOMIC_ACQUIRE) == 0 || !isLive(m)) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  return current_.load(std::memory_order_relaxed) == &m && writerLockHeld(lockFd_);
}

std::optional<std::uint32_t> Reader::find(Bytes key, std::uint32_t hash, std::uint8_t* out, std::uint32_t outSize) const {
  RecordCopy copy;
  std::optional<Bytes> value = find(key, hash, copy);
  if (!value) return std::nullopt;
  if (value->size() > outSize) {
    report(fmt::format("value of {} bytes does not fit the reader's {}", value->size(), outSize));
    return std::nullopt;
  }
  std::memcpy(out, value->data(), value->size());
  return static_cast<std::uint32_t>(value->size());
}

void Reader::forEach(const std::function<void(Bytes key, Bytes value)>& fn) const {
  const Mapping* m = current();
  if (m == nullptr) return;
  alignas(8) std::uint8_t buf[kMaxSlotBytes];
  auto report = reporter(*m);
  auto alive = aliveTest(*m);
  // Keys already handed out from the current bucket: a walk that starts again must not repeat them.
  std::vector<std::uint8_t> seen;
  for (std::uint32_t b = 0; b <= m->bucketMask; ++b) {
    seen.clear();
    walkChain(*m, b, buf, alive, report, [&](const std::uint8_t* slot) {
      std::uint16_t keyLen = get16(slot + kKeyLenAt);
      Bytes key(slot + kSlotHeaderBytes, keyLen);
      for (std::size_t i = 0; i < seen.size(); i += 1 + seen[i]) {
        if (seen[i] == keyLen && std::memcmp(&seen[i + 1], key.data(), keyLen) == 0) return false;
      }
      seen.push_back(static_cast<std::uint8_t>(keyLen));
      seen.insert(seen.end(), key.begin(), key.end());
      fn(key, Bytes(slot + valueAt(keyLen), get16(slot + kValueLenAt)));
      return false;
    });
  }
}

std::uint64_t Reader::scalar(std::uint32_t index) const {
  PICO_ASSERT(index < kScalarCount);
  const Mapping* m = current();
  return m == nullptr ? 0 : load<std::uint64_t>(&m->header->scalars[index], __ATOMIC_ACQUIRE);
}

std::uint32_t Reader::occupancy() const {
  const Mapping* m = current();
  return m == nullptr ? 0 : load<std::uint32_t>(&m->header->occupancy, __ATOMIC_RELAXED);
}

std::uint32_t Reader::capacity() const {
  const Mapping* m = current();
  return m == nullptr ? 0 : m->capacity;
}

std::uint64_t Reader::generation() const {
  const Mapping* m = current();
  return m == nullptr ? 0 : m->generation;
}

bool Reader::writerOpen() const {
  const Mapping* m = current();
  return m != nullptr && writerAlive(*m);
}

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
  died_ = !writerAlive(*m) && isLive(*m);
  return died_;
}

std::size_t Reader::poll(const std::function<void(const Change&)>& fn) {
  Mapping* m = current();
  if (m == nullptr) return 0;
  auto resync = [&] {
    if (cursorMapping_ != m) {
      closedSeen_ = died_ = false;
      lastLivenessNs_ = 0;
    }
    cursorMapping_ = m;
    cursor_ = load<std::uint64_t>(&m->header->ringHead, __ATOMIC_ACQUIRE);
    lastChangeNs_ = monotonicNs();
    fn(Change{Change::Kind::resync, {}, 0});
  };
  if (m != cursorMapping_) {
    resync();
    return 1;
  }
  const std::uint64_t head = load<std::uint64_t>(&m->header->ringHead, __ATOMIC_ACQUIRE);
  if (head < cursor_ || head - cursor_ > m->ringCapacity) {
    resync();
    return 1;
  }
  std::size_t n = 0;
  alignas(8) std::uint8_t img[kRingHeaderBytes + kMaxKeyBytes + 8];
  const std::size_t entryBytes = roundUp(kRingHeaderBytes + m->keyMax, 8);
  for (std::uint64_t p = cursor_; p < head; ++p) {
    const std::uint8_t* e = m->ringEntry(p);
    bool whole = load<std::uint64_t>(e, __ATOMIC_ACQUIRE) == p + 1;
    if (whole) {
      copyWordsIn(img, e, entryBytes);
      std::atomic_thread_fence(std::memory_order_acquire);
      whole = load<std::uint64_t>(e, __ATOMIC_RELAXED) == p + 1;
    }
    if (!whole) {  // the writer lapped us while we read
      resync();
      return n + 1;
    }
    std::uint8_t kind = img[8];
    std::uint16_t keyLen = get16(img + 10);
    std::uint32_t scalarIndex = get32(img + 12);
    if (kind > static_cast<std::uint8_t>(Change::Kind::writerClosed) || keyLen > m->keyMax ||
        scalarIndex >= kScalarCount) {
      report(fmt::format("change ring entry {} is damaged", p));
      resync();
      return n + 1;
    }
    cursor_ = p + 1;
    ++n;
    if (kind == static_cast<std::uint8_t>(Change::Kind::writerClosed)) closedSeen_ = true;
    fn(Change{static_cast<Change::Kind>(kind), Bytes(img + kRingHeaderBytes, keyLen), scalarIndex});
  }
  if (n != 0) {
    lastChangeNs_ = monotonicNs();
  } else if (writerDied(m)) {
    closedSeen_ = true;
    fn(Change{Change::Kind::writerClosed, {}, 0});
    return 1;
  }
  return n;
}

bool Reader::wait(double seconds) {
  const std::uint64_t start = monotonicNs();
  const std::uint64_t budget = seconds <= 0 ? 0 : static_cast<std::uint64_t>(seconds * 1e9);
  while (true) {
    Mapping* m = current();
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


#include "platform/Shelf/Shelf.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "platform/Shelf/Format.h"

namespace Shelf {

using namespace detail;

namespace {

// What reading a slot under its stamp gave: the record its link names, whole (ok), another stamp or
// one that moved during the read (moved: the writer freed or rewrote the record since the link
// was read, or damage, which the link tells), or the named record held still and is not whole
// (damaged).
enum class Snap { ok, moved, damaged };

[[gnu::always_inline]] inline bool wholeRecord(const Mapping& m, const std::uint8_t* buf, std::uint64_t sum) {
  const std::uint64_t w0 = get64(buf + kStampAt);
  return (sum == get64(buf + kChecksumAt)) & (keyLenOf(w0) != 0) & (keyLenOf(w0) <= m.keyMax) &
         (valueLenOf(w0) <= m.valueMax);
}

// Copies slot `idx` into `buf` under its stamp, expecting `stamp`; `seen` receives the stamp word
// as loaded first.
Snap snapshot(const Mapping& m, std::uint32_t idx, std::uint32_t stamp, std::uint8_t* buf, std::uint64_t& seen) {
  const std::uint8_t* s = m.slot(idx);
  readerStep("walk: stamp");
  const std::uint64_t w0 = load<std::uint64_t>(s + kStampAt, __ATOMIC_ACQUIRE);
  seen = w0;
  if (stampOf(w0) != stamp) return Snap::moved;
  readerStep("walk: record");
  const std::uint64_t sum = copyAndSum(buf, s, m.slotSize, w0);
  readFence();
  readerStep("walk: stamp again");
  if (load<std::uint64_t>(s + kStampAt, kWordLoad) != w0) return Snap::moved;
  putRaw(buf + kStampAt, w0);
  return wholeRecord(m, buf, sum) ? Snap::ok : Snap::damaged;
}

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

[[gnu::always_inline]] inline bool holdsKey(const std::uint8_t* buf, Bytes key) {
  const std::uint16_t keyLen = keyLenOf(get64(buf + kStampAt));
  return keyLen == key.size() && sameKey(buf + kSlotHeaderBytes, key.data(), keyLen);
}

// The quick lookup: the home slot alone, answering when the bucket's head names the record there
// and it holds the key. On true, `buf` holds the record.
template <typename Crc>
[[gnu::always_inline]] inline bool atHome(const Mapping& m, std::uint32_t bucket, Bytes key, std::uint8_t* buf) {
  const std::uint8_t* s = m.slot(bucket);
  readerStep("home: stamp");
  const std::uint64_t w0 = load<std::uint64_t>(s + kStampAt, __ATOMIC_ACQUIRE);
  readerStep("home: head");
  const std::uint64_t head = load<std::uint64_t>(s + kHeadAt, kWordLoad);
  readerStep("home: record");
  const std::uint64_t sum = copyAndSumSlot<Crc>(buf, s, m.slotSize, w0);
  readFence();
  readerStep("home: stamp again");
  const std::uint64_t w0After = load<std::uint64_t>(s + kStampAt, kWordLoad);
  putRaw(buf + kStampAt, w0);
  return (((head ^ linkTo(bucket, stampOf(w0))) | (w0After ^ w0)) == 0) & wholeRecord(m, buf, sum) && holdsKey(buf, key);
}

}  // namespace

// Walks the chain of `bucket`, calling visit(buf) for each whole record; visit returns true to
// stop. See Shelf.h for why a completed walk is linearizable; the cases here:
// - a link to a slot that holds another record than the one it names: if the link has changed
//   since it was read, the writer moved on (the walk starts again); if it has not, the file is
//   damaged. Only the record's stamp word may have been hit: then the record is whole under the
//   stamp the link names, and is used; otherwise the walk ends there, reported.
// - a record whose checksum fails while its stamp holds still: damage, reported and skipped (the
//   walk goes on through its link, so that one damaged record hides no other).
template <typename Visit>
Reader::Walk Reader::walk(const Mapping& m, std::uint32_t bucket, std::uint8_t* buf, Visit&& visit) const {
  bool looped = false;
  for (int attempt = 0; attempt < kMaxWalks; ++attempt) {
    if (attempt > 0) {
      restarts_.fetch_add(1, std::memory_order_relaxed);
      pause(attempt - 1);
    }
    looped = false;
    readerStep("walk: head");
    std::uint64_t link = load<std::uint64_t>(m.slot(bucket) + kHeadAt, __ATOMIC_ACQUIRE);
    std::uint32_t predecessor = kNone;  // kNone: the link is the bucket's head
    std::uint64_t predecessorSeen = 0;
    std::uint32_t steps = 0;
    bool again = false;
    while (!again) {
      const std::uint32_t idx = linkSlot(link);
      if (idx == kNone) {
        if (link == kEndLink) return Walk::done;
        reportOnce(m, fmt::format("the end of the chain of bucket {} carries stamp {:#x}", bucket, linkStamp(link)));
        return Walk::damaged;
      }
      if (idx >= m.slotCount) {
        reportOnce(m, fmt::format("link to slot {} beyond {} slots in bucket {}", idx, m.slotCount, bucket));
        return Walk::damaged;
      }
      if (++steps > m.slotCount) {
        looped = again = true;
        break;
      }
      std::uint64_t seen = 0;
      Snap snap = snapshot(m, idx, linkStamp(link), buf, seen);
      if (snap == Snap::moved) {
        readerStep("walk: link again");
        const bool linkStays =
            predecessor == kNone
                ? load<std::uint64_t>(m.slot(bucket) + kHeadAt, __ATOMIC_ACQUIRE) == link
                : load<std::uint64_t>(m.slot(predecessor) + kStampAt, __ATOMIC_ACQUIRE) == predecessorSeen &&
                      load<std::uint64_t>(m.slot(predecessor) + kLinkAt, __ATOMIC_ACQUIRE) == link;
        if (!linkStays) {
          again = true;
          break;
        }
        // Damage: the writer never frees a record that a link still names.
        const std::uint8_t* s = m.slot(idx);
        seen = load<std::uint64_t>(s + kStampAt, __ATOMIC_ACQUIRE);
        const std::uint64_t assumed = (seen & ~std::uint64_t{0xFFFFFFFF}) | linkStamp(link);
        const std::uint64_t sum = copyAndSum(buf, s, m.slotSize, assumed);
        putRaw(buf + kStampAt, assumed);
        if (!wholeRecord(m, buf, sum)) {
          reportOnce(m, fmt::format("a link in the chain of bucket {} names record {:#x}, which slot {} does not hold "
                                    "(it holds {:#x})",
                                    bucket, linkStamp(link), idx, stampOf(seen)));
          return Walk::damaged;
        }
        reportOnce(m, fmt::format("the stamp of slot {} in the chain of bucket {} reads {:#x}, its record {:#x}", idx,
                                  bucket, stampOf(seen), linkStamp(link)));
        snap = Snap::ok;
      }
      if (snap == Snap::damaged) {
        reportOnce(m, fmt::format("checksum mismatch in slot {} (bucket {})", idx, bucket));
      } else if (visit(static_cast<const std::uint8_t*>(buf))) {
        return Walk::stopped;
      }
      predecessor = idx;
      predecessorSeen = seen;
      link = get64(buf + kLinkAt);
    }
  }
  gaveUp_.fetch_add(1, std::memory_order_relaxed);
  if (looped) reportOnce(m, fmt::format("chain of bucket {} loops", bucket));
  PICO_FMTRACE(Pico::kTraceLevelOperational, " bucket {} kept changing under {} walks; reading it as absent", bucket,
               kMaxWalks);
  return Walk::gaveUp;
}

Reader::Reader(Location where, Labels expected, std::uint32_t keyMax, std::uint32_t valueMax, CorruptionHandler handler)
    : where_(std::move(where)),
      expected_(std::move(expected)),
      keyMax_(keyMax),
      valueMax_(valueMax),
      handler_(std::move(handler)) {}

Reader::~Reader() = default;

void Reader::corruptionHandlerIs(CorruptionHandler handler) { handler_ = std::move(handler); }

void Reader::report(const std::string& message) const {
  std::string text = fmt::format("Shelf {}: {}", where_.fullPath(), message);
  if (handler_) {
    handler_(text);
  } else {
    std::fprintf(stderr, "%s\n", text.c_str());
  }
}

void Reader::reportOnce(const Mapping& m, const std::string& message) const {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    // Damage seen in a file that has been replaced meanwhile is not reported: the reader has moved
    // on, and a mapping turned to zeros would read as damaged throughout.
    if (current_.load(std::memory_order_relaxed) != &m) return;
    if (std::find(reported_.begin(), reported_.end(), message) != reported_.end()) return;
    if (reported_.size() < 1024) reported_.push_back(message);
  }
  report(message);
}

Reader::Stats Reader::stats() const {
  return Stats{restarts_.load(std::memory_order_relaxed), gaveUp_.load(std::memory_order_relaxed)};
}

Mapping* Reader::current() const {
  Mapping* m = current_.load(std::memory_order_acquire);
  if (m != nullptr && isLive(*m)) [[likely]] return m;
  if (m != nullptr && monotonicNs() < m->recheckAtNs.load(std::memory_order_relaxed)) return m;
  return refresh();
}

// Attaches the file at the path when there is none yet, or when the attached one was replaced.
// Failures are reported once each; the reader keeps whatever it had.
//
// Memory. A lookup running in another thread may still be reading the mapping just replaced, so
// that one stays as it is. The one before it is turned to zeros in place: one mmap over the same
// addresses, of anonymous read-only pages, which drops the file (and its memory, once the writer
// has let go of it too) while every address a late lookup might touch stays readable. Zeros read
// as a replaced table everywhere (the live word is not the file's mark, no record is whole), so
// such a lookup retries on the current file. A later file is mapped into such a range when it
// fits: a lookup still in it then reads that file, whose mark is not the one it expects (and whose
// records, should the geometry be the same, are the table's current ones). So a reader holds at
// most three address ranges while its writer restarts with one geometry.
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

Mapping* Reader::refreshLocked(std::string& problem, bool evenIfLive) const {
  Mapping* m = current_.load(std::memory_order_acquire);
  const bool stillLive = m != nullptr && isLive(*m);
  if (stillLive && !evenIfLive) return m;
  const std::uint64_t now = monotonicNs();
  if (m != nullptr && !stillLive) {
    if (now < m->recheckAtNs.load(std::memory_order_relaxed)) return m;
    // Retired while still at the path is the moment between a new writer's retiring it and
    // publishing its own (or that writer died there): look again soon, not on every call.
    m->recheckAtNs.store(now + kRetiredRecheckNs, std::memory_order_relaxed);
  }
  auto refuse = [&](const std::string& why) {
    if (why != refused_) {
      refused_ = why;
      problem = why;
    }
    return m;
  };

  std::string why;
  const int dirFd = where_.openDirectory(false, why);
  // A folder this user may not open is no more a missing table than a file it may not open.
  if (dirFd < 0) return errno == EPERM || errno == EACCES ? refuse(why) : m;
  struct stat st;
  int fd = openRegular(dirFd, where_.leaf(), O_RDONLY, why, &where_, &st);
  close(dirFd);
  if (fd < 0) {
    if (errno == ENOENT) return m;
    // Not allowed to read it is not damage: say which.
    return refuse((errno == EACCES ? "cannot open it: " : "not a table file: ") + why);
  }
  refused_.clear();
  struct FdCloser {
    int fd;
    ~FdCloser() {
      if (fd >= 0) close(fd);
    }
  } fdCloser{fd};
  if (m != nullptr && static_cast<std::uint64_t>(st.st_dev) == m->identity[0] &&
      static_cast<std::uint64_t>(st.st_ino) == m->identity[1]) {
    // Still the file at the path (the reader holds it open, so its inode cannot be another's):
    // retired by a writer that died before it published its own, or its live word is damaged.
    const std::uint32_t live = load<std::uint32_t>(&m->header->live, __ATOMIC_ACQUIRE);
    if (live != 0 && live != m->liveMark) {
      problem = fmt::format("the table's live word reads {:#x}, neither its mark {:#x} nor retired", live, m->liveMark);
      if (std::find(reported_.begin(), reported_.end(), problem) != reported_.end()) problem.clear();
      else reported_.push_back(problem);
    }
    return m;
  }
  const std::uint64_t identity[5] = {static_cast<std::uint64_t>(st.st_dev), static_cast<std::uint64_t>(st.st_ino),
                                     static_cast<std::uint64_t>(st.st_ctim.tv_sec),
                                     static_cast<std::uint64_t>(st.st_ctim.tv_nsec), static_cast<std::uint64_t>(st.st_size)};
  if (std::equal(identity, identity + 5, failed_)) return m;
  auto fail = [&](const std::string& why) {
    std::copy(identity, identity + 5, failed_);
    problem = why;
    return m;
  };
  if (static_cast<std::uint64_t>(st.st_size) < kHeaderBytes) {
    return fail(fmt::format("file of {} bytes is too short to hold a table", st.st_size));
  }
  // The header is read and checked before anything is mapped: a file of absurd geometry is
  // refused before it costs address space.
  FileHeader h;
  if (pread(fd, &h, sizeof h, 0) != static_cast<ssize_t>(sizeof h)) return fail(fmt::format("cannot read: {}", std::strerror(errno)));
  if (std::string problem = headerProblem(h, static_cast<std::uint64_t>(st.st_size)); !problem.empty()) return fail(problem);
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
  // A writer writes every slot before it publishes its file; one whose slots take no storage was
  // not made by a writer (a sparse file of a huge geometry would cost a reader a walk of millions of
  // empty buckets).
  if (static_cast<std::uint64_t>(st.st_blocks) * 512 < h.ringOffset) {
    return fail(fmt::format("a file of {} bytes of which only {} are stored: its slots were never written",
                            st.st_size, static_cast<std::uint64_t>(st.st_blocks) * 512));
  }

  // Into the smallest range of a mapping turned to zeros that holds it, or a new one.
  Mapping* range = nullptr;
  const std::size_t size = static_cast<std::size_t>(st.st_size);
  for (const std::unique_ptr<Mapping>& old : mappings_) {
    if (!old->fileBacked && old->ownsRange && std::max(old->size, old->rangeSize) >= size &&
        (range == nullptr || std::max(old->size, old->rangeSize) < std::max(range->size, range->rangeSize))) {
      range = old.get();
    }
  }
  void* base = mmap(range != nullptr ? range->base : nullptr, size, PROT_READ,
                    MAP_SHARED | (range != nullptr ? MAP_FIXED : 0), fd, 0);
  if (base == MAP_FAILED) {
    const int saved = errno;
    // A failed fixed mapping may have dropped the range: zeros again, for a lookup still in it.
    if (range != nullptr) {
      mmap(range->base, std::max(range->size, range->rangeSize), PROT_READ,
           MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    }
    return fail(fmt::format("cannot map: {}", std::strerror(saved)));
  }
  auto fresh = std::make_unique<Mapping>();
  fresh->base = static_cast<std::uint8_t*>(base);
  fresh->size = size;
  fresh->rangeSize = size;
  if (range != nullptr) {
    fresh->rangeSize = std::max(range->size, range->rangeSize);
    range->ownsRange = false;
  }
  fresh->fd = std::exchange(fdCloser.fd, -1);
  std::copy(identity, identity + 5, fresh->identity);
  fresh->header = reinterpret_cast<FileHeader*>(fresh->base);
  fresh->adopt(&h);
  Mapping* attached = fresh.get();
  for (const std::unique_ptr<Mapping>& old : mappings_) {
    if (old.get() == m || !old->fileBacked) continue;
    if (mmap(old->base, old->size, PROT_READ, MAP_FIXED | MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0) !=
        MAP_FAILED) {
      old->fileBacked = false;
      close(std::exchange(old->fd, -1));
    }
  }
  mappings_.push_back(std::move(fresh));
  reported_.clear();
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

std::optional<Bytes> Reader::find(Bytes key, std::uint32_t hash, RecordCopy& copy) const {
  // current(), spelled out: a lookup should not pay for a call to learn that nothing changed.
  Mapping* m = current_.load(std::memory_order_acquire);
  if (m == nullptr || !isLive(*m)) [[unlikely]] m = current();
  std::uint8_t* buf = copy.bytes;
  // A file replaced while it was being read is read again in its successor (a few times at most:
  // each time, a writer has published a whole new table).
  for (int attempt = 0; attempt < 4; ++attempt) {
    if (m == nullptr || key.empty() || key.size() > m->keyMax) return std::nullopt;
    const std::uint32_t bucket = m->bucketOf(hash);
    const bool home = kCrcInstruction ? atHome<CrcInstructionStep>(*m, bucket, key, buf)
                                      : atHome<CrcTableStep>(*m, bucket, key, buf);
    if (home || walk(*m, bucket, buf, [&](const std::uint8_t* record) { return holdsKey(record, key); }) ==
                    Walk::stopped) [[likely]] {
      const std::uint64_t w0 = get64(buf + kStampAt);
      return Bytes(buf + valueAt(keyLenOf(w0)), valueLenOf(w0));
    }
    if (isLive(*m)) return std::nullopt;
    Mapping* next = current();
    if (next == m) return std::nullopt;
    m = next;
  }
  return std::nullopt;
}

bool Reader::writerAlive(const Mapping& m) const {
  if (load<std::uint32_t>(&m.header->writerOpen, __ATOMIC_ACQUIRE) == 0 || !isLive(m)) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  return m.fileBacked && writerLockHeld(m.fd);
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
  // Keys already handed out from the current bucket: a walk that starts again must not repeat them.
  std::vector<std::uint8_t> seen;
  for (std::uint32_t b = 0; b < m->slotCount; ++b) {
    seen.clear();
    walk(*m, b, buf, [&](const std::uint8_t* slot) {
      const std::uint64_t w0 = get64(slot + kStampAt);
      const std::uint16_t keyLen = keyLenOf(w0);
      Bytes key(slot + kSlotHeaderBytes, keyLen);
      for (std::size_t i = 0; i < seen.size(); i += 1 + seen[i]) {
        if (seen[i] == keyLen && std::memcmp(&seen[i + 1], key.data(), keyLen) == 0) return false;
      }
      seen.push_back(static_cast<std::uint8_t>(keyLen));
      seen.insert(seen.end(), key.begin(), key.end());
      fn(key, Bytes(slot + valueAt(keyLen), valueLenOf(w0)));
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

std::uint32_t Reader::formatVersion() const {
  const Mapping* m = current();
  return m == nullptr ? 0 : m->header->version;
}

std::uint32_t Reader::writerPid() const {
  const Mapping* m = current();
  return m == nullptr ? 0 : m->header->writerPid;
}

std::uint64_t Reader::changeCount() const {
  const Mapping* m = current();
  return m == nullptr ? 0 : load<std::uint64_t>(&m->header->ringHead, __ATOMIC_ACQUIRE);
}

double Reader::createdAt() const {
  const Mapping* m = current();
  return m == nullptr ? 0 : static_cast<double>(load<std::uint64_t>(&m->header->createdNs, __ATOMIC_RELAXED)) * 1e-9;
}

double Reader::lastChangeAt() const {
  const Mapping* m = current();
  return m == nullptr ? 0 : static_cast<double>(load<std::uint64_t>(&m->header->lastChangeNs, __ATOMIC_RELAXED)) * 1e-9;
}

}  // namespace Shelf


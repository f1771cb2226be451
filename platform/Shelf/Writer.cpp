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

struct Writer::Found {
  std::uint32_t index = kNone;        // the slot holding the key, or kNone
  std::uint32_t predecessor = kNone;  // the slot linking to it, or kNone for the bucket head
};

namespace {

struct FdCloser {
  int fd;
  ~FdCloser() {
    if (fd >= 0) close(fd);
  }
};

// Marks the table file the new one replaced as retired, so that its readers move on.
void retireOldFile(int oldFd) {
  struct stat st;
  if (fstat(oldFd, &st) != 0 || static_cast<std::uint64_t>(st.st_size) < kHeaderBytes) return;
  FileHeader* h = static_cast<FileHeader*>(mmap(nullptr, kHeaderBytes, PROT_READ | PROT_WRITE, MAP_SHARED, oldFd, 0));
  if (h == MAP_FAILED) return;
  if (h->magic == kMagic) {
    store<std::uint32_t>(&h->live, 0, __ATOMIC_RELEASE);
    store<std::uint32_t>(&h->wakeWord, load<std::uint32_t>(&h->wakeWord, __ATOMIC_RELAXED) + 1, __ATOMIC_RELEASE);
    futexWake(&h->wakeWord);
  }
  munmap(h, kHeaderBytes);
}

// Takes the table's writer lock: an open file description lock on a file beside the table, which
// the kernel drops when the descriptor's last holder goes, crash or not. It is taken before
// anything is built and kept until the writer is destroyed, so two writers started together
// cannot both get past it, whether the table exists yet or not. The lock file is never removed:
// a writer that removed it could lock a new one while another still holds the old. The holder
// writes its process id into it for the message a second writer gets.
int takeWriterLock(int dirFd, const Location& where, const std::string& full) {
  const std::string name = sideName(where.leaf(), kLockSuffix);
  std::string why;
  const int fd = openRegular(dirFd, name, O_RDWR | O_CREAT, why);
  if (fd < 0) throw Exception(fmt::format("Shelf {}: cannot open its lock file {}: {}", full, name, why));
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  if (fcntl(fd, F_OFD_SETLK, &lock) != 0) {
    const int saved = errno;
    if (saved != EAGAIN && saved != EACCES) {
      close(fd);
      errno = saved;
      throw Exception(systemError("cannot lock", full));
    }
    // The holder may have taken the lock a moment ago and not written its pid yet, or the file may
    // still name a holder that died: look again for a little while.
    long pid = 0;
    for (int attempt = 0; attempt < 20 && pid == 0; ++attempt) {
      char text[24] = {};
      const ssize_t n = pread(fd, text, sizeof text - 1, 0);
      if (n > 0 && std::memchr(text, '\n', static_cast<std::size_t>(n)) != nullptr) {
        pid = std::strtol(text, nullptr, 10);
        if (pid > 0 && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) pid = 0;
      }
      if (pid == 0) {
        timespec ts{0, 5'000'000};
        nanosleep(&ts, nullptr);
      }
    }
    close(fd);
    throw Exception(pid > 0 ? fmt::format("Shelf {}: another writer (pid {}) has this table open", full, pid)
                            : fmt::format("Shelf {}: another writer has this table open", full));
  }
  const std::string pid = fmt::format("{}\n", getpid());
  if (ftruncate(fd, 0) != 0 || pwrite(fd, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
    // The pid is only for messages; the lock is what counts.
    PICO_FMTRACE(Pico::kTraceLevelOperational, " {}: cannot note the writer's pid in {}", full, name);
  }
  return fd;
}

}  // namespace

std::unique_ptr<Writer> Writer::create(const Location& where, const Labels& labels, const Geometry& g) {
  if (g.capacity == 0 || g.capacity > kMaxCapacity) {
    Pico::fmthrow<Kelp::RangeException>("Shelf capacity {} outside 1..{}", g.capacity, kMaxCapacity);
  }
  if (g.keyMax == 0 || g.keyMax > kMaxKeyBytes) {
    Pico::fmthrow<Kelp::RangeException>("Shelf key size {} outside 1..{}", g.keyMax, kMaxKeyBytes);
  }
  if (slotBytesFor(g.keyMax, g.valueMax) > kMaxSlotBytes) {
    Pico::fmthrow<Kelp::RangeException>("Shelf slot of {} bytes above {}", slotBytesFor(g.keyMax, g.valueMax),
                                        kMaxSlotBytes);
  }
  if (g.ringCapacity != 0 && (!std::has_single_bit(g.ringCapacity) || g.ringCapacity > (1u << 20))) {
    Pico::fmthrow<Kelp::RangeException>("Shelf ring capacity {} is not a power of 2 up to {}", g.ringCapacity, 1u << 20);
  }
  const Layout l = layoutFor(g.capacity, g.keyMax, g.valueMax, g.ringCapacity);
  const std::string full = where.fullPath();

  const int dirFd = where.openDirectory(true);
  if (dirFd < 0) throw Exception(systemError("cannot open its directory", full));
  FdCloser dirCloser{dirFd};
  FdCloser lockCloser{takeWriterLock(dirFd, where, full)};

  // The table this one replaces, if any, to be retired once the new one is in its place. Something
  // other than a table file there is simply replaced.
  std::uint64_t generation = 1;
  std::string why;
  FdCloser old{openRegular(dirFd, where.leaf(), O_RDWR, why)};
  if (old.fd >= 0) {
    FileHeader h{};
    if (pread(old.fd, &h, sizeof h, 0) == static_cast<ssize_t>(sizeof h) && h.magic == kMagic) {
      generation = h.generation + 1;
    }
  }

  // Build the new file under a name of its own, then rename it over the path in one step. Holding
  // the lock, this writer is the only one that builds: what a writer that died left there goes.
  const std::string tmp = sideName(where.leaf(), kNewSuffix);
  unlinkat(dirFd, tmp.c_str(), 0);
  const int fd = openat(dirFd, tmp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) throw Exception(systemError("cannot create", full));
  FdCloser fileCloser{fd};
  auto map = std::make_unique<Mapping>();
  auto fail = [&](std::string_view what) {
    std::string message = systemError(what, full);
    unlinkat(dirFd, tmp.c_str(), 0);
    throw Exception(message);
  };
  if (ftruncate(fd, static_cast<off_t>(l.fileSize)) != 0) fail("cannot size");
  void* base = mmap(nullptr, l.fileSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (base == MAP_FAILED) fail("cannot map");
  map->base = static_cast<std::uint8_t*>(base);
  map->size = l.fileSize;

  auto* h = reinterpret_cast<FileHeader*>(map->base);
  h->magic = kMagic;
  h->version = kVersion;
  h->writerPid = static_cast<std::uint32_t>(getpid());
  h->fileSize = l.fileSize;
  h->generation = generation;
  h->capacity = g.capacity;
  h->slotCount = l.slotCount;
  h->bucketCount = l.bucketCount;
  h->keyMax = g.keyMax;
  h->valueMax = g.valueMax;
  h->slotSize = l.slotSize;
  h->ringCapacity = l.ringCapacity;
  h->ringEntrySize = l.ringEntrySize;
  h->bucketsOffset = l.bucketsOffset;
  h->slotsOffset = l.slotsOffset;
  h->ringOffset = l.ringOffset;
  copyLabel(h->typeName, sizeof h->typeName, labels.typeName);
  copyLabel(h->collectionName, sizeof h->collectionName, labels.collectionName);
  copyLabel(h->tableName, sizeof h->tableName, labels.tableName);
  h->geometryChecksum = headerChecksum(h);
  h->live = kLiveMark;
  h->writerOpen = 1;
  map->header = h;
  map->adopt(h);
  std::memset(map->buckets, 0xFF, 4ull * l.bucketCount);

  std::unique_ptr<Writer> w(new Writer);
  w->map_ = std::move(map);
  w->path_ = full;
  w->labels_ = labels;
  w->staging_.assign(l.slotSize, 0);
  w->freeFifo_.resize(l.slotCount);
  w->slotState_.assign(l.slotCount, kSlotFree | kSlotQueued);
  for (std::uint32_t i = 0; i < l.slotCount; ++i) {
    w->freeFifo_[i] = i;
    w->writeSlot(i, kFreeBucket, kNone, {}, {});
  }
  w->freeCount_ = l.slotCount;
  w->queuedCount_ = l.slotCount;

  if (renameat(dirFd, tmp.c_str(), dirFd, where.leaf().c_str()) != 0) fail("cannot publish");
  struct stat st;
  if (fstat(fd, &st) == 0) {
    w->map_->dev = st.st_dev;
    w->map_->ino = st.st_ino;
  }
  if (old.fd >= 0) retireOldFile(old.fd);
  w->lockFd_ = std::exchange(lockCloser.fd, -1);
  PICO_FMTRACE(Pico::kTraceLevelOperational, " new table {} generation {} capacity {}", full, generation, g.capacity);
  return w;
}

Writer::~Writer() {
  if (map_) {
    // Closed in this order so that a reader which sees the lock free has seen the flag cleared: it
    // then knows the writer closed rather than died.
    store<std::uint32_t>(&map_->header->writerOpen, 0, __ATOMIC_RELEASE);
    announce(static_cast<std::uint8_t>(Change::Kind::writerClosed), {}, 0);
    futexWake(&map_->header->wakeWord);
  }
  if (lockFd_ >= 0) {
    (void)!ftruncate(lockFd_, 0);  // no holder to name any more
    close(lockFd_);
  }
}

std::uint32_t Writer::capacity() const { return map_->capacity; }
std::uint64_t Writer::generation() const { return map_->generation; }

void Writer::corrupt(const std::string& what) const {
  throw CorruptionException(fmt::format("Shelf {}: {}", path_, what));
}

Writer::Found Writer::locate(Bytes key, std::uint32_t bucket) const {
  const Mapping& m = *map_;
  Found f;
  std::uint32_t idx = load<std::uint32_t>(m.bucket(bucket), __ATOMIC_RELAXED);
  std::uint32_t steps = 0;
  while (idx != kNone) {
    if (idx >= m.slotCount) corrupt(fmt::format("link to slot {} beyond {} slots in bucket {}", idx, m.slotCount, bucket));
    if (++steps > m.slotCount) corrupt(fmt::format("chain of bucket {} loops", bucket));
    const std::uint8_t* s = m.slot(idx);
    if (get32(s + kBucketAt) != bucket || get32(s + kSelfAt) != idx) {
      corrupt(fmt::format("slot {} in the chain of bucket {} belongs elsewhere", idx, bucket));
    }
    std::uint16_t keyLen = get16(s + kKeyLenAt);
    if (keyLen == key.size() && std::memcmp(s + kSlotHeaderBytes, key.data(), keyLen) == 0) {
      f.index = idx;
      return f;
    }
    f.predecessor = idx;
    idx = linkOf(s);
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

// A slot for a record of `bucket`: its home when that is free, else the oldest free slot.
std::uint32_t Writer::takeSlotFor(std::uint32_t bucket) {
  const std::uint32_t home = homeSlot(*map_, bucket);
  if ((slotState_[home] & kSlotFree) == 0) return takeFreeSlot();
  slotState_[home] &= static_cast<std::uint8_t>(~kSlotFree);  // its queue entry stays, passed over later
  --freeCount_;
  return home;
}

// Writes a whole slot image under its sequence counter: odd while the words change, even after.
void Writer::writeSlot(std::uint32_t index, std::uint32_t bucket, std::uint32_t next, Bytes key, Bytes value) {
  std::uint8_t* img = staging_.data();
  const std::size_t size = map_->slotSize;
  std::memset(img, 0, size);
  putRaw(img + kBucketAt, bucket);
  putRaw(img + kSelfAt, index);
  putRaw(img + kKeyLenAt, static_cast<std::uint16_t>(key.size()));
  putRaw(img + kValueLenAt, static_cast<std::uint16_t>(value.size()));
  if (!key.empty()) std::memcpy(img + kSlotHeaderBytes, key.data(), key.size());
  if (!value.empty()) std::memcpy(img + valueAt(key.size()), value.data(), value.size());
  putRaw(img + kChecksumAt, slotChecksum(img, size));

  std::uint8_t* s = map_->slot(index);
  std::uint32_t seq = load<std::uint32_t>(s + kSeqAt, __ATOMIC_RELAXED);
  store<std::uint32_t>(s + kSeqAt, seq + 1, __ATOMIC_RELAXED);
  std::atomic_thread_fence(std::memory_order_release);
  copyWordsOut(s + 8, img + 8, size - 8);  // the first word holds the counter and the link
  store<std::uint32_t>(s + kLinkAt, next, __ATOMIC_RELAXED);
  store<std::uint32_t>(s + kSeqAt, seq + 2, __ATOMIC_RELEASE);
}

// Points slot `predecessor` at `next`: one store of its link, which readers may be following.
// Nothing else of a slot they can reach is ever changed in place, so a writer that dies between
// any two instructions leaves every reachable record whole.
void Writer::relink(std::uint32_t predecessor, std::uint32_t next) {
  store<std::uint32_t>(map_->slot(predecessor) + kLinkAt, next, __ATOMIC_RELEASE);
}

void Writer::freeSlot(std::uint32_t index) {
  writeSlot(index, kFreeBucket, kNone, {}, {});
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

void Writer::link(std::uint32_t predecessor, std::uint32_t bucket, std::uint32_t next) {
  if (predecessor == kNone) {
    store<std::uint32_t>(map_->bucket(bucket), next, __ATOMIC_RELEASE);
  } else {
    relink(predecessor, next);
  }
}

void Writer::announce(std::uint8_t kind, Bytes key, std::uint32_t scalarIndex) {
  Mapping& m = *map_;
  std::uint8_t* e = m.ringEntry(ringHead_);
  std::uint8_t img[kRingHeaderBytes + kMaxKeyBytes + 8] = {};
  img[8] = kind;
  putRaw(img + 10, static_cast<std::uint16_t>(key.size()));
  putRaw(img + 12, scalarIndex);
  if (!key.empty()) std::memcpy(img + kRingHeaderBytes, key.data(), key.size());
  store<std::uint64_t>(e, 0, __ATOMIC_RELAXED);
  std::atomic_thread_fence(std::memory_order_release);
  copyWordsOut(e + 8, img + 8, roundUp(kRingHeaderBytes + key.size(), 8) - 8);
  store<std::uint64_t>(e, ringHead_ + 1, __ATOMIC_RELEASE);
  ++ringHead_;
  store<std::uint64_t>(&m.header->ringHead, ringHead_, __ATOMIC_RELEASE);
  store<std::uint32_t>(&m.header->wakeWord, load<std::uint32_t>(&m.header->wakeWord, __ATOMIC_RELAXED) + 1,
                       __ATOMIC_RELEASE);
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
  const std::uint32_t bucket = hash & m.bucketMask;
  Found f = locate(key, bucket);
  if (f.index != kNone) {
    const std::uint8_t* old = m.slot(f.index);
    if (get16(old + kValueLenAt) == value.size() &&
        std::memcmp(old + valueAt(key.size()), value.data(), value.size()) == 0) {
      return false;
    }
    // Copy on write: the new value goes to a free slot linked in place of the old one, so readers
    // see either whole record at every moment.
    const std::uint32_t next = linkOf(old);
    if (f.index == homeSlot(m, bucket)) {
      // A record at home stays there, where readers look for it first: the new value is linked in
      // from a spare slot while the home is rewritten, then the home is linked back.
      std::uint32_t spare = takeFreeSlot();
      writeSlot(spare, bucket, next, key, value);
      link(f.predecessor, bucket, spare);
      writeSlot(f.index, bucket, next, key, value);
      link(f.predecessor, bucket, f.index);
      freeSlot(spare);
    } else {
      std::uint32_t n = takeSlotFor(bucket);
      writeSlot(n, bucket, next, key, value);
      link(f.predecessor, bucket, n);
      freeSlot(f.index);
    }
  } else {
    if (occupancy_ >= m.capacity) {
      throw TableFullException(
          fmt::format("Shelf table full (occupancy:{} tableSize:{}) {}", occupancy_, m.capacity, labels_.tableName));
    }
    std::uint32_t n = takeSlotFor(bucket);
    writeSlot(n, bucket, load<std::uint32_t>(m.bucket(bucket), __ATOMIC_RELAXED), key, value);
    store<std::uint32_t>(m.bucket(bucket), n, __ATOMIC_RELEASE);
    ++occupancy_;
    store<std::uint32_t>(&m.header->occupancy, occupancy_, __ATOMIC_RELAXED);
  }
  announce(static_cast<std::uint8_t>(Change::Kind::key), key, 0);
  return true;
}

bool Writer::erase(Bytes key, std::uint32_t hash) {
  Mapping& m = *map_;
  if (key.empty() || key.size() > m.keyMax) return false;
  const std::uint32_t bucket = hash & m.bucketMask;
  Found f = locate(key, bucket);
  if (f.index == kNone) return false;
  link(f.predecessor, bucket, linkOf(m.slot(f.index)));
  freeSlot(f.index);
  --occupancy_;
  store<std::uint32_t>(&m.header->occupancy, occupancy_, __ATOMIC_RELAXED);
  announce(static_cast<std::uint8_t>(Change::Kind::key), key, 0);
  return true;
}

void Writer::clear() {
  Mapping& m = *map_;
  // Empty every chain first, then free the slots: a reader that started before the clear finds a
  // free slot at worst, and walks again to find the bucket empty. The slots are found by their own
  // bucket field rather than through the chains, so a damaged link cannot hide one.
  for (std::uint32_t b = 0; b <= m.bucketMask; ++b) store<std::uint32_t>(m.bucket(b), kNone, __ATOMIC_RELEASE);
  for (std::uint32_t i = 0; i < m.slotCount; ++i) {
    if ((slotState_[i] & kSlotFree) == 0) freeSlot(i);
  }
  occupancy_ = 0;
  store<std::uint32_t>(&m.header->occupancy, 0, __ATOMIC_RELAXED);
  announce(static_cast<std::uint8_t>(Change::Kind::cleared), {}, 0);
}

std::optional<std::uint32_t> Writer::find(Bytes key, std::uint32_t hash, std::uint8_t* out) const {
  if (key.empty() || key.size() > map_->keyMax) return std::nullopt;
  Found f = locate(key, hash & map_->bucketMask);
  if (f.index == kNone) return std::nullopt;
  const std::uint8_t* s = map_->slot(f.index);
  std::uint16_t valueLen = get16(s + kValueLenAt);
  std::memcpy(out, s + valueAt(key.size()), valueLen);
  return valueLen;
}

void Writer::forEach(const std::function<void(Bytes key, Bytes value)>& fn) const {
  const Mapping& m = *map_;
  for (std::uint32_t b = 0; b <= m.bucketMask; ++b) {
    std::uint32_t idx = load<std::uint32_t>(m.bucket(b), __ATOMIC_RELAXED);
    std::uint32_t steps = 0;
    while (idx != kNone) {
      if (idx >= m.slotCount || ++steps > m.slotCount) corrupt(fmt::format("chain of bucket {} is damaged", b));
      const std::uint8_t* s = m.slot(idx);
      std::uint16_t keyLen = get16(s + kKeyLenAt);
      fn(Bytes(s + kSlotHeaderBytes, keyLen), Bytes(s + valueAt(keyLen), get16(s + kValueLenAt)));
      idx = linkOf(s);
    }
  }
}

void Writer::scalarIs(std::uint32_t index, std::uint64_t value) {
  PICO_ASSERT(index < kScalarCount);
  if (load<std::uint64_t>(&map_->header->scalars[index], __ATOMIC_RELAXED) == value) return;
  store<std::uint64_t>(&map_->header->scalars[index], value, __ATOMIC_RELEASE);
  announce(static_cast<std::uint8_t>(Change::Kind::scalar), {}, index);
}

std::uint64_t Writer::scalar(std::uint32_t index) const {
  PICO_ASSERT(index < kScalarCount);
  return load<std::uint64_t>(&map_->header->scalars[index], __ATOMIC_RELAXED);
}

}  // namespace Shelf

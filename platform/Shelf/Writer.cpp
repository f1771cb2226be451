#include "platform/Shelf/Shelf.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
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

// Marks the table file the new one replaces as retired, so that its readers move on.
void retireOldFile(int oldFd) {
  struct stat st;
  if (fstat(oldFd, &st) != 0 || static_cast<std::uint64_t>(st.st_size) < kHeaderBytes) return;
  FileHeader* h = static_cast<FileHeader*>(mmap(nullptr, kHeaderBytes, PROT_READ | PROT_WRITE, MAP_SHARED, oldFd, 0));
  if (h == MAP_FAILED) return;
  if (h->magic == kMagic) {
    writerStore("create: retire the old file");
    store<std::uint32_t>(&h->live, 0, __ATOMIC_RELEASE);
    store<std::uint32_t>(&h->wakeWord, load<std::uint32_t>(&h->wakeWord, __ATOMIC_RELAXED) + 1, __ATOMIC_RELEASE);
    futexWake(&h->wakeWord);
  }
  munmap(h, kHeaderBytes);
}

// Takes the table's writer lock: an open file description lock on a file beside the table, which
// the kernel drops when the descriptor's last holder goes, crash or not. It is taken before
// anything is built and kept until the writer is destroyed, so two writers started together
// cannot both get past it, whether the table exists yet or not. The file is the owner's alone
// (mode 0600): a user who could open it could take a read lock on it and so keep every writer out.
// It is never removed: a writer that removed it could lock a new one while another still holds the
// old. The holder writes its process id into it for the message a second writer gets.
int takeWriterLock(int dirFd, const Location& where, const std::string& full) {
  const std::string name = sideName(where.leaf(), kLockSuffix);
  std::string why;
  const int fd = openRegular(dirFd, name, O_RDWR | O_CREAT, why, &where);
  if (fd < 0) throw Exception(fmt::format("Shelf {}: cannot open its lock file {}: {}", full, name, why));
  struct stat st;
  if (fstat(fd, &st) == 0 && (st.st_mode & 077) != 0 && fchmod(fd, 0600) != 0) {
    close(fd);
    throw Exception(systemError(fmt::format("cannot make its lock file {} private", name), full));
  }
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

// A mark for a new file's live word: odd (so never 0, the retired mark) and unlikely to be any
// other file's, so that a reader never takes one file's mapping for another's.
std::uint32_t newLiveMark() {
  std::uint32_t mark = 0;
  if (getrandom(&mark, sizeof mark, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof mark)) {
    mark = static_cast<std::uint32_t>(monotonicNs() * 0x9E3779B97F4A7C15ull >> 32) ^ static_cast<std::uint32_t>(getpid());
  }
  return mark | 1u;
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
  if (g.ringCapacity != 0 && (!std::has_single_bit(g.ringCapacity) || g.ringCapacity > kMaxRingCapacity)) {
    Pico::fmthrow<Kelp::RangeException>("Shelf ring capacity {} is not a power of 2 up to {}", g.ringCapacity,
                                        kMaxRingCapacity);
  }
  const Layout l = layoutFor(g.capacity, g.keyMax, g.valueMax, g.ringCapacity);
  const std::string full = where.fullPath();

  std::string why;
  const int dirFd = where.openDirectory(true, why);
  if (dirFd < 0) throw Exception(fmt::format("Shelf {}: {}", full, why));
  FdCloser dirCloser{dirFd};
  FdCloser lockCloser{takeWriterLock(dirFd, where, full)};

  // The table this one replaces, if any, to be retired before the new one takes its place.
  // Something other than a table file there is simply replaced.
  std::uint64_t generation = 1;
  FdCloser old{openRegular(dirFd, where.leaf(), O_RDWR, why, &where)};
  if (old.fd >= 0) {
    FileHeader h{};
    if (pread(old.fd, &h, sizeof h, 0) == static_cast<ssize_t>(sizeof h) && h.magic == kMagic) {
      generation = h.generation + 1;
    }
  }

  // Build the new file under a name of its own, then rename it over the path in one step. Holding
  // the lock, this writer is the only one that builds: what a writer that died left there goes.
  const std::string tmp = sideName(where.leaf(), kNewSuffix);
  if (unlinkat(dirFd, tmp.c_str(), 0) != 0 && (errno == EISDIR || errno == EPERM)) {
    unlinkat(dirFd, tmp.c_str(), AT_REMOVEDIR);
  }
  writerStore("create: new file");
  // Private to this process until it holds its lock on it: nobody can have it open before.
  const int fd = openat(dirFd, tmp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) throw Exception(systemError(fmt::format("cannot create {}", tmp), full));
  FdCloser fileCloser{fd};
  auto fail = [&](std::string_view what) {
    std::string message = systemError(what, full);
    unlinkat(dirFd, tmp.c_str(), 0);
    throw Exception(message);
  };
  struct flock fileLock {};
  fileLock.l_type = F_WRLCK;
  fileLock.l_whence = SEEK_SET;
  if (fcntl(fd, F_OFD_SETLK, &fileLock) != 0) fail("cannot lock its new file");
  if (ftruncate(fd, static_cast<off_t>(l.fileSize)) != 0) fail("cannot size");
  void* base = mmap(nullptr, l.fileSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (base == MAP_FAILED) fail("cannot map");
  auto map = std::make_unique<Mapping>();
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
  h->liveMark = newLiveMark();
  h->keyMax = g.keyMax;
  h->valueMax = g.valueMax;
  h->slotSize = l.slotSize;
  h->ringCapacity = l.ringCapacity;
  h->ringEntrySize = l.ringEntrySize;
  h->slotsOffset = l.slotsOffset;
  h->ringOffset = l.ringOffset;
  copyLabel(h->typeName, sizeof h->typeName, labels.typeName);
  copyLabel(h->collectionName, sizeof h->collectionName, labels.collectionName);
  copyLabel(h->tableName, sizeof h->tableName, labels.tableName);
  h->geometryChecksum = headerChecksum(h);
  h->live = h->liveMark;
  h->writerOpen = 1;
  h->createdNs = h->lastChangeNs = realtimeNs();
  map->header = h;
  map->adopt(h);

  std::unique_ptr<Writer> w(new Writer);
  w->map_ = std::move(map);
  w->path_ = full;
  w->labels_ = labels;
  w->staging_.assign(l.slotSize, 0);
  w->freeFifo_.resize(l.slotCount);
  w->slotState_.assign(l.slotCount, kSlotFree | kSlotQueued);
  for (std::uint32_t i = 0; i < l.slotCount; ++i) {
    w->freeFifo_[i] = i;
    w->writeSlot(i, kEndLink, {}, {});
    store<std::uint64_t>(w->map_->slot(i) + kHeadAt, kEndLink, __ATOMIC_RELAXED);
  }
  w->freeCount_ = l.slotCount;
  w->queuedCount_ = l.slotCount;
  // Readable by others as the umask allows, now that the writer's lock on it is taken.
  if (fchmod(fd, 0644 & ~currentUmask()) != 0) fail("cannot set the mode of");

  writerStore("create: built");
  if (old.fd >= 0) retireOldFile(old.fd);
  writerStore("create: publish");
  if (renameat(dirFd, tmp.c_str(), dirFd, where.leaf().c_str()) != 0) fail("cannot publish");
  struct stat st;
  if (fstat(fd, &st) == 0) {
    w->map_->identity[0] = st.st_dev;
    w->map_->identity[1] = st.st_ino;
  }
  w->fileFd_ = std::exchange(fileCloser.fd, -1);
  w->lockFd_ = std::exchange(lockCloser.fd, -1);
  PICO_FMTRACE(Pico::kTraceLevelOperational, " new table {} generation {} capacity {}", full, generation, g.capacity);
  return w;
}

Writer::~Writer() {
  if (map_) {
    // Closed in this order so that a reader which sees the lock free has seen the flag cleared: it
    // then knows the writer closed rather than died.
    store<std::uint32_t>(&map_->header->writerOpen, 0, __ATOMIC_RELEASE);
    announce(RingKind::writerClosed, {}, 0);
    futexWake(&map_->header->wakeWord);
  }
  if (fileFd_ >= 0) close(fileFd_);
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

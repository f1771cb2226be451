// The writer's file: taking the writer's locks, building a new table file in private, publishing
// it at the path in place of the old one (retired first), and closing. The changes the writer makes
// to its table are in Writer.cpp.
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

#include "platform/Shelf/Format.h"
#include "platform/Shelf/Shelf.h"

namespace Shelf {

using namespace detail;

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
  // Every block taken now: where the file system has no room for it (a small /dev/shm), the
  // writer gets an error here rather than a SIGBUS at the first page it touches through the map.
  int error = 0;
  while ((error = posix_fallocate(fd, 0, static_cast<off_t>(l.fileSize))) == EINTR) {
  }
  if (error != 0) {
    errno = error;
    fail("cannot size");
  }
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

}  // namespace Shelf

#include "platform/Shelf/Shelf.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include "platform/Pico/Format.h"

static_assert(std::endian::native == std::endian::little, "the table format is little-endian");

namespace Shelf {

using namespace detail;  // the slot layout

namespace {

constexpr std::uint64_t kMagic = 0x464c454853504742ull;  // "BGPSHELF"
constexpr std::uint32_t kVersion = 2;
constexpr std::uint32_t kNone = 0xFFFFFFFFu;        // no slot: end of a chain, empty bucket
constexpr std::uint32_t kFreeBucket = 0xFFFFFFFEu;  // the bucket field of a free slot
constexpr std::size_t kHeaderBytes = 4096;

// Ring entry layout: stamp (position + 1 once complete), then kind, key length, scalar index, key.
constexpr std::size_t kRingHeaderBytes = 16;

// The writer wakes waiting readers at most this often; readers that saw a change recently poll
// at this interval, so no change waits longer than about one interval to be noticed.
constexpr std::uint64_t kWakeIntervalNs = 100'000;
constexpr std::uint64_t kIdleSliceNs = 20'000'000;

// How often a reader walks a chain again when the writer is changing it under its feet, and for
// how long at most: a writer rewrites a slot in well under a microsecond, so a chain that stays
// mid-write for milliseconds has a writer that is stopped or a damaged counter, and the lookup
// answers absent rather than wait on.
constexpr int kMaxWalks = 40;
constexpr std::uint64_t kMaxWalkWaitNs = 2'000'000;
constexpr int kSnapshotTries = 8;

struct FileHeader {
  // Fixed at creation and covered by geometryChecksum.
  std::uint64_t magic;
  std::uint32_t version;
  std::uint32_t writerPid;
  std::uint64_t fileSize;
  std::uint64_t generation;  // one more than the table this file replaced
  std::uint32_t capacity;
  std::uint32_t slotCount;
  std::uint32_t bucketCount;  // a power of 2
  std::uint32_t keyMax;
  std::uint32_t valueMax;
  std::uint32_t slotSize;
  std::uint32_t ringCapacity;  // a power of 2
  std::uint32_t ringEntrySize;
  std::uint64_t bucketsOffset;
  std::uint64_t slotsOffset;
  std::uint64_t ringOffset;
  char typeName[128];
  char collectionName[64];
  char tableName[128];
  std::uint64_t geometryChecksum;
  // Written by the writer only, each group on its own cache line.
  alignas(64) std::uint32_t retired;  // 1 once a newer file has replaced this one
  std::uint32_t writerOpen;           // 1 while the writer has the table open
  alignas(64) std::uint64_t ringHead; // changes appended so far
  std::uint32_t wakeWord;             // bumped on every change; readers futex-wait on it
  std::uint32_t occupancy;
  alignas(64) std::uint64_t scalars[kScalarCount];
};
static_assert(sizeof(FileHeader) <= kHeaderBytes);
static_assert(offsetof(FileHeader, geometryChecksum) % 8 == 0);

template <typename T>
T load(const void* p, int order) {
  return __atomic_load_n(static_cast<const T*>(p), order);
}
template <typename T>
void store(void* p, T v, int order) {
  __atomic_store_n(static_cast<T*>(p), v, order);
}
std::uint32_t get32(const std::uint8_t* p) {
  std::uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
std::uint16_t get16(const std::uint8_t* p) {
  std::uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}
std::uint64_t get64(const std::uint8_t* p) {
  std::uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}
template <typename T>
void putRaw(std::uint8_t* p, T v) {
  std::memcpy(p, &v, sizeof v);
}

// Copies `bytes` (a multiple of 8) word by word with relaxed atomic loads, the reading half of a
// sequence-counter protocol: the copy may be torn, the counter check afterwards tells.
void copyWordsIn(std::uint8_t* dst, const std::uint8_t* src, std::size_t bytes) {
  for (std::size_t i = 0; i < bytes; i += 8) putRaw(dst + i, load<std::uint64_t>(src + i, __ATOMIC_RELAXED));
}
void copyWordsOut(std::uint8_t* dst, const std::uint8_t* src, std::size_t bytes) {
  for (std::size_t i = 0; i < bytes; i += 8) store<std::uint64_t>(dst + i, get64(src + i), __ATOMIC_RELAXED);
}

std::uint64_t monotonicNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000'000u + static_cast<std::uint64_t>(ts.tv_nsec);
}

void futexWake(std::uint32_t* word) {
  syscall(SYS_futex, word, FUTEX_WAKE, 1 << 30, nullptr, nullptr, 0);
}
void futexWait(const std::uint32_t* word, std::uint32_t expected, std::uint64_t ns) {
  timespec ts{static_cast<time_t>(ns / 1'000'000'000u), static_cast<long>(ns % 1'000'000'000u)};
  syscall(SYS_futex, word, FUTEX_WAIT, expected, &ts, nullptr, 0);
}

// Backs off before attempt `attempt` (from 0): spins first, then sleeps a little longer each time.
// No sched_yield: for a reader at low priority on a busy machine a yield can give the processor
// away for far longer than the writer needs.
void pause(int attempt) {
  if (attempt < 4) {
    for (int i = 0; i < 64 << attempt; ++i) __builtin_ia32_pause();
  } else {
    timespec ts{0, std::min<long>(200'000, 10'000L * (attempt - 3))};
    nanosleep(&ts, nullptr);
  }
}

std::string systemError(std::string_view what, const std::string& path) {
  return fmt::format("Shelf {}: {}: {}", path, what, std::strerror(errno));
}

struct Layout {
  std::uint32_t slotCount;
  std::uint32_t bucketCount;
  std::uint32_t slotSize;
  std::uint32_t ringCapacity;
  std::uint32_t ringEntrySize;
  std::uint64_t bucketsOffset;
  std::uint64_t slotsOffset;
  std::uint64_t ringOffset;
  std::uint64_t fileSize;
};

Layout layoutFor(std::uint32_t capacity, std::uint32_t keyMax, std::uint32_t valueMax, std::uint32_t ringCapacity) {
  Layout l;
  // A few spare slots beyond the capacity: a replacement is written to a free slot before the old
  // one is freed, and freed slots rest a while before they are reused.
  l.slotCount = capacity + std::max<std::uint32_t>(1, capacity / 16);
  l.bucketCount = std::bit_ceil(capacity);
  l.slotSize = static_cast<std::uint32_t>(slotBytesFor(keyMax, valueMax));
  l.ringCapacity = ringCapacity != 0 ? ringCapacity : std::bit_ceil(std::clamp<std::uint32_t>(capacity, 64, 65536));
  l.ringEntrySize = static_cast<std::uint32_t>(roundUp(kRingHeaderBytes + keyMax, 8));
  l.bucketsOffset = kHeaderBytes;
  l.slotsOffset = roundUp(l.bucketsOffset + 4ull * l.bucketCount, 64);
  l.ringOffset = roundUp(l.slotsOffset + std::uint64_t{l.slotSize} * l.slotCount, 64);
  l.fileSize = roundUp(l.ringOffset + std::uint64_t{l.ringEntrySize} * l.ringCapacity, 4096);
  return l;
}

// ---- Slot checksum ----
//
// A slot's checksum covers everything after the checksum itself, to the end of the slot: unused
// bytes are zero. Hashing the whole fixed-size slot rather than just the used bytes costs a few
// more bytes but makes every lookup of a table run the same instructions, whatever its records'
// lengths, which keeps the reader's branches predictable.
//
// The checksum is CRC32C (the Castagnoli polynomial) in two lanes: the 8-byte words at even
// positions go to one lane, those at odd positions to the other, each lane being the plain CRC32C
// of its words' bytes; lane 0 is the high half of the result. A CRC catches every burst of damage
// up to 32 bits long within a lane, and two lanes halve the chain of dependent steps. Processors
// with a CRC32C instruction (x86 with SSE4.2) use it, checked at run time so that the build stays
// portable; others use tables, to the same result.

struct CrcTables {
  std::uint32_t t[8][256];
};

constexpr CrcTables makeCrcTables() {
  CrcTables c{};
  for (std::uint32_t i = 0; i < 256; ++i) {
    std::uint32_t v = i;
    for (int bit = 0; bit < 8; ++bit) v = (v >> 1) ^ (0x82F63B78u & (0u - (v & 1u)));
    c.t[0][i] = v;
  }
  for (int k = 1; k < 8; ++k) {
    for (std::uint32_t i = 0; i < 256; ++i) c.t[k][i] = (c.t[k - 1][i] >> 8) ^ c.t[0][c.t[k - 1][i] & 0xFF];
  }
  return c;
}
constexpr CrcTables kCrc = makeCrcTables();

// One CRC32C step over the 8 bytes of `word` (little-endian): eight table lookups at once.
// Lanes are carried in 64-bit registers, the CRC in the low half and zeros above, as the
// instruction leaves them: no instruction is spent widening or narrowing them between steps.
struct CrcTableStep {
  static std::uint64_t step(std::uint64_t crc, std::uint64_t word) {
    const std::uint32_t lo = static_cast<std::uint32_t>(crc) ^ static_cast<std::uint32_t>(word);
    const std::uint32_t hi = static_cast<std::uint32_t>(word >> 32);
    return kCrc.t[7][lo & 0xFF] ^ kCrc.t[6][(lo >> 8) & 0xFF] ^ kCrc.t[5][(lo >> 16) & 0xFF] ^ kCrc.t[4][lo >> 24] ^
           kCrc.t[3][hi & 0xFF] ^ kCrc.t[2][(hi >> 8) & 0xFF] ^ kCrc.t[1][(hi >> 16) & 0xFF] ^ kCrc.t[0][hi >> 24];
  }
};

#if defined(__x86_64__)
// The same step with the SSE4.2 instruction. Written as assembly so that it can be inlined into
// code compiled for any x86-64; it runs only where kCrcInstruction says the processor has it.
struct CrcInstructionStep {
  static std::uint64_t step(std::uint64_t crc, std::uint64_t word) { return crc32cStep(crc, word); }
};
const bool kCrcInstruction = [] {
  __builtin_cpu_init();
  return __builtin_cpu_supports("sse4.2") != 0;
}();
#else
using CrcInstructionStep = CrcTableStep;
constexpr bool kCrcInstruction = false;
#endif

// Copies the words [from, to) of `src` to `dst` with relaxed loads (src may be shared memory the
// writer is changing) and returns the checksum of the words [sumFrom, to), in one pass.
template <typename Crc>
inline std::uint64_t copyAndSumWith(std::uint8_t* dst, const std::uint8_t* src, std::size_t from, std::size_t sumFrom,
                                    std::size_t to) {
  for (std::size_t i = from; i < sumFrom; i += 8) putRaw(dst + i, load<std::uint64_t>(src + i, __ATOMIC_RELAXED));
  std::uint64_t lane0 = 0xFFFFFFFFu, lane1 = 0xFFFFFFFFu;
  // The pairs are walked with one index counting up to zero from below the end of both sides, so
  // that each pair costs its loads, stores and steps and two instructions more: on a reader's path
  // every instruction counts (see quickFind).
  const std::size_t pairBytes = (to - sumFrom) & ~std::size_t{15};
  const std::uint8_t* srcEnd = src + sumFrom + pairBytes;
  std::uint8_t* dstEnd = dst + sumFrom + pairBytes;
  for (std::ptrdiff_t j = -static_cast<std::ptrdiff_t>(pairBytes); j != 0; j += 16) {
    const std::uint64_t w0 = load<std::uint64_t>(srcEnd + j, __ATOMIC_RELAXED);
    const std::uint64_t w1 = load<std::uint64_t>(srcEnd + j + 8, __ATOMIC_RELAXED);
    putRaw(dstEnd + j, w0);
    putRaw(dstEnd + j + 8, w1);
    lane0 = Crc::step(lane0, w0);
    lane1 = Crc::step(lane1, w1);
  }
  if (sumFrom + pairBytes < to) {
    const std::uint64_t w0 = load<std::uint64_t>(srcEnd, __ATOMIC_RELAXED);
    putRaw(dstEnd, w0);
    lane0 = Crc::step(lane0, w0);
  }
  return (~lane0 & 0xFFFFFFFFu) << 32 | (~lane1 & 0xFFFFFFFFu);
}

// Copies a slot's words from the checksum on ([8, slotSize)) out of shared memory and returns the
// checksum of what it copied after the checksum.
template <typename Crc>
inline std::uint64_t copyAndSumSlot(std::uint8_t* dst, const std::uint8_t* src, std::size_t slotSize) {
  return copyAndSumWith<Crc>(dst, src, kChecksumAt, kNextAt, slotSize);
}
inline std::uint64_t copyAndSum(std::uint8_t* dst, const std::uint8_t* src, std::size_t slotSize) {
  return kCrcInstruction ? copyAndSumSlot<CrcInstructionStep>(dst, src, slotSize)
                         : copyAndSumSlot<CrcTableStep>(dst, src, slotSize);
}

// The checksum of a slot image in private memory.
std::uint64_t slotChecksum(const std::uint8_t* img, std::size_t slotSize) {
  alignas(8) std::uint8_t scratch[kMaxSlotBytes];
  return copyAndSum(scratch, img, slotSize);
}

std::uint64_t headerChecksum(const FileHeader* h) {
  return XXH3_64bits(h, offsetof(FileHeader, geometryChecksum));
}

void copyLabel(char* dst, std::size_t size, const std::string& src) {
  std::memset(dst, 0, size);
  std::memcpy(dst, src.data(), std::min(src.size(), size - 1));
}
std::string_view labelOf(const char* field, std::size_t size) {
  return std::string_view(field, strnlen(field, size));
}

}  // namespace

namespace detail {

std::uint64_t tableChecksum(Bytes words) {
  PICO_ASSERT(words.size() % 8 == 0 && words.size() <= kMaxSlotBytes);
  alignas(8) std::uint8_t scratch[kMaxSlotBytes];
  return copyAndSumWith<CrcTableStep>(scratch, words.data(), 0, 0, words.size());
}

std::optional<std::uint64_t> instructionChecksum(Bytes words) {
  PICO_ASSERT(words.size() % 8 == 0 && words.size() <= kMaxSlotBytes);
  if (!kCrcInstruction) return std::nullopt;
  alignas(8) std::uint8_t scratch[kMaxSlotBytes];
  return copyAndSumWith<CrcInstructionStep>(scratch, words.data(), 0, 0, words.size());
}

// One mapped table file, with its geometry copied out of the header once it has been checked.
struct Mapping {
  std::uint8_t* base = nullptr;
  std::size_t size = 0;
  int fd = -1;  // the writer keeps its file open: the lock lives as long as the descriptor
  FileHeader* header = nullptr;
  std::uint32_t capacity = 0;
  std::uint32_t slotCount = 0;
  std::uint32_t bucketMask = 0;
  std::uint32_t keyMax = 0;
  std::uint32_t valueMax = 0;
  std::uint32_t slotSize = 0;
  std::uint32_t ringCapacity = 0;
  std::uint32_t ringEntrySize = 0;
  std::uint64_t generation = 0;
  std::uint8_t* buckets = nullptr;
  std::uint8_t* slots = nullptr;
  std::uint8_t* ring = nullptr;
  dev_t dev = 0;
  ino_t ino = 0;
  LookupView view;

  Mapping() = default;
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping() {
    if (base != nullptr) munmap(base, size);
    if (fd >= 0) close(fd);
  }

  void adopt(const FileHeader* h) {
    capacity = h->capacity;
    slotCount = h->slotCount;
    bucketMask = h->bucketCount - 1;
    keyMax = h->keyMax;
    valueMax = h->valueMax;
    slotSize = h->slotSize;
    ringCapacity = h->ringCapacity;
    ringEntrySize = h->ringEntrySize;
    generation = h->generation;
    buckets = base + h->bucketsOffset;
    slots = base + h->slotsOffset;
    ring = base + h->ringOffset;
    view.retired = &header->retired;
    view.slots = slots;
    view.slotCount = slotCount;
    view.bucketMask = bucketMask;
    view.shape = kCrcInstruction ? shapeOf(slotSize, keyMax, valueMax) : 0;
  }
  std::uint8_t* bucket(std::uint32_t b) const { return buckets + 4ull * b; }
  std::uint8_t* slot(std::uint32_t i) const { return slots + std::uint64_t{slotSize} * i; }
  std::uint8_t* ringEntry(std::uint64_t pos) const {
    return ring + std::uint64_t{ringEntrySize} * (pos & (ringCapacity - 1));
  }
};

}  // namespace detail

using detail::Mapping;

namespace {

// A bucket's home: the slot the writer gives the bucket's records when it is free, and which
// readers start fetching while they read the bucket's head, so that finding a record at home
// takes one trip to memory rather than two in a row. There are fewer slots than buckets: the
// buckets beyond the last slot share homes from the start again.
std::uint32_t homeSlot(const Mapping& m, std::uint32_t bucket) {
  return bucket < m.slotCount ? bucket : bucket - m.slotCount;
}

}  // namespace

// ---- Location ----------------------------------------------------------------------------------

std::string Location::defaultRoot() {
  const char* env = std::getenv("BGPCOMMON_SHM_ROOT");
  return env != nullptr && *env != '\0' ? std::string(env) : std::string("/dev/shm/bgpcommon");
}

Location::Location(std::string root, std::string_view relativePath)
    : root_(root.empty() ? defaultRoot() : std::move(root)), path_(relativePath) {
  auto refuse = [&](std::string_view why) {
    Pico::fmthrow<Kelp::RangeException>("Shelf mount path '{}' refused: {}", path_, why);
  };
  if (path_.empty()) refuse("it is empty");
  if (path_.front() == '/') refuse("it is absolute; mount paths are relative to the root");
  if (path_.find('\0') != std::string::npos) refuse("it contains a NUL byte");
  std::size_t start = 0;
  while (true) {
    std::size_t end = path_.find('/', start);
    std::string_view c = std::string_view(path_).substr(start, end == std::string::npos ? end : end - start);
    if (c.empty()) refuse("it has an empty component");
    if (c == "..") refuse("it has a '..' component, which would leave the root");
    if (c == ".") refuse("it has a '.' component");
    components_.emplace_back(c);
    if (end == std::string::npos) break;
    start = end + 1;
  }
  while (root_.size() > 1 && root_.back() == '/') root_.pop_back();
}

int Location::openDirectory(bool create) const {
  if (create) {
    // The root may be several levels deep; make each level that is missing.
    for (std::size_t i = 1; i <= root_.size(); ++i) {
      if (i == root_.size() || root_[i] == '/') {
        std::string prefix = root_.substr(0, i);
        if (mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) return -1;
      }
    }
  }
  int fd = open(root_.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  for (std::size_t i = 0; i + 1 < components_.size(); ++i) {
    const char* c = components_[i].c_str();
    int next = openat(fd, c, O_DIRECTORY | O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (next < 0 && errno == ENOENT && create) {
      if (mkdirat(fd, c, 0755) != 0 && errno != EEXIST) {
        int saved = errno;
        close(fd);
        errno = saved;
        return -1;
      }
      next = openat(fd, c, O_DIRECTORY | O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    }
    int saved = errno;
    close(fd);
    errno = saved;
    if (next < 0) return -1;
    fd = next;
  }
  return fd;
}

// ---- Writer ------------------------------------------------------------------------------------

struct Writer::Found {
  std::uint32_t index = kNone;        // the slot holding the key, or kNone
  std::uint32_t predecessor = kNone;  // the slot linking to it, or kNone for the bucket head
};

namespace {

// Removes half-built files that writers which died during creation left behind.
void removeStaleNewFiles(int dirFd, const std::string& leaf) {
  int fd = dup(dirFd);
  if (fd < 0) return;
  DIR* dir = fdopendir(fd);
  if (dir == nullptr) {
    close(fd);
    return;
  }
  std::string prefix = "." + leaf + ".new.";
  while (dirent* e = readdir(dir)) {
    std::string_view name(e->d_name);
    if (!name.starts_with(prefix)) continue;
    long pid = std::strtol(e->d_name + prefix.size(), nullptr, 10);
    if (pid > 0 && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) unlinkat(dirFd, e->d_name, 0);
  }
  closedir(dir);
}

// Marks the table file the new one replaced as retired, so that its readers move on.
void retireOldFile(int oldFd) {
  struct stat st;
  if (fstat(oldFd, &st) != 0 || static_cast<std::uint64_t>(st.st_size) < kHeaderBytes) return;
  FileHeader* h = static_cast<FileHeader*>(mmap(nullptr, kHeaderBytes, PROT_READ | PROT_WRITE, MAP_SHARED, oldFd, 0));
  if (h == MAP_FAILED) return;
  if (h->magic == kMagic) {
    store<std::uint32_t>(&h->retired, 1, __ATOMIC_RELEASE);
    store<std::uint32_t>(&h->wakeWord, load<std::uint32_t>(&h->wakeWord, __ATOMIC_RELAXED) + 1, __ATOMIC_RELEASE);
    futexWake(&h->wakeWord);
  }
  munmap(h, kHeaderBytes);
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

  int dirFd = where.openDirectory(true);
  if (dirFd < 0) throw Exception(systemError("cannot open its directory", full));
  struct DirCloser {
    int fd;
    ~DirCloser() { close(fd); }
  } dirCloser{dirFd};
  removeStaleNewFiles(dirFd, where.leaf());

  // The table this one replaces, if any: it must not have a live writer.
  std::uint64_t generation = 1;
  int oldFd = openat(dirFd, where.leaf().c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
  struct OldCloser {
    int fd;
    ~OldCloser() {
      if (fd >= 0) close(fd);
    }
  } oldCloser{oldFd};
  if (oldFd >= 0) {
    if (flock(oldFd, LOCK_EX | LOCK_NB) != 0) {
      throw Exception(fmt::format("Shelf {}: another writer has this table open", full));
    }
    FileHeader old{};
    if (pread(oldFd, &old, sizeof old, 0) == static_cast<ssize_t>(sizeof old) && old.magic == kMagic) {
      generation = old.generation + 1;
    }
  }

  // Build the new file under a private name, then rename it over the path in one step.
  std::string tmp = fmt::format(".{}.new.{}", where.leaf(), getpid());
  unlinkat(dirFd, tmp.c_str(), 0);
  int fd = openat(dirFd, tmp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) throw Exception(systemError("cannot create", full));
  auto map = std::make_unique<Mapping>();
  map->fd = fd;
  auto fail = [&](std::string_view what) {
    std::string message = systemError(what, full);
    unlinkat(dirFd, tmp.c_str(), 0);
    throw Exception(message);
  };
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) fail("cannot lock");
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
  if (fstat(w->map_->fd, &st) == 0) {
    w->map_->dev = st.st_dev;
    w->map_->ino = st.st_ino;
  }
  if (oldFd >= 0) retireOldFile(oldFd);
  PICO_FMTRACE(Pico::kTraceLevelOperational, " new table {} generation {} capacity {}", full, generation, g.capacity);
  return w;
}

Writer::~Writer() {
  if (!map_) return;
  store<std::uint32_t>(&map_->header->writerOpen, 0, __ATOMIC_RELEASE);
  announce(static_cast<std::uint8_t>(Change::Kind::writerClosed), {}, 0);
  futexWake(&map_->header->wakeWord);
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
    idx = get32(s + kNextAt);
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
  putRaw(img + kNextAt, next);
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
  copyWordsOut(s + 8, img + 8, size - 8);  // the first word holds the counter itself
  store<std::uint32_t>(s + kSeqAt, seq + 2, __ATOMIC_RELEASE);
}

// Points slot `predecessor` at `next`: the slot is rewritten whole, so its checksum covers the link.
void Writer::relink(std::uint32_t predecessor, std::uint32_t next) {
  const std::uint8_t* s = map_->slot(predecessor);
  std::uint16_t keyLen = get16(s + kKeyLenAt);
  std::uint16_t valueLen = get16(s + kValueLenAt);
  // Key and value are copied out first: writeSlot builds the new image over the old one.
  std::uint8_t bytes[kMaxSlotBytes];
  std::memcpy(bytes, s + kSlotHeaderBytes, keyLen);
  std::memcpy(bytes + keyLen, s + valueAt(keyLen), valueLen);
  writeSlot(predecessor, get32(s + kBucketAt), next, Bytes(bytes, keyLen), Bytes(bytes + keyLen, valueLen));
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
    const std::uint32_t next = get32(old + kNextAt);
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
  link(f.predecessor, bucket, get32(m.slot(f.index) + kNextAt));
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
      idx = get32(s + kNextAt);
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

// ---- Reader ------------------------------------------------------------------------------------

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
      __builtin_ia32_pause();
      continue;
    }
    const std::uint64_t sum = copyAndSum(buf, s, m.slotSize);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (load<std::uint32_t>(s + kSeqAt, __ATOMIC_RELAXED) != seq) [[unlikely]] {
      continue;
    }
    seqOut = seq;
    if (get16(buf + kKeyLenAt) > m.keyMax || get16(buf + kValueLenAt) > m.valueMax ||
        sum != get64(buf + kChecksumAt) || get32(buf + kSelfAt) != idx) [[unlikely]] {
      return Snap::damaged;
    }
    return Snap::ok;
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
bool walkChain(const Mapping& m, std::uint32_t bucket, std::uint8_t* buf, Report&& report, Visit&& visit) {
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
        writerGone = atOnce = load<std::uint32_t>(&m.header->writerOpen, __ATOMIC_ACQUIRE) == 0;
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
        bool linkUnchanged = predecessor == kNone
                                 ? load<std::uint32_t>(m.bucket(bucket), __ATOMIC_ACQUIRE) == idx
                                 : load<std::uint32_t>(m.slot(predecessor) + kSeqAt, __ATOMIC_ACQUIRE) == predecessorSeq;
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
      idx = get32(buf + kNextAt);
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

Mapping* Reader::current() const {
  Mapping* m = current_.load(std::memory_order_acquire);
  if (m != nullptr && load<std::uint32_t>(&m->header->retired, __ATOMIC_ACQUIRE) == 0) [[likely]] {
    return m;
  }
  return refresh();
}

// Attaches the file at the path when there is none yet, or when the attached one was retired.
// Failures are reported once each; the reader keeps whatever it had.
Mapping* Reader::refresh() const {
  std::lock_guard<std::mutex> lock(mutex_);
  Mapping* m = current_.load(std::memory_order_acquire);
  if (m != nullptr && load<std::uint32_t>(&m->header->retired, __ATOMIC_ACQUIRE) == 0) return m;

  int dirFd = where_.openDirectory(false);
  if (dirFd < 0) return m;
  int fd = openat(dirFd, where_.leaf().c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  close(dirFd);
  if (fd < 0) return m;
  struct stat st;
  if (fstat(fd, &st) != 0 || (m != nullptr && st.st_dev == m->dev && st.st_ino == m->ino) ||
      (st.st_dev == failedDev_ && st.st_ino == failedIno_)) {
    close(fd);
    return m;
  }
  auto fresh = std::make_unique<Mapping>();
  auto fail = [&](const std::string& why) {
    failedDev_ = st.st_dev;
    failedIno_ = st.st_ino;
    report(why);
    return m;
  };
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
  if (h.magic != kMagic || h.version != kVersion) return fail("not a table file of this version");
  if (headerChecksum(&h) != h.geometryChecksum) return fail("header checksum mismatch");
  if (h.capacity == 0 || h.capacity > kMaxCapacity || h.keyMax == 0 || h.keyMax > kMaxKeyBytes ||
      slotBytesFor(h.keyMax, h.valueMax) > kMaxSlotBytes || !std::has_single_bit(h.ringCapacity)) {
    return fail("header geometry out of range");
  }
  Layout l = layoutFor(h.capacity, h.keyMax, h.valueMax, h.ringCapacity);
  if (l.slotCount != h.slotCount || l.bucketCount != h.bucketCount || l.slotSize != h.slotSize ||
      l.ringEntrySize != h.ringEntrySize || l.bucketsOffset != h.bucketsOffset || l.slotsOffset != h.slotsOffset ||
      l.ringOffset != h.ringOffset || l.fileSize != h.fileSize || h.fileSize != fresh->size) {
    return fail("header geometry does not match the file");
  }
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
  mappings_.push_back(std::move(fresh));
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
  std::atomic_thread_fence(std::memory_order_acquire);
  const std::uint32_t seqAfter = load<std::uint32_t>(s + kSeqAt, __ATOMIC_RELAXED);
  return ((seq & 1u) | (seqAfter ^ seq) | (sum ^ get64(buf + kChecksumAt)) | (get32(buf + kSelfAt) ^ idx) |
          (get32(buf + kBucketAt) ^ bucket)) == 0 &&
         get16(buf + kKeyLenAt) <= m.keyMax && get16(buf + kValueLenAt) <= m.valueMax;
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
    idx = get32(buf + kNextAt);
  }
  return Quick::absent;
}

}  // namespace

// The lookup by walkChain, for when the quick one was unsure.
Reader::Found Reader::carefulFind(const Mapping& m, std::uint32_t bucket, Bytes key, std::uint8_t* buf) const {
  Found found = Found::absent;
  auto report = [this](const std::string& why) { this->report(why); };
  walkChain(m, bucket, buf, report, [&](const std::uint8_t* slot) {
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
  if (m == nullptr || load<std::uint32_t>(&m->header->retired, __ATOMIC_ACQUIRE) != 0) [[unlikely]] {
    m = refresh();
  }
  if (m == nullptr || key.empty() || key.size() > m->keyMax) return std::nullopt;
  std::uint8_t* buf = copy.bytes;
  const std::uint32_t bucket = hash & m->bucketMask;
  const Quick quick = kCrcInstruction ? quickFind<CrcInstructionStep>(*m, bucket, key, buf)
                                      : quickFind<CrcTableStep>(*m, bucket, key, buf);
  if (quick == Quick::absent) return std::nullopt;
  if (quick == Quick::unsure && carefulFind(*m, bucket, key, buf) != Found::present) [[unlikely]] {
    return std::nullopt;
  }
  return Bytes(buf + valueAt(get16(buf + kKeyLenAt)), get16(buf + kValueLenAt));
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
  auto report = [this](const std::string& why) { this->report(why); };
  // Keys already handed out from the current bucket: a walk that starts again must not repeat them.
  std::vector<std::uint8_t> seen;
  for (std::uint32_t b = 0; b <= m->bucketMask; ++b) {
    seen.clear();
    walkChain(*m, b, buf, report, [&](const std::uint8_t* slot) {
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
  return m != nullptr && load<std::uint32_t>(&m->header->writerOpen, __ATOMIC_ACQUIRE) != 0 &&
         load<std::uint32_t>(&m->header->retired, __ATOMIC_ACQUIRE) == 0;
}

bool Reader::pending(Mapping* m) const {
  return m != cursorMapping_ || load<std::uint64_t>(&m->header->ringHead, __ATOMIC_ACQUIRE) != cursor_;
}

std::size_t Reader::poll(const std::function<void(const Change&)>& fn) {
  Mapping* m = current();
  if (m == nullptr) return 0;
  auto resync = [&] {
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
    fn(Change{static_cast<Change::Kind>(kind), Bytes(img + kRingHeaderBytes, keyLen), scalarIndex});
  }
  if (n != 0) lastChangeNs_ = monotonicNs();
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
    if (load<std::uint32_t>(&m->header->retired, __ATOMIC_ACQUIRE) != 0) {
      // Replaced, but the new file could not be attached yet: look again in a while.
      timespec ts{0, static_cast<long>(std::min<std::uint64_t>(left, 5'000'000))};
      nanosleep(&ts, nullptr);
      continue;
    }
    // Shortly after a change the writer may be in a burst and wake us only once per interval, so
    // look again after an interval; when it has been quiet, sleep until woken.
    std::uint64_t slice = now - lastChangeNs_ < 2 * kWakeIntervalNs ? kWakeIntervalNs : kIdleSliceNs;
    futexWait(&m->header->wakeWord, word, std::min(left, slice));
  }
}

}  // namespace Shelf

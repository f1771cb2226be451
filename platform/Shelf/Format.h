#pragma once
// The table file's format, shared by the writer and the readers: the header, the geometry and its
// layout, the slot and ring entry layouts, the word-level helpers that read and write them, and
// the checksums. Internal to platform/Shelf.

#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "platform/Pico/Format.h"
#include "platform/Shelf/Shelf.h"

static_assert(std::endian::native == std::endian::little, "the table format is little-endian");

namespace Shelf::detail {

inline constexpr std::uint64_t kMagic = 0x464c454853504742ull;  // "BGPSHELF"
inline constexpr std::size_t kHeaderBytes = 4096;

// Ring entry layout: stamp (position + 1 once complete), then kind, key length, scalar index, key.
inline constexpr std::size_t kRingHeaderBytes = 16;
// The kinds a ring entry records, as stored in the file. A reader hands them on as the
// Change::Kind of the same meaning; a clear reaches it as Change::Kind::resync.
enum class RingKind : std::uint8_t { key = 0, cleared = 1, scalar = 2, writerClosed = 3 };

// The writer wakes waiting readers at most this often; readers that saw a change recently poll
// at this interval, so no change waits longer than about one interval to be noticed.
inline constexpr std::uint64_t kWakeIntervalNs = 100'000;
// A waiting reader whose writer is quiet wakes this often, to look at the writer's lock too: a
// writer that dies says nothing.
inline constexpr std::uint64_t kLivenessIntervalNs = 20'000'000;
// A reader whose file was retired but still stands at its path looks at the path again this often.
inline constexpr std::uint64_t kRetiredRecheckNs = 1'000'000;
// A reader whose writer has gone looks this often for another file at the path (one that no writer
// retired this one for): a few system calls each time, for as long as the table has no writer.
inline constexpr std::uint64_t kGoneWriterRecheckNs = 200'000'000;

struct FileHeader {
  // Fixed at creation and covered by geometryChecksum.
  std::uint64_t magic;
  std::uint32_t version;
  std::uint32_t writerPid;
  std::uint64_t fileSize;
  std::uint64_t generation;  // one more than the table this file replaced
  std::uint32_t capacity;
  std::uint32_t slotCount;    // also the number of buckets: bucket b's head is in slot b
  std::uint32_t liveMark;     // this file's own mark, odd: `live` holds it while the file is current
  std::uint32_t keyMax;
  std::uint32_t valueMax;
  std::uint32_t slotSize;
  std::uint32_t ringCapacity;  // a power of 2
  std::uint32_t ringEntrySize;
  std::uint64_t slotsOffset;
  std::uint64_t ringOffset;
  char typeName[128];
  char collectionName[64];
  char tableName[128];
  std::uint64_t geometryChecksum;
  // Written by the writer only, each group on its own cache line.
  alignas(64) std::uint32_t live;  // liveMark until a newer file replaces this one, then 0
  // 1 from creation until the writer closes the table. A writer that dies leaves it set; its lock
  // (see writerLockHeld) tells readers that it is gone.
  std::uint32_t writerOpen;
  alignas(64) std::uint64_t ringHead; // changes appended so far
  std::uint32_t wakeWord;             // bumped on every change; readers futex-wait on it
  std::uint32_t occupancy;
  alignas(64) std::uint64_t scalars[kScalarCount];
  // Wall-clock times, nanoseconds since 1970, for operators' listings: when the writer created the
  // file and when it last announced a change (creation, until the first).
  alignas(64) std::uint64_t createdNs;
  std::uint64_t lastChangeNs;
};
static_assert(sizeof(FileHeader) <= kHeaderBytes);
static_assert(offsetof(FileHeader, geometryChecksum) % 8 == 0);

template <typename T>
inline T load(const void* p, int order) {
  return __atomic_load_n(static_cast<const T*>(p), order);
}
template <typename T>
inline void store(void* p, T v, int order) {
  __atomic_store_n(static_cast<T*>(p), v, order);
}
inline std::uint32_t get32(const std::uint8_t* p) {
  std::uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
inline std::uint16_t get16(const std::uint8_t* p) {
  std::uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}
inline std::uint64_t get64(const std::uint8_t* p) {
  std::uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}
template <typename T>
inline void putRaw(std::uint8_t* p, T v) {
  std::memcpy(p, &v, sizeof v);
}

// Copies `bytes` (a multiple of 8) word by word with relaxed atomic loads, the reading half of a
// sequence-counter protocol: the copy may be torn, the counter check afterwards tells.
inline void copyWordsIn(std::uint8_t* dst, const std::uint8_t* src, std::size_t bytes) {
  for (std::size_t i = 0; i < bytes; i += 8) putRaw(dst + i, load<std::uint64_t>(src + i, kWordLoad));
}
inline void copyWordsOut(std::uint8_t* dst, const std::uint8_t* src, std::size_t bytes) {
  for (std::size_t i = 0; i < bytes; i += 8) store<std::uint64_t>(dst + i, get64(src + i), kWordStore);
}

inline std::uint64_t realtimeNs() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000'000u + static_cast<std::uint64_t>(ts.tv_nsec);
}

inline std::uint64_t monotonicNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000'000u + static_cast<std::uint64_t>(ts.tv_nsec);
}

inline void futexWake(std::uint32_t* word) {
  syscall(SYS_futex, word, FUTEX_WAKE, 1 << 30, nullptr, nullptr, 0);
}
inline void futexWait(const std::uint32_t* word, std::uint32_t expected, std::uint64_t ns) {
  timespec ts{static_cast<time_t>(ns / 1'000'000'000u), static_cast<long>(ns % 1'000'000'000u)};
  syscall(SYS_futex, word, FUTEX_WAIT, expected, &ts, nullptr, 0);
}

// Tells the processor that this thread spins, so that it yields its resources to the other thread
// of its core (and saves power) for a few cycles.
inline void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield" ::: "memory");
#else
  asm volatile("" ::: "memory");
#endif
}

// Backs off before attempt `attempt` (from 0): spins first, then sleeps a little longer each time.
// No sched_yield: for a reader at low priority on a busy machine a yield can give the processor
// away for far longer than the writer needs.
inline void pause(int attempt) {
  if (attempt < 4) {
    for (int i = 0; i < 64 << attempt; ++i) cpuRelax();
  } else {
    timespec ts{0, std::min<long>(200'000, 10'000L * (attempt - 3))};
    nanosleep(&ts, nullptr);
  }
}

inline std::string systemError(std::string_view what, const std::string& path) {
  return fmt::format("Shelf {}: {}: {}", path, what, std::strerror(errno));
}

struct Layout {
  std::uint32_t slotCount;
  std::uint32_t bucketCount;
  std::uint32_t slotSize;
  std::uint32_t ringCapacity;
  std::uint32_t ringEntrySize;
  std::uint64_t slotsOffset;
  std::uint64_t ringOffset;
  std::uint64_t fileSize;
};

inline Layout layoutFor(std::uint32_t capacity, std::uint32_t keyMax, std::uint32_t valueMax, std::uint32_t ringCapacity) {
  Layout l;
  // A few spare slots beyond the capacity: a replacement is written to a free slot before the old
  // one is freed, and freed slots rest a while before they are reused.
  l.slotCount = capacity + std::max<std::uint32_t>(1, capacity / 16);
  l.slotSize = static_cast<std::uint32_t>(slotBytesFor(keyMax, valueMax));
  l.ringCapacity = ringCapacity != 0 ? ringCapacity : std::bit_ceil(std::clamp<std::uint32_t>(capacity, 64, 65536));
  l.ringEntrySize = static_cast<std::uint32_t>(roundUp(kRingHeaderBytes + keyMax, 8));
  l.slotsOffset = kHeaderBytes;
  l.ringOffset = roundUp(l.slotsOffset + std::uint64_t{l.slotSize} * l.slotCount, 64);
  l.fileSize = roundUp(l.ringOffset + std::uint64_t{l.ringEntrySize} * l.ringCapacity, 4096);
  return l;
}

// ---- Checksums ----
//
// The slot checksum is described with the slot format (Shelf.h). Processors with a CRC32C
// instruction (x86-64 with SSE4.2, aarch64 with the CRC extension) use it, checked at run time so
// that the build stays portable; others use tables, to the same result.

struct CrcTables {
  std::uint32_t t[8][256];
};

inline constexpr CrcTables makeCrcTables() {
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
inline constexpr CrcTables kCrc = makeCrcTables();

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

#if defined(__x86_64__) || defined(__aarch64__)
// The same step with the processor's instruction (SSE4.2 on x86-64, the CRC extension on aarch64). Written as assembly so that it can be inlined into
// code compiled for any x86-64; it runs only where kCrcInstruction says the processor has it.
struct CrcInstructionStep {
  static std::uint64_t step(std::uint64_t crc, std::uint64_t word) { return crc32cStep(crc, word); }
};
// Whether this processor has the CRC32C instruction (set once at load time).
extern const bool kCrcInstruction;
#else
using CrcInstructionStep = CrcTableStep;
inline constexpr bool kCrcInstruction = false;
#endif

// Copies the words [from, to) of `src` to `dst` (src may be shared memory the writer is changing)
// and returns the two-lane checksum of `first` followed by the words [sumFrom, to), in one pass.
template <typename Crc, bool kWithFirst>
inline std::uint64_t copyAndSumWith(std::uint8_t* dst, const std::uint8_t* src, std::size_t from, std::size_t sumFrom,
                                    std::size_t to, std::uint64_t first = 0) {
  for (std::size_t i = from; i < sumFrom; i += 8) putRaw(dst + i, load<std::uint64_t>(src + i, kWordLoad));
  std::uint64_t lane0 = 0xFFFFFFFFu, lane1 = 0xFFFFFFFFu;
  if constexpr (kWithFirst) {
    // `first` takes lane 0's first place; the words then start in lane 1.
    lane0 = Crc::step(lane0, first);
    std::swap(lane0, lane1);
  }
  // The pairs are walked with one index counting up to zero from below the end of both sides, so
  // that each pair costs its loads, stores and steps and two instructions more: on a reader's path
  // every instruction counts.
  const std::size_t pairBytes = (to - sumFrom) & ~std::size_t{15};
  const std::uint8_t* srcEnd = src + sumFrom + pairBytes;
  std::uint8_t* dstEnd = dst + sumFrom + pairBytes;
  for (std::ptrdiff_t j = -static_cast<std::ptrdiff_t>(pairBytes); j != 0; j += 16) {
    const std::uint64_t w0 = load<std::uint64_t>(srcEnd + j, kWordLoad);
    const std::uint64_t w1 = load<std::uint64_t>(srcEnd + j + 8, kWordLoad);
    putRaw(dstEnd + j, w0);
    putRaw(dstEnd + j + 8, w1);
    lane0 = Crc::step(lane0, w0);
    lane1 = Crc::step(lane1, w1);
  }
  if (sumFrom + pairBytes < to) {
    const std::uint64_t w0 = load<std::uint64_t>(srcEnd, kWordLoad);
    putRaw(dstEnd, w0);
    lane0 = Crc::step(lane0, w0);
  }
  if constexpr (kWithFirst) std::swap(lane0, lane1);
  return (~lane0 & 0xFFFFFFFFu) << 32 | (~lane1 & 0xFFFFFFFFu);
}

// Copies a slot's words after its stamp word ([8, slotSize)) out of shared memory and returns the
// checksum of `stampWord` and the words from the key on.
template <typename Crc>
inline std::uint64_t copyAndSumSlot(std::uint8_t* dst, const std::uint8_t* src, std::size_t slotSize,
                                    std::uint64_t stampWord) {
  return copyAndSumWith<Crc, true>(dst, src, kLinkAt, kSlotHeaderBytes, slotSize, stampWord);
}
inline std::uint64_t copyAndSum(std::uint8_t* dst, const std::uint8_t* src, std::size_t slotSize,
                                std::uint64_t stampWord) {
  return kCrcInstruction ? copyAndSumSlot<CrcInstructionStep>(dst, src, slotSize, stampWord)
                         : copyAndSumSlot<CrcTableStep>(dst, src, slotSize, stampWord);
}

// The checksum of a slot image in private memory, as if its stamp word were `stampWord`.
inline std::uint64_t slotChecksum(const std::uint8_t* img, std::size_t slotSize, std::uint64_t stampWord) {
  alignas(8) std::uint8_t scratch[kMaxSlotBytes];
  return copyAndSum(scratch, img, slotSize, stampWord);
}

// The header's fixed part is summed like a slot (the portable steps: it is read once, at attach).
inline std::uint64_t headerChecksum(const FileHeader* h) {
  return tableChecksum({reinterpret_cast<const std::uint8_t*>(h), offsetof(FileHeader, geometryChecksum)});
}

inline void copyLabel(char* dst, std::size_t size, const std::string& src) {
  std::memset(dst, 0, size);
  std::memcpy(dst, src.data(), std::min(src.size(), size - 1));
}
inline std::string_view labelOf(const char* field, std::size_t size) {
  return std::string_view(field, strnlen(field, size));
}


// One mapped table file, with its geometry copied out of the header once it has been checked.
struct Mapping {
  std::uint8_t* base = nullptr;
  std::size_t size = 0;       // the file's
  std::size_t rangeSize = 0;  // the address range's, at least `size` (see Reader::refresh)
  // False once a reader has turned this retired mapping to zeros (see Reader::refresh).
  bool fileBacked = true;
  // False once a later file was mapped into this mapping's address range (see Reader::refresh):
  // the range is then that file's mapping's to unmap.
  bool ownsRange = true;
  int fd = -1;  // a reader's descriptor of the file, for testing the writer's lock on it
  FileHeader* header = nullptr;
  std::uint32_t capacity = 0;
  std::uint32_t slotCount = 0;
  std::uint64_t modMultiplier = 0;
  std::uint32_t keyMax = 0;
  std::uint32_t valueMax = 0;
  std::uint32_t slotSize = 0;
  std::uint32_t ringCapacity = 0;
  std::uint32_t ringEntrySize = 0;
  std::uint32_t liveMark = 0;
  std::uint64_t generation = 0;
  std::uint8_t* slots = nullptr;
  std::uint8_t* ring = nullptr;
  std::uint64_t identity[5] = {};  // device, inode, change time (s, ns) and size of the file
  // A reader that found this file retired but still at its path (its successor's writer died
  // before publishing it) looks at the path again only from this time on (monotonicNs).
  std::atomic<std::uint64_t> recheckAtNs{0};
  LookupView view;

  Mapping() = default;
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping() {
    if (base != nullptr && ownsRange) munmap(base, std::max(size, rangeSize));
    if (fd >= 0) close(fd);
  }

  void adopt(const FileHeader* h) {
    capacity = h->capacity;
    slotCount = h->slotCount;
    modMultiplier = modMultiplierFor(slotCount);
    keyMax = h->keyMax;
    valueMax = h->valueMax;
    slotSize = h->slotSize;
    ringCapacity = h->ringCapacity;
    ringEntrySize = h->ringEntrySize;
    liveMark = h->liveMark;
    generation = h->generation;
    slots = base + h->slotsOffset;
    ring = base + h->ringOffset;
    view.live = &header->live;
    view.mark = liveMark;
    view.slots = slots;
    view.slotCount = slotCount;
    view.modMultiplier = modMultiplier;
    view.shape = kCrcInstruction ? shapeOf(slotSize, keyMax, valueMax) : 0;
  }
  std::uint32_t bucketOf(std::uint32_t hash) const { return detail::bucketOf(hash, modMultiplier, slotCount); }
  std::uint8_t* slot(std::uint32_t i) const { return slots + std::uint64_t{slotSize} * i; }
  std::uint8_t* ringEntry(std::uint64_t pos) const {
    return ring + std::uint64_t{ringEntrySize} * (pos & (ringCapacity - 1));
  }
};

// The fields of a slot's stamp word.
inline std::uint32_t stampOf(std::uint64_t stampWord) { return static_cast<std::uint32_t>(stampWord); }
inline std::uint16_t keyLenOf(std::uint64_t stampWord) { return static_cast<std::uint16_t>(stampWord >> 32); }
inline std::uint16_t valueLenOf(std::uint64_t stampWord) { return static_cast<std::uint16_t>(stampWord >> 48); }
inline std::uint64_t stampWordOf(std::uint32_t stamp, std::size_t keyLen, std::size_t valueLen) {
  return stamp | std::uint64_t{keyLen} << 32 | std::uint64_t{valueLen} << 48;
}

inline bool isLive(const Mapping& m) { return load<std::uint32_t>(&m.header->live, __ATOMIC_ACQUIRE) == m.liveMark; }

// What is wrong with a header (copied out of a file of `fileSize` bytes), or empty when it
// describes a table of this version whose layout fills exactly that file.
std::string headerProblem(const FileHeader& h, std::uint64_t fileSize);

// The name of a file that lives beside table `leaf` in its directory: the writer's lock
// (".LEAF.lock") and the file it builds before publishing it (".LEAF.new"). A leaf too long to take
// the suffix within the system's limit on names keeps a prefix and a hash of the whole leaf, so
// every leaf the location rules accept works.
std::string sideName(const std::string& leaf, std::string_view suffix);
inline constexpr std::string_view kLockSuffix = ".lock";
inline constexpr std::string_view kNewSuffix = ".new";

// Opens a file of the table's directory without blocking (a FIFO would block an open for reading)
// and without following a symbolic link, and refuses anything but a regular file, and one that
// `trust` does not trust (when given). Returns the descriptor and fills `st`, or -1 with `why`
// saying what is there (errno EPERM for a file not trusted).
int openRegular(int dirFd, const std::string& name, int flags, std::string& why, const Location* trust = nullptr,
                struct stat* st = nullptr);

// Whether a writer holds its lock on the table file open as `fd`: a write lock, which only a
// process that may write the file can take. A read lock, which any reader can take, does not
// count.
bool writerLockHeld(int fd);

// The process's file mode creation mask, read without changing it.
unsigned currentUmask();

}  // namespace Shelf::detail

#pragma once
// Shelf: hash tables in shared memory, written by one process and read by any number of others.
//
// Model. A table is one file below a root directory (tmpfs, normally /dev/shm/bgpcommon). The
// writer creates it and maps it read-write; readers open it read-only and map it PROT_READ, so
// nothing a reader does can damage the table. The table has a fixed capacity chosen by the writer,
// and holds byte-string keys and values of bounded size; typed fronts (KelpShelf) turn values into
// bytes with the types' own serialize/deserialize.
//
// Layout of the file, in this order:
//   header   geometry (immutable after creation, checksummed) and the writer's live counters;
//   buckets  bucketCount 32-bit slot indices, the head of each chain (kNone for an empty chain);
//   slots    slotCount fixed-size slots: sequence counter and chain link in the first word, then
//            checksum, bucket, own index, key length, value length, key, value (from the next
//            8-byte boundary), zeros to the end; the checksum (CRC32C) covers everything after it;
//   ring     the change ring: the keys the writer changed, newest last.
// Beside the file, in the same directory, ".LEAF.lock" is the writer's lock (see below).
//
// Homes. Each bucket has a home slot (bucket b: slot b, wrapping around where there are fewer
// slots than buckets). The writer puts a bucket's record there when it is free, and a record at
// home stays there until it is erased: a new value of it is written back to the home. A reader
// therefore looks at the home first, and a whole record of its key there is the key's record; it
// reads the bucket's head and walks the chain only when the home holds something else.
//
// Concurrency. One writer, lock-free readers. Every slot carries a sequence counter that is odd
// while the writer rewrites it; a reader copies the slot, re-reads the counter and retries (a
// bounded number of times) when it moved. The writer never rewrites a record that readers reach
// from a bucket: a new value goes to a free slot, which is then linked in place of the old one,
// and the old slot is freed afterwards (free slots are reused first-in first-out, so a slot a
// reader is still looking at is rarely reused at once). A record at home is changed the same way,
// through a spare slot: while the spare is linked in its place the home is rewritten, then linked
// back and the spare freed. A link (a bucket head or a slot's link word) is the one thing changed
// in place, with a single 32-bit store.
//
// Crashes. It follows that a writer killed between any two instructions leaves every record that
// was reachable before its last operation reachable and whole, with its old value or its new one:
// links are single stores, and the only slot it can leave mid-write is one no chain leads to (a
// home being rewritten while its spare stands in for it is found through the chain). Readers tell
// a dead writer from a live one by its lock, so a slot that stays mid-write under a dead writer is
// reported as damage at once rather than waited on.
//
// One writer. Before it builds anything, a writer takes an open file description lock on the lock
// file and holds it until it is destroyed; the kernel drops it when the process dies, however it
// dies. A second writer of the same table gets Shelf::Exception naming the holder's pid. Readers
// test the lock (without taking it) to learn that a writer is gone: writerOpen() turns false and
// poll reports writerClosed once, after a crash as after a close.
//
// Distrust. Readers trust nothing they read: every index is bounds-checked, chains are
// length-bounded, every slot's checksum and its own index are verified, and a slot found in the
// wrong chain makes the walk restart. A check that fails on a stable slot calls the reader's
// corruption handler with a message and the entry reads as absent; the reader never crashes and
// never spins without bound. The table path must hold a regular file: readers open it without
// blocking and without following a symbolic link, and refuse anything else, or a file whose size
// is not what its header's geometry needs, with a report. A file truncated under an attached
// reader is the one thing not guarded: touching a page past its new end raises SIGBUS, and
// catching that would mean owning the process's SIGBUS handler, which a library cannot (only the
// writer's user can write the file).
//
// Restart. A writer that mounts a path that already holds a table starts empty: it builds a new
// file beside the old one, renames it over the path and marks the old file retired. Readers notice
// the mark on their next call and re-open the path; they need not re-attach. A reader maps at most
// two files of a table (the current one and the one before, which a call in another thread may
// still be reading); older ones are turned to zeros in place (see Reader::refresh).
//
// Changes. Each change appends its key to the ring in the file; a reader polls the ring (or waits
// on it with a timeout) and learns which keys changed, or that it fell too far behind and must
// re-read everything.
//
//   Shelf::Location where("/dev/shm/bgpcommon", "routing/rib/igpResultStatus/vrf1");
//   auto w = Shelf::Writer::create(where, {"Ns::Status", "result", "vrf1"}, {1024, 4, 64});
//   w->put(keyBytes, hash, valueBytes);
//   Shelf::Reader r(where, {"Ns::Status", "result", ""}, 4, 64, handler);   // in another process
//   std::optional<std::uint32_t> n = r.find(keyBytes, hash, buffer, sizeof buffer);

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Kelp/Exception.h"

namespace Shelf {

using Bytes = std::span<const std::uint8_t>;

// A system call failed (the root cannot be created, the file cannot be mapped, ...) or the table
// already has a live writer.
class Exception : public std::runtime_error {
 public:
  explicit Exception(const std::string& message) : std::runtime_error(message) {}
};

// A table's bytes contradict themselves: a damaged file. Readers hand its message to their
// corruption handler; the writer's typed fronts treat it as fatal.
class CorruptionException : public Exception {
 public:
  explicit CorruptionException(const std::string& message) : Exception(message) {}
};

// No free slot for a new key. The message is "Shelf table full (occupancy:N tableSize:N) NAME";
// nothing was changed.
class TableFullException : public Kelp::RangeException {
 public:
  explicit TableFullException(const std::string& message) : Kelp::RangeException(message) {}
};

using CorruptionHandler = std::function<void(std::string_view message)>;

// Where a table lives: a root directory and a relative path below it. The path is a list of
// non-empty components separated by "/"; absolute paths, empty components, "." and ".." are refused
// with Kelp::RangeException, so a table never lives outside its root. Components are opened without
// following symbolic links.
class Location {
 public:
  // The root used when none is given: $BGPCOMMON_SHM_ROOT, else /dev/shm/bgpcommon.
  static std::string defaultRoot();

  Location(std::string root, std::string_view relativePath);

  const std::string& root() const { return root_; }
  const std::string& relativePath() const { return path_; }
  std::string fullPath() const { return root_ + "/" + path_; }
  const std::string& leaf() const { return components_.back(); }

  // Opens the directory that holds the leaf (creating missing directories when `create`), or -1
  // with errno set.
  int openDirectory(bool create) const;

 private:
  std::string root_;
  std::string path_;
  std::vector<std::string> components_;
};

// The names a table file carries in its header: the entity type that owns it, the collection, and a
// name for messages (the table-full error names it).
struct Labels {
  std::string typeName;
  std::string collectionName;
  std::string tableName;
};

// The shape the writer chooses for a table.
struct Geometry {
  std::uint32_t capacity = 0;      // live entries at most; one more is refused as table full
  std::uint32_t keyMax = 0;        // longest key, bytes (1..255)
  std::uint32_t valueMax = 0;      // longest value, bytes
  std::uint32_t ringCapacity = 0;  // change-ring entries (a power of 2); 0 chooses from capacity
};

// Upper bounds of the byte format.
inline constexpr std::uint32_t kMaxKeyBytes = 255;
inline constexpr std::uint32_t kMaxSlotBytes = 1024;
inline constexpr std::uint32_t kMaxCapacity = 1u << 26;
// How many 64-bit scalars the header carries for the owning entity's plain attributes.
inline constexpr std::uint32_t kScalarCount = 8;

// One entry of the change ring as a reader sees it.
struct Change {
  enum class Kind : std::uint8_t {
    key,           // the value of `key` changed (stored, replaced or deleted)
    cleared,       // every entry was deleted
    scalar,        // header scalar `scalarIndex` changed
    writerClosed,  // the writer closed the table; its contents stay readable
    resync,        // the reader fell behind or the table was replaced: re-read everything
  };
  Kind kind;
  Bytes key;                     // for Kind::key
  std::uint32_t scalarIndex = 0;  // for Kind::scalar
};

namespace detail {
struct Mapping;

constexpr std::size_t roundUp(std::size_t n, std::size_t to) { return (n + to - 1) / to * to; }

// Slot layout. The first word holds the sequence counter and the chain link; the checksum covers
// bytes [16, slotSize): bucket, own index, lengths, key, value and the zero bytes after them. The
// link stands outside the checksum and the counter because it is the one field the writer changes
// in a slot that readers can reach: a single 32-bit store, which no crash can leave half done.
inline constexpr std::size_t kSeqAt = 0;
inline constexpr std::size_t kLinkAt = 4;
inline constexpr std::size_t kChecksumAt = 8;
inline constexpr std::size_t kReservedAt = 16;  // zero
inline constexpr std::size_t kBucketAt = 20;
inline constexpr std::size_t kSelfAt = 24;
inline constexpr std::size_t kKeyLenAt = 28;
inline constexpr std::size_t kValueLenAt = 30;
inline constexpr std::size_t kSlotHeaderBytes = 32;

// A slot's value starts at the first 8-byte boundary after its key. Readers copy slots word by
// word and decode values from their copies: a field read from within one copied word is forwarded
// from that store at once, while one straddling two words would wait for both to reach the cache.
constexpr std::size_t valueAt(std::size_t keyLen) { return kSlotHeaderBytes + roundUp(keyLen, 8); }
constexpr std::size_t slotBytesFor(std::size_t keyMax, std::size_t valueMax) {
  return roundUp(valueAt(keyMax) + valueMax, 8);
}

// The record shape of a table as one word, for a typed lookup to compare with the shape it was
// compiled for: slot size, longest key and longest value.
constexpr std::uint64_t shapeOf(std::uint64_t slotSize, std::uint64_t keyMax, std::uint64_t valueMax) {
  return slotSize | keyMax << 16 | valueMax << 32;
}

#if defined(__x86_64__) || defined(__aarch64__)
// One CRC32C step over a little-endian word with the processor's instruction: SSE4.2's on x86-64,
// the CRC extension's on aarch64. Written as assembly so that it can be inlined into code compiled
// for any processor of the family; it runs only on processors that have it (checked at run time
// when a table is attached). Either leaves the CRC in the low half of the register, zeros above.
inline std::uint64_t crc32cStep(std::uint64_t crc, std::uint64_t word) {
#if defined(__x86_64__)
  asm("crc32q %1, %0" : "+r"(crc) : "r"(word));
#else
  asm(".arch_extension crc\n\tcrc32cx %w0, %w0, %x1" : "+r"(crc) : "r"(word));
#endif
  return crc;
}
#endif

// The header's live mark holds this while the file is the table at its path. Anything else, zero
// included, means replaced: a reader that finds a retired mapping turned to zeros under it (see
// Reader) therefore reads it as replaced, too.
inline constexpr std::uint32_t kLiveMark = 0x4556494Cu;  // "LIVE"

// What a typed lookup inlined into its caller needs of an attached table.
struct LookupView {
  const std::uint32_t* live = nullptr;  // the header's mark: kLiveMark until a newer file replaces this one
  const std::uint8_t* slots = nullptr;
  std::uint32_t slotCount = 0;
  std::uint32_t bucketMask = 0;
  // shapeOf the table's records; 0 where the lookup cannot be done inline (no CRC32C
  // instruction), which no typed lookup expects.
  std::uint64_t shape = 0;
};

// The checksum a table keeps of each record, over `words` (a multiple of 8 bytes, up to
// kMaxSlotBytes), as computed with tables and with the processor's CRC32C instruction (nullopt when
// it has none). The two must agree: a table is read and written by whichever processes map it.
std::uint64_t tableChecksum(Bytes words);
std::optional<std::uint64_t> instructionChecksum(Bytes words);
}  // namespace detail

// The only process that changes a table. Not thread-safe: one thread at a time.
class Writer {
 public:
  // Creates a new, empty table at `where` (replacing and retiring any table there) and holds an
  // exclusive lock on it until destroyed. Throws Kelp::RangeException for a bad geometry, and
  // Shelf::Exception for system errors and for a path that already has a live writer.
  static std::unique_ptr<Writer> create(const Location& where, const Labels& labels, const Geometry& geometry);
  ~Writer();
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  // Stores `value` under `key` (insert or replace). Returns false, changing nothing, when the same
  // bytes are stored already. Throws TableFullException for a new key in a full table and
  // CorruptionException when the table's chains are damaged; nothing changes in either case.
  bool put(Bytes key, std::uint32_t hash, Bytes value);
  // Removes `key`; false when it was absent.
  bool erase(Bytes key, std::uint32_t hash);
  // Removes every entry.
  void clear();
  // Copies the value of `key` into `out` (which holds valueMax bytes) and returns its length.
  std::optional<std::uint32_t> find(Bytes key, std::uint32_t hash, std::uint8_t* out) const;
  // Calls fn(key, value) for every entry, chain by chain.
  void forEach(const std::function<void(Bytes key, Bytes value)>& fn) const;

  void scalarIs(std::uint32_t index, std::uint64_t value);
  std::uint64_t scalar(std::uint32_t index) const;

  std::uint32_t occupancy() const { return occupancy_; }
  std::uint32_t capacity() const;
  std::uint64_t generation() const;
  const Labels& labels() const { return labels_; }
  const std::string& path() const { return path_; }

 private:
  Writer() = default;
  struct Found;
  Found locate(Bytes key, std::uint32_t bucket) const;
  std::uint32_t takeFreeSlot();
  std::uint32_t takeSlotFor(std::uint32_t bucket);
  void writeSlot(std::uint32_t index, std::uint32_t bucket, std::uint32_t next, Bytes key, Bytes value);
  void relink(std::uint32_t predecessor, std::uint32_t next);
  // Points the bucket head (predecessor kNone) or slot `predecessor` at `next`.
  void link(std::uint32_t predecessor, std::uint32_t bucket, std::uint32_t next);
  void freeSlot(std::uint32_t index);
  void announce(std::uint8_t kind, Bytes key, std::uint32_t scalarIndex);
  [[noreturn]] void corrupt(const std::string& what) const;

  std::unique_ptr<detail::Mapping> map_;
  int lockFd_ = -1;  // the writer lock, held while this object lives
  std::string path_;
  Labels labels_;
  // Free slots wait in a ring, taken at the head and returned at the tail, so that a freed slot
  // rests a while before it is reused. A slot may also be taken out of turn as a bucket's home; its
  // ring entry then stays and is passed over. Each slot has at most one entry in the ring.
  static constexpr std::uint8_t kSlotFree = 1;
  static constexpr std::uint8_t kSlotQueued = 2;
  std::vector<std::uint32_t> freeFifo_;
  std::vector<std::uint8_t> slotState_;  // kSlotFree | kSlotQueued per slot
  std::uint32_t freeHead_ = 0;
  std::uint32_t queuedCount_ = 0;  // ring entries
  std::uint32_t freeCount_ = 0;
  std::uint32_t occupancy_ = 0;
  std::uint64_t ringHead_ = 0;
  std::uint64_t lastWakeNs_ = 0;
  std::vector<std::uint8_t> staging_;  // one slot image, built before it is published
};

// A read-only view of a table, possibly in another process than its writer. Attaches lazily (the
// writer may start later) and follows a restarted writer to its new file. find, forEach, scalar and
// occupancy may be called from several threads at once; poll and wait from one thread at a time.
class Reader {
 public:
  // `expected` names the type and collection the file must carry (its tableName is ignored);
  // `keyMax` and `valueMax` bound what the caller's buffers take.
  Reader(Location where, Labels expected, std::uint32_t keyMax, std::uint32_t valueMax,
         CorruptionHandler handler = {});
  ~Reader();
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // True when a table file is attached (tries to attach first).
  bool attached() const;
  // Copies the value of `key` into `out` (of `outSize` bytes, at least valueMax) and returns its
  // length; nullopt when absent or unreadable.
  std::optional<std::uint32_t> find(Bytes key, std::uint32_t hash, std::uint8_t* out, std::uint32_t outSize) const;
  // Room for a lookup's private copy of a record.
  struct RecordCopy {
    alignas(8) std::uint8_t bytes[kMaxSlotBytes];
  };
  // Copies the record of `key` into `copy` and returns its value, which lies in `copy`: decoding
  // it from there saves copying it out once more. nullopt when absent or unreadable.
  std::optional<Bytes> find(Bytes key, std::uint32_t hash, RecordCopy& copy) const;

  // A value as findAtHome returns it: its bytes in little-endian words, and its length.
  template <std::uint32_t KeyMax, std::uint32_t ValueMax>
  struct ValueWords {
    static constexpr std::size_t kCount = (detail::slotBytesFor(KeyMax, ValueMax) - detail::valueAt(KeyMax)) / 8;
    std::uint64_t words[kCount];
    std::uint32_t length;
  };
  // The common case of find for tables of keys of at most 8 bytes, KeyMax and ValueMax being the
  // table's own geometry, inlined into the caller and kept short: the processor overlaps the
  // memory accesses of consecutive lookups only while its window of instructions in flight holds
  // more than one, so every instruction counts. Reads only the key's home slot (see find), into
  // registers, with the same checks as find: the sequence counter before and after, the checksum
  // of the whole slot, its own index and bucket, and the key and its length (`keyWord` holds the
  // key's `keyLen` bytes, zeros above). False when anything is not as expected, or the record is
  // not at home: the caller then calls find, which looks further, retries and reports.
  template <std::uint32_t KeyMax, std::uint32_t ValueMax>
  [[gnu::always_inline]] inline bool findAtHome(std::uint64_t keyWord, std::uint32_t keyLen, std::uint32_t hash,
                                         ValueWords<KeyMax, ValueMax>& value) const;
  // Calls fn(key, value) once for every entry found, bucket by bucket.
  void forEach(const std::function<void(Bytes key, Bytes value)>& fn) const;
  std::uint64_t scalar(std::uint32_t index) const;
  std::uint32_t occupancy() const;
  std::uint32_t capacity() const;
  std::uint64_t generation() const;
  bool writerOpen() const;

  // Calls fn for each change since the last poll, in order, and returns how many there were. A
  // reader that fell more than the ring's length behind, or whose table was replaced, gets one
  // Change::Kind::resync instead of the lost entries.
  std::size_t poll(const std::function<void(const Change&)>& fn);
  // Waits until poll has something to report or `seconds` have passed; true when it has.
  bool wait(double seconds);

  // Set before the reader is shared between threads.
  void corruptionHandlerIs(CorruptionHandler handler);
  const Location& location() const { return where_; }
  // The attached file's bytes as this process maps them (read-only); empty when unattached. For
  // diagnostics and tests.
  Bytes mappedBytes() const;

 private:
  detail::Mapping* current() const;
  detail::Mapping* refresh() const;
  detail::Mapping* refreshLocked(std::string& problem) const;
  enum class Found { absent, present };
  Found carefulFind(const detail::Mapping& m, std::uint32_t bucket, Bytes key, std::uint8_t* buf) const;
  void report(const std::string& message) const;
  std::function<void(const std::string&)> reporter(const detail::Mapping& m) const;
  std::function<bool()> aliveTest(const detail::Mapping& m) const;
  // Whether the writer of `m` has it open: its flag says so, and it holds the lock.
  bool writerAlive(const detail::Mapping& m) const;
  bool pending(detail::Mapping* m) const;
  bool writerDied(detail::Mapping* m) const;

  Location where_;
  Labels expected_;
  std::uint32_t keyMax_;
  std::uint32_t valueMax_;
  CorruptionHandler handler_;

  mutable std::mutex mutex_;  // guards attaching, the list of mappings and the lock file
  mutable std::atomic<detail::Mapping*> current_{nullptr};
  mutable std::atomic<const detail::LookupView*> view_{nullptr};  // that of current_
  // Every mapping ever attached, the older ones turned to zeros (see refresh): a concurrent call
  // may still hold one. A few hundred bytes each.
  mutable std::vector<std::unique_ptr<detail::Mapping>> mappings_;
  mutable int lockFd_ = -1;     // the writer lock file of the current mapping, -1 when there is none
  mutable std::string refused_;  // why the path was last refused, reported once
  // The file that last failed to attach: it is not looked at again (a writer never changes a
  // file's geometry; a new writer makes a new file).
  mutable std::uint64_t failedDev_ = 0;
  mutable std::uint64_t failedIno_ = 0;

  // Change-ring cursor (poll and wait).
  detail::Mapping* cursorMapping_ = nullptr;
  std::uint64_t cursor_ = 0;
  std::uint64_t lastChangeNs_ = 0;
  bool closedSeen_ = false;  // a writerClosed change was delivered for cursorMapping_
  mutable bool died_ = false;  // its writer was found dead, not yet told
  mutable std::uint64_t lastLivenessNs_ = 0;
};

template <std::uint32_t KeyMax, std::uint32_t ValueMax>
inline bool Reader::findAtHome(std::uint64_t keyWord, std::uint32_t keyLen, std::uint32_t hash,
                               ValueWords<KeyMax, ValueMax>& value) const {
#if defined(__x86_64__) || defined(__aarch64__)
  static_assert(KeyMax >= 1 && KeyMax <= 8, "the key is one word");
  constexpr std::size_t kSlotBytes = detail::slotBytesFor(KeyMax, ValueMax);
  constexpr std::size_t kValueWord = detail::valueAt(KeyMax) / 8;
  static_assert(detail::kSlotHeaderBytes == 32 && kValueWord == 5);
  const detail::LookupView* v = view_.load(std::memory_order_acquire);
  if (v == nullptr || v->shape != detail::shapeOf(kSlotBytes, KeyMax, ValueMax)) [[unlikely]] return false;
  // A replaced file stays mapped (or turns to zeros), so its slot may be read before the mark is
  // tested with the rest.
  const std::uint32_t live = __atomic_load_n(v->live, __ATOMIC_ACQUIRE);
  const std::uint32_t bucket = hash & v->bucketMask;
  const std::uint32_t home = bucket < v->slotCount ? bucket : bucket - v->slotCount;
  const std::uint64_t* s = reinterpret_cast<const std::uint64_t*>(v->slots + std::uint64_t{kSlotBytes} * home);
  // The words after the counter straight into registers, each summed as it comes: the checks and
  // the caller's decoding use these very words, so what is checked is what is decoded. The header
  // words are checked first, which frees their registers before the value's words arrive.
  const std::uint32_t seq = __atomic_load_n(reinterpret_cast<const std::uint32_t*>(s), __ATOMIC_ACQUIRE);
  const std::uint64_t w2 = __atomic_load_n(s + 2, __ATOMIC_RELAXED);
  const std::uint64_t w3 = __atomic_load_n(s + 3, __ATOMIC_RELAXED);
  const std::uint64_t w4 = __atomic_load_n(s + 4, __ATOMIC_RELAXED);
  // The two-lane CRC32C of find: words at even places from word 2 in one lane, odd in the other.
  std::uint64_t lane0 = detail::crc32cStep(0xFFFFFFFFu, w2);
  std::uint64_t lane1 = detail::crc32cStep(0xFFFFFFFFu, w3);
  lane0 = detail::crc32cStep(lane0, w4);
  // Word 2: zeros, bucket. Word 3: own index, key length, value length. Word 4: the key and the
  // zeros after it.
  const std::uint32_t valueLen = static_cast<std::uint32_t>(w3 >> 48);
  // Index and key length as expected, rotated to the top, leave the value length alone below.
  const std::uint64_t lengths = std::rotl(w3 ^ (home | std::uint64_t{keyLen} << 32), 16);
  std::uint64_t differs = (live ^ detail::kLiveMark) | (seq & 1u) | (w2 ^ std::uint64_t{bucket} << 32) | (w4 ^ keyWord) |
                          static_cast<std::uint64_t>(keyLen == 0) | static_cast<std::uint64_t>(lengths > ValueMax);
  // Computed here, not sunk below the value's loads by the compiler: the header words then need no
  // registers while the value's words are held, and nothing is spilled to the stack.
  asm("" : "+r"(differs));
#pragma GCC unroll 128
  for (std::size_t i = 0; i < ValueWords<KeyMax, ValueMax>::kCount; ++i) {
    value.words[i] = __atomic_load_n(s + kValueWord + i, __ATOMIC_RELAXED);
    if (((kValueWord + i) & 1) == 0) {
      lane0 = detail::crc32cStep(lane0, value.words[i]);
    } else {
      lane1 = detail::crc32cStep(lane1, value.words[i]);
    }
  }
  const std::uint64_t stored = __atomic_load_n(s + 1, __ATOMIC_RELAXED);
  std::atomic_thread_fence(std::memory_order_acquire);
  const std::uint32_t seqAfter = __atomic_load_n(reinterpret_cast<const std::uint32_t*>(s), __ATOMIC_RELAXED);
  const std::uint64_t sum = (~lane0 & 0xFFFFFFFFu) << 32 | (~lane1 & 0xFFFFFFFFu);
  differs |= (seqAfter ^ seq) | (sum ^ stored);
  if (differs != 0) [[unlikely]] return false;
  value.length = valueLen;
  return true;
#else
  (void)keyWord, (void)keyLen, (void)hash, (void)value;
  return false;
#endif
}

}  // namespace Shelf

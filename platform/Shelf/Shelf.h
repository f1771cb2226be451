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
//   slots    slotCount fixed-size slots (the slot format is below, in detail::);
//   ring     the change ring: the keys the writer changed, newest last.
// There are as many buckets as slots, and bucket b's chain starts at the head word of slot b, its
// home: key hash h belongs to bucket h mod slotCount.
// Beside the file, in the same directory, ".LEAF.lock" (mode 0600) keeps a second writer out.
//
// Links. A link (a bucket head, or a slot's link to the next record of its chain) names a slot and
// the stamp of the record it expects there. Every time the writer writes a slot, to hold a new
// record or to free it, the slot gets a stamp never used before in the file, so a link can name
// only the record it was made for: a reader holding a link whose record has since been freed or
// replaced finds another stamp, and knows it. Records are never changed in place: a new value is
// a new record, written in full to a free slot and then linked in place of the old one with one
// store, after which the old one is freed. Only links change in place, each with one 64-bit store.
//
// Reading a slot (a seqlock). The stamp is odd while the writer rewrites the slot and even at rest.
// A reader loads the stamp, copies the slot, and loads the stamp again: the copy is the record
// named by its link if both loads give the link's stamp, and the record is whole if its checksum
// (over the stamp word, key and value) holds. The writer stores the odd stamp, then the words,
// then the even one.
//
// Linearizability. The writer publishes each change with one store of a link (an insert sets a
// head or a link to a new record, an erase points the predecessor past the record, an update
// points it at the record with the new value), so the table's contents change at those stores
// and nowhere else. A lookup walks the chain of its key's bucket, link by link, and checks at each
// step that the slot it reached holds the record the link named (the stamp, within the seqlock
// window). If it does not, the writer has freed that record since the link was read: when the
// link is still in place the file is damaged (the writer always unlinks a record before it frees
// it), otherwise the walk starts again from the head. A completed walk reads each link while it
// named a live record or one unlinked a moment before (an unlinked record keeps its link until
// the writer frees it, which the stamp shows), and the order of a chain never changes under a
// walk (new records go to the front, or second behind a record at home; a new value takes the old
// one's place), so: a value returned was the key's value when the link to its record was read; a
// key present throughout a walk is met by it; "absent" means the key was absent when the walk read
// the link past its place. forEach walks every chain so, and lists every key present throughout.
// The quick path of a lookup reads only the home slot: it answers from it when the bucket's head,
// read in the same seqlock window, names that very record (the writer puts a bucket's record at
// home when the home is free, as the head, and keeps it the head while it lives there).
//
// Progress. Readers never wait for the writer nor take a lock on a lookup: a walk that the writer
// moved under starts again (counted in stats().restarts), after a pause that grows with each
// attempt; after kMaxWalks it gives up and answers absent (counted in stats().gaveUp).
//
// Crashes. A writer killed between any two stores leaves every linked record whole: it writes
// only slots no link names, and each change is published by one store. What it had written but not
// linked is never reached. Readers tell a dead writer from a live one by its lock on the table
// file itself (see below), so nothing waits on it.
//
// Damage. Readers trust nothing they read: every index is range-checked, every link's stamp
// compared, every record's checksum verified, chains are length-bounded. A link that names a
// record its slot does not hold, while the link stays in place, is damage; so is a record whose
// checksum fails while its stamp holds still. Each is reported once to the reader's corruption
// handler; a damaged record is skipped and the walk goes on through its link, a damaged link ends
// the walk (the keys behind it read as absent, reported). A record whose stamp word alone was hit
// still reads, checked against the checksum. A reader never crashes and never spins without bound.
//
// One writer, and telling it alive. Before it builds anything, a writer takes an open file
// description lock on ".LEAF.lock", which only the table's owner can open, and holds it while it
// lives; a second writer gets Shelf::Exception naming the holder's pid. It also holds a write lock
// on the table file itself, taken while the file was still private to it: readers test that lock
// (without taking it) to learn whether the writer lives. Another user can read the file and so
// take a read lock on it, but a read lock neither blocks the writer (it holds its lock first) nor
// passes for the writer's (readers look for a write lock, which needs write access).
//
// Trust. Readers and writers trust a table only if the root, every folder below it and the file
// belong to the expected user (by default the process's own user or root; see Location) and can be
// written by no one else (a sticky folder such as /dev/shm is fine). Anything else is refused
// with a message naming the path and its owner. A file truncated under an attached reader is the
// one thing not guarded: touching a page past its new end raises SIGBUS, and catching that would
// mean owning the process's SIGBUS handler, which a library cannot (only the owner can do it).
//
// Restart. A writer that mounts a path that already holds a table starts empty: it builds a new
// file beside the old one, marks the old one retired and renames the new one over the path.
// Retiring first means that a writer killed in between leaves the old file at the path, retired:
// readers go on reading it and look at the path again every millisecond until a file that is
// not retired stands there. Readers notice the mark on their next call and re-open the path; they
// need not re-attach. Each file carries a mark of its own, so a mapping is never mistaken for
// another file's. A reader maps the current file and keeps the one before (a call in another
// thread may still be reading it); older ones are turned to zeros in place, and their address
// ranges are reused for later files, so restarts do not pile up in a reader. A file removed from
// the path after its writer left is not retired by the next writer, which finds nothing there: a
// reader that polls or waits, once told the writer closed, looks at the path every 200 ms and
// follows a new file there (one that only looks up keys stays on the removed file until it polls).
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

// Where a table lives: an absolute root directory and a relative path below it. The path is a list
// of non-empty components separated by "/"; absolute paths, empty components, ".", "..", and
// components holding control characters are refused with Kelp::RangeException, so a table never
// lives outside its root. Components are opened without following symbolic links.
//
// Trust. Every directory from the root down and the table file must belong to a trusted user and
// be writable by no one else (a sticky directory, where others may add names but not take ours,
// is fine): by default the process's effective user or root, or only the user `trustedOwnerIs`
// names (or $BGPCOMMON_SHM_OWNER, a user name or number). Anything else is refused, naming the
// path and its owner: another local user must not be able to plant or replace a table.
class Location {
 public:
  // The root used when none is given: $BGPCOMMON_SHM_ROOT, else /dev/shm/bgpcommon.
  static std::string defaultRoot();

  Location(std::string root, std::string_view relativePath);

  const std::string& root() const { return root_; }
  const std::string& relativePath() const { return path_; }
  std::string fullPath() const { return root_ + "/" + path_; }
  const std::string& leaf() const { return components_.back(); }

  // Trust only `uid` (the writer's user, when a reader runs as another).
  void trustedOwnerIs(unsigned uid) { owner_ = uid; }
  std::optional<unsigned> trustedOwner() const { return owner_; }
  // Why a file or directory of these `st_uid` and `st_mode` must not be trusted, or empty.
  std::string distrust(const std::string& path, unsigned uid, unsigned mode) const;

  // Opens the directory that holds the leaf (creating missing directories, with mode 0755 less
  // the umask, when `create`), checking each level's owner and mode. Returns -1 with errno set,
  // and `why` saying what is wrong (for a trust failure errno is EPERM).
  int openDirectory(bool create, std::string& why) const;

 private:
  std::string root_;
  std::string path_;
  std::vector<std::string> components_;
  std::optional<unsigned> owner_;
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
inline constexpr std::uint32_t kMaxRingCapacity = 1u << 20;
// How many 64-bit scalars the header carries for the owning entity's plain attributes.
inline constexpr std::uint32_t kScalarCount = 8;

// One change to a table as a reader hears it. These are the words every layer above uses for a
// table's changes, down to the text the tool prints and the tokens Python hands out
// (changeKindName), so that a watcher reads the same thing whichever way it listens.
struct Change {
  enum class Kind : std::uint8_t {
    key,           // the value of `key` changed (stored, replaced or deleted)
    resync,        // anything may have changed (first attach, a new writer, a clear, a reader that
                   // fell behind): read everything again
    writerClosed,  // the writer closed the table or died; its contents stay readable
    writerOpen,    // a writer has the table open again (heard after a resync)
    scalar,        // header scalar `scalarIndex` changed
  };
  Kind kind;
  Bytes key;                     // for Kind::key
  std::uint32_t scalarIndex = 0;  // for Kind::scalar
};

// The name of a change: "key", "resync", "writer closed", "writer open", "scalar".
constexpr std::string_view changeKindName(Change::Kind kind) {
  constexpr std::string_view kNames[] = {"key", "resync", "writer closed", "writer open", "scalar"};
  return kNames[static_cast<std::size_t>(kind)];
}

namespace detail {
struct Mapping;
enum class RingKind : std::uint8_t;

constexpr std::size_t roundUp(std::size_t n, std::size_t to) { return (n + to - 1) / to * to; }

// ---- The slot format ----
//
//   offset  size  field
//   0       4     stamp       the record's stamp: even at rest, odd while the writer rewrites the
//                             slot; every write of a slot gives it a stamp never used before
//   4       2     keyLen      0 in a free slot (keys are never empty)
//   6       2     valueLen
//   8       8     link        the next record of this record's chain (a link word, below)
//   16      8     head        the first record of the bucket whose home this slot is (a link word)
//   24      8     checksum    two-lane CRC32C of word 0 and the words from offset 32 to the end
//   32      ...   key, then the value from the next 8-byte boundary, zeros to the end of the slot
//
// A link word holds a slot index in its low half and the stamp of the record it names in its high
// half; the end of a chain is kEndLink (no slot, stamp 0). The link and head words are the only
// words changed in place, each with one store, and stand outside the checksum. The head word
// belongs to the bucket, not to the record: writing a record into the slot leaves it alone.
//
// The checksum covers the stamp word (with the even stamp, so a record is checked against the
// stamp its link names) and everything from the key on, unused bytes included: hashing the whole
// fixed-size slot rather than the used bytes makes every lookup run the same instructions, which
// keeps a reader's branches predictable. It is CRC32C (the Castagnoli polynomial) in two lanes:
// the checksummed words, word 0 first then from offset 32 on, go alternately to lane 0 and lane 1,
// each lane the plain CRC32C of its words' bytes; lane 0 is the high half of the result. A CRC
// catches every burst of damage up to 32 bits long within a lane, and two lanes halve the chain of
// dependent steps.
inline constexpr std::size_t kStampAt = 0;
inline constexpr std::size_t kKeyLenAt = 4;
inline constexpr std::size_t kValueLenAt = 6;
inline constexpr std::size_t kLinkAt = 8;
inline constexpr std::size_t kHeadAt = 16;
inline constexpr std::size_t kChecksumAt = 24;
inline constexpr std::size_t kSlotHeaderBytes = 32;
inline constexpr std::uint32_t kNone = 0xFFFFFFFFu;  // no slot
inline constexpr std::uint64_t kEndLink = kNone;      // no slot, stamp 0
// The table format's version, in the file's header and in the shape an inlined lookup checks.
inline constexpr std::uint32_t kVersion = 5;

constexpr std::uint64_t linkTo(std::uint32_t slot, std::uint32_t stamp) { return slot | std::uint64_t{stamp} << 32; }
constexpr std::uint32_t linkSlot(std::uint64_t link) { return static_cast<std::uint32_t>(link); }
constexpr std::uint32_t linkStamp(std::uint64_t link) { return static_cast<std::uint32_t>(link >> 32); }

// A slot's value starts at the first 8-byte boundary after its key. Readers copy slots word by
// word and decode values from their copies: a field read from within one copied word is forwarded
// from that store at once, while one straddling two words would wait for both to reach the cache.
constexpr std::size_t valueAt(std::size_t keyLen) { return kSlotHeaderBytes + roundUp(keyLen, 8); }
constexpr std::size_t slotBytesFor(std::size_t keyMax, std::size_t valueMax) {
  return roundUp(valueAt(keyMax) + valueMax, 8);
}

// The record shape of a table as one word, for a typed lookup to compare with the shape it was
// compiled for: format version, slot size, longest key and longest value.
constexpr std::uint64_t shapeOf(std::uint64_t slotSize, std::uint64_t keyMax, std::uint64_t valueMax) {
  return slotSize | keyMax << 16 | valueMax << 32 | std::uint64_t{kVersion} << 56;
}

// Bucket of a hash: hash mod slotCount, by multiplication with `modMultiplier` (2^64 / slotCount,
// rounded up), which is exact for every 32-bit hash and count.
inline std::uint32_t bucketOf(std::uint32_t hash, std::uint64_t modMultiplier, std::uint32_t slotCount) {
  return static_cast<std::uint32_t>((static_cast<unsigned __int128>(modMultiplier * hash) * slotCount) >> 64);
}
constexpr std::uint64_t modMultiplierFor(std::uint32_t slotCount) { return ~std::uint64_t{0} / slotCount + 1; }

// The seqlock's memory ordering. A reader copies a slot with relaxed loads between two loads of
// its stamp and orders them with an acquire fence; a writer stores the odd stamp, a release fence,
// the words, and the even stamp with release. ThreadSanitizer does not model fences, so under it
// the words are loaded with acquire and stored with release instead: the orders it can see, the
// same guarantees (on x86-64 the same instructions).
#if defined(__SANITIZE_THREAD__)
#define BGPCOMMON_SHELF_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define BGPCOMMON_SHELF_TSAN 1
#endif
#endif
#if defined(BGPCOMMON_SHELF_TSAN)
inline constexpr int kWordLoad = __ATOMIC_ACQUIRE;
inline constexpr int kWordStore = __ATOMIC_RELEASE;
inline void readFence() {}
inline void writeFence() {}
#else
inline constexpr int kWordLoad = __ATOMIC_RELAXED;
inline constexpr int kWordStore = __ATOMIC_RELAXED;
inline void readFence() { std::atomic_thread_fence(std::memory_order_acquire); }
inline void writeFence() { std::atomic_thread_fence(std::memory_order_release); }
#endif

// Test hooks: a build with BGPCOMMON_SHELF_HOOKS calls readerStep before each load a reader makes
// of the shared file and writerStore before each store of the writer, so that a test can run the
// writer between any two loads of a reader, or stop it at any store. Other builds compile them
// away.
#if defined(BGPCOMMON_SHELF_HOOKS)
void readerStep(const char* what);
void writerStore(const char* what);
#else
inline void readerStep(const char*) {}
inline void writerStore(const char*) {}
#endif

#if defined(__x86_64__) || defined(__aarch64__)
// One CRC32C step over a little-endian word with the processor's instruction: SSE4.2's on x86-64,
// the CRC extension's on aarch64. Written as assembly so that it can be inlined into code compiled
// for any processor of the family; it runs only on processors that have it (checked once, when the
// library loads: kCrcInstruction). Either leaves the CRC in the low half of the register, zeros above.
inline std::uint64_t crc32cStep(std::uint64_t crc, std::uint64_t word) {
#if defined(__x86_64__)
  asm("crc32q %1, %0" : "+r"(crc) : "r"(word));
#else
  asm(".arch_extension crc\n\tcrc32cx %w0, %w0, %x1" : "+r"(crc) : "r"(word));
#endif
  return crc;
}
#endif

// What a typed lookup inlined into its caller needs of an attached table.
struct LookupView {
  const std::uint32_t* live = nullptr;  // the header's live word: `mark` until a newer file replaces this one
  std::uint32_t mark = 0;
  const std::uint8_t* slots = nullptr;
  std::uint32_t slotCount = 0;
  std::uint64_t modMultiplier = 0;
  // shapeOf the table's records; 0 where the lookup cannot be done inline (no CRC32C
  // instruction), which no typed lookup expects.
  std::uint64_t shape = 0;
};
// A reader's view before it attaches: of no shape, so an inlined lookup tests one word, not a null
// pointer as well, before it goes the common way.
inline constexpr LookupView kNoView{};

// The checksum a table keeps of each record, over `words` (a multiple of 8 bytes, up to
// kMaxSlotBytes) taken in order, as computed with tables and with the processor's CRC32C
// instruction (nullopt when it has none). The two must agree: a table is read and written by
// whichever processes map it.
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
  bool homeFree(std::uint32_t home) const { return (slotState_[home] & kSlotFree) != 0; }
  std::uint32_t takeHome(std::uint32_t home);
  // Writes a whole record (or, with an empty key, a free slot) into slot `index` under a new stamp,
  // which it returns; the slot's head word is left alone.
  std::uint32_t writeSlot(std::uint32_t index, std::uint64_t link, Bytes key, Bytes value);
  std::uint32_t stampOf(std::uint32_t index) const;
  std::uint64_t headOf(std::uint32_t bucket) const;
  // Points the head of `bucket` (predecessor kNone) or slot `predecessor`'s link at `link`.
  void link(std::uint32_t predecessor, std::uint32_t bucket, std::uint64_t link);
  void freeSlot(std::uint32_t index);
  void announce(detail::RingKind kind, Bytes key, std::uint32_t scalarIndex);
  [[noreturn]] void corrupt(const std::string& what) const;

  std::unique_ptr<detail::Mapping> map_;
  int lockFd_ = -1;  // the writer lock, held while this object lives
  int fileFd_ = -1;  // the table file, write-locked while this object lives (readers test it)
  std::string path_;
  Labels labels_;
  // Free slots wait in a ring, taken at the head and returned at the tail, so that a freed slot
  // rests a while before it is reused (a reader still looking at it then finds it as it left it,
  // rather than starting its walk again). A slot may also be taken out of turn as a bucket's home;
  // its ring entry then stays and is passed over. Each slot has at most one entry in the ring.
  static constexpr std::uint8_t kSlotFree = 1;
  static constexpr std::uint8_t kSlotQueued = 2;
  std::vector<std::uint32_t> freeFifo_;
  std::vector<std::uint8_t> slotState_;  // kSlotFree | kSlotQueued per slot
  std::uint32_t freeHead_ = 0;
  std::uint32_t queuedCount_ = 0;  // ring entries
  std::uint32_t freeCount_ = 0;
  std::uint32_t occupancy_ = 0;
  std::uint32_t nextStamp_ = 2;  // even, never 0: the stamp the next write of a slot gets
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
  // more than one, so every instruction counts. Reads only the key's home slot, into registers,
  // and answers from it when the bucket's head (in the same slot) names the record there, which
  // holds the key (`keyWord` holds the key's `keyLen` bytes, zeros above), whole and at rest
  // through the read. False when anything is not as expected: the caller then calls find, which
  // walks the chain, retries and reports.
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
  // How often walks started again because the writer changed a chain under them, and how many
  // lookups gave up after kMaxWalks walks (answering absent). Both stay 0 unless a writer is busy
  // on the very chains being read.
  struct Stats {
    std::uint64_t restarts = 0;
    std::uint64_t gaveUp = 0;
  };
  Stats stats() const;
  static constexpr int kMaxWalks = 64;

  // Calls fn for each change since the last poll, in order, and returns how many there were. A
  // reader that fell more than the ring's length behind, or whose table was replaced or cleared,
  // gets one Change::Kind::resync instead of the lost entries, followed by writerOpen or
  // writerClosed when the writer's state differs from what the last poll told. The writer closing
  // (or dying) is told once.
  std::size_t poll(const std::function<void(const Change&)>& fn);
  // Waits until poll has something to report or `seconds` have passed; true when it has.
  bool wait(double seconds);

  // Set before the reader is shared between threads.
  void corruptionHandlerIs(CorruptionHandler handler);
  const Location& location() const { return where_; }
  // The attached file's bytes as this process maps them (read-only); empty when unattached. For
  // diagnostics and tests.
  Bytes mappedBytes() const;
  // Of the attached file, for operators' listings (0 when unattached): its format version; the
  // pid of the writer that created it (writerOpen says whether that writer still holds it); the
  // changes its writer has published in it; when it was created and when its writer last
  // announced a change, in seconds since 1970 (the writer notes both in the file: a file's own
  // modification time cannot stand for them, as a write through a shared mapping of a tmpfs file
  // updates it only the first time it touches a page).
  std::uint32_t formatVersion() const;
  std::uint32_t writerPid() const;
  std::uint64_t changeCount() const;
  double createdAt() const;
  double lastChangeAt() const;

 private:
  detail::Mapping* current() const;
  detail::Mapping* refresh() const;
  // Attaches the file at the path when the current one is retired (or, with evenIfLive, whenever
  // the path names another file).
  detail::Mapping* refreshLocked(std::string& problem, bool evenIfLive = false) const;
  // `m`, or the file that now stands at the path when `m`'s writer has gone (see ChangeFeed.cpp).
  detail::Mapping* afterGoneWriter(detail::Mapping* m);
  enum class Walk { done, stopped, damaged, gaveUp };
  template <typename Visit>
  Walk walk(const detail::Mapping& m, std::uint32_t bucket, std::uint8_t* buf, Visit&& visit) const;
  void report(const std::string& message) const;
  // Reports `message` about `m` once: damage stays until the writer rewrites it, and a reader
  // that met it on every lookup would otherwise flood its handler.
  void reportOnce(const detail::Mapping& m, const std::string& message) const;
  // Whether the writer of `m` has it open: its flag says so, and it holds its lock on the file.
  bool writerAlive(const detail::Mapping& m) const;
  bool pending(detail::Mapping* m) const;
  bool writerDied(detail::Mapping* m) const;

  Location where_;
  Labels expected_;
  std::uint32_t keyMax_;
  std::uint32_t valueMax_;
  CorruptionHandler handler_;

  mutable std::mutex mutex_;  // guards attaching, the list of mappings and what was reported
  mutable std::atomic<detail::Mapping*> current_{nullptr};
  mutable std::atomic<const detail::LookupView*> view_{&detail::kNoView};  // that of current_
  // Every mapping attached and not yet reused, the older ones turned to zeros (see refresh): a
  // concurrent call may still hold one.
  mutable std::vector<std::unique_ptr<detail::Mapping>> mappings_;
  mutable std::string refused_;  // why the path was last refused, reported once
  mutable std::vector<std::string> reported_;  // damage reported in the current mapping
  // The file that last failed to attach, by device, inode, change time and size: it is not looked
  // at again until one of them changes (a writer never changes a file's geometry; a new writer
  // makes a new file, which may get the old one's inode but not its change time).
  mutable std::uint64_t failed_[5] = {};
  mutable std::atomic<std::uint64_t> restarts_{0};
  mutable std::atomic<std::uint64_t> gaveUp_{0};

  // Change-ring cursor (poll and wait).
  detail::Mapping* cursorMapping_ = nullptr;
  std::uint64_t cursor_ = 0;
  std::uint64_t lastChangeNs_ = 0;
  bool closedSeen_ = false;  // cursorMapping_'s writer closed (its ring said so, or it died)
  bool writerOpenTold_ = true;  // the writer's state as poll last told it
  mutable bool died_ = false;  // its writer was found dead, not yet told
  mutable std::uint64_t lastLivenessNs_ = 0;
  std::uint64_t lastPathCheckNs_ = 0;  // when afterGoneWriter last looked at the path
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
  if (v->shape != detail::shapeOf(kSlotBytes, KeyMax, ValueMax)) [[unlikely]] return false;
  // A replaced file stays mapped (or turns to zeros), so its slot may be read before the mark is
  // tested with the rest.
  detail::readerStep("home: live mark");
  const std::uint32_t live = __atomic_load_n(v->live, __ATOMIC_ACQUIRE);
  const std::uint32_t home = detail::bucketOf(hash, v->modMultiplier, v->slotCount);
  const std::uint64_t* s = reinterpret_cast<const std::uint64_t*>(v->slots + std::uint64_t{kSlotBytes} * home);
  // The words straight into registers, each summed as it comes: the checks and the caller's
  // decoding use these very words, so what is checked is what is decoded. The header words are
  // checked first, which frees their registers before the value's words arrive.
  detail::readerStep("home: stamp");
  const std::uint64_t w0 = __atomic_load_n(s, __ATOMIC_ACQUIRE);
  detail::readerStep("home: head");
  const std::uint64_t head = __atomic_load_n(s + 2, detail::kWordLoad);
  const std::uint64_t w4 = __atomic_load_n(s + 4, detail::kWordLoad);
  // The two-lane CRC32C of the slot format: word 0, then words 4, 5, ... alternately.
  std::uint64_t lane0 = detail::crc32cStep(0xFFFFFFFFu, w0);
  std::uint64_t lane1 = detail::crc32cStep(0xFFFFFFFFu, w4);
  // The stamp word's key and value lengths tested in one comparison: less the key's length
  // (1..KeyMax) and turned by a half, its high half reads as the value's length, at most ValueMax,
  // only where the stored key's length is the key's. Any difference, or a borrow from the value's
  // half, lands in the high half and makes it exceed ValueMax.
  static_assert(ValueMax < 0x10000);
  const std::uint32_t lengths = std::rotr(static_cast<std::uint32_t>(w0 >> 32) - keyLen, 16);
  std::uint64_t differs = (live ^ v->mark) | (head ^ detail::linkTo(home, static_cast<std::uint32_t>(w0))) |
                          (w4 ^ keyWord) | static_cast<std::uint64_t>(keyLen - 1 >= KeyMax) |
                          static_cast<std::uint64_t>(lengths > ValueMax);
  // Computed here, not sunk below the value's loads by the compiler: the header words then need no
  // registers while the value's words are held, and nothing is spilled to the stack.
  asm("" : "+r"(differs));
#pragma GCC unroll 128
  for (std::size_t i = 0; i < ValueWords<KeyMax, ValueMax>::kCount; ++i) {
    value.words[i] = __atomic_load_n(s + kValueWord + i, detail::kWordLoad);
    if (((kValueWord + i) & 1) == 1) {
      lane0 = detail::crc32cStep(lane0, value.words[i]);
    } else {
      lane1 = detail::crc32cStep(lane1, value.words[i]);
    }
  }
  const std::uint64_t stored = __atomic_load_n(s + 3, detail::kWordLoad);
  detail::readFence();
  detail::readerStep("home: stamp again");
  const std::uint64_t w0After = __atomic_load_n(s, detail::kWordLoad);
  const std::uint64_t sum = (~lane0 & 0xFFFFFFFFu) << 32 | (~lane1 & 0xFFFFFFFFu);
  differs |= (w0After ^ w0) | (sum ^ stored);
  if (differs != 0) [[unlikely]] return false;
  value.length = lengths;
  return true;
#else
  (void)keyWord, (void)keyLen, (void)hash, (void)value;
  return false;
#endif
}

}  // namespace Shelf

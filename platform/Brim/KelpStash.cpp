#include "platform/Brim/KelpStash.h"

#include <array>
#include <atomic>
#include <mutex>
#include <new>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

#include "platform/Pico/Assert.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define KELP_STASH_POISON(p, n) ASAN_POISON_MEMORY_REGION((p), (n))
#define KELP_STASH_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION((p), (n))
#else
#define KELP_STASH_POISON(p, n) ((void)(p), (void)(n))
#define KELP_STASH_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace KelpStash {

namespace {

constexpr std::size_t kGranule = 8;
constexpr std::size_t kClasses = kMaxPooledSize / kGranule;
// Slabs are aligned on their size, so a block finds its slab by masking its address. They are cut
// from 2 MiB chunks mapped from the system and offered huge pages: on a virtual machine a fault
// of a small page can cost some microseconds, so a table of a million keys would otherwise spend
// a noticeable share of its interning in the kernel. A chunk whose slabs are all empty goes back
// to the system whole (returning single slabs would split its huge page), except one kept for the
// next table, so that a table learnt and lost over and over does not fault its pages in each time.
constexpr std::size_t kSlabBytes = 64 * 1024;
constexpr std::size_t kChunkBytes = 2 * 1024 * 1024;
constexpr std::size_t kSlabsPerChunk = kChunkBytes / kSlabBytes;
constexpr std::size_t kSlabHeaderBytes = 64;
constexpr std::size_t kKeptEmptyChunks = 1;
// Empty slabs of chunks still partly in use are kept resident up to this many; the pages of any
// more go back one slab at a time, so that a few long-lived objects scattered over many chunks do
// not hold the rest of them.
constexpr std::size_t kKeptEmptySlabs = 32;
// A thread cache takes kBatch blocks at a time from the shared pool (or a slab's whole free list
// when that holds at most kCacheLimit) and gives back kBatch when it holds more than kCacheLimit,
// so a thread that only frees does not hoard memory.
constexpr std::uint32_t kBatch = 64;
constexpr std::uint32_t kCacheLimit = 4 * kBatch;
constexpr std::size_t kLine = 64;

struct FreeBlock {
  FreeBlock* next;
};

constexpr std::size_t classOf(std::size_t size) { return (size + kGranule - 1) / kGranule - 1; }
constexpr std::size_t classSize(std::size_t c) { return (c + 1) * kGranule; }

// A framework object starts with its vtable pointer, and a lookup of an interned one reads what
// follows together: its reference count and its first fields. A block whose octets past the
// first 8 would straddle two cache lines is left unused, for the classes where that wastes at
// most one block in eight (of the sizes up to a line, only 24 octets, an IPv4 route key, has such
// blocks and qualifies); other classes are carved densely.
constexpr bool straddles(std::size_t offset, std::size_t size) {
  return size > 8 && size < kLine && (offset + 8) / kLine != (offset + size - 1) / kLine;
}
constexpr bool skipsStraddlers(std::size_t size) {
  std::size_t skipped = 0;
  for (std::size_t i = 0; i < kLine; ++i) skipped += straddles(i * size, size);
  return skipped * 8 <= kLine;
}
constexpr std::array<bool, kClasses> kSkipsStraddlers = [] {
  std::array<bool, kClasses> skips{};
  for (std::size_t c = 0; c < kClasses; ++c) {
    const std::size_t size = classSize(c);
    skips[c] = size > 8 && size < kLine && skipsStraddlers(size);  // the others never straddle
  }
  return skips;
}();

void pushBlock(FreeBlock*& head, void* p, std::size_t size) {
  auto* b = static_cast<FreeBlock*>(p);
  KELP_STASH_UNPOISON(b, sizeof(FreeBlock));
  b->next = head;
  KELP_STASH_POISON(b, size);
  head = b;
}

FreeBlock* popBlock(FreeBlock*& head, std::size_t size) {
  FreeBlock* b = head;
  KELP_STASH_UNPOISON(b, size);
  head = b->next;
  return b;
}

// The header at the start of every slab. While the slab serves a size class its fields are
// guarded by that class's mutex; while it is empty, by the pool's slab mutex.
struct Slab {
  Slab* prev = nullptr;  // in its class's list of slabs with room, or the list of empty slabs
  Slab* next = nullptr;
  FreeBlock* free = nullptr;    // blocks given back to this slab
  std::uint32_t freeCount = 0;  // blocks on `free`
  std::uint32_t inUse = 0;      // blocks handed out (to objects or thread caches), not yet given back
  char* bump = nullptr;         // the part never carved: [bump, end)
  char* end = nullptr;
  struct Chunk* chunk = nullptr; // the chunk it was cut from
  bool listed = false;          // in its class's list of slabs with room
};
static_assert(sizeof(Slab) <= kSlabHeaderBytes);

Slab* slabOf(const void* p) {
  return reinterpret_cast<Slab*>(reinterpret_cast<std::uintptr_t>(p) & ~std::uintptr_t{kSlabBytes - 1});
}

// A chunk of slabs, described beside it (its own pages all go back when it is returned).
struct Chunk {
  char* base = nullptr;
  std::uint32_t carved = 0;     // slabs cut from it since it was last returned whole
  std::uint32_t empty = 0;      // of those, the empty ones: in the pool's list, or returned
  std::uint32_t returned = 0;   // mask of the empty slabs whose pages went back (no header then)
  bool withReturned = false;    // in the pool's list of chunks with returned slabs
  Chunk* nextCold = nullptr;    // in the list of chunks returned whole
  Chunk* nextWithReturned = nullptr;
};
static_assert(kSlabsPerChunk <= 32);

// A doubly-linked list of slabs through their headers.
struct SlabList {
  Slab* head = nullptr;
  std::size_t count = 0;
  void push(Slab* s) {
    s->prev = nullptr;
    s->next = head;
    if (head != nullptr) head->prev = s;
    head = s;
    ++count;
  }
  void unlink(Slab* s) {
    if (s->prev != nullptr) s->prev->next = s->next;
    else head = s->next;
    if (s->next != nullptr) s->next->prev = s->prev;
    s->prev = s->next = nullptr;
    --count;
  }
};

// The shared pool of one size class: its slabs that have room.
struct SizeClass {
  std::mutex mutex;
  SlabList withRoom;
};

struct ThreadCache;

struct Pool {
  std::array<SizeClass, kClasses> classes;
  std::atomic<std::int64_t> bytesReserved{0};
  // Use counts of threads that have exited, and the caches of running threads.
  std::mutex cachesMutex;
  std::int64_t retiredObjects = 0;
  std::int64_t retiredBytes = 0;
  std::vector<ThreadCache*> caches;

  // Empty slabs of every class, chunks returned to the system, and the chunk being cut.
  std::mutex slabsMutex;
  SlabList empty;
  Chunk* cold = nullptr;          // chunks returned whole
  Chunk* withReturned = nullptr;  // chunks some of whose empty slabs were returned
  Chunk* current = nullptr;
  std::vector<Chunk*> chunks;  // every chunk mapped (never unmapped: slabs point at them)
  std::size_t emptyChunks = 0;  // chunks all of whose carved slabs are in `empty`

  // A slab for a class, empty and ready to carve: an empty one of any class, else the next of the
  // current chunk or of a chunk returned whole, else a returned slab of a chunk still in use, else
  // a new chunk's first. A chunk returned whole comes back as one huge page at one fault; a slab
  // returned alone is faulted back a small page at a time.
  Slab* newSlab() {
    char* base;
    Chunk* chunk;
    {
      std::lock_guard<std::mutex> lock(slabsMutex);
      const bool whole = (current != nullptr && current->carved < kSlabsPerChunk) || cold != nullptr;
      if (empty.head != nullptr) {
        Slab* s = empty.head;
        empty.unlink(s);
        chunk = s->chunk;
        if (chunk->empty-- == chunk->carved) --emptyChunks;
        base = reinterpret_cast<char*>(s);
      } else if (!whole && (chunk = withReturnedSlab()) != nullptr) {
        const int i = __builtin_ctz(chunk->returned);
        chunk->returned &= ~(1u << i);
        if (chunk->empty-- == chunk->carved) --emptyChunks;
        base = chunk->base + i * kSlabBytes;
        bytesReserved.fetch_add(std::int64_t{kSlabBytes}, std::memory_order_relaxed);
      } else {
        if (current == nullptr || current->carved == kSlabsPerChunk) {
          if (cold != nullptr) {
            current = cold;
            cold = cold->nextCold;
          } else {
            current = mapChunk();
          }
        }
        chunk = current;
        // A chunk counts as all empty while every slab cut from it is; this one no longer is.
        if (chunk->carved != 0 && chunk->empty == chunk->carved) --emptyChunks;
        base = chunk->base + chunk->carved * kSlabBytes;
        ++chunk->carved;
        bytesReserved.fetch_add(std::int64_t{kSlabBytes}, std::memory_order_relaxed);
      }
    }
    KELP_STASH_UNPOISON(base, kSlabHeaderBytes);
    Slab* s = new (base) Slab;
    s->bump = base + kSlabHeaderBytes;
    s->end = base + kSlabBytes;
    s->chunk = chunk;
    KELP_STASH_POISON(s->bump, kSlabBytes - kSlabHeaderBytes);
    return s;
  }

  // Maps a chunk aligned on its size (so that it can be one huge page); slabsMutex is held.
  Chunk* mapChunk() {
    void* m = ::mmap(nullptr, 2 * kChunkBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) throw std::bad_alloc();
    const auto start = reinterpret_cast<std::uintptr_t>(m);
    const auto aligned = (start + kChunkBytes - 1) & ~std::uintptr_t{kChunkBytes - 1};
    if (aligned != start) ::munmap(m, aligned - start);
    if (aligned + kChunkBytes != start + 2 * kChunkBytes) {
      ::munmap(reinterpret_cast<void*>(aligned + kChunkBytes), start + 2 * kChunkBytes - aligned - kChunkBytes);
    }
    auto* base = reinterpret_cast<char*>(aligned);
    ::madvise(base, kChunkBytes, MADV_HUGEPAGE);
    KELP_STASH_POISON(base, kChunkBytes);
    auto* chunk = new Chunk;
    chunk->base = base;
    chunks.push_back(chunk);
    return chunk;
  }

  // A chunk with a returned slab to cut again, or null; slabsMutex is held.
  Chunk* withReturnedSlab() {
    while (withReturned != nullptr && withReturned->returned == 0) {
      Chunk* c = withReturned;
      withReturned = c->nextWithReturned;
      c->withReturned = false;
    }
    return withReturned;
  }

  // A slab all of whose blocks are back leaves its class for the list of empty slabs; a chunk
  // that becomes all empty goes back to the system whole unless it is the only such one, and
  // beyond kKeptEmptySlabs empty slabs the slab's own pages go back. The class's mutex is held.
  void retire(Slab* s) {
    std::lock_guard<std::mutex> lock(slabsMutex);
    char* base = reinterpret_cast<char*>(s);
    KELP_STASH_POISON(base + kSlabHeaderBytes, kSlabBytes - kSlabHeaderBytes);
    Chunk* chunk = s->chunk;
    empty.push(s);
    if (++chunk->empty == chunk->carved) {
      if (++emptyChunks <= kKeptEmptyChunks) return;
      returnChunk(chunk);
      return;
    }
    if (empty.count <= kKeptEmptySlabs) return;
    empty.unlink(s);
    KELP_STASH_UNPOISON(base, kSlabBytes);
    ::madvise(base, kSlabBytes, MADV_DONTNEED);
    KELP_STASH_POISON(base, kSlabBytes);
    bytesReserved.fetch_sub(std::int64_t{kSlabBytes}, std::memory_order_relaxed);
    chunk->returned |= 1u << ((base - chunk->base) / kSlabBytes);
    if (!chunk->withReturned) {
      chunk->withReturned = true;
      chunk->nextWithReturned = withReturned;
      withReturned = chunk;
    }
  }

  // Gives the pages of an all-empty chunk back; it waits to be cut again. slabsMutex is held.
  void returnChunk(Chunk* chunk) {
    std::uint32_t resident = 0;
    for (std::uint32_t i = 0; i < chunk->carved; ++i) {
      if ((chunk->returned & (1u << i)) != 0) continue;
      empty.unlink(reinterpret_cast<Slab*>(chunk->base + i * kSlabBytes));
      ++resident;
    }
    KELP_STASH_UNPOISON(chunk->base, kChunkBytes);
    ::madvise(chunk->base, kChunkBytes, MADV_DONTNEED);
    KELP_STASH_POISON(chunk->base, kChunkBytes);
    bytesReserved.fetch_sub(std::int64_t{kSlabBytes} * resident, std::memory_order_relaxed);
    --emptyChunks;
    chunk->carved = chunk->empty = chunk->returned = 0;  // left in the returned-slab list, skipped there
    if (chunk == current) current = nullptr;
    chunk->nextCold = cold;
    cold = chunk;
  }

  // Moves blocks of class `c` onto `head`, which is empty: a slab's whole free list when it holds
  // at most `spliceMax` (no block is touched), else up to `n` blocks one by one, else up to `n`
  // blocks carved from a slab's uncarved part (a new slab when no slab of the class has room).
  // Answers the number of blocks moved (at least one).
  std::uint32_t take(std::size_t c, FreeBlock*& head, std::uint32_t n, std::uint32_t spliceMax) {
    SizeClass& sc = classes[c];
    const std::size_t size = classSize(c);
    std::lock_guard<std::mutex> lock(sc.mutex);
    for (;;) {
      Slab* s = sc.withRoom.head;
      if (s == nullptr) {
        s = newSlab();
        s->listed = true;
        sc.withRoom.push(s);
      }
      std::uint32_t got = 0;
      if (s->free != nullptr && s->freeCount <= spliceMax) {
        head = s->free;
        got = s->freeCount;
        s->free = nullptr;
        s->freeCount = 0;
      } else if (s->free != nullptr) {
        while (got < n && s->free != nullptr) {
          pushBlock(head, popBlock(s->free, size), size);
          ++got;
        }
        s->freeCount -= got;
      } else {
        got = carve(s, c, head, n);
      }
      s->inUse += got;
      if (s->free == nullptr && s->bump + size > s->end) {
        s->listed = false;
        sc.withRoom.unlink(s);
      }
      if (got != 0) return got;
    }
  }

  // Cuts up to `n` (at most kBatch) blocks from the slab's uncarved part onto `head` (empty), the
  // lowest address first, so that objects made one after another lie side by side. The blocks are
  // linked in address order as they are cut, in one pass.
  static std::uint32_t carve(Slab* s, std::size_t c, FreeBlock*& head, std::uint32_t n) {
    const std::size_t size = classSize(c);
    const bool skip = kSkipsStraddlers[c];
    const std::uint32_t want = n < kBatch ? n : kBatch;
    char* b = s->bump;
    char* const end = s->end;
    FreeBlock** tail = &head;
    std::uint32_t got = 0;
    for (; got < want && b + size <= end; b += size) {
      // The slab is aligned on its size, so an address's line is its line within the slab.
      const auto at = reinterpret_cast<std::uintptr_t>(b);
      if (skip && ((at + 8) ^ (at + size - 1)) >= kLine) continue;
      KELP_STASH_UNPOISON(b, sizeof(FreeBlock));
      auto* block = reinterpret_cast<FreeBlock*>(b);
      *tail = block;
      tail = &block->next;
      ++got;
    }
    *tail = nullptr;
    s->bump = b;
#if defined(__SANITIZE_ADDRESS__)
    for (FreeBlock* f = head; f != nullptr;) {
      FreeBlock* next = f->next;
      KELP_STASH_POISON(f, size);
      f = next;
    }
#endif
    return got;
  }

  // Moves `n` blocks from `head` back to their slabs; a slab whose last block comes back is retired.
  void give(std::size_t c, FreeBlock*& head, std::uint32_t n) {
    SizeClass& sc = classes[c];
    const std::size_t size = classSize(c);
    std::lock_guard<std::mutex> lock(sc.mutex);
    for (std::uint32_t i = 0; i < n && head != nullptr; ++i) {
      FreeBlock* b = popBlock(head, size);
      Slab* s = slabOf(b);
      pushBlock(s->free, b, size);
      ++s->freeCount;
      if (--s->inUse == 0) {
        if (s->listed) sc.withRoom.unlink(s);
        s->listed = false;
        retire(s);
      } else if (!s->listed) {
        s->listed = true;
        sc.withRoom.push(s);
      }
    }
  }

};

Pool& pool() {
  static Pool* p = new Pool;  // never destroyed: objects may be freed during exit
  return *p;
}

// Per-thread free lists and use counters. The counters have one writer (the owning thread) and are
// read by heapStats() from any thread, hence relaxed atomics written without read-modify-write.
struct ThreadCache {
  std::array<FreeBlock*, kClasses> head{};
  std::array<std::uint32_t, kClasses> count{};
  std::atomic<std::int64_t> objects{0};
  std::atomic<std::int64_t> bytes{0};

  ThreadCache() {
    Pool& p = pool();
    std::lock_guard<std::mutex> lock(p.cachesMutex);
    p.caches.push_back(this);
  }
  ~ThreadCache() {
    Pool& p = pool();
    for (std::size_t c = 0; c < kClasses; ++c) {
      if (count[c] != 0) p.give(c, head[c], count[c]);
    }
    std::lock_guard<std::mutex> lock(p.cachesMutex);
    p.retiredObjects += objects.load(std::memory_order_relaxed);
    p.retiredBytes += bytes.load(std::memory_order_relaxed);
    std::erase(p.caches, this);
  }
  void account(std::int64_t n, std::int64_t size) {
    objects.store(objects.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
    bytes.store(bytes.load(std::memory_order_relaxed) + n * size, std::memory_order_relaxed);
  }
};

// The cache of this thread, or null once it has been torn down at thread exit. The fast path is
// one load of a trivially initialised thread-local pointer (initial-exec: no call to find the
// thread's block); the cache itself is built on the thread's first use.
[[gnu::tls_model("initial-exec")]] thread_local ThreadCache* tlsCache = nullptr;
[[gnu::tls_model("initial-exec")]] thread_local bool cacheGone = false;

[[gnu::noinline]] ThreadCache* threadCacheSlow() {
  if (cacheGone) return nullptr;
  struct Holder {
    ThreadCache cache;
    ~Holder() {
      tlsCache = nullptr;
      cacheGone = true;
    }
  };
  thread_local Holder holder;
  tlsCache = &holder.cache;
  return tlsCache;
}

inline ThreadCache* threadCache() {
  ThreadCache* tc = tlsCache;
  return tc != nullptr ? tc : threadCacheSlow();
}

// The paths of allocate() and deallocate() beyond the thread cache's lists: a list to refill or
// to trim, a thread that has no cache (yet, or any more). Kept out of line, so that the common
// case is a few instructions that save no registers.
[[gnu::noinline]] void* allocateSlow(std::size_t c) {
  const std::size_t csize = classSize(c);
  ThreadCache* tc = threadCache();
  if (tc == nullptr) {
    // Thread exit: go straight to the shared pool, accounted as retired.
    FreeBlock* head = nullptr;
    pool().take(c, head, 1, 1);
    Pool& p = pool();
    std::lock_guard<std::mutex> lock(p.cachesMutex);
    p.retiredObjects += 1;
    p.retiredBytes += static_cast<std::int64_t>(csize);
    KELP_STASH_UNPOISON(head, csize);
    return head;
  }
  if (tc->head[c] == nullptr) tc->count[c] += pool().take(c, tc->head[c], kBatch, kCacheLimit);
  FreeBlock* b = popBlock(tc->head[c], csize);
  --tc->count[c];
  tc->account(1, static_cast<std::int64_t>(csize));
  return b;
}

[[gnu::noinline]] void deallocateSlow(void* p, std::size_t c) {
  const std::size_t csize = classSize(c);
  ThreadCache* tc = threadCache();
  if (tc == nullptr) {
    FreeBlock* head = nullptr;
    pushBlock(head, p, csize);
    pool().give(c, head, 1);
    Pool& pl = pool();
    std::lock_guard<std::mutex> lock(pl.cachesMutex);
    pl.retiredObjects -= 1;
    pl.retiredBytes -= static_cast<std::int64_t>(csize);
    return;
  }
  pushBlock(tc->head[c], p, csize);
  ++tc->count[c];
  tc->account(-1, static_cast<std::int64_t>(csize));
  if (tc->count[c] > kCacheLimit) {
    pool().give(c, tc->head[c], kBatch);
    tc->count[c] -= kBatch;
  }
}

}  // namespace

void* allocate(std::size_t size) {
  if (size == 0) size = 1;
  if (size > kMaxPooledSize) return ::operator new(size);
  const std::size_t c = classOf(size);
  ThreadCache* tc = tlsCache;
  if (tc == nullptr || tc->head[c] == nullptr) [[unlikely]] return allocateSlow(c);
  const std::size_t csize = classSize(c);
  FreeBlock* b = popBlock(tc->head[c], csize);
  --tc->count[c];
  tc->account(1, static_cast<std::int64_t>(csize));
  return b;
}

void deallocate(void* p, std::size_t size) noexcept {
  if (p == nullptr) return;
  if (size == 0) size = 1;
  if (size > kMaxPooledSize) {
    ::operator delete(p);
    return;
  }
  const std::size_t c = classOf(size);
  ThreadCache* tc = tlsCache;
  if (tc == nullptr || tc->count[c] >= kCacheLimit) [[unlikely]] {
    deallocateSlow(p, c);
    return;
  }
  pushBlock(tc->head[c], p, classSize(c));
  ++tc->count[c];
  tc->account(-1, static_cast<std::int64_t>(classSize(c)));
}

HeapStats heapStats() {
  Pool& p = pool();
  HeapStats s;
  std::lock_guard<std::mutex> lock(p.cachesMutex);
  s.objectsInUse = p.retiredObjects;
  s.bytesInUse = p.retiredBytes;
  for (const ThreadCache* tc : p.caches) {
    s.objectsInUse += tc->objects.load(std::memory_order_relaxed);
    s.bytesInUse += tc->bytes.load(std::memory_order_relaxed);
  }
  s.bytesReserved = p.bytesReserved.load(std::memory_order_relaxed);
  return s;
}

}  // namespace KelpStash

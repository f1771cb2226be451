#include "platform/Brim/KelpStash.h"

#include <array>
#include <atomic>
#include <mutex>
#include <new>
#include <vector>

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
constexpr std::size_t kSlabBytes = 64 * 1024;
// A thread cache takes kBatch blocks at a time from the shared pool and gives back kBatch when it
// holds more than kCacheLimit, so a thread that only frees does not hoard memory.
constexpr std::uint32_t kBatch = 64;
constexpr std::uint32_t kCacheLimit = 4 * kBatch;

struct FreeBlock {
  FreeBlock* next;
};

constexpr std::size_t classOf(std::size_t size) { return (size + kGranule - 1) / kGranule - 1; }
constexpr std::size_t classSize(std::size_t c) { return (c + 1) * kGranule; }

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

// The shared pool: one free list and one bump region per size class.
struct SizeClass {
  std::mutex mutex;
  FreeBlock* free = nullptr;
  std::uint32_t freeCount = 0;
  char* bump = nullptr;
  char* bumpEnd = nullptr;
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

  // Moves up to `n` blocks of class `c` onto `head` (carving a new slab when needed).
  std::uint32_t take(std::size_t c, FreeBlock*& head, std::uint32_t n) {
    SizeClass& sc = classes[c];
    const std::size_t size = classSize(c);
    std::lock_guard<std::mutex> lock(sc.mutex);
    std::uint32_t got = 0;
    while (got < n && sc.free != nullptr) {
      FreeBlock* b = popBlock(sc.free, size);
      pushBlock(head, b, size);
      --sc.freeCount;
      ++got;
    }
    while (got < n) {
      if (sc.bump + size > sc.bumpEnd) {
        sc.bump = static_cast<char*>(::operator new(kSlabBytes));
        sc.bumpEnd = sc.bump + kSlabBytes;
        KELP_STASH_POISON(sc.bump, kSlabBytes);
        {
          std::lock_guard<std::mutex> slabsLock(slabsMutex);
          slabs.push_back(sc.bump);
        }
        bytesReserved.fetch_add(kSlabBytes, std::memory_order_relaxed);
      }
      pushBlock(head, sc.bump, size);
      sc.bump += size;
      ++got;
    }
    return got;
  }

  // Moves `n` blocks from `head` back to the shared free list of class `c`.
  void give(std::size_t c, FreeBlock*& head, std::uint32_t n) {
    SizeClass& sc = classes[c];
    const std::size_t size = classSize(c);
    std::lock_guard<std::mutex> lock(sc.mutex);
    for (std::uint32_t i = 0; i < n && head != nullptr; ++i) {
      FreeBlock* b = popBlock(head, size);
      pushBlock(sc.free, b, size);
      ++sc.freeCount;
    }
  }

  std::mutex slabsMutex;  // slabs are recorded only to stay reachable
  std::vector<char*> slabs;
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

}  // namespace

void* allocate(std::size_t size) {
  if (size == 0) size = 1;
  if (size > kMaxPooledSize) return ::operator new(size);
  const std::size_t c = classOf(size);
  const std::size_t csize = classSize(c);
  ThreadCache* tc = threadCache();
  if (tc == nullptr) {
    // Thread exit: go straight to the shared pool, accounted as retired.
    FreeBlock* head = nullptr;
    pool().take(c, head, 1);
    Pool& p = pool();
    std::lock_guard<std::mutex> lock(p.cachesMutex);
    p.retiredObjects += 1;
    p.retiredBytes += static_cast<std::int64_t>(csize);
    KELP_STASH_UNPOISON(head, csize);
    return head;
  }
  if (tc->head[c] == nullptr) tc->count[c] += pool().take(c, tc->head[c], kBatch);
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

#include "BgpCommon/Bzip2Reader.h"

#include <bzlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>
#include <span>
#include <thread>

namespace Routing::Bgp {

namespace {

using Failure = Bzip2Reader::Failure;

constexpr U64 kBlockMagic = 0x314159265359;
constexpr U64 kEndMagic = 0x177245385090;
constexpr U64 kMagicMask = (U64{1} << 48) - 1;
constexpr std::size_t kStreamInput = 256 << 10;  // compressed octets a one-stream reading reads at a time
constexpr std::size_t kScanChunk = 1 << 20;      // compressed octets the scanner reads at a time

ssize_t readAt(int fd, void* into, std::size_t size, U64 offset) {
  ssize_t n;
  do n = ::pread(fd, into, size, static_cast<off_t>(offset));
  while (n < 0 && errno == EINTR);
  return n;
}

// libbz2 reading one stream after the other, from an offset of the file to its end, or over
// octets in memory (a block rebuilt as a stream). The first `skip` octets it decompresses are
// dropped: those were given before.
class OneStream {
 public:
  OneStream(int fd, U64 offset, U64 skip) : fd_(fd), offset_(offset), skip_(skip), input_(kStreamInput) {}
  OneStream(std::span<const U8> octets, U64 skip) : skip_(skip), inputEnded_(true) {
    bz_.next_in = const_cast<char*>(reinterpret_cast<const char*>(octets.data()));
    bz_.avail_in = static_cast<unsigned>(octets.size());
  }
  ~OneStream() {
    if (open_) BZ2_bzDecompressEnd(&bz_);
  }
  OneStream(const OneStream&) = delete;
  OneStream& operator=(const OneStream&) = delete;

  std::size_t read(U8* out, std::size_t room) {
    while (skip_ > 0) {
      if (scratch_.empty()) scratch_.resize(64 << 10);
      const std::size_t n = decompress(scratch_.data(), std::min<U64>(skip_, scratch_.size()));
      if (n == 0) return 0;
      skip_ -= n;
    }
    return decompress(out, room);
  }
  Failure failure() const { return failure_; }

 private:
  // More compressed octets from the file; false on a read error.
  bool refill() {
    const ssize_t n = readAt(fd_, input_.data(), input_.size(), offset_);
    if (n < 0) {
      failure_ = Failure::readFailed;
      return false;
    }
    if (n == 0) inputEnded_ = true;
    offset_ += static_cast<U64>(n);
    bz_.next_in = input_.data();
    bz_.avail_in = static_cast<unsigned>(n);
    return true;
  }

  std::size_t decompress(U8* out, std::size_t room) {
    if (failure_ != Failure::none || finished_) return 0;
    if (!open_) {
      if (BZ2_bzDecompressInit(&bz_, 0, 0) != BZ_OK) {
        failure_ = Failure::damaged;
        return 0;
      }
      open_ = true;
    }
    for (;;) {
      if (bz_.avail_in == 0 && !inputEnded_ && !refill()) return 0;
      bz_.next_out = reinterpret_cast<char*>(out);
      bz_.avail_out = static_cast<unsigned>(std::min<std::size_t>(room, 1u << 30));
      const unsigned before = bz_.avail_out;
      const int rc = BZ2_bzDecompress(&bz_);
      const std::size_t produced = before - bz_.avail_out;
      if (rc != BZ_OK && rc != BZ_STREAM_END) {
        failure_ = Failure::damaged;
        return produced;
      }
      if (rc == BZ_STREAM_END) {
        // Another stream may follow (files concatenated, pbzip2's output): start it afresh.
        if (bz_.avail_in == 0 && !inputEnded_ && !refill()) return produced;
        if (bz_.avail_in == 0) {
          finished_ = true;
          return produced;
        }
        char* in = bz_.next_in;
        const unsigned avail = bz_.avail_in;
        BZ2_bzDecompressEnd(&bz_);
        bz_ = bz_stream{};
        if (BZ2_bzDecompressInit(&bz_, 0, 0) != BZ_OK) {
          open_ = false;
          failure_ = Failure::damaged;
          return produced;
        }
        bz_.next_in = in, bz_.avail_in = avail;
      }
      if (produced > 0) return produced;
      if (rc == BZ_OK && inputEnded_ && bz_.avail_in == 0) {
        failure_ = Failure::damaged;  // the stream stops before its end
        return 0;
      }
    }
  }

  int fd_ = -1;
  U64 offset_ = 0;
  U64 skip_ = 0;
  std::vector<char> input_;
  std::vector<U8> scratch_;
  bz_stream bz_{};
  bool open_ = false;
  bool inputEnded_ = false;
  bool finished_ = false;
  Failure failure_ = Failure::none;
};

// What the scanner finds, in file order: blocks for the workers, and the marks between them.
struct Job {
  enum class Kind : U8 {
    block,       // a block rebuilt as a stream of its own
    tail,        // the file ends inside this block, before its stream's end: rebuilt without an end
    streamEnd,   // `crc`: the combined CRC the stream ends with; `next`: where the next may start
    end,         // the file ends after a stream
    oneStream,   // something the scanner does not expect: read on as one stream
    damaged,     // the file stops inside a stream's end
    readFailed,  // the file could not be read
  };
  explicit Job(Kind k) : kind(k) {}
  Kind kind;
  std::vector<U8> input;
  U32 crc = 0;
  U64 next = 0;
  // Set by a worker, read after `done` (both under the reader's mutex).
  std::unique_ptr<U8[]> output;
  std::size_t produced = 0;
  bool whole = false;  // decompressed to its stream end with the CRC matching: output is all of it
  bool full = false;   // the output reached the cap before the end
  bool done = false;
};

// Appends the `count` low bits of `value`, first bit first, to the `length` bits of `out`.
void appendBits(std::vector<U8>& out, U64& length, U64 value, int count) {
  for (int i = count - 1; i >= 0; --i) {
    if (length % 8 == 0) out.push_back(0);
    if ((value >> i) & 1) out.back() |= U8(0x80 >> (length % 8));
    ++length;
  }
}

// Finds the streams and blocks of the file, reading ahead through a window of compressed octets
// that holds the block being cut out and what follows it.
class Scanner {
 public:
  Scanner(int fd, std::vector<U64> chanceMagics) : fd_(fd), chance_(std::move(chanceMagics)) {
    std::sort(chance_.begin(), chance_.end());
  }

  std::unique_ptr<Job> next() {
    for (;;) {
      switch (phase_) {
        case Phase::header: {
          if (!have(streamStart_ + 1)) return finish(streamStart_ == 0 ? Job::Kind::oneStream : Job::Kind::end);
          if (!have(streamStart_ + 10) || octet(streamStart_) != 'B' || octet(streamStart_ + 1) != 'Z' ||
              octet(streamStart_ + 2) != 'h' || octet(streamStart_ + 3) < '1' || octet(streamStart_ + 3) > '9') {
            return finish(Job::Kind::oneStream);
          }
          level_ = octet(streamStart_ + 3) - '0';
          const U64 first = (streamStart_ + 4) * 8;
          const U64 magic = bits(first, 48);
          if (magic == kBlockMagic) {
            blockStart_ = first;
            phase_ = Phase::block;
          } else if (magic == kEndMagic) {
            endAt_ = first;
            phase_ = Phase::end;
          } else {
            return finish(Job::Kind::oneStream);
          }
          break;
        }
        case Phase::block: {
          // A block is at most the level's size compressed, a little more for data that does
          // not compress: a magic farther than twice that is not there.
          const U64 limit = blockStart_ + U64{level_} * 200000 * 8;
          bool block = true;
          const std::optional<U64> at = find(blockStart_ + 48, limit, block);
          if (!at) {
            if (readError_) return finish(Job::Kind::readFailed);
            if (!outOfData_) return finish(Job::Kind::oneStream);
            auto job = cut(Job::Kind::tail, blockStart_, (windowStart_ + window_.size()) * 8);
            phase_ = Phase::done;
            return job;
          }
          auto job = cut(Job::Kind::block, blockStart_, *at);
          if (block) {
            blockStart_ = *at;
          } else {
            endAt_ = *at;
            phase_ = Phase::end;
          }
          drop(*at / 8);
          return job;
        }
        case Phase::end: {
          const U64 next = (endAt_ + 80 + 7) / 8;
          if (!have(next)) return finish(readError_ ? Job::Kind::readFailed : Job::Kind::damaged);
          auto job = std::make_unique<Job>(Job::Kind::streamEnd);
          job->crc = static_cast<U32>(bits(endAt_ + 48, 32));
          job->next = streamStart_ = next;
          phase_ = Phase::header;
          return job;
        }
        case Phase::done: return std::make_unique<Job>(Job::Kind::end);
      }
    }
  }

 private:
  enum class Phase : U8 { header, block, end, done };

  std::unique_ptr<Job> finish(Job::Kind kind) {
    phase_ = Phase::done;
    if (readError_ && kind != Job::Kind::oneStream) kind = Job::Kind::readFailed;
    return std::make_unique<Job>(kind);
  }

  // Whether the window holds the file's octets up to `end`, reading on as far as needed.
  bool have(U64 end) {
    while (windowStart_ + window_.size() < end && !eof_ && !readError_) {
      const std::size_t old = window_.size();
      window_.resize(old + kScanChunk);
      const ssize_t n = readAt(fd_, window_.data() + old, kScanChunk, windowStart_ + old);
      if (n < 0) readError_ = true;
      if (n <= 0) eof_ = n == 0;
      window_.resize(old + static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
    }
    return windowStart_ + window_.size() >= end;
  }
  U8 octet(U64 at) const { return window_[at - windowStart_]; }
  // `count` (at most 57) bits from bit offset `at` on, in the window.
  U64 bits(U64 at, int count) const {
    const U64 first = at / 8, last = (at + count - 1) / 8;
    U64 v = 0;
    for (U64 i = first; i <= last; ++i) v = v << 8 | octet(i);
    return (v >> ((last + 1) * 8 - at - count)) & ((U64{1} << count) - 1);
  }
  // Octets before `at` are no longer needed.
  void drop(U64 at) {
    if (at - windowStart_ < kScanChunk) return;
    window_.erase(window_.begin(), window_.begin() + static_cast<std::ptrdiff_t>(at - windowStart_));
    windowStart_ = at;
  }

  // The first magic starting at a bit offset in [from, limit), or a chance magic the tests
  // planted there first; `block` says which magic.
  std::optional<U64> find(U64 from, U64 limit, bool& block) {
    outOfData_ = false;
    const auto chance = std::lower_bound(chance_.begin(), chance_.end(), from);
    const bool planted = chance != chance_.end() && *chance < limit;
    if (planted) limit = *chance;
    if (const std::optional<U64> at = findMagic(from, limit, block)) return at;
    if (!planted || outOfData_) return std::nullopt;
    block = true;
    return limit;
  }

  // A magic starting at bit r of octet i fills octet i + 1 with its bits 8 - r to 15 - r: the
  // value of that octet tells the few offsets worth comparing all 48 bits at. Bit r of an entry:
  // the block magic may start at bit r of the octet before; bit 8 + r: the end magic.
  static constexpr std::array<U16, 256> kSecondOctet = [] {
    std::array<U16, 256> t{};
    for (int r = 0; r < 8; ++r) {
      t[(kBlockMagic >> (32 + r)) & 0xFF] |= U16(1u << r);
      t[(kEndMagic >> (32 + r)) & 0xFF] |= U16(1u << (8 + r));
    }
    return t;
  }();

  std::optional<U64> findMagic(U64 from, U64 limit, bool& block) {
    for (U64 i = from / 8;;) {
      if (8 * i >= limit) return std::nullopt;
      // A magic starting in octet i ends in octet i + 6 at the latest, i + 5 at the earliest.
      if (!have(i + 7) && windowStart_ + window_.size() < i + 6) {
        outOfData_ = true;
        return std::nullopt;
      }
      const U64 windowEnd = windowStart_ + window_.size();
      const U64 last = std::min(windowEnd - 5, (limit + 7) / 8);
      const U8* w = window_.data() - windowStart_;  // w[k]: octet k of the file
      for (; i < last; ++i) {
        const U16 offsets = kSecondOctet[w[i + 1]];
        if (offsets == 0) [[likely]] continue;
        U64 v = 0;  // octets i to i + 6, zeros past the end of the file
        for (U64 k = i; k < i + 7; ++k) v = v << 8 | (k < windowEnd ? w[k] : 0);
        for (U64 r = 0; r < 8; ++r) {
          if (((offsets >> r) & 0x101) == 0) continue;
          const U64 start = 8 * i + r;
          if (start < from || start + 48 > 8 * windowEnd) continue;
          if (start >= limit) return std::nullopt;
          const U64 magic = (v >> (8 - r)) & kMagicMask;
          if (magic == kBlockMagic || magic == kEndMagic) {
            block = magic == kBlockMagic;
            return start;
          }
        }
      }
    }
  }

  // Bits [from, to) of the window rebuilt as a stream: a header of the stream's level, the bits
  // moved to an octet boundary, and for a whole block the end magic and the block's CRC as the
  // stream's combined CRC.
  std::unique_ptr<Job> cut(Job::Kind kind, U64 from, U64 to) {
    auto job = std::make_unique<Job>(kind);
    if (kind == Job::Kind::block) job->crc = static_cast<U32>(bits(from + 48, 32));
    std::vector<U8>& out = job->input;
    const U64 count = to - from;
    const std::size_t octets = static_cast<std::size_t>((count + 7) / 8);
    out.reserve(4 + octets + 11);
    out = {'B', 'Z', 'h', U8('0' + level_)};
    out.resize(4 + octets);
    const U8* src = window_.data() + (from / 8 - windowStart_);
    const std::size_t available = window_.size() - static_cast<std::size_t>(from / 8 - windowStart_);
    const int shift = static_cast<int>(from % 8);
    if (shift == 0) {
      std::memcpy(out.data() + 4, src, octets);
    } else {
      U8* dst = out.data() + 4;
      const std::size_t inside = std::min(octets, available - 1);  // those with a next octet
      for (std::size_t i = 0; i < inside; ++i) dst[i] = U8(src[i] << shift | src[i + 1] >> (8 - shift));
      for (std::size_t i = inside; i < octets; ++i) dst[i] = U8(src[i] << shift);
    }
    if (count % 8) out.back() &= U8(0xFF << (8 - count % 8));
    U64 length = 32 + count;
    if (kind == Job::Kind::block) {
      appendBits(out, length, kEndMagic, 48);
      appendBits(out, length, job->crc, 32);
    }
    return job;
  }

  int fd_;
  std::vector<U64> chance_;
  std::vector<U8> window_;
  U64 windowStart_ = 0;
  bool eof_ = false, readError_ = false;
  bool outOfData_ = false;  // find() stopped at the end of the file (or a read error)
  Phase phase_ = Phase::header;
  U64 streamStart_ = 0;  // octet offset
  unsigned level_ = 9;
  U64 blockStart_ = 0, endAt_ = 0;  // bit offsets
};

// What libbz2 allocates for one worker, kept from block to block: a decompressor takes about
// 64 KiB of state and four octets per octet of block, which would otherwise be mapped afresh for
// every block and faulted in page by page.
class Arena {
 public:
  Arena() = default;
  Arena(const Arena&) = delete;
  Arena& operator=(const Arena&) = delete;
  ~Arena() {
    for (const Piece& p : pieces_) std::free(p.memory);
  }
  void use(bz_stream& bz) {
    bz.bzalloc = &Arena::allocate;
    bz.bzfree = &Arena::release;
    bz.opaque = this;
  }

 private:
  struct Piece {
    void* memory;
    std::size_t size;
    bool used;
  };
  static void* allocate(void* opaque, int count, int size) {
    auto& pieces = static_cast<Arena*>(opaque)->pieces_;
    const std::size_t bytes = static_cast<std::size_t>(count) * static_cast<std::size_t>(size);
    for (Piece& p : pieces) {
      if (!p.used && p.size == bytes) {
        p.used = true;
        return p.memory;
      }
    }
    void* memory = std::malloc(bytes);
    if (memory != nullptr) pieces.push_back({memory, bytes, true});
    return memory;
  }
  static void release(void* opaque, void* memory) {
    for (Piece& p : static_cast<Arena*>(opaque)->pieces_) {
      if (p.memory == memory) p.used = false;
    }
  }
  std::vector<Piece> pieces_;
};

// A worker's part: the block decompressed into `output` (a buffer of `cap` octets, or null for a
// new one), which becomes the job's.
void decompressBlock(Job& job, std::size_t cap, Arena& arena, std::unique_ptr<U8[]> output) {
  job.output = output ? std::move(output) : std::unique_ptr<U8[]>(new U8[cap]);
  bz_stream bz{};
  arena.use(bz);
  if (BZ2_bzDecompressInit(&bz, 0, 0) != BZ_OK) return;
  bz.next_in = reinterpret_cast<char*>(job.input.data());
  bz.avail_in = static_cast<unsigned>(job.input.size());
  bz.next_out = reinterpret_cast<char*>(job.output.get());
  bz.avail_out = static_cast<unsigned>(cap);
  for (;;) {
    const unsigned in = bz.avail_in, out = bz.avail_out;
    const int rc = BZ2_bzDecompress(&bz);
    if (rc == BZ_STREAM_END) job.whole = true;
    if (rc != BZ_OK) break;
    if (bz.avail_out == 0) {
      job.full = true;
      break;
    }
    if (bz.avail_in == in && bz.avail_out == out) break;  // the input stops before the end
  }
  job.produced = cap - bz.avail_out;
  BZ2_bzDecompressEnd(&bz);
}

}  // namespace

struct Bzip2Reader::State {
  State(int fd, Options options) : fd(fd), scanner(fd, std::move(options.chanceMagics)) {
    threads = options.threads ? options.threads : std::max(1u, std::thread::hardware_concurrency());
    struct stat st {};
    const bool large = ::fstat(fd, &st) == 0 && static_cast<U64>(st.st_size) >= options.parallelFrom;
    cap = options.blockOutputCap ? options.blockOutputCap : 4 * 900000;
    if (threads < 2 || !large) one = std::make_unique<OneStream>(fd, 0, 0);
  }
  ~State() { stopWorkers(); }

  std::size_t read(U8* out, std::size_t room) {
    for (;;) {
      if (one) {
        const std::size_t n = one->read(out, room);
        if (n == 0) failure = one->failure();
        return n;
      }
      if (failure != Failure::none) return 0;
      if (inlineBlock) {
        if (const std::size_t n = inlineBlock->read(out, room)) {
          streamGiven += n;
          return n;
        }
        const bool whole = inlineBlock->failure() == Failure::none;
        inlineBlock.reset();
        if (whole) blockGiven();
        else fallBack();
        continue;
      }
      topUp();
      Job& job = *jobs.front();
      switch (job.kind) {
        case Job::Kind::block:
        case Job::Kind::tail: {
          {
            std::unique_lock lock(mutex);
            decoded.wait(lock, [&] { return job.done; });
          }
          if (job.kind == Job::Kind::tail) {
            // A block the file stops inside gives nothing, read as one stream or alone: the
            // stream is cut short there. Output means the block was whole (the file stops inside
            // the stream's end): read that as one stream.
            if (job.produced > 0) {
              fallBack();
              continue;
            }
            failure = Failure::damaged;
            stopWorkers();
            return 0;
          }
          if (!job.whole && !job.full) {
            fallBack();
            continue;
          }
          if (given < job.produced) {
            const std::size_t n = std::min(room, job.produced - given);
            std::memcpy(out, job.output.get() + given, n);
            given += n;
            streamGiven += n;
            return n;
          }
          if (job.full) {
            // The block expands beyond the cap: the rest of it comes from decompressing it again
            // here, as a stream.
            inlineBlock = std::make_unique<OneStream>(job.input, job.produced);
            continue;
          }
          blockGiven();
          continue;
        }
        case Job::Kind::streamEnd:
          if (combined != job.crc) {
            fallBack();
            continue;
          }
          combined = 0;
          streamStart = job.next;
          streamGiven = 0;
          jobs.pop_front();
          continue;
        case Job::Kind::end: return 0;
        case Job::Kind::oneStream: fallBack(); continue;
        case Job::Kind::damaged: failure = Failure::damaged; return 0;
        case Job::Kind::readFailed: failure = Failure::readFailed; return 0;
      }
    }
  }

  // The front block is given whole: its CRC joins the stream's combined CRC.
  void blockGiven() {
    combined = (combined << 1 | combined >> 31) ^ jobs.front()->crc;
    {
      std::lock_guard lock(mutex);
      spareOutputs.push_back(std::move(jobs.front()->output));  // its pages stay mapped
    }
    ++parallelBlocks;
    given = 0;
    jobs.pop_front();
  }

  // Scans ahead until a few blocks per worker are in flight.
  void topUp() {
    while (scanning && jobs.size() < 2 * threads + 2) {
      std::unique_ptr<Job> job = scanner.next();
      const Job::Kind kind = job->kind;
      if (kind == Job::Kind::block || kind == Job::Kind::tail) {
        while (workers.size() < threads) workers.emplace_back([this] { work(); });
        {
          std::lock_guard lock(mutex);
          todo.push_back(job.get());
        }
        wake.notify_one();
      } else if (kind != Job::Kind::streamEnd) {
        scanning = false;
      }
      jobs.push_back(std::move(job));
    }
  }

  void work() {
    Arena arena;
    for (;;) {
      Job* job;
      std::unique_ptr<U8[]> output;
      {
        std::unique_lock lock(mutex);
        wake.wait(lock, [&] { return stopping || !todo.empty(); });
        if (stopping) return;
        job = todo.front();
        todo.pop_front();
        if (!spareOutputs.empty()) {
          output = std::move(spareOutputs.back());
          spareOutputs.pop_back();
        }
      }
      decompressBlock(*job, cap, arena, std::move(output));
      {
        std::lock_guard lock(mutex);
        job->done = true;
      }
      decoded.notify_all();
    }
  }

  void stopWorkers() {
    {
      std::lock_guard lock(mutex);
      stopping = true;
      todo.clear();
    }
    wake.notify_all();
    for (std::thread& t : workers) t.join();
    workers.clear();
  }

  // From the start of the stream being read on, as one stream, skipping what was given of it.
  void fallBack() {
    stopWorkers();
    jobs.clear();
    given = 0;
    fellBack = true;
    one = std::make_unique<OneStream>(fd, streamStart, streamGiven);
  }

  int fd;
  unsigned threads = 1;
  std::size_t cap = 0;
  Failure failure = Failure::none;
  std::unique_ptr<OneStream> one;          // reading as one stream (from the start, or fallen back)
  std::unique_ptr<OneStream> inlineBlock;  // the rest of a block beyond the cap
  Scanner scanner;
  bool scanning = true;
  std::deque<std::unique_ptr<Job>> jobs;  // in file order; the reader's thread alone changes it
  std::size_t given = 0;                  // octets of the front block given
  U64 streamStart = 0;                    // octet offset of the stream being read
  U64 streamGiven = 0;                    // its octets given
  U32 combined = 0;                       // its blocks' CRCs, combined
  U64 parallelBlocks = 0;
  bool fellBack = false;

  std::mutex mutex;
  std::condition_variable wake, decoded;
  std::deque<Job*> todo;
  std::vector<std::unique_ptr<U8[]>> spareOutputs;  // of blocks given, for the next ones
  bool stopping = false;
  std::vector<std::thread> workers;
};

Bzip2Reader::Bzip2Reader(int fd) : Bzip2Reader(fd, Options{}) {}
Bzip2Reader::Bzip2Reader(int fd, Options options) : state_(std::make_unique<State>(fd, std::move(options))) {}
Bzip2Reader::~Bzip2Reader() = default;

std::size_t Bzip2Reader::read(U8* out, std::size_t room) { return room == 0 ? 0 : state_->read(out, room); }
Bzip2Reader::Failure Bzip2Reader::failure() const { return state_->failure; }
U64 Bzip2Reader::parallelBlocks() const { return state_->parallelBlocks; }
bool Bzip2Reader::fellBack() const { return state_->fellBack; }

}  // namespace Routing::Bgp

#pragma once
// Trackle::RingBuf: a binary trace ring buffer.
//
// Trace records are appended as raw octets at the write cursor; when the buffer is full the oldest
// octets are overwritten. The cursor counts every octet ever written, so a reader can tell how much
// was lost: the buffer holds the octets [cursor() - held(), cursor()). Records carry no framing of
// their own; each writer defines its record layout and a decoder reads it the same way.
//
//   Trackle::RingBuf ring(4096);
//   key->qtPut(&ring);                 // appends the key's record
//   Kelp::Bytes last = ring.tail(5);   // the 5 octets written last
//
// One writer at a time: a ring buffer is owned by one thread (or guarded by its owner).

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "platform/Kelp/TextForm.h"

namespace Trackle {

class RingBuf {
 public:
  // A buffer of `capacity` octets (at least 1).
  explicit RingBuf(std::size_t capacity);

  std::size_t capacity() const { return buf_.size(); }
  // Octets written since construction (or the last clear()).
  std::uint64_t cursor() const { return cursor_; }
  // Octets currently held (the last min(cursor, capacity) written).
  std::size_t held() const { return cursor_ < buf_.size() ? static_cast<std::size_t>(cursor_) : buf_.size(); }

  // Appends `n` octets at the write cursor and advances it.
  void put(const void* data, std::size_t n);
  // Appends a value's octets as they lie in memory (host byte order for integers).
  template <typename T>
  void putRaw(const T& v) {
    static_assert(std::is_trivially_copyable_v<T>);
    put(&v, sizeof v);
  }
  void put8(std::uint8_t v) { putRaw(v); }

  // The last `n` octets written (at most held()), oldest first.
  Kelp::Bytes tail(std::size_t n) const;
  void clear() { cursor_ = 0; }

 private:
  std::vector<std::uint8_t> buf_;
  std::uint64_t cursor_ = 0;  // total octets written; the next one goes to buf_[cursor_ % size]
};

}  // namespace Trackle

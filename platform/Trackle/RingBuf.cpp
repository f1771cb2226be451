#include "platform/Trackle/RingBuf.h"

#include <algorithm>

namespace Trackle {

RingBuf::RingBuf(std::size_t capacity) : buf_(std::max<std::size_t>(capacity, 1)) {}

void RingBuf::put(const void* data, std::size_t n) {
  const auto* p = static_cast<const std::uint8_t*>(data);
  const std::size_t size = buf_.size();
  if (n > size) {
    // Only the last `size` octets can be kept.
    cursor_ += n - size;
    p += n - size;
    n = size;
  }
  std::size_t at = static_cast<std::size_t>(cursor_ % size);
  std::size_t first = std::min(n, size - at);
  std::memcpy(buf_.data() + at, p, first);
  std::memcpy(buf_.data(), p + first, n - first);
  cursor_ += n;
}

Kelp::Bytes RingBuf::tail(std::size_t n) const {
  n = std::min(n, held());
  Kelp::Bytes out(n);
  const std::size_t size = buf_.size();
  std::uint64_t from = cursor_ - n;
  for (std::size_t i = 0; i < n; ++i) out[i] = buf_[static_cast<std::size_t>((from + i) % size)];
  return out;
}

}  // namespace Trackle

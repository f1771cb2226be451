// Bzip2Reader on arbitrary octets: its blocks decompressed on worker threads (one taken for a
// chance magic where the first octets say, the output cap small so that blocks spill past it) must
// give exactly what libbz2 gives reading the same octets as one stream, and fail the same way.
// Anything else aborts; the sanitizers catch reads past the input and races.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "BgpCommon/Bzip2Reader.h"

namespace {
using Routing::Bgp::Bzip2Reader;

constexpr std::size_t kMaxOutput = 8 << 20;  // a small input may expand a thousandfold

struct Read {
  std::string octets;
  Bzip2Reader::Failure failure = Bzip2Reader::Failure::none;
};

Read readAll(int fd, Bzip2Reader::Options options) {
  Read r;
  Bzip2Reader in(fd, std::move(options));
  U8 buffer[4096];
  while (r.octets.size() < kMaxOutput) {
    const std::size_t n = in.read(buffer, sizeof buffer);
    if (n == 0) break;
    r.octets.append(reinterpret_cast<const char*>(buffer), n);
  }
  r.failure = in.failure();
  return r;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const int fd = ::memfd_create("bzip2", MFD_CLOEXEC);
  if (fd < 0) return 0;
  if (::write(fd, data, size) != static_cast<ssize_t>(size)) std::abort();
  const Read one = readAll(fd, {.threads = 1});
  std::vector<U64> chance;
  if (size >= 8) chance.push_back((U64{data[4]} << 8 | data[5]) * 8 + data[6] % 8);
  const Read blocks = readAll(fd, {.threads = 2, .parallelFrom = 0, .blockOutputCap = 1000, .chanceMagics = chance});
  ::close(fd);
  const std::size_t common = std::min(one.octets.size(), blocks.octets.size());
  if (one.octets.compare(0, common, blocks.octets, 0, common) != 0) std::abort();
  // A damaged block's octets are given by libbz2 before it checks the block's CRC, so how many of
  // them either reading hands on before it fails depends on its buffers: on a failure only the
  // octets both gave must agree (above). A clean reading gives all of them, alike.
  if (one.octets.size() < kMaxOutput && blocks.octets.size() < kMaxOutput &&
      (one.failure != blocks.failure ||
       (one.failure == Bzip2Reader::Failure::none && one.octets.size() != blocks.octets.size()))) {
    std::abort();
  }
  return 0;
}

// Bzip2Reader decompressing blocks on worker threads gives exactly what libbz2 gives reading the
// file as one stream, octet for octet, failure for failure: on whole files, across streams, and
// where it must fall back (a magic by chance, a damaged block, a file cut short).
#include "BgpCommon/Bzip2Reader.h"

#include <bzlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

namespace {

using Routing::Bgp::Bzip2Reader;

// Text that compresses about as an MRT table does, `size` octets of it.
std::string sample(std::size_t size, U32 seed) {
  std::string out;
  while (out.size() < size) {
    seed = seed * 1103515245 + 12345;
    out += "route 10." + std::to_string(seed >> 24) + "." + std::to_string(seed >> 16 & 255) + ".0/24 path 3356 " +
           std::to_string(seed % 65000) + "\n";
  }
  out.resize(size);
  return out;
}

std::string compress(const std::string& in, int level) {
  std::string out(in.size() + in.size() / 100 + 600, '\0');
  unsigned length = static_cast<unsigned>(out.size());
  EXPECT_EQ(BZ2_bzBuffToBuffCompress(out.data(), &length, const_cast<char*>(in.data()), static_cast<unsigned>(in.size()),
                                     level, 0, 0),
            BZ_OK);
  out.resize(length);
  return out;
}

struct Read {
  std::string octets;
  Bzip2Reader::Failure failure;
  U64 parallelBlocks;
  bool fellBack;
};

Read readAll(const std::string& file, Bzip2Reader::Options options) {
  const int fd = ::memfd_create("bzip2", MFD_CLOEXEC);
  EXPECT_EQ(::write(fd, file.data(), file.size()), static_cast<ssize_t>(file.size()));
  Read r;
  {
    Bzip2Reader in(fd, options);
    U8 buffer[7777];  // odd, to stop inside blocks
    while (const std::size_t n = in.read(buffer, sizeof buffer)) r.octets.append(reinterpret_cast<char*>(buffer), n);
    r.failure = in.failure();
    r.parallelBlocks = in.parallelBlocks();
    r.fellBack = in.fellBack();
  }
  ::close(fd);
  return r;
}

TEST(Bzip2Reader, BlocksInParallelGiveWhatOneStreamGives) {
  const std::string text = sample(700000, 1), other = sample(300000, 2);
  std::string noise(2500000, '\0');  // compresses hardly at all: more than two reads of the scanner
  U64 state = 1;
  for (char& c : noise) c = char((state = state * 6364136223846793005u + 1442695040888963407u) >> 56);
  const std::string many = compress(text, 1), two = many + compress(other, 1);
  std::string flipped = many, flippedSecond = two, flippedCrc = many;
  flipped[many.size() / 2] ^= 0x10;
  flippedSecond[many.size() + (two.size() - many.size()) / 2] ^= 0x04;
  flippedCrc[many.size() - 3] ^= 0x01;
  const U64 middle = many.size() * 4 + 3;  // bit offset in some block
  enum Expect { parallel, fallsBack, stopsAtTail };
  struct Row {
    const char* name;
    std::string file;
    std::string whole;  // what the file holds, where it is undamaged
    Expect expect;
    std::vector<U64> chance = {};
    std::size_t cap = 0;
  };
  const Row rows[] = {
      {"one block", compress(other, 9), other, parallel},
      {"many blocks", many, text, parallel},
      {"blocks expanding past the cap", many, text, parallel, {}, 10000},
      {"two streams", two, text + other, parallel},
      {"blocks of noise", compress(noise, 1), noise, parallel},
      {"a magic by chance", many, text, fallsBack, {middle}},
      {"a magic by chance in the second stream", two, text + other, fallsBack, {many.size() * 8 + 1000}},
      {"cut inside a block", many.substr(0, many.size() / 2), "", stopsAtTail},
      {"cut inside the stream's end", many.substr(0, many.size() - 3), "", parallel},
      {"a flipped bit", flipped, "", fallsBack},
      {"a flipped bit in the second stream", flippedSecond, "", fallsBack},
      {"a flipped combined CRC", flippedCrc, "", fallsBack},
      {"something after the stream", many + "garbage", "", fallsBack},
      {"an empty file", "", "", fallsBack},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const Read one = readAll(row.file, {.threads = 1});
    const Read blocks = readAll(row.file, {.threads = 2, .parallelFrom = 0, .blockOutputCap = row.cap,
                                           .chanceMagics = row.chance});
    if (!row.whole.empty()) {
      EXPECT_EQ(one.octets == row.whole, true);
      EXPECT_EQ(one.failure, Bzip2Reader::Failure::none);
    } else {
      EXPECT_EQ(one.failure, Bzip2Reader::Failure::damaged);
    }
    EXPECT_EQ(blocks.octets.size(), one.octets.size());
    EXPECT_EQ(blocks.octets == one.octets, true);
    EXPECT_EQ(blocks.failure, one.failure);
    EXPECT_EQ(blocks.fellBack, row.expect == fallsBack);
    if (row.expect != fallsBack) EXPECT_GT(blocks.parallelBlocks, 0u);
    if (row.expect == stopsAtTail) EXPECT_GT(one.octets.size(), 0u);
  }
}

}  // namespace

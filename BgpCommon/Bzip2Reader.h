#pragma once
// The decompressed octets of a bzip2 file, its blocks decompressed on every core.
//
// A bzip2 stream ("BZh" and a level digit) is a series of blocks, each starting with the 48-bit
// magic 0x314159265359 at any bit offset and carrying the CRC of its own output; the stream ends
// with the magic 0x177245385090 and the combined CRC of its blocks, padded to an octet. Blocks
// depend on nothing before them, so a block cut out of the stream and rebuilt as a stream of its
// own (header, the block's bits moved to an octet boundary, the end magic, and as combined CRC the
// block's own CRC) decompresses alone. Files of several streams one after the other (cat, pbzip2)
// are read on from stream to stream.
//
// Bzip2Reader scans the file for the magics ahead of the reader, hands each block to a worker
// thread and gives back the outputs in file order. At most a few blocks per worker are in flight,
// and a block's output is held up to a cap (what expands beyond it is decompressed again on the
// reader's thread, as a stream), so memory does not grow with the file. Small files and machines
// of one core are read by libbz2 as one stream, on the reader's thread.
//
// The magics can also occur by chance inside compressed data. A block that does not decompress,
// whose CRC does not match, a combined CRC that does not match, anything else the scanner does not
// expect: from there on the file is read by libbz2 as one stream, from the start of the stream
// the problem is in, its octets already given skipped. The octets given and the failure reported
// are therefore those of the one-stream reading (what libbz2 gave before it stopped), with one
// latitude: libbz2 gives a block's octets before it checks the block's CRC, so of a damaged block
// more or fewer octets may come before the failure than the one-stream reading gives.
//
//   Routing::Bgp::Bzip2Reader in(fd);        // fd stays the caller's
//   U8 buffer[1 << 16];
//   while (std::size_t n = in.read(buffer, sizeof buffer)) consume(buffer, n);
//   if (in.failure() != Routing::Bgp::Bzip2Reader::Failure::none) ...  // damaged or unreadable

#include <cstddef>
#include <memory>
#include <vector>

#include "platform/Pico/Integers.h"

namespace Routing::Bgp {

class Bzip2Reader {
 public:
  enum class Failure : U8 {
    none,
    damaged,     // the stream is damaged or stops early
    readFailed,  // the file could not be read (an I/O error)
  };

  struct Options {
    unsigned threads = 0;  // workers; 0: one per core; 1: one stream on the reader's thread
    // Compressed files smaller than this are read as one stream: starting threads costs more
    // than a few blocks take (an MRT table compresses about 15 to 1: 256 KiB is about four
    // blocks of 900 kB).
    U64 parallelFrom = 256 << 10;
    std::size_t blockOutputCap = 0;  // octets of a block's output a worker holds; 0: four times
                                     // the level's block size
    // Tests: bit offsets the scanner takes for block magics, as if the magic occurred there by
    // chance.
    std::vector<U64> chanceMagics;
  };

  // Reads the file open on `fd` from its first octet on, with pread (the offset is not moved).
  explicit Bzip2Reader(int fd);
  Bzip2Reader(int fd, Options options);
  ~Bzip2Reader();
  Bzip2Reader(const Bzip2Reader&) = delete;
  Bzip2Reader& operator=(const Bzip2Reader&) = delete;

  // Up to `room` further octets into `out`; their count, 0 at the end of the file or where
  // reading stops (failure() then says why).
  std::size_t read(U8* out, std::size_t room);
  Failure failure() const;
  // Blocks decompressed by the workers so far, and whether reading went on as one stream from
  // some point (a chance magic, damage, a file cut short inside a block).
  U64 parallelBlocks() const;
  bool fellBack() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace Routing::Bgp

#include "platform/Trackle/RingBuf.h"

#include <gtest/gtest.h>

namespace Trackle {
namespace {

// Records are appended at the cursor, wrap around the end, and a record longer than the ring
// keeps its end while the cursor still counts every octet.
TEST(RingBuf, AppendsAtTheCursorAndWraps) {
  RingBuf r(8);
  EXPECT_TRUE(r.tail(4).empty());
  const std::uint8_t a[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  r.put(a, 5);
  EXPECT_EQ(r.tail(10), (Kelp::Bytes{1, 2, 3, 4, 5}));
  r.put(a, 5);  // wraps: 3 octets at the end, 2 at the start
  EXPECT_EQ(r.cursor(), 10u);
  EXPECT_EQ(r.held(), 8u);
  EXPECT_EQ(r.tail(8), (Kelp::Bytes{3, 4, 5, 1, 2, 3, 4, 5}));
  r.put8(9);
  EXPECT_EQ(r.tail(3), (Kelp::Bytes{4, 5, 9}));
  r.put(a, 9);
  EXPECT_EQ(r.cursor(), 20u);
  EXPECT_EQ(r.tail(8), (Kelp::Bytes{2, 3, 4, 5, 6, 7, 8, 9}));
  r.putRaw(std::uint16_t{0x0102});  // host order (little-endian here)
  EXPECT_EQ(r.tail(2), (Kelp::Bytes{0x02, 0x01}));
  r.clear();
  EXPECT_EQ(r.held(), 0u);
}

}  // namespace
}  // namespace Trackle

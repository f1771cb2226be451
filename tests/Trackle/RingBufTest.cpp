#include "platform/Trackle/RingBuf.h"

#include <gtest/gtest.h>

namespace Trackle {
namespace {

TEST(RingBuf, AppendsAtTheCursorAndWraps) {
  RingBuf r(8);
  EXPECT_EQ(r.cursor(), 0u);
  EXPECT_TRUE(r.tail(4).empty());
  const std::uint8_t a[5] = {1, 2, 3, 4, 5};
  r.put(a, 5);
  EXPECT_EQ(r.cursor(), 5u);
  EXPECT_EQ(r.tail(10), (Kelp::Bytes{1, 2, 3, 4, 5}));
  r.put(a, 5);  // wraps: 3 octets at the end, 2 at the start
  EXPECT_EQ(r.cursor(), 10u);
  EXPECT_EQ(r.held(), 8u);
  EXPECT_EQ(r.tail(8), (Kelp::Bytes{3, 4, 5, 1, 2, 3, 4, 5}));
  r.put8(9);
  EXPECT_EQ(r.tail(3), (Kelp::Bytes{4, 5, 9}));
}

TEST(RingBuf, RecordLongerThanTheBufferKeepsItsEnd) {
  RingBuf r(4);
  const std::uint8_t a[6] = {1, 2, 3, 4, 5, 6};
  r.put(a, 6);
  EXPECT_EQ(r.cursor(), 6u);
  EXPECT_EQ(r.tail(4), (Kelp::Bytes{3, 4, 5, 6}));
  r.putRaw(std::uint16_t{0x0102});  // host order
  Kelp::Bytes t = r.tail(2);
  std::uint16_t back;
  std::memcpy(&back, t.data(), 2);
  EXPECT_EQ(back, 0x0102);
  r.clear();
  EXPECT_EQ(r.held(), 0u);
}

}  // namespace
}  // namespace Trackle

// Byte forms from the description: the aligned layout, sizes, the checks a reader relies on, and
// whether a record's memory is its byte form (the packed layout: FilteredRtStatusTest's records).
#include "platform/Kelp/ByteForm.h"

#include <vector>

#include <gtest/gtest.h>

#include "tests/Support/ValueConformance.h"

namespace {

struct Wrapped : Kelp::ValueBase<Wrapped> {
  std::uint16_t value = 0;
  friend constexpr auto kelpType(Kelp::Tag<Wrapped>) {
    return Kelp::valueType<Wrapped>("Test::Wrapped", Kelp::field("value", &Wrapped::value));
  }
};

// Described in memory order: the aligned byte form is the memory image.
struct Sample : Kelp::ValueBase<Sample> {
  static constexpr Kelp::ByteLayout kelpByteLayout = Kelp::ByteLayout::aligned;
  std::uint32_t id = 0;
  bool up = false;
  Wrapped port;
  std::uint64_t count = 0;
  friend constexpr auto kelpType(Kelp::Tag<Sample>) {
    return Kelp::valueType<Sample>("Test::Sample", Kelp::field("id", &Sample::id), Kelp::field("up", &Sample::up),
                                   Kelp::field("port", &Sample::port), Kelp::field("count", &Sample::count));
  }
};

// The same fields described in another order than memory holds them.
struct Reordered : Kelp::ValueBase<Reordered> {
  static constexpr Kelp::ByteLayout kelpByteLayout = Kelp::ByteLayout::aligned;
  std::uint32_t id = 0;
  std::uint32_t other = 0;
  friend constexpr auto kelpType(Kelp::Tag<Reordered>) {
    return Kelp::valueType<Reordered>("Test::Reordered", Kelp::field("other", &Reordered::other),
                                      Kelp::field("id", &Reordered::id));
  }
};


TEST(ByteForm, LayoutsFromTheDescription) {
  using SampleForm = Kelp::ByteForm<Sample>;
  static_assert(SampleForm::kMin == 16 && SampleForm::kMax == 16 && SampleForm::kAlign == 8);
  EXPECT_TRUE(Kelp::memoryIsByteForm<Sample>());
  EXPECT_FALSE(Kelp::memoryIsByteForm<Reordered>());

  const Sample s{{}, 0x01020304, true, {{}, 0x0A0B}, 0x1112131415161718};
  std::vector<std::uint8_t> bytes(16, 0xEE);  // padding keeps what it held
  SampleForm::put(bytes.data(), s);
  EXPECT_EQ(bytes, (std::vector<std::uint8_t>{4, 3, 2, 1, 1, 0xEE, 0x0B, 0x0A,  //
                                              0x18, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11}));
  Sample back;
  SampleForm::get(bytes, back);
  EXPECT_EQ(back, s);

  // A flag stored as 2 (or 0x80) reads as true but is not what put writes: not canonical, so a fast path
  // that copies records whole leaves it to get.
  EXPECT_TRUE(SampleForm::canonical(bytes.data(), 16));
  EXPECT_FALSE(SampleForm::canonical(bytes.data(), 15));  // longer than the record it was said to be
  for (std::uint8_t flag : {2, 0x80}) {
    bytes[4] = flag;
    EXPECT_FALSE(SampleForm::canonical(bytes.data(), 16)) << int{flag};
  }
  SampleForm::get(bytes, back);
  EXPECT_TRUE(back.up);
  EXPECT_EQ(testing_support::rangeMessage([&] { SampleForm::get(std::span(bytes).first(15), back); }),
            "Sample record of 15 bytes is shorter than 16");
}

}  // namespace

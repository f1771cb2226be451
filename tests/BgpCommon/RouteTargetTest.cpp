#include "BgpCommon/RouteTarget.h"

#include <gtest/gtest.h>

#include <array>
#include <random>

#include "tests/Support/ValueConformance.h"

namespace Routing::Bgp {
namespace {

using Type = RouteTarget::ExtCommType;
using Subtype = RouteTarget::ExtCommSubtype;

RouteTarget parse(const Kelp::String& text) {
  RouteTarget rt;
  rt.stringValueIs(text);
  return rt;
}

TEST(RouteTarget, TextForms) {
  struct Row {
    const char* text;
    std::uint64_t value;
    const char* plain;  // toStrep(false)
    const char* dot;    // toStrep(true)
  };
  const Row rows[] = {
      // two-octet AS: 32-bit local administrator
      {"100:5", 0x0002006400000005, "100:5", "100:5"},
      {"65535:4294967295", 0x0002FFFFFFFFFFFF, "65535:4294967295", "65535:4294967295"},
      {"100:4294967296", 0x0002006400000000, "100:0", "100:0"},  // kept in 32 bits, unchecked
      {"007:01", 0x0002000700000001, "7:1", "7:1"},
      // four-octet AS
      {"100L:5", 0x0202000000640005, "100L:5", "100L:5"},
      {"65536:1", 0x0202000100000001, "65536:1", "1.0:1"},  // the smallest AS that needs four octets
      {"65535L:1", 0x02020000FFFF0001, "65535L:1", "65535L:1"},  // the largest that keeps its "L"
      {"70000:5", 0x0202000111700005, "70000:5", "1.4464:5"},
      {"1.4464:5", 0x0202000111700005, "70000:5", "1.4464:5"},
      {"4294967295:65535", 0x0202FFFFFFFFFFFF, "4294967295:65535", "65535.65535:65535"},
      {"0.100:1", 0x0202000000640001, "100L:1", "100L:1"},
      {"65536.1:2", 0x0202000000010002, "1L:2", "1L:2"},  // asdot halves combine in 32 bits
      // IPv4 address
      {"10.0.0.1:7", 0x01020A0000010007, "10.0.0.1:7", "10.0.0.1:7"},
      {"10.0.0.1L:7", 0x01020A0000010007, "10.0.0.1:7", "10.0.0.1:7"},
      // hex, stored as is
      {"0x0003020000000001", 0x0003020000000001, "0x0003020000000001", "0x0003020000000001"},
      {"0X00020064000000AB", 0x00020064000000AB, "100:171", "100:171"},  // a route target in hex
      {"0000000000000000ff", 0xFF, "0x00000000000000ff", "0x00000000000000ff"},
      {"0x000000000000001z", 0x1, "0x0000000000000001", "0x0000000000000001"},  // stops at 'z'
      {"0xg000000000000000", 0, "0x0000000000000000", "0x0000000000000000"},  // reads the "0"
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    RouteTarget rt = parse(row.text);
    EXPECT_EQ(rt.value, row.value);
    EXPECT_EQ(rt.toStrep(false), row.plain);
    EXPECT_EQ(rt.toStrep(true), row.dot);
    EXPECT_EQ(rt.stringValue(), row.plain);
  }
}

TEST(RouteTarget, BadTextLeavesValueUnchanged) {
  // Each text is refused with its message; the C library's hex conversion throws its own types.
  auto errorOf = [](const char* text, RouteTarget& rt) -> std::string {
    try {
      rt.stringValueIs(text);
    } catch (const Kelp::RangeException& e) {
      return e.what();
    } catch (const std::invalid_argument& e) {
      return std::string("invalid_argument ") + e.what();
    } catch (const std::out_of_range& e) {
      return std::string("out_of_range ") + e.what();
    }
    return "(accepted)";
  };
  const std::pair<const char*, const char*> rows[] = {
      {"5L", "RouteTarget: colon not following L"},
      {"", "RouteTarget: incorrect hex size"},
      {"0x12", "RouteTarget: incorrect hex size"},
      {"0x00030200000000011", "RouteTarget: incorrect hex size"},
      {"1.2.3.4.5.6.7.8.90", "RouteTarget: missing colon"},
      {":5", "RouteTarget: no data before colon"},
      {"5:", "RouteTarget: no data after colon"},
      {"1.2.3:4", "RouteTarget: unexpected number of dots"},
      {"70000:65536", "RouteTarget: local admin exceeds 2 bytes"},
      {"4294967296:1", "RouteTarget: AS number exceeds 4 bytes"},
      // the decimal reader's and the address reader's own messages
      {"x:5", "RouteTarget: expected a decimal number of at most 64 bits, found \"x\""},
      {"100:5x", "RouteTarget: expected a decimal number of at most 64 bits, found \"5x\""},
      {".5:1", "RouteTarget: expected a decimal number of at most 64 bits, found \"\""},
      {"99999999999999999999:1",  // too long for the quick conversion: left to the decimal reader
       "RouteTarget: expected a decimal number of at most 64 bits, found \"99999999999999999999\""},
      {"10.0.0.256:1", "invalid IPv4 address \"10.0.0.256\""},
      // the C library's hex conversion
      {"zz0000000000000000", "invalid_argument stoull"},
      {"100000000000000000", "out_of_range stoull"},
  };
  for (const auto& [text, message] : rows) {
    RouteTarget rt(0x0002006400000005);
    EXPECT_EQ(errorOf(text, rt), message) << text;
    EXPECT_EQ(rt.value, 0x0002006400000005u) << text;
  }
}

TEST(RouteTarget, ConstructorsAndAccessors) {
  struct Row {
    const char* name;
    RouteTarget rt;
    std::uint64_t value;
    Type type;
    Subtype subtype;
    bool valid;
    std::uint32_t global;
    std::uint32_t local;
    std::uint32_t asn;
    const char* address;
  };
  const Row rows[] = {
      // The constructors write no type octet and their own subtype: 0, 2 and 1.
      {"fromTwoOctetAs", RouteTarget::fromTwoOctetAs(100, 5), 0x0000006400000005, Type::twoOctetAs,
       Subtype::invalidSubtype, false, 100, 5, 100, "0.0.0.0"},
      {"fromFourOctetAs", RouteTarget::fromFourOctetAs(70000, 5), 0x0002000111700005, Type::twoOctetAs,
       Subtype::routeTarget, true, 1, 0x11700005, 1, "0.0.0.0"},
      {"fromIpaddress", RouteTarget::fromIpaddress(Netzo::IpAddr(10, 0, 0, 1), 7), 0x00010A0000010007,
       Type::twoOctetAs, Subtype::invalidSubtype, false, 0x0A00, 0x00010007, 0x0A00, "0.0.0.0"},
      // What the parser builds.
      {"100:5", parse("100:5"), 0x0002006400000005, Type::twoOctetAs, Subtype::routeTarget, true, 100, 5, 100,
       "0.0.0.0"},
      {"10.0.0.1:7", parse("10.0.0.1:7"), 0x01020A0000010007, Type::ipv4Address, Subtype::routeTarget, true,
       0x0A000001, 7, 0, "10.0.0.1"},
      {"70000:5", parse("70000:5"), 0x0202000111700005, Type::fourOctetAs, Subtype::routeTarget, true, 70000, 5,
       70000, "0.0.0.0"},
      // Type and subtype octets are read separately.
      {"type 1 subtype 3", RouteTarget(0x0103C0000201FFFF), 0x0103C0000201FFFF, Type::ipv4Address,
       Subtype::invalidSubtype, false, 0xC0000201, 0xFFFF, 0, "192.0.2.1"},
      {"type 3", RouteTarget(0x0302000000010002), 0x0302000000010002, Type::invalidType, Subtype::routeTarget,
       false, 0, 0, 0, "0.0.0.0"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const RouteTarget& rt = row.rt.constMe();
    EXPECT_EQ(rt.value, row.value);
    EXPECT_EQ(rt.extCommType(), row.type);
    EXPECT_EQ(rt.extCommSubtype(), row.subtype);
    EXPECT_EQ(rt.extCommValueIsValidRouteTarget(), row.valid);
    EXPECT_EQ(rt.globalAdmin(), row.global);
    EXPECT_EQ(rt.localAdmin(), row.local);
    EXPECT_EQ(rt.asn().value(), row.asn);
    EXPECT_EQ(rt.ipv4Addr().stringValue(), row.address);
  }
  // A constructor's word that is not a route target prints in hex.
  EXPECT_EQ(RouteTarget::fromTwoOctetAs(100, 5).toStrep(false), "0x0000006400000005");
  EXPECT_EQ(RouteTarget::fromFourOctetAs(70000, 5).toStrep(false), "1:292552709");
}

TEST(RouteTargetDeathTest, TwoOctetAsMustFit) {
  EXPECT_DEATH(RouteTarget::fromTwoOctetAs(65536, 1), "BgpCommon/RouteTarget:.*asn.value\\(\\) <= 0xffff");
}

// Values of all three types and of neither, drawn at random, survive toStrep then stringValueIs in
// both AS notations.
TEST(RouteTarget, GeneratedRoundTrips) {
  std::mt19937_64 rng(4360);
  std::size_t counts[4] = {};
  for (int i = 0; i < 200000; ++i) {
    std::uint64_t r = rng();
    std::uint64_t v;
    switch (i % 4) {
      case 0: v = 0x0002ull << 48 | (r & 0xFFFFFFFFFFFF); break;  // two-octet AS
      case 1: v = 0x0102ull << 48 | (r & 0xFFFFFFFFFFFF); break;  // IPv4
      case 2:                                                     // four-octet AS, small ones too
        v = 0x0202ull << 48 | (r & 0xFFFFFFFFFFFF);
        if (r >> 63) v &= 0xFFFF00000000FFFFull | (r & 0x00000FFF0000);
        break;
      default: v = r; break;  // anything
    }
    RouteTarget rt(v);
    ++counts[static_cast<unsigned>(rt.extCommValueIsValidRouteTarget() ? std::min<unsigned>(v >> 56, 2) : 3)];
    for (bool asDot : {false, true}) {
      Kelp::String text = rt.toStrep(asDot);
      RouteTarget back(0x1234);
      back.stringValueIs(text);
      ASSERT_EQ(back.value, v) << text;
    }
  }
  for (std::size_t c : counts) EXPECT_GT(c, 40000u);
}

TEST(RouteTarget, FrameworkFormIsTheBareNumber) {
  RouteTarget rt = parse("70000:5");
  EXPECT_EQ(Kelp::valueToStrep(rt), "144678142616797189");
  EXPECT_EQ(Kelp::strepToValue<RouteTarget>("144678142616797189"), rt);
  EXPECT_EQ(testing_support::rangeMessage([] { Kelp::strepToValue<RouteTarget>("70000:5"); }),
            "unexpected trailing text at offset 5, found \":5\"");
  EXPECT_EQ(testing_support::rangeMessage([] { Kelp::strepToValue<RouteTarget>("x"); }),
            "value: expected an unsigned number at offset 0, found \"x\"");
  testing_support::expectValueConformance<RouteTarget>(
      {RouteTarget(), rt, parse("10.0.0.1:7"), RouteTarget(0xFFFFFFFFFFFFFFFF)});

  // Reflection: the accessors are callable; the truth test is value != 0.
  std::any result;
  ASSERT_EQ(Kelp::genericIfAttributeOp(&result, &rt, Kelp::attributeNamed<RouteTarget>("toStrep"), 10, nullptr,
                                       std::span<const std::any>(std::array{std::any(true)})),
            0);
  EXPECT_EQ(std::any_cast<Kelp::String>(result), "1.4464:5");
  testing_support::attrOp(result, rt, 0, Kelp::attrOpTruth);
  EXPECT_TRUE(std::any_cast<bool>(result));
  RouteTarget zero;
  testing_support::attrOp(result, zero, 0, Kelp::attrOpTruth);
  EXPECT_FALSE(std::any_cast<bool>(result));
}

// The enumerations' numbers (256 lies outside an octet on purpose) and their registration; the
// names are printed by the route-target command.
TEST(RouteTarget, Enumerations) {
  EXPECT_EQ(RouteTarget::ExtCommTypeInstance(256u)->name, "invalidType");
  EXPECT_EQ(RouteTarget::ExtCommTypeInstance(Kelp::String("fourOctetAs"))->value, 2u);
  EXPECT_EQ(RouteTarget::ExtCommSubtypeInstance(256u)->name, "invalidSubtype");
  EXPECT_EQ(RouteTarget::ExtCommSubtypeInstance(3u), nullptr);
}

}  // namespace
}  // namespace Routing::Bgp

#include "BgpCommon/RouteTarget.h"

#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <random>
#include <tuple>

#include <fmt/format.h>

#include "tests/Support/ValueConformance.h"

namespace Routing::Bgp {
namespace {

RouteTarget parse(const Kelp::String& text) {
  RouteTarget rt;
  rt.stringValueIs(text);
  return rt;
}

TEST(RouteTarget, TextForms) {
  // text, value, toStrep(false), toStrep(true)
  const std::tuple<const char*, std::uint64_t, const char*, const char*> rows[] = {
      // two-octet AS: 32-bit local administrator
      {"100:5", 0x0002006400000005, "100:5", "100:5"}, {"007:01", 0x0002000700000001, "7:1", "7:1"},
      {"65535:4294967295", 0x0002FFFFFFFFFFFF, "65535:4294967295", "65535:4294967295"},
      {"100:4294967296", 0x0002006400000000, "100:0", "100:0"},  // kept in 32 bits, unchecked
      // four-octet AS
      {"100L:5", 0x0202000000640005, "100L:5", "100L:5"}, {"70000:5", 0x0202000111700005, "70000:5", "1.4464:5"},
      {"65536:1", 0x0202000100000001, "65536:1", "1.0:1"},       // the smallest AS that needs four octets
      {"65535L:1", 0x02020000FFFF0001, "65535L:1", "65535L:1"},  // the largest that keeps its "L"
      {"1.4464:5", 0x0202000111700005, "70000:5", "1.4464:5"}, {"0.100:1", 0x0202000000640001, "100L:1", "100L:1"},
      {"4294967295:65535", 0x0202FFFFFFFFFFFF, "4294967295:65535", "65535.65535:65535"},
      {"65536.1:2", 0x0202000000010002, "1L:2", "1L:2"},  // asdot halves combine in 32 bits
      // IPv4 address
      {"10.0.0.1:7", 0x01020A0000010007, "10.0.0.1:7", "10.0.0.1:7"},
      {"10.0.0.1L:7", 0x01020A0000010007, "10.0.0.1:7", "10.0.0.1:7"},
      // hex, stored as is
      {"0x0003020000000001", 0x0003020000000001, "0x0003020000000001", "0x0003020000000001"},
      {"0X00020064000000AB", 0x00020064000000AB, "100:171", "100:171"},  // a route target in hex
      {"0000000000000000ff", 0xFF, "0x00000000000000ff", "0x00000000000000ff"},
      {"0x000000000000001z", 0x1, "0x0000000000000001", "0x0000000000000001"},  // stops at 'z'
      {"0x000000000000001g", 0x1, "0x0000000000000001", "0x0000000000000001"},  // and at 'g'
      {"0xg000000000000000", 0, "0x0000000000000000", "0x0000000000000000"},    // reads the "0"
  };
  for (const auto& [text, value, plain, dot] : rows) {
    RouteTarget rt = parse(text);
    EXPECT_EQ(std::tuple(rt.value, rt.toStrep(false), rt.toStrep(true)), std::tuple(value, plain, dot)) << text;
  }
}

TEST(RouteTarget, BadTextLeavesValueUnchanged) {
  const std::pair<const char*, const char*> rows[] = {
      {"5L", "RouteTarget: colon not following L"},     {"", "RouteTarget: incorrect hex size"},
      {"0x12", "RouteTarget: incorrect hex size"},        {"0x00030200000000011", "RouteTarget: incorrect hex size"},
      {"1.2.3.4.5.6.7.8.90", "RouteTarget: missing colon"}, {":5", "RouteTarget: no data before colon"},
      {"5:", "RouteTarget: no data after colon"},         {"1.2.3:4", "RouteTarget: unexpected number of dots"},
      {"70000:65536", "RouteTarget: local admin exceeds 2 bytes"}, {"4294967296:1", "RouteTarget: AS number exceeds 4 bytes"},
      // the decimal reader's and the address reader's own messages
      {"x:5", "RouteTarget: expected a decimal number of at most 64 bits, found \"x\""},
      {"100:5x", "RouteTarget: expected a decimal number of at most 64 bits, found \"5x\""},
      {".5:1", "RouteTarget: expected a decimal number of at most 64 bits, found \"\""},
      {"1.2:3.4567", "RouteTarget: expected a decimal number of at most 64 bits, found \"3.4567\""},  // one dot before ':'
      {"99999999999999999999:1",  // too long for the quick conversion: left to the decimal reader
       "RouteTarget: expected a decimal number of at most 64 bits, found \"99999999999999999999\""},
      {"10.0.0.256:1", "invalid IPv4 address \"10.0.0.256\""},
      {"10.0.0.01:1", "invalid IPv4 address \"10.0.0.01\""}, {"1.2.3.1000:1", "invalid IPv4 address \"1.2.3.1000\""},
  };
  for (const auto& [text, message] : rows) {
    RouteTarget rt(0x0002006400000005);
    EXPECT_EQ(testing_support::rangeMessage([&] { rt.stringValueIs(text); }), message) << text;
    EXPECT_EQ(rt.value, 0x0002006400000005u) << text;
  }
  // The C library's hex conversion throws its own types.
  EXPECT_THROW(parse("zz0000000000000000"), std::invalid_argument);
  EXPECT_THROW(parse("100000000000000000"), std::out_of_range);
}

// tests/data/route-target-rows.tsv, which the tool's and the Python module's tests read too: each
// accepted text gives its value and prints as the row says, and reads back to the same value from
// both of its notations; each refused text gives its exact message.
TEST(RouteTarget, OperatorTextRows) {
  std::ifstream in(BGPCOMMON_SOURCE_DIR "/tests/data/route-target-rows.tsv");
  ASSERT_TRUE(in) << "tests/data/route-target-rows.tsv";
  int accepted = 0;
  int refused = 0;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    const std::size_t tab1 = line.find('\t');
    const std::size_t tab2 = line.find('\t', tab1 + 1);
    ASSERT_NE(tab2, std::string::npos) << line;
    std::string input;  // the first column, unescaped
    for (std::size_t i = 0; i < tab1; ++i) {
      if (line[i] != '\\') {
        input.push_back(line[i]);
      } else if (line[++i] == 'x') {
        input.push_back(static_cast<char>(std::stoi(line.substr(i + 1, 2), nullptr, 16)));
        i += 2;
      } else {
        input.push_back(line[i] == 't' ? '\t' : line[i] == 'n' ? '\n' : line[i]);
      }
    }
    const std::string expect = line.substr(tab1 + 1, tab2 - tab1 - 1);
    const std::string text = line.substr(tab2 + 1);
    if (expect == "error") {
      ++refused;
      EXPECT_EQ(testing_support::rangeMessage([&] { RouteTarget::fromOperatorText(input); }), text) << line;
      continue;
    }
    ++accepted;
    RouteTarget rt;
    ASSERT_NO_THROW(rt = RouteTarget::fromOperatorText(input)) << line;
    EXPECT_EQ(fmt::format("{:#018x} {}", rt.value, rt.toStrep(false)), expect + " " + text) << line;
    for (bool asDot : {false, true}) EXPECT_EQ(RouteTarget::fromOperatorText(rt.toStrep(asDot)), rt) << line;
  }
  EXPECT_GE(accepted, 20);
  EXPECT_GE(refused, 25);
}

// Each row: the word, type, subtype, whether it is a valid route target, global and local
// administrator, AS and IPv4 address.
TEST(RouteTarget, ConstructorsAndAccessors) {
  const std::pair<RouteTarget, const char*> rows[] = {
      // The constructors write no type octet and their own subtype: 0, 2 and 1.
      {RouteTarget::fromTwoOctetAs(100, 5), "0x0000006400000005 twoOctetAs invalidSubtype false 100 5 100 0.0.0.0"},
      {RouteTarget::fromFourOctetAs(70000, 5), "0x0002000111700005 twoOctetAs routeTarget true 1 292552709 1 0.0.0.0"},
      {RouteTarget::fromIpaddress(Netzo::IpAddr(10, 0, 0, 1), 7),
       "0x00010a0000010007 twoOctetAs invalidSubtype false 2560 65543 2560 0.0.0.0"},
      // What the parser builds.
      {parse("100:5"), "0x0002006400000005 twoOctetAs routeTarget true 100 5 100 0.0.0.0"},
      {parse("10.0.0.1:7"), "0x01020a0000010007 ipv4Address routeTarget true 167772161 7 0 10.0.0.1"},
      {parse("70000:5"), "0x0202000111700005 fourOctetAs routeTarget true 70000 5 70000 0.0.0.0"},
      // Type and subtype octets are read separately.
      {RouteTarget(0x0103C0000201FFFF),
       "0x0103c0000201ffff ipv4Address invalidSubtype false 3221225985 65535 0 192.0.2.1"},
      {RouteTarget(0x0302000000010002), "0x0302000000010002 invalidType routeTarget false 0 0 0 0.0.0.0"},
  };
  for (const auto& [rt, expected] : rows) {
    const RouteTarget& c = rt.constMe();
    EXPECT_EQ(fmt::format("{:#018x} {} {} {} {} {} {} {}", c.value, Kelp::valueToStrep(c.extCommType()),
                          Kelp::valueToStrep(c.extCommSubtype()), c.extCommValueIsValidRouteTarget(), c.globalAdmin(),
                          c.localAdmin(), c.asn().value(), c.ipv4Addr().stringValue()),
              expected);
  }
}

TEST(RouteTargetDeathTest, TwoOctetAsMustFit) {
  EXPECT_DEATH(RouteTarget::fromTwoOctetAs(65536, 1), "BgpCommon/RouteTarget:.*asn.value\\(\\) <= 0xffff");
}

// Values of all three types and of neither, drawn at random, survive toStrep then stringValueIs, and
// the strict operator reading, in both AS notations.
TEST(RouteTarget, GeneratedRoundTrips) {
  std::mt19937_64 rng(4360);
  for (int i = 0; i < 200000; ++i) {
    std::uint64_t r = rng();
    const std::uint64_t typeOctets[] = {0x0002, 0x0102, 0x0202};  // two-octet AS, IPv4, four-octet AS
    std::uint64_t v = i % 4 == 3 ? r : typeOctets[i % 4] << 48 | (r & 0xFFFFFFFFFFFF);  // the last: anything
    if (i % 4 == 2 && r >> 63) v &= 0xFFFF00000000FFFFull | (r & 0x00000FFF0000);        // small four-octet ASes
    RouteTarget rt(v);
    for (bool asDot : {false, true}) {
      RouteTarget back(0x1234);
      back.stringValueIs(rt.toStrep(asDot));
      ASSERT_EQ(back.value, v) << rt.toStrep(asDot);
      ASSERT_EQ(RouteTarget::fromOperatorText(rt.toStrep(asDot)).value, v) << rt.toStrep(asDot);  // strict too
    }
  }
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
      {RouteTarget(), rt, parse("70000:6"), parse("10.0.0.1:7"), RouteTarget(0xFFFFFFFFFFFFFFFF)});

  // Reflection: the accessors are callable; the truth test is value != 0.
  std::any result;
  ASSERT_EQ(Kelp::genericIfAttributeOp(&result, &rt, Kelp::attributeNamed<RouteTarget>("toStrep"), 10, nullptr,
                                       std::span<const std::any>(std::array{std::any(true)})),
            0);
  EXPECT_EQ(std::any_cast<Kelp::String>(result), "1.4464:5");
  RouteTarget zero;
  for (RouteTarget* v : {&rt, &zero}) {
    testing_support::attrOp(result, *v, 0, Kelp::attrOpTruth);
    EXPECT_EQ(std::any_cast<bool>(result), v == &rt);
  }
}

}  // namespace
}  // namespace Routing::Bgp

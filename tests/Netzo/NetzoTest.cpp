#include <gtest/gtest.h>

#include <absl/container/flat_hash_set.h>

#include <tuple>
#include <unordered_set>

#include "platform/Netzo/AutonomousSystem.h"
#include "platform/Netzo/IpAddr.h"
#include "platform/Netzo/IpGenPrefix.h"
#include "platform/Netzo/MplsLabel.h"
#include "tests/Support/ValueConformance.h"

namespace Netzo {
namespace {

using testing_support::expectValueConformance;
using testing_support::rangeMessage;

// A described value with Netzo fields, to show that they print bare and parse back in place.
struct RouteSample : Kelp::ValueBase<RouteSample> {
  IpGenPrefix key;
  IpGenAddr nexthop;
  AutonomousSystem origin;
  MplsLabelStack stack;
  friend constexpr auto kelpType(Kelp::Tag<RouteSample>) {
    return Kelp::valueType<RouteSample>(
        "Test::RouteSample", Kelp::field("key", &RouteSample::key), Kelp::field("nexthop", &RouteSample::nexthop),
        Kelp::field("origin", &RouteSample::origin), Kelp::field("stack", &RouteSample::stack));
  }
};
const Kelp::TypeModule testModule("NetzoTest", {Kelp::typeInfo<RouteSample>()});

// Each row is a text and its canonical print, or nullptr when the text is refused with
// `<errorPrefix> "<text>"`, leaving the value as it was.
template <typename T>
void checkTextRows(const T& sample, const char* errorPrefix,
                   std::initializer_list<std::pair<const char*, const char*>> rows) {
  for (const auto& [text, printed] : rows) {
    T v = sample;
    EXPECT_EQ(rangeMessage([&] { v.stringValueIs(text); }),
              printed ? "(accepted)" : std::string(errorPrefix) + " \"" + Kelp::quoteExcerpt(text, 64) + "\"");
    EXPECT_EQ(v.stringValue(), printed ? printed : sample.stringValue()) << text;
  }
}

TEST(NetzoText, RowsOfTexts) {
  const char* tooLong = "11111111111111111111111111111111111111111111111111111";  // refused before the C library
  checkTextRows(IpAddr(1, 2, 3, 4), "invalid IPv4 address",
                {{"192.0.2.1", "192.0.2.1"}, {"255.255.255.255", "255.255.255.255"}, {"1.2.3", nullptr},
                 {"1.2.3.256", nullptr}, {" 1.2.3.4", nullptr}, {"", nullptr}, {"::1", nullptr}, {tooLong, nullptr}});
  IpAddr a;  // a NUL inside the text is not the end of it
  EXPECT_THROW(a.stringValueIs(std::string_view("1.2.3.4\0x", 9)), Kelp::RangeException);
  // IPv6 text as RFC 5952 has it: the longest run of zeros shortened, the first of equal runs.
  checkTextRows(Ip6Addr::fromString("1::2"), "invalid IPv6 address",
                {{"2001:DB8:0:0:0:0:0:1", "2001:db8::1"}, {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},
                 {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"}, {"0:0:0:0:0:0:0:0", "::"},
                 {"::ffff:c000:0201", "::ffff:192.0.2.1"}, {"", nullptr}, {"1.2.3.4", nullptr},
                 {"2001:db8::1::2", nullptr}, {"2001:db8::1%eth0", nullptr}, {tooLong, nullptr}});
  checkTextRows(IpGenAddr(IpAddr(1, 2, 3, 4)), "invalid IP address",
                {{"10.1.2.3", "10.1.2.3"}, {"2001:db8::a", "2001:db8::a"}, {"None", "None"}, {"none", nullptr},
                 {"", nullptr}, {"10.1.2", nullptr}});
  checkTextRows(AutonomousSystem(7), "invalid AS number",
                {{"", nullptr}, {"4294967296", nullptr}, {"01", nullptr}, {"1.", nullptr}, {"1.65536", nullptr},
                 {"65536.0", nullptr}, {"-1", nullptr}});
  checkTextRows(MplsLabel(16), "invalid MPLS label",
                {{"1048575", "1048575"}, {"1048576", nullptr}, {"", nullptr}, {"16 ", nullptr}});
  checkTextRows(MplsLabelStack{MplsLabel(16)}, "invalid MPLS label stack",
                {{"[]", "[]"}, {"[1048575:7:0:255, 3:0:1:0]", "[1048575:7:0:255, 3:0:1:0]"},
                 {"[16:0:1:64,17:0:1:64]", nullptr}, {"[16:8:1:64]", nullptr}, {"[16:0:2:64]", nullptr},
                 {"[16:0:1:256]", nullptr}, {"[16:0:1]", nullptr}, {"[16:0:1:64", nullptr},
                 {"[16:0:1:64]x", nullptr}, {"[1048576:0:1:64]", nullptr}});

  checkTextRows(IpGenPrefix(), "",
                {{"10.0.0.1/8", "10.0.0.1/8"},  // host bits are kept
                 {"0.0.0.0/0", "0.0.0.0/0"}, {"192.0.2.1/32", "192.0.2.1/32"}, {"2001:DB8::/32", "2001:db8::/32"},
                 {"::1/128", "::1/128"}, {"None", "None"}});
  const IpGenPrefix p = IpGenPrefix::fromString("1.0.0.0/8");
  checkTextRows(p, "invalid prefix (no \"/\")", {{"10.0.0.0", nullptr}});
  checkTextRows(p, "invalid prefix address", {{"10.0.0/8", nullptr}, {"None/0", nullptr}});
  checkTextRows(p, "invalid prefix length",
                {{"10.0.0.0/33", nullptr}, {"::/129", nullptr}, {"10.0.0.0/08", nullptr}, {"10.0.0.0/", nullptr},
                 {"10.0.0.0/8x", nullptr}, {"10.0.0.0/4294967304", nullptr}});  // the last: 2^32 + 8
}

TEST(NetzoText, AutonomousSystemNotations) {
  // text, value, plain and asdot display; asdot+ ("0.100") is read too
  const std::tuple<const char*, std::uint32_t, const char*, const char*> rows[] = {
      {"65535", 65535, "65535", "65535"},     {"65536", 65536, "65536", "1.0"},
      {"70000", 70000, "70000", "1.4464"},    {"4294967295", 4294967295u, "4294967295", "65535.65535"},
      {"1.4464", 70000, "70000", "1.4464"},   {"0.100", 100, "100", "100"},
  };
  for (const auto& [text, value, plain, dot] : rows) {
    AutonomousSystem as = AutonomousSystem::fromString(text);
    EXPECT_EQ(std::tuple(as.value(), as.displayString(false), as.displayString(true)), std::tuple(value, plain, dot));
    EXPECT_EQ(AutonomousSystem::fromString(dot), as);
  }
}

TEST(Netzo, WireFormsAndPrefixes) {
  MplsLabelStack s{MplsLabel(16), MplsLabel(17), MplsLabel(18)};
  s.labelAppend(MplsLabel(0x123456), 5, 64);  // keeps the low 20 bits
  EXPECT_EQ(s.stringValue(), "[16:0:0:0, 17:0:0:0, 18:0:0:0, 144470:5:1:64]");
  EXPECT_EQ(s.hostEntry(3), 0x23456u << 12 | 5u << 9 | 1u << 8 | 64u);
  const std::uint8_t entryWire[4] = {0x23, 0x45, 0x6b, 0x40};  // the same entry as it travels
  EXPECT_EQ(std::memcmp(&s.networkEntries()[3], entryWire, 4), 0);
  EXPECT_TRUE(s.bottomOfStack(3) && !s.bottomOfStack(2));

  IpAddr a(192, 0, 2, 1);
  const std::uint8_t wire[4] = {192, 0, 2, 1};
  EXPECT_EQ(std::memcmp(&a, wire, 4), 0);
  EXPECT_EQ(a.hostValue(), 0xc0000201u);
  EXPECT_EQ(IpAddr::fromHostOrder(0xc0000201u), a);
  Ip6Addr b = Ip6Addr::fromString("2001:db8::102:304");
  std::array<std::uint32_t, 4> w = b.networkWords();
  EXPECT_EQ(std::pair(ntoh32(w[0]), ntoh32(w[3])), std::pair(0x20010db8u, 0x01020304u));

  IpGenPrefix p(IpGenAddr(a), 24);
  EXPECT_EQ(p.masked().stringValue(), "192.0.2.0/24");
  EXPECT_TRUE(p.contains(IpAddr(192, 0, 2, 200)) && !p.contains(IpAddr(192, 0, 3, 1)) && !p.contains(b));
  EXPECT_EQ(IpGenPrefix::fromString("2001:db8:ffff::1/35").masked().stringValue(), "2001:db8:e000::/35");
}

TEST(Netzo, NumericOrder) {
  auto expectAscending = [](auto fromString, std::initializer_list<const char*> texts) {
    for (auto it = texts.begin(); it + 1 != texts.end(); ++it) EXPECT_LT(fromString(it[0]), fromString(it[1])) << *it;
  };
  expectAscending(IpAddr::fromString,
                  {"0.0.0.0", "9.255.255.255", "10.0.0.2", "10.0.0.10", "10.0.1.0", "192.0.2.1", "255.0.0.0"});
  expectAscending(Ip6Addr::fromString, {"::", "::1", "::2:0", "1::", "2001:db8::9", "2001:db8::10", "fe80::"});
  expectAscending(IpGenPrefix::fromString, {"None", "0.0.0.0/0", "10.0.0.0/8", "10.0.0.0/16", "10.0.0.1/8",
                                            "11.0.0.0/8", "128.0.0.0/1", "::/0", "::/128", "2001:db8::/32",
                                            "2001:db8::/48", "2001:db8:1::/48"});
}

// The sample sets hold pairs that differ in one field only (an address's length, its family).
TEST(Netzo, Conformance) {
  expectValueConformance<IpAddr>({{}, IpAddr(10, 0, 0, 1), IpAddr(255, 255, 255, 255)});
  expectValueConformance<Ip6Addr>({{}, Ip6Addr::fromString("2001:db8::1"), Ip6Addr::fromString("::ffff:1.2.3.4")});
  expectValueConformance<IpGenAddr>({{}, IpAddr(10, 0, 0, 1), Ip6Addr::fromString("fe80::1"), Ip6Addr(), IpAddr()});
  std::vector<IpGenPrefix> prefixes = {{}};
  for (const char* t : {"10.0.0.0/8", "10.0.0.0/16", "10.0.0.1/8", "0.0.0.0/0", "::/0", "::/128", "2001:db8::/127"}) {
    prefixes.push_back(IpGenPrefix::fromString(t));
  }
  expectValueConformance<IpGenPrefix>(prefixes);
  expectValueConformance<AutonomousSystem>({{}, 65535u, 65536u, 4294967295u});
  expectValueConformance<MplsLabel>({{}, MplsLabel(3), MplsLabel(1048575)});
  expectValueConformance<MplsLabelStack>({{}, {MplsLabel(16)}, {MplsLabel(16), MplsLabel(17)}});
  // The types key the standard and the abseil hash containers directly.
  absl::flat_hash_set<IpGenPrefix> abslSet(prefixes.begin(), prefixes.end());
  std::unordered_set<IpGenPrefix> stdSet(prefixes.begin(), prefixes.end());
  for (const IpGenPrefix& p : prefixes) EXPECT_TRUE(abslSet.contains(p) && stdSet.count(p)) << p;

  const RouteSample r{{}, prefixes[1], Ip6Addr::fromString("2001:db8::1"), 70000, {MplsLabel(16), MplsLabel(17)}};
  EXPECT_EQ(Kelp::valueToStrep(r), "Value('Test::RouteSample', ** {'key': 10.0.0.0/8, 'nexthop': 2001:db8::1, "
                                   "'origin': 70000, 'stack': [16:0:0:0, 17:0:1:0]})");
  expectValueConformance<RouteSample>({{}, r});
  testing_support::expectDamagedTextsRefused(r);

  // Asdot is read in place too, and errors inside a value name the field and the position.
  RouteSample dotted = Kelp::strepToValue<RouteSample>(
      "Value('Test::RouteSample', ** {'key': None, 'nexthop': ::, 'origin': 1.4464, 'stack': []})");
  EXPECT_EQ(dotted.origin, AutonomousSystem(70000));
  EXPECT_EQ(rangeMessage([] {
              Kelp::strepToValue<RouteSample>("Value('Test::RouteSample', ** {'key': 10.0.0.0/33, 'nexthop': None, ...");
            }),
            "key: invalid prefix length \"10.0.0.0/33\" at offset 38, found \"10.0.0.0/33, 'nexthop': ...\"");
}

TEST(NetzoDeathTest, Misuse) {
  IpGenAddr v6 = Ip6Addr::fromString("::1");
  EXPECT_DEATH(v6.ipv4(), "af_ == AddressFamily::ipv4");
  EXPECT_DEATH(IpGenPrefix(IpAddr(), 33), "length <= maxPrefixLength\\(address.family\\(\\)\\)");
}

}  // namespace
}  // namespace Netzo

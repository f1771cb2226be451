// IPv4 and IPv6 unicast route keys: interning, order, text, trace records and content records.

#include <bit>
#include <sstream>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

#include "BgpCommon/BgpIpv4Plugin.h"
#include "BgpCommon/BgpIpv6Plugin.h"
#include "tests/Support/ValueConformance.h"

namespace Routing::Bgp::IpPlugin {
namespace {

Netzo::IpGenPrefix prefix(const char* text) { return Netzo::IpGenPrefix::fromString(text); }

// An IPv4 table without its lock and an IPv6 table with it; key() interns a prefix in the table
// of its family.
class IpRouteKeys : public ::testing::Test {
 protected:
  Kelp::Ptr<Ipv4RouteKeyDedupTable> v4 = ipv4RouteKeyDedupTableFactory(false);
  Kelp::Ptr<Ipv6RouteKeyDedupTable> v6 = ipv6RouteKeyDedupTableFactory(true);
  const IpRouteKeyDedupTableBase& table(const char* text) const {
    if (prefix(text).address().isIpv4()) return *v4;
    return *v6;
  }
  Kelp::Ptr<const IpRouteKeyBase> key(const char* text) const { return table(text).dedupFromIpGenPrefix(prefix(text)); }
};

TEST_F(IpRouteKeys, SamePrefixSameObjectUntilTheLastRelease) {
  // Keys keep the address as given: host bits beyond the length make another key.
  const std::pair<const char*, const char*> rows[] = {
      {"10.0.0.0/8", "10.0.0.0/16"}, {"10.0.0.1/8", "10.0.0.0/8"}, {"2001:db8::/32", "2001:db8::/48"}};
  for (auto [a, b] : rows) {
    SCOPED_TRACE(a);
    auto k1 = key(a);
    auto k2 = key(a);
    auto other = key(b);
    EXPECT_EQ(k1.get(), k2.get());
    EXPECT_NE(k1.get(), other.get());
    EXPECT_EQ(k1->prefix(), prefix(a));
    k1 = nullptr;
    EXPECT_EQ(table(a).size(), 2u);
    k2 = nullptr;  // only the table refers to it now: it leaves
    EXPECT_EQ(table(a).size(), 1u);
  }
}

// Prefixes that differ only in length hash apart, and where hashes meet, equality alone keeps
// them apart: the shorter prefix looked up under the longer one's hash is not found.
TEST_F(IpRouteKeys, LengthAloneMakesAnotherKeyEvenUnderOneHash) {
  auto k16 = key("10.0.0.0/16");
  EXPECT_NE(key("10.0.0.0/8")->hash(), k16->hash());
  EXPECT_EQ(v4->hashTable()->find(Ipv4RouteKeyContent(Netzo::IpAddr(10, 0, 0, 0), 8), k16->hash()), nullptr);
  auto k48 = key("2001:db8::/48");
  const Ipv6RouteKeyContent c32(Netzo::Ip6Addr::fromString("2001:db8::"), 32);
  EXPECT_EQ(v6->hashTable()->find(c32, k48->hash()), nullptr);
  EXPECT_NE(Ipv6RouteKey::dedupContent(v6, c32).get(), k48.get());
}

TEST_F(IpRouteKeys, ContentAndPrefixAndHandBuiltKeysMeet) {
  Ipv4RouteKeyContent c(Netzo::IpAddr(192, 0, 2, 0), 24);
  auto byContent = Ipv4RouteKey::dedupContent(v4, c);
  EXPECT_EQ(byContent.get(), key("192.0.2.0/24").get());
  EXPECT_EQ(byContent->hash(), c.hash());
  auto fresh = ipv4RouteKeyFactory(Netzo::IpAddr(198, 51, 100, 0).value(), 24);  // built by hand, then interned
  EXPECT_EQ(fresh->dedup(v4.get()).get(), fresh.get());
  EXPECT_EQ(ipv4RouteKeyFactory(fresh->addressNbo(), 24)->dedup(v4.get()).get(), fresh.get());
  auto k6 = key("2001:db8::/32");
  EXPECT_EQ(Ipv6RouteKey::dedupContent(v6, fromIpv6DedupHandle(k6.get())->routeKeyContent()).get(), k6.get());
}

TEST_F(IpRouteKeys, WrongFamilyIsRefused) {
  EXPECT_EQ(testing_support::rangeMessage([&] { v4->dedupFromIpGenPrefix(prefix("2001:db8::/32")); }),
            "dedupFromIpGenPrefix: 2001:db8::/32 is not an IPv4 prefix");
  EXPECT_EQ(testing_support::rangeMessage([&] { v6->dedupFromIpGenPrefix(prefix("10.0.0.0/8")); }),
            "dedupFromIpGenPrefix: 10.0.0.0/8 is not an IPv6 prefix");
  EXPECT_EQ(v4->size() + v6->size(), 0u);
}

TEST_F(IpRouteKeys, FamiliesTextAndTraceRecords) {
  const std::tuple<const char*, std::uint32_t, Kelp::Bytes> rows[] = {
      // IPv4: the address as a host-order integer in host byte order (little-endian here), then length
      {"10.0.0.1/32", 0x00010001, {0x01, 0x00, 0x00, 0x0A, 0x20}},
      {"10.1.0.0/16", 0x00010001, {0x00, 0x00, 0x01, 0x0A, 0x10}},
      {"0.0.0.0/0", 0x00010001, {0, 0, 0, 0, 0}},
      // IPv6: the octets as stored, network order, then length
      {"2001:db8::/32", 0x00010002, {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32}},
      {"::1/128", 0x00010002, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 128}},
  };
  static_assert(std::endian::native == std::endian::little, "the IPv4 rows are written for a little-endian host");
  for (const auto& [text, afiSafi, trace] : rows) {
    SCOPED_TRACE(text);
    auto k = key(text);
    EXPECT_EQ(k->toStrep(), text);
    EXPECT_EQ(k->afiSafi().value(), afiSafi);
    EXPECT_EQ(k->safi(), safiUnicast);
    Trackle::RingBuf ring(64);
    ring.put8(0xEE);
    k->qtPut(&ring);
    EXPECT_EQ(ring.cursor(), 1 + trace.size());
    EXPECT_EQ(ring.tail(trace.size()), trace);
  }
}

TEST_F(IpRouteKeys, KeyOrder) {
  const std::tuple<const char*, const char*, bool> rows[] = {
      {"10.0.0.0/8", "10.0.0.0/16", true},  // same address: shorter first
      {"10.0.0.0/16", "10.0.0.0/8", false},
      {"9.255.255.255/32", "10.0.0.0/8", true},  // numeric address order, not stored-word order
      {"10.0.0.0/8", "9.255.255.255/32", false},
      {"10.0.0.0/8", "10.0.0.0/8", true},  // a key against itself
      {"2001:db8::/32", "2001:db8::/48", true},
      {"2001:db7:ffff::/48", "2001:db8::/32", true},
      {"::1/128", "::/0", false},
  };
  for (auto [a, b, aFirst] : rows) EXPECT_EQ(key(a)->lessThan(key(b)), aFirst) << a << " vs " << b;
}

TEST(IpRouteKeysDeathTest, MisuseIsFatal) {
  auto t1 = ipv4RouteKeyDedupTableFactory(false);
  auto t2 = ipv4RouteKeyDedupTableFactory(false);
  auto a = t1->dedupFromIpGenPrefix(prefix("10.0.0.0/8"));
  auto b = t2->dedupFromIpGenPrefix(prefix("10.0.0.0/16"));
  EXPECT_DEATH(a->lessThan(b), "dedupTable\\(\\) == arg->dedupTable\\(\\)");
  auto v6 = ipv6RouteKeyDedupTableFactory(false);
  auto c = v6->dedupFromIpGenPrefix(prefix("2001:db8::/32"));
  std::ostringstream os;
  EXPECT_DEATH(a->nlriType(), "BgpCommon/BgpIpv4Plugin.*0 && \"Not implemented\"");
  EXPECT_DEATH(c->formatWithoutVrf(os), "BgpCommon/BgpIpv6Plugin.*0 && \"Not implemented\"");
}

TEST(RouteKeyContents, TextFormsAndConformance) {
  static_assert(std::endian::native == std::endian::little);
  Ipv4RouteKeyContent one(Netzo::IpAddr(1, 0, 0, 0), 8);
  EXPECT_EQ(Kelp::valueToStrep(one), "Value('Routing::Bgp::IpPlugin::Ipv4RouteKeyContent', ** {'addressNbo': 1, 'prefixLength': 8})");
  Ipv6RouteKeyContent doc(Netzo::Ip6Addr::fromString("2001:db8::"), 32);
  EXPECT_EQ(Kelp::valueToStrep(doc),
            "Value('Routing::Bgp::IpPlugin::Ipv6RouteKeyContent', ** {'address': 2001:db8::, 'prefixLength': 32})");
  testing_support::expectValueConformance<Ipv4RouteKeyContent>(
      {{}, one, {Netzo::IpAddr(255, 255, 255, 255), 32}, {Netzo::IpAddr(10, 0, 0, 0), 33}});
  testing_support::expectValueConformance<Ipv6RouteKeyContent>(
      {{}, doc, {Netzo::Ip6Addr::fromString("::ffff:192.0.2.1"), 128}, {Netzo::Ip6Addr::fromString("fe80::1"), 64},
       {Netzo::Ip6Addr::fromString("fe80::2"), 64}});
  EXPECT_THROW(Kelp::strepToValue<Ipv6RouteKeyContent>(
                   "Value('Routing::Bgp::IpPlugin::Ipv6RouteKeyContent', ** {'address': 2001:db8:::1, 'prefixLength': 32})"),
               Kelp::RangeException);
}

// Records order by length first, then by the stored words as this host reads them: on a
// little-endian host 1.0.0.0 (word 1) comes before 0.0.0.2 (word 0x02000000), and 100:: (first
// word 0x00000100) before 2:: (0x00000200).
TEST(RouteKeyContents, ContentOrderIsLengthThenStoredWords) {
  auto v4 = [](const char* a, int len) { return Ipv4RouteKeyContent(Netzo::IpAddr::fromString(a), static_cast<std::uint8_t>(len)); };
  auto v6 = [](const char* a, int len) { return Ipv6RouteKeyContent(Netzo::Ip6Addr::fromString(a), static_cast<std::uint8_t>(len)); };
  EXPECT_TRUE(v4("10.0.0.0", 8) < v4("1.0.0.0", 16));
  EXPECT_TRUE(v4("1.0.0.0", 32) < v4("0.0.0.2", 32));
  EXPECT_FALSE(v4("0.0.0.2", 32) < v4("1.0.0.0", 32));
  EXPECT_TRUE(v6("ffff::", 16) < v6("::", 32));
  EXPECT_TRUE(v6("100::", 32) < v6("2::", 32));
}

// Two threads interning and releasing the same prefixes through one multiThreaded table.
TEST(IpRouteKeysThreads, SharedTableAcrossThreads) {
  auto table = ipv4RouteKeyDedupTableFactory(true);
  auto work = [&](std::uint32_t salt) {
    for (int round = 0; round < 200; ++round) {
      std::vector<Kelp::Ptr<const Ipv4RouteKey>> held;
      for (std::uint32_t i = 0; i < 64; ++i) {
        held.push_back(Ipv4RouteKey::dedupContent(*table, Ipv4RouteKeyContent(Netzo::IpAddr::fromHostOrder((i + salt * round % 3) << 8), 24)));
      }
    }
  };
  std::thread a(work, 1), b(work, 2);
  a.join();
  b.join();
  EXPECT_EQ(table->size(), 0u);
}

}  // namespace
}  // namespace Routing::Bgp::IpPlugin

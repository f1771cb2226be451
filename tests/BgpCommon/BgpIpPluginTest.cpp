// IPv4 and IPv6 unicast route keys: interning, order, text, trace records and content records.

#include <iomanip>
#include <sstream>
#include <bit>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

#include "BgpCommon/BgpIpv4Plugin.h"
#include "BgpCommon/BgpIpv6Plugin.h"
#include "tests/Support/ValueConformance.h"

namespace Routing::Bgp::IpPlugin {
namespace {

Netzo::IpGenPrefix prefix(const char* text) { return Netzo::IpGenPrefix::fromString(text); }

TEST(IpRouteKeys, SamePrefixSameObjectUntilTheLastRelease) {
  auto v4 = ipv4RouteKeyDedupTableFactory(false);
  auto v6 = ipv6RouteKeyDedupTableFactory(true);
  // Keys keep the address as given: host bits beyond the length make another key.
  for (auto [table, a, b] : {std::tuple<IpRouteKeyDedupTableBase*, const char*, const char*>{v4.get(), "10.0.0.0/8", "10.0.0.0/16"},
                             {v4.get(), "10.0.0.1/8", "10.0.0.0/8"},
                             {v6.get(), "2001:db8::/32", "2001:db8::/48"}}) {
    SCOPED_TRACE(a);
    auto k1 = table->dedupFromIpGenPrefix(prefix(a));
    auto k2 = table->dedupFromIpGenPrefix(prefix(a));
    auto other = table->dedupFromIpGenPrefix(prefix(b));
    EXPECT_EQ(k1.get(), k2.get());
    EXPECT_NE(k1.get(), other.get());
    EXPECT_EQ(table->size(), 2u);
    EXPECT_EQ(k1->prefix(), prefix(a));
    k1 = nullptr;
    EXPECT_EQ(table->size(), 2u);
    k2 = nullptr;  // only the table refers to it now: it leaves
    EXPECT_EQ(table->size(), 1u);
    auto again = table->dedupFromIpGenPrefix(prefix(a));
    EXPECT_EQ(again->references(), 2u);  // a new object: ours and the table's
    EXPECT_EQ(table->size(), 2u);
  }
}

TEST(IpRouteKeys, ContentAndPrefixAndHandBuiltKeysMeet) {
  auto table = ipv4RouteKeyDedupTableFactory(false);
  Ipv4RouteKeyContent c(Netzo::IpAddr(192, 0, 2, 0), 24);
  auto byContent = Ipv4RouteKey::dedupContent(table, c);
  auto byPrefix = table->dedupFromIpGenPrefix(prefix("192.0.2.0/24"));
  EXPECT_EQ(byContent.get(), byPrefix.get());
  EXPECT_EQ(byContent->hash(), c.hash());
  EXPECT_EQ(fromIpv4DedupHandle(byPrefix.get())->addressNbo(), c.addressNbo);

  auto fresh = ipv4RouteKeyFactory(Netzo::IpAddr(198, 51, 100, 0).value(), 24);
  EXPECT_FALSE(fresh->isDeduped());
  EXPECT_EQ(fresh->dedupTable(), nullptr);
  EXPECT_EQ(fresh->dedup(table.get()).get(), fresh.get());
  EXPECT_EQ(fresh->dedupTable(), table->hashTable().get());
  auto twin = Ipv4RouteKeyIs(Netzo::IpAddr(198, 51, 100, 0).value(), 24);
  EXPECT_EQ(twin->dedup(table.get()).get(), fresh.get());

  auto v6 = ipv6RouteKeyDedupTableFactory(false);
  auto k6 = v6->dedupFromIpGenPrefix(prefix("2001:db8::/32"));
  EXPECT_EQ(Ipv6RouteKey::dedupContent(v6, fromIpv6DedupHandle(k6.get())->routeKeyContent()).get(), k6.get());
}

TEST(IpRouteKeys, WrongFamilyIsRefused) {
  auto v4 = ipv4RouteKeyDedupTableFactory(false);
  auto v6 = ipv6RouteKeyDedupTableFactory(false);
  try {
    v4->dedupFromIpGenPrefix(prefix("2001:db8::/32"));
    ADD_FAILURE();
  } catch (const Kelp::RangeException& e) {
    EXPECT_STREQ(e.what(), "dedupFromIpGenPrefix: 2001:db8::/32 is not an IPv4 prefix");
  }
  EXPECT_THROW(v6->dedupFromIpGenPrefix(prefix("10.0.0.0/8")), Kelp::RangeException);
  EXPECT_EQ(v4->size() + v6->size(), 0u);
}

TEST(IpRouteKeys, FamiliesTextAndTraceRecords) {
  auto v4 = ipv4RouteKeyDedupTableFactory(false);
  auto v6 = ipv6RouteKeyDedupTableFactory(false);
  struct Row {
    IpRouteKeyDedupTableBase* table;
    const char* text;
    std::uint32_t afiSafi;
    Kelp::Bytes trace;
  };
  const Row rows[] = {
      // IPv4: the address as a host-order integer in host byte order (little-endian here), then length
      {v4.get(), "10.0.0.1/32", 0x00010001, {0x01, 0x00, 0x00, 0x0A, 0x20}},
      {v4.get(), "10.1.0.0/16", 0x00010001, {0x00, 0x00, 0x01, 0x0A, 0x10}},
      {v4.get(), "0.0.0.0/0", 0x00010001, {0, 0, 0, 0, 0}},
      // IPv6: the octets as stored, network order, then length
      {v6.get(), "2001:db8::/32", 0x00010002,
       {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32}},
      {v6.get(), "::1/128", 0x00010002, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 128}},
  };
  static_assert(std::endian::native == std::endian::little, "the IPv4 rows are written for a little-endian host");
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    auto k = row.table->dedupFromIpGenPrefix(prefix(row.text));
    EXPECT_EQ(k->toStrep(), row.text);
    EXPECT_EQ(k->afiSafi().value(), row.afiSafi);
    EXPECT_EQ(k->safi(), safiUnicast);
    Trackle::RingBuf ring(64);
    ring.put8(0xEE);
    k->qtPut(&ring);
    EXPECT_EQ(ring.cursor(), 1 + row.trace.size());
    EXPECT_EQ(ring.tail(row.trace.size()), row.trace);
  }
}

TEST(IpRouteKeys, KeyOrder) {
  auto v4 = ipv4RouteKeyDedupTableFactory(false);
  auto v6 = ipv6RouteKeyDedupTableFactory(false);
  struct Row {
    const char* a;
    const char* b;
    bool aFirst;
  };
  const Row rows[] = {
      {"10.0.0.0/8", "10.0.0.0/16", true},  // same address: shorter first
      {"10.0.0.0/16", "10.0.0.0/8", false},
      {"9.255.255.255/32", "10.0.0.0/8", true},  // numeric address order, not stored-word order
      {"10.0.0.0/8", "9.255.255.255/32", false},
      {"10.0.0.0/8", "10.0.0.0/8", true},  // a key against itself
      {"2001:db8::/32", "2001:db8::/48", true},
      {"2001:db7:ffff::/48", "2001:db8::/32", true},
      {"::1/128", "::/0", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.a) + " vs " + row.b);
    IpRouteKeyDedupTableBase* t = prefix(row.a).address().isIpv4() ? static_cast<IpRouteKeyDedupTableBase*>(v4.get())
                                                                    : static_cast<IpRouteKeyDedupTableBase*>(v6.get());
    auto a = t->dedupFromIpGenPrefix(prefix(row.a));
    auto b = t->dedupFromIpGenPrefix(prefix(row.b));
    EXPECT_EQ(a->lessThan(b), row.aFirst);
  }
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
  auto loose = ipv4RouteKeyFactory(1, 8);
  EXPECT_DEATH(loose->assertIsDeduped(), "isDeduped\\(\\)");
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
      {{}, doc, {Netzo::Ip6Addr::fromString("::ffff:192.0.2.1"), 128}, {Netzo::Ip6Addr::fromString("fe80::1"), 64}});
  EXPECT_THROW(Kelp::strepToValue<Ipv6RouteKeyContent>(
                   "Value('Routing::Bgp::IpPlugin::Ipv6RouteKeyContent', ** {'address': 2001:db8:::1, 'prefixLength': 32})"),
               Kelp::RangeException);
}

TEST(RouteKeyContents, ContentOrderIsLengthThenStoredWords) {
  auto v4 = [](const char* a, unsigned len) {
    return Ipv4RouteKeyContent(Netzo::IpAddr::fromString(a), static_cast<std::uint8_t>(len));
  };
  EXPECT_TRUE(v4("10.0.0.0", 8) < v4("1.0.0.0", 16));  // length first
  // Stored words read little-endian: 1.0.0.0 is 1, 0.0.0.2 is 0x02000000, so 1.0.0.0 comes first
  // although it is the larger address.
  EXPECT_TRUE(v4("1.0.0.0", 32) < v4("0.0.0.2", 32));
  EXPECT_FALSE(v4("0.0.0.2", 32) < v4("1.0.0.0", 32));
  auto v6 = [](const char* a, unsigned len) {
    return Ipv6RouteKeyContent(Netzo::Ip6Addr::fromString(a), static_cast<std::uint8_t>(len));
  };
  EXPECT_TRUE(v6("ffff::", 16) < v6("::", 32));
  EXPECT_TRUE(v6("100::", 32) < v6("2::", 32));  // first words 0x00000100 and 0x00000200
  Ipv6AddressBuf x(Netzo::Ip6Addr::fromString("::1")), y(Netzo::Ip6Addr::fromString("::2"));
  EXPECT_TRUE(x != y);
  EXPECT_TRUE(x == Ipv6AddressBuf(x.ip6Addr()));
}

// Two threads interning and releasing the same prefixes through one multiThreaded table.
TEST(IpRouteKeys, SharedTableAcrossThreads) {
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

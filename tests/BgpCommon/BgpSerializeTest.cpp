#include "BgpCommon/BgpSerialize.h"

#include <gtest/gtest.h>

#include <functional>
#include <numeric>

#include "platform/Netzo/IpGenPrefix.h"

namespace Routing::Bgp {
namespace {

using Netzo::MplsLabel;
using Netzo::MplsLabelStack;

// A value whose in-memory octets are exactly `octets`, whatever the host's byte order.
template <typename T>
T fromMemory(std::initializer_list<U8> octets) {
  T v;
  std::memcpy(&v, std::data(octets), sizeof v);
  return v;
}

struct Golden {
  const char* name;
  std::function<void(Serialize&)> write;
  Kelp::Bytes octets;
};

const Golden kGolden[] = {
    {"addU8", [](Serialize& s) { s.addU8(0xAB); }, {0xAB}},
    {"addU16n", [](Serialize& s) { s.addU16n(fromMemory<U16>({0x12, 0x34})); }, {0x12, 0x34}},
    {"addU32n", [](Serialize& s) { s.addU32n(fromMemory<U32>({0x12, 0x34, 0x56, 0x78})); }, {0x12, 0x34, 0x56, 0x78}},
    {"addU64n", [](Serialize& s) { s.addU64n(fromMemory<U64>({1, 2, 3, 4, 5, 6, 7, 8})); }, {1, 2, 3, 4, 5, 6, 7, 8}},
    {"addU16hton", [](Serialize& s) { s.addU16hton(0x1234); }, {0x12, 0x34}},
    {"addU32hton", [](Serialize& s) { s.addU32hton(0x12345678); }, {0x12, 0x34, 0x56, 0x78}},
    {"addU64hton", [](Serialize& s) { s.addU64hton(0x0102030405060708); }, {1, 2, 3, 4, 5, 6, 7, 8}},
    {"addU24hton drops the top octet", [](Serialize& s) { s.addU24hton(0x12345678); }, {0x34, 0x56, 0x78}},
    {"addU20hton keeps 20 bits", [](Serialize& s) { s.addU20hton(0xABCDEF); }, {0x0B, 0xCD, 0xEF}},
    {"addData", [](Serialize& s) { const U8 d[] = {9, 8, 7}; s.addData(d, 3); }, {9, 8, 7}},
    {"addString", [](Serialize& s) { s.addString(Kelp::String("a\0b", 3)); }, {'a', 0, 'b'}},
    {"addBytes", [](Serialize& s) { s.addBytes({0xFF, 0}); }, {0xFF, 0}},
    // AFI/SAFI and AS numbers
    {"addAfiSafi IPv6 VPN", [](Serialize& s) { s.addAfiSafi({afiIpv6, safiMplsVpn}); }, {0x00, 0x02, 0x80}},
    {"addAfiSafi SAFI 255", [](Serialize& s) { s.addAfiSafi({afiBgpLs, static_cast<Safi>(255)}); }, {0x40, 0x04, 0xFF}},
    {"4-octet AS", [](Serialize& s) { s.addAutonomousSystem(65536, true); }, {0x00, 0x01, 0x00, 0x00}},
    {"2-octet AS", [](Serialize& s) { s.addAutonomousSystem(65535, false); }, {0xFF, 0xFF}},
    // addresses
    {"addAddrFamily IPv6", [](Serialize& s) { s.addAddrFamily(Netzo::AddressFamily::ipv6); }, {0x00, 0x02}},
    {"addIpv4Addr", [](Serialize& s) { s.addIpv4Addr(Netzo::IpAddr(192, 0, 2, 1)); }, {192, 0, 2, 1}},
    {"addIpv6Addr",
     [](Serialize& s) { s.addIpv6Addr(Netzo::Ip6Addr::fromString("2001:db8::102:304")); },
     {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4}},
    {"addIpGenAddr IPv4", [](Serialize& s) { s.addIpGenAddr(Netzo::IpAddr(10, 0, 0, 1)); }, {10, 0, 0, 1}},
    {"addIpGenAddr IPv6",
     [](Serialize& s) { s.addIpGenAddr(Netzo::Ip6Addr::fromString("ff02::5")); },
     {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5}},
    // MPLS labels
    {"add3octetMplsLabelHton", [](Serialize& s) { s.add3octetMplsLabelHton(0xFF123456); }, {0x12, 0x34, 0x56}},
    {"label 16, bottom", [](Serialize& s) { s.add3octetMplsLabel(MplsLabel(16), true); }, {0x00, 0x01, 0x01}},
    {"largest label", [](Serialize& s) { s.add3octetMplsLabel(MplsLabel(0xFFFFF), true); }, {0xFF, 0xFF, 0xF1}},
    {"2^20: an encoded field", [](Serialize& s) { s.add3octetMplsLabel(MplsLabel(0x100000), false); }, {0x10, 0x00, 0x00}},
    {"encoded field, bottom", [](Serialize& s) { s.add3octetMplsLabel(MplsLabel(0x123450), true); },
     {0x12, 0x34, 0x51}},
    {"label stack drops TC and TTL",
     [](Serialize& s) {
       MplsLabelStack st;
       st.labelAppend(MplsLabel(16), 5, 64);
       st.labelAppend(MplsLabel(0xFFFFF), 7, 255);
       s.add3octetMplsLabelStack(st);
     },
     {0x00, 0x01, 0x00, 0xFF, 0xFF, 0xF1}},
    {"label stack S bit as given",
     [](Serialize& s) {
       MplsLabelStack st;
       st.entryAppend(Netzo::NetU32::fromHost(MplsLabelStack::makeEntry(MplsLabel(3), 0, true, 0)));
       st.entryAppend(Netzo::NetU32::fromHost(MplsLabelStack::makeEntry(MplsLabel(4), 0, false, 0)));
       s.add3octetMplsLabelStack(st);
     },
     {0x00, 0x00, 0x31, 0x00, 0x00, 0x40}},
    // several fields, one room check
    {"addFields: NEXT_HOP attribute",
     [](Serialize& s) { s.addFields(U8{0x40}, U8{3}, U8{4}, Netzo::IpAddr(192, 0, 2, 1)); },
     {0x40, 3, 4, 192, 0, 2, 1}},
    {"addFields: every field type",
     [](Serialize& s) {
       s.addFields(U16{0x0102}, Serialize::U24{0xFF030405}, U32{0x06070809}, U64{0x0A0B0C0D0E0F1011},
                   Netzo::AutonomousSystem(65536), AfiSafi{afiIpv6, safiMplsVpn},
                   Serialize::mplsLabelField(MplsLabel(16), true), Netzo::Ip6Addr::fromString("::1"));
     },
     {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 0, 1, 0, 0, 0, 2, 0x80, 0, 1, 1,
      0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}},
    {"addEach: AS numbers",
     [](Serialize& s) {
       const Netzo::AutonomousSystem path[] = {65536, 1};
       s.addEach(std::span(path));
     },
     {0, 1, 0, 0, 0, 0, 0, 1}},
};

TEST(Serialize, GoldenEncodings) {
  for (const Golden& g : kGolden) {
    Serialize s;
    g.write(s);
    EXPECT_EQ(s.serializedBytes(0), g.octets) << g.name;
    EXPECT_EQ(s.writeOffset(), g.octets.size()) << g.name;
  }
  // The same pieces one after another, taken back out by their offsets.
  Serialize all;
  std::vector<U32> marks;
  for (const Golden& g : kGolden) {
    marks.push_back(all.writeOffset());
    g.write(all);
  }
  for (std::size_t i = 0; i < std::size(kGolden); ++i) {
    Kelp::Bytes piece = all.serializedBytes(marks[i]);
    piece.resize(kGolden[i].octets.size());
    EXPECT_EQ(piece, kGolden[i].octets) << kGolden[i].name;
    Kelp::String text = all.serializedString(marks[i]);
    EXPECT_EQ(Kelp::Bytes(text.begin(), text.end()), all.serializedBytes(marks[i]));
  }
  EXPECT_TRUE(all.serializedBytes(all.writeOffset()).empty());
  EXPECT_TRUE(all.usesInlineStorage());
}

// An add that would pass 65535 octets throws before writing, an add that just reaches it
// succeeds: one writer for each way of reserving room (fixed widths, runs, field and value lists,
// label stacks).
TEST(Serialize, LimitIsExactlyOneExtendedMessage) {
  struct Writer {
    const char* name;
    U32 width;
    std::function<void(Serialize&)> write;
  };
  const U8 run[7] = {1, 2, 3, 4, 5, 6, 7};
  const Writer writers[] = {
      {"addU8", 1, [](Serialize& s) { s.addU8(1); }},
      {"addU24hton", 3, [](Serialize& s) { s.addU24hton(1); }},
      {"addU64hton", 8, [](Serialize& s) { s.addU64hton(1); }},
      {"addData", 7, [&](Serialize& s) { s.addData(run, 7); }},
      {"addIpGenAddr", 16, [](Serialize& s) { s.addIpGenAddr(Netzo::Ip6Addr::fromString("::1")); }},
      {"addFields", 10,
       [](Serialize& s) { s.addFields(U8{0x80}, U8{4}, U8{4}, U32{7}, Serialize::mplsLabelField(MplsLabel(3), true)); }},
      {"addEach", 12,
       [](Serialize& s) {
         const U32 communities[] = {1, 2, 3};
         s.addEach(std::span(communities));
       }},
      {"add3octetMplsLabelStack", 6,
       [](Serialize& s) { s.add3octetMplsLabelStack(MplsLabelStack{MplsLabel(16), MplsLabel(17)}); }},
  };
  Kelp::Bytes filler(bgpMaxExtendedMessageSize);
  std::iota(filler.begin(), filler.end(), U8{0});
  for (const Writer& w : writers) {
    SCOPED_TRACE(w.name);
    Serialize s;
    s.addData(filler.data(), bgpMaxExtendedMessageSize - w.width + 1);
    try {
      w.write(s);
      ADD_FAILURE() << "no throw";
    } catch (const Kelp::RangeException& e) {
      EXPECT_STREQ(e.what(), "Serialized bytes exceed bgpMaxExtendedMessageSize");
    }
    EXPECT_EQ(s.writeOffset(), bgpMaxExtendedMessageSize - w.width + 1);

    Serialize fits;
    fits.addData(filler.data(), bgpMaxExtendedMessageSize - w.width);
    w.write(fits);
    EXPECT_EQ(fits.writeOffset(), bgpMaxExtendedMessageSize);
  }

  Serialize full;
  full.addData(filler.data(), 1000);
  full.addData(filler.data() + 1000, bgpMaxExtendedMessageSize - 1000);
  EXPECT_EQ(full.writeOffset(), 65535u);
  EXPECT_THROW(full.addU8(0), Kelp::RangeException);
  volatile U32 huge = 0xFFFFFFFFu;  // volatile: keeps the compiler from flagging the read it cannot see refused
  EXPECT_THROW(full.addData(filler.data(), huge), Kelp::RangeException);  // no wrap-around
  EXPECT_EQ(full.writeOffset(), 65535u);
  EXPECT_EQ(full.serializedBytes(0), filler);  // content intact and usable
  full.addData(nullptr, 0);                    // nothing more to write is still fine

  Serialize empty;
  volatile U32 oneTooMany = 65536;
  EXPECT_THROW(empty.addData(filler.data(), oneTooMany), Kelp::RangeException);
  EXPECT_EQ(empty.writeOffset(), 0u);
  EXPECT_THROW(empty.growBuffer(65536), Kelp::RangeException);
  MplsLabelStack tall;
  for (int i = 0; i < 21846; ++i) tall.labelAppend(MplsLabel(16));  // 65538 octets
  EXPECT_THROW(empty.add3octetMplsLabelStack(tall), Kelp::RangeException);
  EXPECT_EQ(empty.writeOffset(), 0u);
}

TEST(Serialize, GrowthKeepsContent) {
  Serialize s;
  EXPECT_EQ(s.capacity(), Serialize::inlineCapacity);
  std::vector<U32> capacities;
  Kelp::Bytes expected;
  for (U32 i = 0; expected.size() < 40000; ++i) {
    s.addU32hton(i);
    for (int k = 3; k >= 0; --k) expected.push_back(static_cast<U8>(i >> (8 * k)));
    if (capacities.empty() || capacities.back() != s.capacity()) capacities.push_back(s.capacity());
    if (expected.size() <= Serialize::inlineCapacity) ASSERT_TRUE(s.usesInlineStorage());
  }
  EXPECT_FALSE(s.usesInlineStorage());
  EXPECT_EQ(capacities, (std::vector<U32>{4096, 8192, 16384, 32768, 65535}));
  EXPECT_EQ(s.serializedBytes(0), expected);

  // One large add grows past several doublings at once.
  Serialize big;
  big.addU8(7);
  Kelp::Bytes run(20000, 0x5A);
  big.addBytes(run);
  EXPECT_EQ(big.capacity(), 32768u);
  EXPECT_EQ(big.serializedBytes(1), run);
  // Moving takes the octets along, from inline storage and from the heap alike.
  Serialize small;
  small.addU16hton(0xBEEF);
  Serialize fromSmall(std::move(small));
  EXPECT_EQ(fromSmall.serializedBytes(0), (Kelp::Bytes{0xBE, 0xEF}));
  EXPECT_TRUE(fromSmall.usesInlineStorage());
  Serialize fromBig(std::move(big));
  EXPECT_EQ(fromBig.serializedBytes(1), run);
  EXPECT_EQ(big.writeOffset(), 0u);  // NOLINT: the moved-from writer is empty and usable
  big.addU8(1);
  EXPECT_EQ(big.serializedBytes(0), Kelp::Bytes{1});
}

// Long runs whose destination lies a few octets past the source modulo the page take another copy
// path; every placement must land the same octets, in inline storage and on the heap.
TEST(Serialize, RunsLandWhateverTheirPageOffset) {
  std::vector<U8> pool(2 * 4096);
  for (std::size_t i = 0; i < pool.size(); ++i) pool[i] = static_cast<U8>(i * 7 + i / 251);
  const Kelp::Bytes filler(4097, 0xEE);
  for (U32 before : {1u, 4097u}) {
    for (std::uintptr_t ahead : {0, 1, 16, 31, 32, 4095}) {
      for (U32 len : {1023u, 1024u, 1024u + 45u, 3000u}) {
        Serialize s;
        s.addData(filler.data(), before);
        const auto dst = reinterpret_cast<std::uintptr_t>(s.data()) + before;
        const U8* src = pool.data() + ((dst - ahead - reinterpret_cast<std::uintptr_t>(pool.data())) & 4095);
        s.addData(src, len);
        EXPECT_EQ(s.serializedBytes(before), Kelp::Bytes(src, src + len)) << before << " " << ahead << " " << len;
        EXPECT_EQ(s.serializedBytes(0).size(), before + len);
      }
    }
  }
}

TEST(SerializeDeathTest, Assertions) {
  Serialize s;
  EXPECT_DEATH(s.addAfiSafi(AfiSafi(afiIpv4, static_cast<Safi>(0x100))), "afiSafi.safi\\(\\) <= 0xFF");
  EXPECT_DEATH(s.addAutonomousSystem(65536, false), "asn.value\\(\\) <= 0xFFFF");
  EXPECT_DEATH(s.addIpGenAddr(Netzo::IpGenAddr()), "BgpCommon/BgpSerialize:[0-9]+: .*addIpGenAddr.*Assertion `0' failed");
  s.addU8(1);
  EXPECT_DEATH(s.serializedString(2), "BgpCommon/BgpSerialize:.*serializedString.*_offset <= writeOffset_");
  EXPECT_DEATH(s.serializedBytes(2), "BgpCommon/BgpSerialize:.*serializedBytes.*_offset <= writeOffset_");
}

}  // namespace
}  // namespace Routing::Bgp

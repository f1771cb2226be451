#include "BgpCommon/BgpSerialize.h"

#include <gtest/gtest.h>

#include <functional>
#include <numeric>

#include "platform/Netzo/IpGenPrefix.h"
#include "tests/Support/ValueConformance.h"

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

// A stack of entries given as label, traffic class, bottom-of-stack bit and TTL.
MplsLabelStack stackOf(std::initializer_list<std::tuple<U32, U8, bool, U8>> entries) {
  MplsLabelStack st;
  for (auto [label, tc, bottom, ttl] : entries) {
    st.entryAppend(Netzo::NetU32::fromHost(MplsLabelStack::makeEntry(MplsLabel(label), tc, bottom, ttl)));
  }
  return st;
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
    // AFI/SAFI, AS numbers, addresses
    {"addAfiSafi IPv6 VPN", [](Serialize& s) { s.addAfiSafi({afiIpv6, safiMplsVpn}); }, {0x00, 0x02, 0x80}},
    {"addAfiSafi SAFI 255", [](Serialize& s) { s.addAfiSafi({afiBgpLs, static_cast<Safi>(255)}); }, {0x40, 0x04, 0xFF}},
    {"4-octet AS", [](Serialize& s) { s.addAutonomousSystem(65536, true); }, {0x00, 0x01, 0x00, 0x00}},
    {"2-octet AS", [](Serialize& s) { s.addAutonomousSystem(65535, false); }, {0xFF, 0xFF}},
    {"addAddrFamily IPv6", [](Serialize& s) { s.addAddrFamily(Netzo::AddressFamily::ipv6); }, {0x00, 0x02}},
    {"addIpv4Addr", [](Serialize& s) { s.addIpv4Addr(Netzo::IpAddr(192, 0, 2, 1)); }, {192, 0, 2, 1}},
    {"addIpv6Addr", [](Serialize& s) { s.addIpv6Addr(Netzo::Ip6Addr::fromString("2001:db8::102:304")); },
     {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4}},
    {"addIpGenAddr IPv4", [](Serialize& s) { s.addIpGenAddr(Netzo::IpAddr(10, 0, 0, 1)); }, {10, 0, 0, 1}},
    {"addIpGenAddr IPv6", [](Serialize& s) { s.addIpGenAddr(Netzo::Ip6Addr::fromString("ff02::5")); },
     {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5}},
    // MPLS labels
    {"add3octetMplsLabelHton", [](Serialize& s) { s.add3octetMplsLabelHton(0xFF123456); }, {0x12, 0x34, 0x56}},
    {"label 16, bottom", [](Serialize& s) { s.add3octetMplsLabel(MplsLabel(16), true); }, {0x00, 0x01, 0x01}},
    {"largest label", [](Serialize& s) { s.add3octetMplsLabel(MplsLabel(0xFFFFF), true); }, {0xFF, 0xFF, 0xF1}},
    {"2^20: an encoded field", [](Serialize& s) { s.add3octetMplsLabel(MplsLabel(0x100000), false); }, {0x10, 0x00, 0x00}},
    {"encoded field, bottom", [](Serialize& s) { s.add3octetMplsLabel(MplsLabel(0x123450), true); }, {0x12, 0x34, 0x51}},
    {"label stack drops TC and TTL",
     [](Serialize& s) { s.add3octetMplsLabelStack(stackOf({{16, 5, false, 64}, {0xFFFFF, 7, true, 255}})); },
     {0x00, 0x01, 0x00, 0xFF, 0xFF, 0xF1}},
    {"label stack S bit as given", [](Serialize& s) { s.add3octetMplsLabelStack(stackOf({{3, 0, true, 0}, {4, 0, false, 0}})); },
     {0x00, 0x00, 0x31, 0x00, 0x00, 0x40}},
    // several fields, one room check
    {"addFields: every field type",
     [](Serialize& s) {
       s.addFields(U8{0x40}, U16{0x0102}, Serialize::U24{0xFF030405}, U32{0x06070809}, U64{0x0A0B0C0D0E0F1011},
                   Netzo::AutonomousSystem(65536), AfiSafi{afiIpv6, safiMplsVpn},
                   Serialize::mplsLabelField(MplsLabel(16), true), Netzo::Ip6Addr::fromString("::1"),
                   Netzo::IpAddr(192, 0, 2, 1));
     },
     {0x40, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 0, 1, 0, 0, 0, 2, 0x80, 0, 1, 1,
      0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 192, 0, 2, 1}},
    {"addEach: AS numbers", [](Serialize& s) { s.addEach(std::span<const Netzo::AutonomousSystem>({65536, 1})); },
     {0, 1, 0, 0, 0, 0, 0, 1}},
    {"addFields: runs and spans among fields",
     [](Serialize& s) {
       const U8 prefix[] = {10, 1, 2};
       s.addFields(U8{24}, Serialize::Octets{prefix, 3}, std::span<const U16>({0x0102, 0x0304}),
                   Serialize::Octets{prefix, 0}, std::span<const U8>(), U8{9});
     },
     {24, 10, 1, 2, 1, 2, 3, 4, 9}},
};

TEST(Serialize, GoldenEncodings) {
  Serialize all;  // every piece again, one after another, each taken back out by its offset
  Kelp::Bytes expected;
  for (const Golden& g : kGolden) {
    Serialize s;
    g.write(s);
    EXPECT_EQ(s.serializedBytes(0), g.octets) << g.name;
    const U32 mark = all.writeOffset();
    g.write(all);
    EXPECT_EQ(all.serializedBytes(mark), g.octets) << g.name;
    expected.insert(expected.end(), g.octets.begin(), g.octets.end());
  }
  EXPECT_EQ(all.serializedBytes(0), expected);
  const Kelp::String text = all.serializedString(0);
  EXPECT_EQ(Kelp::Bytes(text.begin(), text.end()), expected);
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
      {"addData", 7, [&](Serialize& s) { s.addData(run, 7); }},
      {"addIpGenAddr", 16, [](Serialize& s) { s.addIpGenAddr(Netzo::Ip6Addr::fromString("::1")); }},
      {"addFields", 10,
       [](Serialize& s) { s.addFields(U8{0x80}, U8{4}, U8{4}, U32{7}, Serialize::mplsLabelField(MplsLabel(3), true)); }},
      {"addEach", 12, [](Serialize& s) { s.addEach(std::span<const U32>({1u, 2u, 3u})); }},
      {"addFields with a run and a span", 12,
       [&](Serialize& s) { s.addFields(U8{56}, Serialize::Octets{run, 7}, std::span<const U16>({1, 2})); }},
      {"add3octetMplsLabelStack", 6,
       [](Serialize& s) { s.add3octetMplsLabelStack(MplsLabelStack{MplsLabel(16), MplsLabel(17)}); }},
  };
  Kelp::Bytes filler(bgpMaxExtendedMessageSize);
  std::iota(filler.begin(), filler.end(), U8{0});
  for (const Writer& w : writers) {
    SCOPED_TRACE(w.name);
    Serialize s;
    s.addData(filler.data(), bgpMaxExtendedMessageSize - w.width + 1);
    EXPECT_EQ(testing_support::rangeMessage([&] { w.write(s); }), "Serialized bytes exceed bgpMaxExtendedMessageSize");
    EXPECT_EQ(s.writeOffset(), bgpMaxExtendedMessageSize - w.width + 1);
    Serialize fits;
    fits.addData(filler.data(), bgpMaxExtendedMessageSize - w.width);
    w.write(fits);
    EXPECT_EQ(fits.writeOffset(), bgpMaxExtendedMessageSize);
  }

  Serialize full;
  full.addData(filler.data(), bgpMaxExtendedMessageSize);  // the whole message in one add
  volatile U32 huge = 0xFFFFFFFFu;  // volatile: keeps the compiler from flagging the read it cannot see refused
  EXPECT_THROW(full.addData(filler.data(), huge), Kelp::RangeException);  // no wrap-around
  EXPECT_THROW(full.addFields(U8{1}, Serialize::Octets{filler.data(), huge}), Kelp::RangeException);
  EXPECT_EQ(full.serializedBytes(0), filler);  // content intact and usable
  Serialize empty;
  EXPECT_THROW(empty.growBuffer(65536), Kelp::RangeException);
  EXPECT_THROW(empty.reserve(65536), Kelp::RangeException);
  MplsLabelStack tall;
  for (int i = 0; i < 21846; ++i) tall.labelAppend(MplsLabel(16));  // 65538 octets
  EXPECT_THROW(empty.add3octetMplsLabelStack(tall), Kelp::RangeException);
  EXPECT_EQ(empty.writeOffset(), 0u);
}

// Growing in small steps, in one large add or by reserving, and moving from inline storage or from
// the heap, keeps the octets; the moved-from writer is empty and usable.
TEST(Serialize, GrowthAndMovesKeepContent) {
  Serialize s;
  Kelp::Bytes expected;
  for (U32 i = 0; expected.size() < 40000; ++i) {
    s.addU32hton(i);
    for (int k = 3; k >= 0; --k) expected.push_back(static_cast<U8>(i >> (8 * k)));
  }
  EXPECT_EQ(s.serializedBytes(0), expected);
  Serialize big;
  big.addU8(7);
  big.reserve(30000);  // out of the inline storage before the run, which then fits
  EXPECT_EQ(big.capacity(), 30000u);
  const Kelp::Bytes run(20000, 0x5A);
  big.addBytes(run);
  EXPECT_EQ(big.capacity(), 30000u);
  Serialize small;
  small.addU16hton(0xBEEF);
  Serialize fromSmall(std::move(small));
  EXPECT_EQ(fromSmall.serializedBytes(0), (Kelp::Bytes{0xBE, 0xEF}));
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

// Every copy the one-time measurement may choose lands exactly what memmove lands, and nothing
// beside it, whichever this processor picks: lengths around each loop's block sizes and up to a
// whole message, the destination adjacent to the source on either side or a few octets past it
// modulo the page, from an aligned and an odd source.
TEST(Serialize, EveryAliasedRunCopyLandsTheRun) {
  std::vector<U8> pattern(4 * 65536);
  for (std::size_t i = 0; i < pattern.size(); ++i) pattern[i] = static_cast<U8>(i * 131 + i / 4093);
  for (const Serialize::RunCopy& c : Serialize::aliasedRunCopies()) {
    for (std::size_t len : {0, 1, 15, 16, 63, 64, 65, 127, 128, 129, 1023, 1024, 1025, 4095, 4096, 4097, 65535}) {
      const std::size_t pastPages = (len + 4095) / 4096 * 4096;
      for (std::ptrdiff_t at : {std::ptrdiff_t(len), -std::ptrdiff_t(len), std::ptrdiff_t(pastPages + 1),
                                std::ptrdiff_t(pastPages + 16), std::ptrdiff_t(pastPages + 31), std::ptrdiff_t(pastPages + 4095)}) {
        for (std::size_t src : {65536u, 65536u + 7}) {
          std::vector<U8> arena = pattern, expected = pattern;
          std::memmove(expected.data() + src + at, expected.data() + src, len);
          c.copy(arena.data() + src + at, arena.data() + src, len);
          ASSERT_TRUE(arena == expected) << c.name << ": " << len << " octets to " << at << " from " << src;
        }
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

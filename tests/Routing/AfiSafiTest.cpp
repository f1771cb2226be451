#include "platform/Routing/AfiSafi.h"

#include <gtest/gtest.h>

#include "tests/Support/ValueConformance.h"

namespace Routing::Bgp {
namespace {

TEST(AfiSafi, WordLayoutOrderAndText) {
  struct Row {
    AfiSafi afiSafi;
    std::uint32_t word;
    const char* text;
  };
  const Row rows[] = {
      {ipv4UnicastAfiSafi, 0x00010001, "(afiIpv4, safiUnicast)"},
      {ipv6UnicastAfiSafi, 0x00010002, "(afiIpv6, safiUnicast)"},
      {{afiIpv4, safiMplsVpn}, 0x00800001, "(afiIpv4, safiMplsVpn)"},
      {{afiL2vpn, safiEvpn}, 0x00460019, "(afiL2vpn, safiEvpn)"},
      {{static_cast<Afi>(0xFFFF), static_cast<Safi>(300)}, 0x012CFFFF, "(65535, 300)"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(row.afiSafi.value(), row.word) << row.text;
    EXPECT_EQ(AfiSafi::fromValue(row.word), row.afiSafi);
    EXPECT_EQ(row.afiSafi.afi(), static_cast<Afi>(row.word & 0xFFFF));
    EXPECT_EQ(row.afiSafi.safi(), static_cast<Safi>(row.word >> 16));
    EXPECT_EQ(Kelp::valueToStrep(row.afiSafi), row.text);
  }
  // Ordered as words: SAFI first, then AFI.
  EXPECT_LT(ipv4UnicastAfiSafi, ipv6UnicastAfiSafi);
  EXPECT_LT(ipv6UnicastAfiSafi, AfiSafi(afiIpv4, safiMulticast));
  EXPECT_EQ(Kelp::strepToValue<AfiSafi>("(1, 128)"), AfiSafi(afiIpv4, safiMplsVpn));
  EXPECT_THROW(Kelp::strepToValue<AfiSafi>("(afiIpv4)"), Kelp::RangeException);
  EXPECT_THROW(Kelp::strepToValue<AfiSafi>("(afiIpv4, safiNone)"), Kelp::RangeException);
  std::vector<AfiSafi> values;
  for (const Row& row : rows) values.push_back(row.afiSafi);
  testing_support::expectValueConformance<AfiSafi>(values);
}

}  // namespace
}  // namespace Routing::Bgp

#include "platform/Routing/AfiSafi.h"

#include <gtest/gtest.h>

#include <tuple>

#include "tests/Support/ValueConformance.h"

namespace Routing::Bgp {
namespace {

TEST(AfiSafi, WordLayoutOrderAndText) {
  const std::tuple<AfiSafi, std::uint32_t, const char*> rows[] = {
      {ipv4UnicastAfiSafi, 0x00010001, "(afiIpv4, safiUnicast)"},
      {ipv6UnicastAfiSafi, 0x00010002, "(afiIpv6, safiUnicast)"},
      {{afiIpv4, safiMplsVpn}, 0x00800001, "(afiIpv4, safiMplsVpn)"},
      {{afiL2vpn, safiEvpn}, 0x00460019, "(afiL2vpn, safiEvpn)"},
      {{static_cast<Afi>(0xFFFF), static_cast<Safi>(300)}, 0x012CFFFF, "(65535, 300)"},
  };
  std::vector<AfiSafi> values;
  for (const auto& [afiSafi, word, text] : rows) {
    EXPECT_EQ(std::tuple(afiSafi.value(), afiSafi.afi(), afiSafi.safi(), Kelp::valueToStrep(afiSafi)),
              std::tuple(word, static_cast<Afi>(word & 0xFFFF), static_cast<Safi>(word >> 16), text));
    EXPECT_EQ(AfiSafi::fromValue(word), afiSafi);
    values.push_back(afiSafi);
  }
  testing_support::expectValueConformance<AfiSafi>(values);
  // Ordered as words: SAFI first, then AFI.
  EXPECT_LT(ipv4UnicastAfiSafi, ipv6UnicastAfiSafi);
  EXPECT_LT(ipv6UnicastAfiSafi, AfiSafi(afiIpv4, safiMulticast));
  EXPECT_EQ(Kelp::strepToValue<AfiSafi>("(1, 128)"), AfiSafi(afiIpv4, safiMplsVpn));
  EXPECT_THROW(Kelp::strepToValue<AfiSafi>("(afiIpv4)"), Kelp::RangeException);
  EXPECT_THROW(Kelp::strepToValue<AfiSafi>("(afiIpv4, safiNone)"), Kelp::RangeException);
}

}  // namespace
}  // namespace Routing::Bgp

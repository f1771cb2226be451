#include "BgpCommon/BgpMessage.h"

#include <gtest/gtest.h>

#include <fmt/format.h>

#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "BgpCommon/BgpMrt.h"
#include "tests/Support/ValueConformance.h"

namespace {

using namespace Routing::Bgp;
using Octets = std::vector<U8>;

// "40 01 01 00" -> octets; blanks are ignored.
Octets hex(std::string_view text) {
  Octets out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == ' ') continue;
    out.push_back(static_cast<U8>(std::stoul(std::string(text.substr(i, 2)), nullptr, 16)));
    ++i;
  }
  return out;
}
// A whole message of `type` around `body` (hex).
Octets message(U8 type, std::string_view body) {
  Octets m(16, 0xFF);
  const Octets b = hex(body);
  const std::size_t length = 19 + b.size();
  m.insert(m.end(), {U8(length >> 8), U8(length), type});
  m.insert(m.end(), b.begin(), b.end());
  return m;
}
// An UPDATE: withdrawn routes, path attributes, NLRI (each hex), the lengths filled in.
Octets update(std::string_view attributes, std::string_view nlri = "", std::string_view withdrawn = "") {
  auto len16 = [](std::string_view h) {
    const std::size_t n = hex(h).size();
    return fmt::format("{:02x}{:02x}", n >> 8, n & 0xFF);
  };
  return message(2, len16(withdrawn) + std::string(withdrawn) + len16(attributes) + std::string(attributes) +
                        std::string(nlri));
}

Octets written(const Update& u, const SessionOptions& o) {
  Serialize s;
  writeUpdate(s, u, o);
  return Octets(s.data(), s.data() + s.writeOffset());
}

std::string text(const AsPath& p) {
  std::string out;
  std::size_t next = 0;
  for (const AsPath::Segment& s : p.segments) {
    const bool set = s.type == AsPath::asSet || s.type == AsPath::asConfedSet;
    out += out.empty() ? "" : " ";
    out += s.type >= AsPath::asConfedSequence ? "(" : set ? "{" : "";
    for (std::size_t i = next; i < next + s.count; ++i) out += (i > next ? " " : "") + p.asns[i].stringValue();
    out += s.type >= AsPath::asConfedSequence ? ")" : set ? "}" : "";
    next += s.count;
  }
  return out;
}

SessionOptions twoOctet() {
  SessionOptions o;
  o.fourOctetAs = false;
  return o;
}

const std::string kOriginAsPathNextHop = "40 01 01 00  40 02 06 02 01 00 00 fd e8  40 03 04 c0 00 02 01";

// Every attribute set of the RouteViews dumps that python3-pyasn ships, as the MRT reader finds
// them: TABLE_DUMP (two-octet AS), TABLE_DUMP_V2 (four-octet, MP_REACH_NLRI abbreviated), IPv6.
TEST(BgpMessage, EveryAttributeSetOfTheRouteViewsDumpsWritesBackTheSameOctets) {
  struct RoundTrip : MrtVisitor {
    std::string name;
    std::size_t sets = 0, errors = 0, differences = 0, withMpReach = 0;
    void route(const MrtRoute& r) override {
      ++sets;
      Serialize out;
      writePathAttributes(out, *r.attributes, *r.options);
      if (!std::equal(r.attributeOctets.begin(), r.attributeOctets.end(), out.data(), out.data() + out.writeOffset()) &&
          differences++ < 5) {
        ADD_FAILURE() << name << " set " << sets << " written back differently";
      }
      withMpReach += r.attributes->mpReach.present;
    }
    void damage(const MrtDamage& d) override {
      // The files are the first megabyte of larger ones: the last record is cut short.
      if (d.stopsReading) return;
      if (errors++ < 5) ADD_FAILURE() << name << ": " << d;
    }
  } check;
  for (const char* name : {"rib.20080501.0644_firstMB.bz2", "rib.20140523.0600_firstMB.bz2",
                           "rib6.20151101.0600_firstMB.bz2"}) {
    check.name = name;
    const std::string path = std::string("/usr/lib/python3/dist-packages/data/") + name;
    ASSERT_EQ(access(path.c_str(), R_OK), 0) << path << " (scripts/setup installs python3-pyasn)";
    MrtFile file(path);
    MrtDecoder decoder;
    readMrt(file, decoder, check);
  }
  EXPECT_EQ(check.errors, 0u);
  EXPECT_EQ(check.differences, 0u);
  // Every route of the three files (bgpdump -m prints as many lines); the IPv6 dump's carry
  // MP_REACH_NLRI, whole rather than abbreviated.
  EXPECT_EQ(check.sets, 558874u);
  EXPECT_EQ(check.withMpReach, 149578u);
}

// Hand-made UPDATEs: each reads without error into the values checked, and writes back the same.
struct GoodRow {
  const char* name;
  Octets octets;
  SessionOptions options;
  std::function<void(const Update&)> check;
};

TEST(BgpMessage, HandMadeUpdatesReadAsBuiltAndWriteBackTheSameOctets) {
  SessionOptions addPath;
  addPath.addPath.add(ipv4UnicastAfiSafi);
  addPath.addPath.add(AfiSafi(afiIpv6, safiMplsLabel));
  SessionOptions mrt;
  mrt.mrtAbbreviatedMpReach = ipv6UnicastAfiSafi;
  const GoodRow rows[] = {
      {"MRT's abbreviated MP_REACH_NLRI: next-hop length and next hop only",
       update("40 01 01 00 40 02 00 80 0e 11 10 20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 01"), mrt,
       [](const Update& u) {
         EXPECT_TRUE(u.attributes.mpReach->abbreviated);
         EXPECT_EQ(u.attributes.mpReach->afiSafi, ipv6UnicastAfiSafi);
         EXPECT_EQ(u.attributes.mpReach->nextHop.stringValue(), "2001:db8::1");
       }},
      {"mandatory three, one NLRI", update(kOriginAsPathNextHop, "18 0a 01 02"), {},
       [](const Update& u) {
         EXPECT_EQ(*u.attributes.origin, Origin::igp);
         EXPECT_EQ(text(*u.attributes.asPath), "65000");
         EXPECT_EQ(*u.attributes.nextHop, Netzo::IpAddr(192, 0, 2, 1));
         ASSERT_EQ(u.nlri.size(), 1u);
         EXPECT_EQ(u.nlri.begin()->prefix, Netzo::IpGenPrefix::fromString("10.1.2.0/24"));
       }},
      {"every flag form: extended length ORIGIN, partial bit, unused low bits kept",
       update("50 01 00 01 02  40 02 00  4f 03 04 0a 00 00 01", "00"), {},
       [](const Update& u) {
         EXPECT_EQ(*u.attributes.origin, Origin::incomplete);
         EXPECT_EQ(u.attributes.origin.flags, 0x50);
         EXPECT_EQ(u.attributes.nextHop.flags, 0x4f);
         EXPECT_TRUE(u.attributes.asPath->asns.empty());
       }},
      {"two-octet AS_PATH with a set, AGGREGATOR of six octets, ATOMIC_AGGREGATE",
       update("40 01 01 01  40 02 0a 02 02 00 01 00 02 01 01 00 03  40 03 04 0a 00 00 01  40 06 00 "
              "c0 07 06 5b a0 0a 00 00 09", "08 0a"),
       twoOctet(),
       [](const Update& u) {
         EXPECT_EQ(text(*u.attributes.asPath), "1 2 {3}");
         EXPECT_EQ(u.attributes.asPath->pathLength(), 3u);
         EXPECT_TRUE(u.attributes.atomicAggregate);
         EXPECT_EQ(u.attributes.aggregator->asn, Netzo::AutonomousSystem(23456));
       }},
      {"MED, LOCAL_PREF, COMMUNITIES, ORIGINATOR_ID, CLUSTER_LIST, extended and large communities",
       update(kOriginAsPathNextHop +
                  " 80 04 04 00 00 00 32  40 05 04 00 00 00 64  c0 08 08 fd e8 00 01 ff ff ff 01"
                  " 80 09 04 0a 00 00 09  80 0a 08 0a 00 00 0a 0a 00 00 0b"
                  " c0 10 10 00 02 fd e8 00 00 00 05 03 0c 00 00 00 00 00 08"
                  " c0 20 0c 00 01 11 70 00 00 00 01 00 00 00 02",
              "20 c6 33 64 01"),
       {},
       [](const Update& u) {
         EXPECT_EQ(*u.attributes.multiExitDisc, 50u);
         EXPECT_EQ(*u.attributes.localPref, 100u);
         EXPECT_EQ(u.attributes.communities->at(1), 0xFFFFFF01u);  // NO_EXPORT
         EXPECT_EQ(u.attributes.clusterList->size(), 2u);
         const auto& ext = *u.attributes.extendedCommunities;
         EXPECT_EQ(ext[0].toStrep(false), "65000:5");
         EXPECT_FALSE(ext[1].extCommValueIsValidRouteTarget());  // an encapsulation community, kept
         EXPECT_EQ(u.attributes.largeCommunities->at(0), (LargeCommunity{70000, 1, 2}));
       }},
      {"MP_REACH_NLRI IPv6 with link-local next hop, MP_UNREACH_NLRI IPv6, unknown optional kept",
       update("40 01 01 00 40 02 00"
              " 80 0e 2c 00 02 01 20 20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 01"
              " fe 80 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 30 20 01 0d b8 00 01"
              " 80 0f 08 00 02 01 20 20 01 0d b8"
              " e0 63 03 aa bb cc"),
       {},
       [](const Update& u) {
         const MpReach& r = *u.attributes.mpReach;
         EXPECT_EQ(r.nextHop.stringValue(), "2001:db8::1");
         EXPECT_EQ(r.linkLocalNextHop.stringValue(), "fe80::1");
         ASSERT_EQ(r.nlri.size(), 1u);
         EXPECT_EQ(r.nlri.begin()->prefix.stringValue(), "2001:db8:1::/48");
         EXPECT_EQ(u.attributes.mpUnreach->withdrawn.begin()->prefix.stringValue(), "2001:db8::/32");
         ASSERT_EQ(u.attributes.unknown.size(), 1u);
         EXPECT_EQ(u.attributes.unknown[0].flags, 0xe0);
       }},
      {"add-path IPv4 NLRI and withdrawn; labelled IPv6 with two labels and a path identifier, and withdrawn",
       update("40 01 01 00 40 02 00 40 03 04 0a 00 00 01"
              " 80 0e 24 00 02 04 10 20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 01 00"
              " 00 00 00 07 50 00 10 00 00 10 11 20 01 0d b8"
              " 80 0f 0f 00 02 04 00 00 00 09 38 80 00 00 20 01 0d b8",
              "00 00 00 02 10 0a 01", "00 00 00 01 08 0b"),
       addPath,
       [](const Update& u) {
         EXPECT_EQ(u.nlri.begin()->pathId, 2u);
         EXPECT_EQ(u.withdrawn.begin()->prefix.stringValue(), "11.0.0.0/8");
         const NlriEntry e = *u.attributes.mpReach->nlri.begin();
         EXPECT_EQ(e.pathId, 7u);
         EXPECT_EQ(e.prefix.stringValue(), "2001:db8::/32");
         EXPECT_EQ(e.labelStack().stringValue(), "[256:0:0:0, 257:0:1:0]");
         Netzo::MplsLabelStack stack;
         Deserialize labels(e.labelFields);
         ASSERT_TRUE(labels.readMplsLabelStack(stack));
         EXPECT_EQ(stack, e.labelStack());
         // A labelled withdrawal carries one label field, 0x800000 here, whatever its S bit.
         const NlriEntry w = *u.attributes.mpUnreach->withdrawn.begin();
         EXPECT_EQ(w.prefix.stringValue(), "2001:db8::/32");
         EXPECT_EQ(w.labelField(0), 0x800000u);
       }},
  };
  for (const GoodRow& row : rows) {
    SCOPED_TRACE(row.name);
    Update u;
    EXPECT_EQ(readUpdate(row.octets, row.options, u), ReadError{});
    row.check(u);
    EXPECT_EQ(written(u, row.options), row.octets);
  }
}

TEST(BgpMessage, ChangingOneAttributeWritesTheRestAsRead) {
  const Octets in = update(kOriginAsPathNextHop + " 80 04 04 00 00 00 32", "18 0a 01 02");
  Update u;
  ASSERT_FALSE(readUpdate(in, {}, u));
  u.attributes.multiExitDisc.set(0x1234);
  u.attributes.localPref.set(200);  // not read: written after the others with its usual flags
  EXPECT_EQ(written(u, {}), update(kOriginAsPathNextHop + " 80 04 04 00 00 12 34 40 05 04 00 00 00 c8", "18 0a 01 02"));

  // Too long for a session without extended messages: refused, and what the buffer held before
  // stands as it was, whether the message limit or the buffer's own 65535 octets is what stops it.
  for (std::size_t communities : {1100u, 17000u}) {
    u.attributes.communities.set(absl::InlinedVector<U32, 16>(communities, 0xFDE80001));
    Serialize s;
    s.addU16hton(0xABCD);
    EXPECT_THROW(writeUpdate(s, u, {}), Kelp::RangeException) << communities;
    if (communities * 4 > 0xFFFF) EXPECT_THROW(writePathAttributes(s, u.attributes, {}), Kelp::RangeException);
    EXPECT_EQ(s.serializedBytes(0), Kelp::Bytes({0xAB, 0xCD})) << communities;
  }
}

// Lengths that one octet carries: up to 255 is written (and reads back), past it the write is
// refused with nothing written, not wrapped into a length that announces something else.
TEST(BgpMessage, LengthsPastTheirOctetAreRefused) {
  const Octets x(300, 0x5A);
  auto labelled = [](const char* prefix, U32 labels) {
    static Octets fields;
    fields.clear();
    for (U32 i = 0; i < labels; ++i) fields.insert(fields.end(), {0x00, 0x10, U8(i + 1 == labels ? 0x01 : 0x00)});
    NlriEntry e;
    e.prefix = Netzo::IpGenPrefix::fromString(prefix);
    e.labelFields = fields;
    return e;
  };
  auto open = [](std::vector<Capability> capabilities, std::size_t addPaths) {
    Open o;
    o.capabilities.assign(capabilities.begin(), capabilities.end());
    o.addPath.assign(addPaths, AddPathCapability{ipv4UnicastAfiSafi, 3});
    return o;
  };
  struct Row {
    const char* name;
    std::function<void(Serialize&)> write;
    std::string refused;  // empty: written
  };
  const Row rows[] = {
      {"labelled /24, 9 labels: 240 bits", [&](Serialize& s) { writeNlri(s, labelled("10.1.2.0/24", 9), false, true); }, ""},
      {"labelled /24, 10 labels", [&](Serialize& s) { writeNlri(s, labelled("10.1.2.0/24", 10), true, true); },
       "NLRI 10.1.2.0/24 with 10 label fields, in bits: 264, above the 255 one length octet holds"},
      {"labelled /128, 6 labels", [&](Serialize& s) { writeNlri(s, labelled("2001:db8::1/128", 6), false, true); },
       "NLRI 2001:db8::1/128 with 6 label fields, in bits: 272, above the 255 one length octet holds"},
      {"capability of 251 octets: optional parameters of 255",
       [&](Serialize& s) { writeOpen(s, open({{99, 0, std::span(x).first(251)}}, 0)); }, ""},
      {"capability of 252 octets", [&](Serialize& s) { writeOpen(s, open({{99, 0, std::span(x).first(252)}}, 0)); },
       "OPEN optional parameters, in octets: 256, above the 255 one length octet holds"},
      {"capability of 256 octets", [&](Serialize& s) { writeOpen(s, open({{99, 0, std::span(x).first(256)}}, 0)); },
       "OPEN capability 99, in octets: 256, above the 255 one length octet holds"},
      {"two capabilities in one parameter",
       [&](Serialize& s) { writeOpen(s, open({{98, 0, std::span(x).first(200)}, {99, 0, std::span(x).first(60)}}, 0)); },
       "OPEN capabilities parameter, in octets: 264, above the 255 one length octet holds"},
      {"64 add-path families", [&](Serialize& s) { writeOpen(s, open({}, 64)); },
       "OPEN add-path capability, in octets: 256, above the 255 one length octet holds"},
      {"next hop of 256 octets",
       [&](Serialize& s) {
         Update u;
         u.attributes.mpReach.set(MpReach{.afiSafi = AfiSafi(Afi{25}, Safi{65}), .nextHopOctets = std::span(x).first(256)});
         writeUpdate(s, u, {});
       },
       "MP_REACH_NLRI next hop, in octets: 256, above the 255 one length octet holds"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Serialize s;
    s.addU8(0xAB);
    EXPECT_EQ(testing_support::rangeMessage([&] { row.write(s); }), row.refused.empty() ? "(accepted)" : row.refused);
    EXPECT_EQ(s.writeOffset() == 1, !row.refused.empty());
  }
  // What fits reads back as written.
  Serialize s;
  writeNlri(s, labelled("2001:db8::1/128", 5), false, true);
  const NlriList list(std::span(s.data(), s.writeOffset()), AfiSafi(afiIpv6, safiMplsLabel), false);
  ASSERT_NE(list.begin(), list.end());
  EXPECT_EQ(*list.begin(), labelled("2001:db8::1/128", 5));
  Serialize o;
  writeOpen(o, open({{99, 0, std::span(x).first(251)}}, 0));
  Open back;
  ASSERT_FALSE(readOpen(std::span(o.data(), o.writeOffset()), back));
  EXPECT_TRUE(std::ranges::equal(back.capabilities.at(0).value, std::span(x).first(251)));
}

// Malformed UPDATEs: the rule, the RFC 7606 action and the offset of the field at fault.
struct BadRow {
  const char* name;
  Octets octets;
  ReadRule rule;
  ErrorAction action;
  U32 offset;
};

TEST(BgpMessage, MalformedMessagesGiveTheRuleTheActionAndTheOffset) {
  Octets badMarker = update(kOriginAsPathNextHop);
  badMarker[3] = 0;
  Octets shortHeader = message(4, "");
  shortHeader.pop_back();
  const BadRow rows[] = {
      {"header cut short", shortHeader, ReadRule::truncated, ErrorAction::sessionReset, 0},
      {"marker not all ones", badMarker, ReadRule::badMarker, ErrorAction::sessionReset, 0},
      {"KEEPALIVE with a body", message(4, "00"), ReadRule::badMessageLength, ErrorAction::sessionReset, 16},
      {"type 6", message(6, ""), ReadRule::badMessageType, ErrorAction::sessionReset, 18},
      {"withdrawn length past the message", message(2, "00 09 00 00"), ReadRule::badWithdrawnLength,
       ErrorAction::sessionReset, 19},
      {"attribute length past the message", message(2, "00 00 00 20 40 01 01 00"), ReadRule::badAttributesLength,
       ErrorAction::sessionReset, 21},
      {"truncated prefix in the NLRI", update(kOriginAsPathNextHop, "18 0a 01"), ReadRule::truncated,
       ErrorAction::sessionReset, 43},
      {"prefix longer than 32", update(kOriginAsPathNextHop, "21 0a 01 02 03 04"), ReadRule::badPrefixLength,
       ErrorAction::sessionReset, 43},
      {"attribute running past the path attributes", update("40 01 01 00 40 02 09 02 01 00 00"),
       ReadRule::attributePastEnd, ErrorAction::treatAsWithdraw, 27},
      {"ORIGIN flagged optional", update("c0 01 01 00 40 02 00 40 03 04 0a 00 00 01", "08 0a"),
       ReadRule::badAttributeFlags, ErrorAction::treatAsWithdraw, 23},
      {"AGGREGATOR flagged well-known: discarded", update(kOriginAsPathNextHop + " 40 07 08 00 00 00 01 0a 00 00 01"),
       ReadRule::badAttributeFlags, ErrorAction::attributeDiscard, 43},
      {"ORIGIN value 3", update("40 01 01 03 40 02 00"), ReadRule::badOrigin, ErrorAction::treatAsWithdraw, 26},
      {"NEXT_HOP of five octets", update("40 01 01 00 40 02 00 40 03 05 0a 00 00 01 00"), ReadRule::badAttributeLength,
       ErrorAction::treatAsWithdraw, 32},
      {"AS_PATH segment past its attribute", update("40 01 01 00 40 02 06 02 02 00 00 fd e8"),
       ReadRule::badAsPathSegment, ErrorAction::treatAsWithdraw, 30},
      {"AS_PATH segment of length zero", update("40 01 01 00 40 02 02 02 00"), ReadRule::badAsPathSegment,
       ErrorAction::treatAsWithdraw, 30},
      {"COMMUNITIES of six octets", update(kOriginAsPathNextHop + " c0 08 06 00 01 00 02 00 03"),
       ReadRule::badAttributeLength, ErrorAction::treatAsWithdraw, 45},
      {"ATOMIC_AGGREGATE with a value: discarded", update(kOriginAsPathNextHop + " 40 06 01 00"),
       ReadRule::badAttributeLength, ErrorAction::attributeDiscard, 45},
      {"MP_REACH_NLRI flagged transitive", update("c0 0e 03 00 02 01"), ReadRule::badAttributeFlags,
       ErrorAction::afiSafiDisable, 23},
      {"AS4_PATH malformed: discarded", update(kOriginAsPathNextHop + " c0 11 03 02 01 00"),
       ReadRule::badAsPathSegment, ErrorAction::attributeDiscard, 46},
      {"duplicate MED: the second discarded", update(kOriginAsPathNextHop + " 80 04 04 00 00 00 01 80 04 04 00 00 00 02"),
       ReadRule::duplicateAttribute, ErrorAction::attributeDiscard, 50},
      {"duplicate MP_UNREACH_NLRI", update("80 0f 03 00 02 01 80 0f 03 00 02 01"), ReadRule::duplicateAttribute,
       ErrorAction::sessionReset, 29},
      {"NLRI without NEXT_HOP", update("40 01 01 00 40 02 00", "08 0a"), ReadRule::missingMandatory,
       ErrorAction::treatAsWithdraw, 21},
      {"MP_REACH_NLRI with a 5-octet IPv6 next hop", update("40 01 01 00 40 02 00 80 0e 0a 00 02 01 05 00 00 00 00 00 00"),
       ReadRule::badNextHop, ErrorAction::afiSafiDisable, 36},
      {"MP_UNREACH_NLRI with a bad prefix", update("80 0f 05 00 02 01 81 00"), ReadRule::badPrefixLength,
       ErrorAction::afiSafiDisable, 29},
      {"unknown well-known attribute", update("40 01 01 00 40 02 00 40 63 00"), ReadRule::unknownWellKnown,
       ErrorAction::sessionReset, 30},
  };
  for (const BadRow& row : rows) {
    SCOPED_TRACE(row.name);
    Message m;
    const ReadError e = readMessage(row.octets, {}, m);
    EXPECT_EQ(e.rule, row.rule) << e;
    EXPECT_EQ(e.action, row.action) << e;
    EXPECT_EQ(e.offset, row.offset) << e;
  }
}

TEST(BgpMessage, As4PathAndAs4AggregatorMergeAsRfc6793Says) {
  struct Row {
    const char* name;
    std::string as4;          // AS4_PATH and AS4_AGGREGATOR attributes (hex)
    std::string aggregator;   // AGGREGATOR (hex)
    bool fourOctetSession;
    const char* merged;
    U32 aggregatorAs;
  };
  // AS_PATH: 100 23456 23456 {300}, two-octet.
  const std::string asPath = "40 02 0c 02 03 00 64 5b a0 5b a0 01 01 01 2c";
  const Row rows[] = {
      {"AS4_PATH replaces the trailing numbers", "c0 11 10 02 02 00 01 11 70 00 01 11 71 01 01 00 00 01 2c", "",
       false, "100 70000 70001 {300}", 0},
      {"AS4_PATH longer than AS_PATH is ignored", "c0 11 18 02 04 00 00 00 01 00 00 00 02 00 00 00 03 00 00 00 04 01 01 00 00 00 05",
       "", false, "100 23456 23456 {300}", 0},
      {"AGGREGATOR of a real AS: AS4 attributes ignored",
       "c0 11 06 02 01 00 01 11 70 c0 12 08 00 01 11 70 0a 00 00 01", "c0 07 06 00 07 0a 00 00 01", false,
       "100 23456 23456 {300}", 7},
      {"AGGREGATOR of AS_TRANS: AS4_AGGREGATOR in its place",
       "c0 11 06 02 01 00 01 11 70 c0 12 08 00 01 11 70 0a 00 00 01", "c0 07 06 5b a0 0a 00 00 01", false,
       "100 23456 23456 70000", 70000},
      {"four-octet session: AS4_PATH is not merged", "c0 11 06 02 01 00 01 11 70", "", true, nullptr, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    SessionOptions o;
    o.fourOctetAs = row.fourOctetSession;
    const std::string path = row.fourOctetSession ? "40 02 06 02 01 00 00 00 64" : asPath;
    const Octets in = update("40 01 01 00 " + path + " 40 03 04 0a 00 00 01 " + row.aggregator + row.as4, "08 0a");
    Update u;
    ASSERT_FALSE(readUpdate(in, o, u));
    EXPECT_EQ(text(u.attributes.fullAsPath(o)), row.merged ? row.merged : text(*u.attributes.asPath));
    if (row.aggregatorAs != 0) EXPECT_EQ(u.attributes.fullAggregator(o)->asn.value(), row.aggregatorAs);
    EXPECT_EQ(written(u, o), in);
  }
}

TEST(BgpMessage, OpenNotificationKeepaliveRouteRefreshRoundTrip) {
  // OPEN: AS 23456, hold 90, id 10.0.0.1; capabilities in two parameters: multiprotocol IPv6
  // unicast, route refresh, four-octet AS 70000 | add-path IPv4 unicast both, extended message,
  // an unknown capability 64 kept raw.
  const Octets open = message(1, "04 5b a0 00 5a 0a 00 00 01 1e 02 0e 01 04 00 02 00 01 02 00 41 04 00 01 11 70"
                                 " 02 0c 45 04 00 01 01 03 06 00 40 02 ab cd");
  const Octets messages[] = {open, message(3, "06 02 aa"), message(4, ""), message(5, "00 02 00 01")};
  for (const Octets& octets : messages) {
    Message m;
    ASSERT_FALSE(readMessage(octets, {}, m));
    Serialize s;
    writeMessage(s, m, {});
    EXPECT_EQ(Octets(s.data(), s.data() + s.writeOffset()), octets);
  }
  Open o;
  ASSERT_FALSE(readOpen(open, o));
  EXPECT_EQ(o.autonomousSystem(), Netzo::AutonomousSystem(70000));
  EXPECT_EQ(o.multiprotocol, (absl::InlinedVector<AfiSafi, 4>{ipv6UnicastAfiSafi}));
  EXPECT_EQ(o.addPath.at(0), (AddPathCapability{ipv4UnicastAfiSafi, 3}));
  EXPECT_TRUE(o.routeRefresh && o.extendedMessage && !o.enhancedRouteRefresh);
  EXPECT_EQ(o.capabilities.back().code, 64);
  // The typed fields alone write the capabilities in one parameter; they read back the same.
  o.capabilities.clear();
  Serialize s;
  writeOpen(s, o);
  Open back;
  ASSERT_FALSE(readOpen(std::span(s.data(), s.writeOffset()), back));
  EXPECT_EQ(back.addPath, o.addPath);
  EXPECT_EQ(back.fourOctetAs, o.fourOctetAs);
  EXPECT_EQ(back.capabilities.size(), 5u);
}

}  // namespace

#pragma once
// Per-neighbour BGP settings as the routing configuration library stores them.
//
// The configuration readers fill these in from the operator's configuration; the agent reads them,
// usually through a tristate wrapper (BgpCommon/TristateTypes.h) that also says whether the setting
// was configured at a given level. Each is a small described value type or enumeration, so it
// prints and parses its long text form:
//   Value('Routing::Bgp::LocalAs', ** {'asn': 65001, 'noPrepend': True, 'replaceAs': False})
//   Value('Routing::Bgp::BgpTcpAuthKey', ** {'type': md5, 'secret': 'it\'s', 'keyChain': '', 'keyId': 0})
//   softReconfigKeepAll                                  (an enumeration: its enumerator name)
// Text fields print single-quoted with backslash escapes, so any byte string (quotes, backslashes,
// braces, non-ASCII bytes) survives print then parse. An enumeration value without a name prints as
// its number and parses back. None of these types is hashable. All default to zero, false and empty
// texts, except AsnOrPeerFilter, whose kind defaults to a single AS number.

#include <cstdint>
#include <utility>

#include "platform/Kelp/ValueType.h"

namespace Routing::Bgp {

// ---- Enumerations ---------------------------------------------------------------------------

// RFC 8950 extended next hop: whether the capability that lets IPv4 NLRI carry an IPv6 next hop
// is advertised to the neighbour.
KELP_ENUM(enum class, ExtendedNextHopCapability, std::uint8_t, "Routing::Bgp::ExtendedNextHopCapability", named,
          extendedNextHopDisabled = 0,  // not advertised; IPv4 routes need an IPv4 next hop
          extendedNextHopEnabled = 1)   // advertised for IPv4 unicast with an IPv6 next hop

// RFC 4456 route reflection: whether the neighbour is a client of this route reflector. Routes
// from a client are reflected to the other clients, unless the clients are fully meshed among
// themselves already (meshedClient), in which case they are reflected to non-clients only.
// Stored in 32 bits, as the configuration library keeps it.
KELP_ENUM(enum class, ReflectorClient, std::uint32_t, "Routing::Bgp::ReflectorClient", named,
          notClient = 0,
          client = 1,
          meshedClient = 2)

// Which received paths are kept in the neighbour's Adj-RIB-In so that a change of inbound policy
// can be applied without asking the neighbour for a route refresh (RFC 2918).
KELP_ENUM(enum class, SoftReconfigInboundState, std::uint8_t, "Routing::Bgp::SoftReconfigInboundState", named,
          softReconfigKeepAccepted = 0,  // paths the inbound policy accepted; rejected ones need a refresh
          softReconfigKeepAll = 1,       // every received path, rejected ones too
          softReconfigKeepNone = 2)      // nothing beyond the Loc-RIB; every policy change needs a refresh

// What happens to routes when the policy a neighbour refers to is missing or matches nothing.
// RFC 8212 asks that EBGP sessions exchange nothing without a policy, hence an explicit deny.
KELP_ENUM(enum class, PolicyActionType, std::uint8_t, "Routing::Bgp::PolicyActionType", named,
          policyActionUnspecified = 0,  // the built-in behaviour of the session type
          policyActionPermit = 1,
          policyActionDeny = 2)

// ---- Value types ----------------------------------------------------------------------------

// RFC 5082 generalized TTL security: the neighbour may be at most `hops` hops away, so only
// packets arriving with TTL >= 255 - hops are accepted. 254 is the widest setting (any TTL from 1
// up); 0 leaves the check off.
struct TtlSecurityMaxHopValue : Kelp::ValueBase<TtlSecurityMaxHopValue> {
  std::uint8_t hops = 0;

  constexpr TtlSecurityMaxHopValue() = default;
  constexpr explicit TtlSecurityMaxHopValue(std::uint8_t h) : hops(h) {}
  explicit TtlSecurityMaxHopValue(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }

  friend constexpr auto kelpType(Kelp::Tag<TtlSecurityMaxHopValue>) {
    return Kelp::valueType<TtlSecurityMaxHopValue>("Routing::Bgp::TtlSecurityMaxHopValue",
                                                    Kelp::field("hops", &TtlSecurityMaxHopValue::hops));
  }
};

// Private AS numbers (RFC 6996: 64512-65534 and 4200000000-4294967294) stripped from the AS_PATH
// of routes sent to an EBGP neighbour.
struct RemovePrivateAs : Kelp::ValueBase<RemovePrivateAs> {
  bool enabled = false;    // strip leading private ASNs when the path holds no public one
  bool all = false;        // strip every private ASN, even with public ASNs in the path
  bool replaceAs = false;  // replace them by the local AS instead, keeping the path length

  constexpr RemovePrivateAs() = default;
  constexpr RemovePrivateAs(bool e, bool a, bool r) : enabled(e), all(a), replaceAs(r) {}
  explicit RemovePrivateAs(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }

  friend constexpr auto kelpType(Kelp::Tag<RemovePrivateAs>) {
    return Kelp::valueType<RemovePrivateAs>("Routing::Bgp::RemovePrivateAs",
                                            Kelp::field("enabled", &RemovePrivateAs::enabled),
                                            Kelp::field("all", &RemovePrivateAs::all),
                                            Kelp::field("replaceAs", &RemovePrivateAs::replaceAs));
  }
};

// The AS number presented to one neighbour instead of the instance's own, typically while an AS
// is being migrated. asn 0 means not configured.
struct LocalAs : Kelp::ValueBase<LocalAs> {
  std::uint32_t asn = 0;
  bool noPrepend = false;  // do not prepend `asn` to the paths received from the neighbour
  bool replaceAs = false;  // on paths sent to the neighbour, put `asn` in place of the real AS
                           // rather than in front of it

  constexpr LocalAs() = default;
  constexpr LocalAs(std::uint32_t a, bool np, bool r) : asn(a), noPrepend(np), replaceAs(r) {}
  explicit LocalAs(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }

  friend constexpr auto kelpType(Kelp::Tag<LocalAs>) {
    return Kelp::valueType<LocalAs>("Routing::Bgp::LocalAs", Kelp::field("asn", &LocalAs::asn),
                                    Kelp::field("noPrepend", &LocalAs::noPrepend),
                                    Kelp::field("replaceAs", &LocalAs::replaceAs));
  }
};

// The remote AS of a neighbour (or of a range of dynamic neighbours): either one AS number, or
// the name of a peer filter that decides which AS numbers are accepted.
struct AsnOrPeerFilter : Kelp::ValueBase<AsnOrPeerFilter> {
  KELP_MEMBER_ENUM(enum class, Type, std::uint8_t, "Routing::Bgp::AsnOrPeerFilter::Type", named,
                   unknown = 0,     // never configured
                   asn = 1,         // `asn` holds the remote AS
                   peerFilter = 2)  // `peerFilter` names the filter

  Type type = Type::asn;  // a plain remote AS is by far the common case
  std::uint32_t asn = 0;
  Kelp::String peerFilter;

  AsnOrPeerFilter() = default;
  AsnOrPeerFilter(Type t, std::uint32_t a, Kelp::String filter) : type(t), asn(a), peerFilter(std::move(filter)) {}
  explicit AsnOrPeerFilter(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }

  friend constexpr auto kelpType(Kelp::Tag<AsnOrPeerFilter>) {
    return Kelp::valueType<AsnOrPeerFilter>("Routing::Bgp::AsnOrPeerFilter",
                                            Kelp::field("type", &AsnOrPeerFilter::type),
                                            Kelp::field("asn", &AsnOrPeerFilter::asn),
                                            Kelp::field("peerFilter", &AsnOrPeerFilter::peerFilter));
  }
};

// Authentication of the neighbour's TCP session: the MD5 signature option (RFC 2385) with a
// shared secret, or TCP-AO (RFC 5925) with a key chain and the KeyID of the key to send with.
// The secret is held as configured; printing does not mask it.
struct BgpTcpAuthKey : Kelp::ValueBase<BgpTcpAuthKey> {
  KELP_MEMBER_ENUM(enum class, Type, std::uint8_t, "Routing::Bgp::BgpTcpAuthKey::Type", named,
                   none = 0,
                   md5 = 1,
                   tcpAo = 2)

  Type type = Type::none;
  Kelp::String secret;     // md5: the shared secret, as configured
  Kelp::String keyChain;   // tcpAo: the key chain holding the master key tuples
  std::uint8_t keyId = 0;  // tcpAo: the SendID of the key in use (RFC 5925, section 3.1)

  BgpTcpAuthKey() = default;
  BgpTcpAuthKey(Type t, Kelp::String s, Kelp::String chain, std::uint8_t id)
      : type(t), secret(std::move(s)), keyChain(std::move(chain)), keyId(id) {}
  explicit BgpTcpAuthKey(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }

  friend constexpr auto kelpType(Kelp::Tag<BgpTcpAuthKey>) {
    return Kelp::valueType<BgpTcpAuthKey>(
        "Routing::Bgp::BgpTcpAuthKey", Kelp::field("type", &BgpTcpAuthKey::type),
        Kelp::field("secret", &BgpTcpAuthKey::secret), Kelp::field("keyChain", &BgpTcpAuthKey::keyChain),
        Kelp::field("keyId", &BgpTcpAuthKey::keyId));
  }
};

// RFC 7911 add-path: which paths per prefix are advertised to the neighbour, as configured.
// The agent works with the compact AddPathSendEffectiveConfig derived from it.
struct AddPathSendConfig : Kelp::ValueBase<AddPathSendConfig> {
  // The kind codes are fixed: they are stored and exchanged as numbers.
  KELP_MEMBER_ENUM(enum class, Kind, std::uint8_t, "Routing::Bgp::AddPathSendConfig::Kind", named,
                   sendAny = 0,       // every path, no limit
                   sendDisabled = 1,  // the best path only
                   sendLimited = 2,   // up to `limit` paths
                   sendBackup = 3,    // the best path and the precomputed backup path
                   sendEcmp = 4)      // up to `limit` equal-cost paths (every path when `limit` is 0)

  Kind kind = Kind::sendAny;
  std::uint32_t limit = 0;  // number of paths for sendLimited and sendEcmp, as configured
  Kelp::String prefixList;  // when not empty, only prefixes it permits get additional paths

  AddPathSendConfig() = default;
  AddPathSendConfig(Kind k, std::uint32_t l, Kelp::String list = {}) : kind(k), limit(l), prefixList(std::move(list)) {}
  explicit AddPathSendConfig(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }

  friend constexpr auto kelpType(Kelp::Tag<AddPathSendConfig>) {
    return Kelp::valueType<AddPathSendConfig>("Routing::Bgp::AddPathSendConfig",
                                              Kelp::field("kind", &AddPathSendConfig::kind),
                                              Kelp::field("limit", &AddPathSendConfig::limit),
                                              Kelp::field("prefixList", &AddPathSendConfig::prefixList));
  }
};

// Route flap damping (RFC 2439) applied to a neighbour: the named damping policy holds the
// penalties, thresholds and half-life. An empty name attaches no policy.
struct RfdPolicyAttachment : Kelp::ValueBase<RfdPolicyAttachment> {
  Kelp::String policyName;
  bool logOnly = false;  // keep the penalties and log, but never suppress a route

  RfdPolicyAttachment() = default;
  RfdPolicyAttachment(Kelp::String name, bool onlyLog) : policyName(std::move(name)), logOnly(onlyLog) {}
  explicit RfdPolicyAttachment(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }

  friend constexpr auto kelpType(Kelp::Tag<RfdPolicyAttachment>) {
    return Kelp::valueType<RfdPolicyAttachment>("Routing::Bgp::RfdPolicyAttachment",
                                                Kelp::field("policyName", &RfdPolicyAttachment::policyName),
                                                Kelp::field("logOnly", &RfdPolicyAttachment::logOnly));
  }
};

}  // namespace Routing::Bgp

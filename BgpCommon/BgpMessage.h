#pragma once
// BGP messages (RFC 4271 section 4), read and written: the header, OPEN with its capabilities,
// UPDATE, NOTIFICATION, KEEPALIVE and ROUTE-REFRESH.
//
// Reading takes the octets of one whole message, header included, and what the session
// negotiated (SessionOptions: four-octet AS, add-path per AFI/SAFI, extended messages). It returns
// a ReadError: the rule a malformed message broke, the offset of the field in the message, and the
// action RFC 7606 gives (sessionReset for anything outside the path attributes). Nothing is
// thrown, and reading an ordinary message allocates nothing: lists are inline, octets that are kept
// (NLRI, unknown attributes and capabilities, NOTIFICATION data) are views into the message, which
// must outlive what was read from it.
//
//   Routing::Bgp::Update u;
//   Routing::Bgp::ReadError e = Routing::Bgp::readUpdate(octets, options, u);
//   if (e.action == Routing::Bgp::ErrorAction::sessionReset) ... // NOTIFICATION, close
//   for (const Routing::Bgp::NlriEntry& r : u.nlri) std::cout << r.prefix << '\n';
//   if (u.attributes.mpReach) for (const auto& r : u.attributes.mpReach->nlri) ...
//
// Writing goes through Serialize and writes the header with the length filled in; reading a
// well-formed message and writing it with the same options gives the same octets.

#include <optional>
#include <span>
#include <variant>

#include <absl/container/inlined_vector.h>

#include "BgpCommon/BgpDeserialize.h"
#include "BgpCommon/BgpPathAttributes.h"
#include "BgpCommon/BgpSerialize.h"

namespace Routing::Bgp {

inline constexpr U32 bgpHeaderSize = 19;        // marker, length, type
inline constexpr U32 bgpMaxMessageSize = 4096;  // RFC 4271; bgpMaxExtendedMessageSize with RFC 8654

enum class MessageType : U8 { open = 1, update = 2, notification = 3, keepalive = 4, routeRefresh = 5 };
constexpr auto kelpEnum(Kelp::Tag<MessageType>) {
  return Kelp::enumType<MessageType>("Routing::Bgp::MessageType", {{MessageType::open, "OPEN"},
                                                                   {MessageType::update, "UPDATE"},
                                                                   {MessageType::notification, "NOTIFICATION"},
                                                                   {MessageType::keepalive, "KEEPALIVE"},
                                                                   {MessageType::routeRefresh, "ROUTE-REFRESH"}});
}
KELP_ENUM_FUNCTIONS(MessageType)

struct MessageHeader {
  U16 length = 0;  // of the whole message, header included
  MessageType type = MessageType::keepalive;
};
// Reads the 19-octet header at the start of `octets` (which may hold more: a stream's next
// messages). The marker must be all ones, the length at least 19 and at most 4096, or 65535 with
// extendedMessage (RFC 8654 section 4; an OPEN and a KEEPALIVE stay within 4096 regardless), the
// type 1 to 5 (RFC 4271 section 6.1). A length longer than `octets` is not an error here: the rest
// has not arrived.
ReadError readHeader(std::span<const U8> octets, const SessionOptions& options, MessageHeader& out);

// Capability codes (IANA "Capability Codes") that OPEN types.
enum class CapabilityCode : U8 {
  multiprotocol = 1,     // RFC 4760
  routeRefresh = 2,      // RFC 2918
  extendedMessage = 6,   // RFC 8654
  fourOctetAs = 65,      // RFC 6793
  addPath = 69,          // RFC 7911
  enhancedRouteRefresh = 70,  // RFC 7313
};

// One capability as it came, in its place: `parameter` counts the optional parameters before the
// one that holds it (a speaker may put all capabilities in one parameter or each in its own).
struct Capability {
  U8 code = 0;
  U8 parameter = 0;
  std::span<const U8> value;
};

// An add-path capability entry (RFC 7911 section 4).
struct AddPathCapability {
  AfiSafi afiSafi;
  U8 sendReceive = 0;  // 1 receive, 2 send, 3 both
  friend bool operator==(const AddPathCapability&, const AddPathCapability&) = default;
};

struct Open {
  U8 version = 4;
  U16 myAs = 0;  // AS_TRANS (23456) when the speaker's AS needs four octets
  U16 holdTime = 0;
  Netzo::IpAddr bgpIdentifier;
  // The capabilities, typed (filled by the reader; used by the writer when `capabilities` is empty).
  absl::InlinedVector<AfiSafi, 4> multiprotocol;
  std::optional<Netzo::AutonomousSystem> fourOctetAs;
  absl::InlinedVector<AddPathCapability, 4> addPath;
  bool routeRefresh = false;
  bool enhancedRouteRefresh = false;
  bool extendedMessage = false;
  // Every capability as read, in order, unknown ones included (views into the message). The writer
  // writes these when there are any, so a read OPEN is written back as it came; clear them to have
  // the typed fields written instead (one parameter, the typed capabilities in the order above).
  absl::InlinedVector<Capability, 8> capabilities;
  // Optional parameters other than capabilities (type 2), kept as read: `code` is the parameter
  // type, `parameter` its place among the parameters.
  absl::InlinedVector<Capability, 1> otherParameters;

  // The AS number: the four-octet capability's when present, else myAs.
  Netzo::AutonomousSystem autonomousSystem() const {
    return fourOctetAs ? *fourOctetAs : Netzo::AutonomousSystem(myAs);
  }
};

struct Update {
  NlriList withdrawn;  // IPv4 unicast withdrawn routes field
  PathAttributes attributes;
  NlriList nlri;       // IPv4 unicast NLRI field
};

struct Notification {
  U8 code = 0;
  U8 subcode = 0;
  std::span<const U8> data;
};

struct Keepalive {};

// RFC 2918, with the message subtype of RFC 7313 (0 request, 1 BoRR, 2 EoRR).
struct RouteRefresh {
  AfiSafi afiSafi;
  U8 subtype = 0;
};

using Message = std::variant<Open, Update, Notification, Keepalive, RouteRefresh>;

// Each reads one whole message (header included) of its type; `octets` must be exactly its
// length. A message of another type is badMessageType.
ReadError readOpen(std::span<const U8> octets, Open& out);
ReadError readUpdate(std::span<const U8> octets, const SessionOptions& options, Update& out);
ReadError readNotification(std::span<const U8> octets, Notification& out);
ReadError readRouteRefresh(std::span<const U8> octets, RouteRefresh& out);
// Any message; the first `header.length` octets of `octets` are read.
ReadError readMessage(std::span<const U8> octets, const SessionOptions& options, Message& out);

// Writers: one whole message each, header included. A message longer than a session carries
// (4096 octets; an UPDATE or NOTIFICATION up to 65535 with extendedMessage) throws
// Kelp::RangeException, and `out` is left as it was before the call (so are the path attribute
// writers, whose limit is Serialize's 65535 octets).
void writeOpen(Serialize& out, const Open& open);
void writeUpdate(Serialize& out, const Update& update, const SessionOptions& options);
void writeNotification(Serialize& out, const Notification& notification);
void writeKeepalive(Serialize& out);
void writeRouteRefresh(Serialize& out, const RouteRefresh& refresh);
void writeMessage(Serialize& out, const Message& message, const SessionOptions& options);

}  // namespace Routing::Bgp

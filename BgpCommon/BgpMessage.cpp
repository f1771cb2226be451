#include "BgpCommon/BgpMessage.h"

#include <algorithm>

#include "platform/Kelp/Exception.h"
#include "platform/Pico/Format.h"

namespace Routing::Bgp {

namespace {

constexpr ErrorAction reset = ErrorAction::sessionReset;

ReadError error(ReadRule rule, U32 offset) { return ReadError{rule, reset, offset, 0}; }

// The smallest length of each message type (RFC 4271 section 4, RFC 2918); KEEPALIVE and
// ROUTE-REFRESH have exactly that length.
U32 minLength(MessageType t) {
  switch (t) {
    case MessageType::open: return 29;
    case MessageType::update: return 23;
    case MessageType::notification: return 21;
    case MessageType::keepalive: return 19;
    case MessageType::routeRefresh: return 23;
  }
  return bgpHeaderSize;
}

// Reads the header and checks that `octets` is exactly the message, of type `type`.
ReadError readWhole(std::span<const U8> octets, MessageType type, const SessionOptions& options, MessageHeader& h) {
  if (ReadError e = readHeader(octets, options, h)) return e;
  if (h.type != type) return error(ReadRule::badMessageType, 18);
  if (h.length != octets.size()) return error(ReadRule::truncated, static_cast<U32>(std::min<std::size_t>(octets.size(), h.length)));
  return {};
}

// Starts a message: the marker, a length filled in by finish(), the type.
U32 start(Serialize& out, MessageType type) {
  const U32 at = out.writeOffset();
  out.addFields(~U64{0}, ~U64{0}, U16{0}, static_cast<U8>(type));
  return at;
}
void finish(Serialize& out, U32 at, U32 limit) {
  const U32 length = out.writeOffset() - at;
  if (length > limit) {
    Pico::fmthrow<Kelp::RangeException>("BGP message of {} octets exceeds the session's limit of {}", length, limit);
  }
  out.overwriteU16hton(at + 16, static_cast<U16>(length));
}

}  // namespace

ReadError readHeader(std::span<const U8> octets, const SessionOptions& options, MessageHeader& out) {
  Deserialize in(octets);
  U64 marker0, marker1;
  U8 type;
  if (!in.readFields(marker0, marker1, out.length, type)) return error(ReadRule::truncated, in.failureOffset());
  // RFC 4271 section 6.1: Connection Not Synchronized.
  if (marker0 != ~U64{0} || marker1 != ~U64{0}) return error(ReadRule::badMarker, 0);
  if (type < 1 || type > 5) return error(ReadRule::badMessageType, 18);
  out.type = static_cast<MessageType>(type);
  // RFC 8654 section 4: OPEN and KEEPALIVE stay within 4096 octets on any session.
  const bool extended = options.extendedMessage && out.type != MessageType::open && out.type != MessageType::keepalive;
  const U32 limit = extended ? bgpMaxExtendedMessageSize : bgpMaxMessageSize;
  const U32 least = minLength(out.type);
  const bool fixed = out.type == MessageType::keepalive || out.type == MessageType::routeRefresh;
  if (out.length < least || out.length > limit || (fixed && out.length != least)) {
    return error(ReadRule::badMessageLength, 16);
  }
  return {};
}

// ---------------------------------------------------------------------------------------------
// OPEN (RFC 4271 section 4.2) and capabilities (RFC 5492)

namespace {

constexpr U8 capabilitiesParameter = 2;

// The length a known capability must have (a multiple of 4 for add-path), or -1 for any.
bool capabilityLengthFits(U8 code, std::size_t length) {
  switch (static_cast<CapabilityCode>(code)) {
    case CapabilityCode::multiprotocol:
    case CapabilityCode::fourOctetAs: return length == 4;
    case CapabilityCode::routeRefresh:
    case CapabilityCode::extendedMessage:
    case CapabilityCode::enhancedRouteRefresh: return length == 0;
    case CapabilityCode::addPath: return length % 4 == 0 && length != 0;
  }
  return true;
}

// Fills the typed fields of `open` from one capability whose length fits.
void typeCapability(Open& open, const Capability& c) {
  Deserialize in(c.value);
  switch (static_cast<CapabilityCode>(c.code)) {
    case CapabilityCode::multiprotocol: {
      U16 afi;
      U8 reserved, safi;
      (void)in.readFields(afi, reserved, safi);
      open.multiprotocol.push_back(AfiSafi(static_cast<Afi>(afi), static_cast<Safi>(safi)));
      break;
    }
    case CapabilityCode::fourOctetAs: {
      Netzo::AutonomousSystem asn;
      (void)in.readAutonomousSystem(asn, true);
      open.fourOctetAs = asn;
      break;
    }
    case CapabilityCode::addPath:
      while (!in.atEnd()) {
        AddPathCapability a;
        (void)in.readFields(a.afiSafi, a.sendReceive);
        open.addPath.push_back(a);
      }
      break;
    case CapabilityCode::routeRefresh: open.routeRefresh = true; break;
    case CapabilityCode::extendedMessage: open.extendedMessage = true; break;
    case CapabilityCode::enhancedRouteRefresh: open.enhancedRouteRefresh = true; break;
  }
}

}  // namespace

ReadError readOpen(std::span<const U8> octets, Open& out) {
  MessageHeader h;
  if (ReadError e = readWhole(octets, MessageType::open, SessionOptions{}, h)) return e;
  // Field by field: reading into an object used before keeps the room its lists took.
  emptyKeepingRoom(out.multiprotocol);
  out.fourOctetAs.reset();
  emptyKeepingRoom(out.addPath);
  out.routeRefresh = out.enhancedRouteRefresh = out.extendedMessage = false;
  emptyKeepingRoom(out.capabilities);
  emptyKeepingRoom(out.otherParameters);
  Deserialize in(octets.subspan(bgpHeaderSize), bgpHeaderSize);
  U8 parametersLength = 0;
  (void)in.readFields(out.version, out.myAs, out.holdTime, out.bgpIdentifier, parametersLength);
  // RFC 4271 section 6.2.
  if (out.version != 4) return error(ReadRule::badVersion, 19);
  if (out.holdTime == 1 || out.holdTime == 2) return error(ReadRule::badHoldTime, 22);
  if (parametersLength != in.remaining()) return error(ReadRule::badOptionalParameters, 28);
  for (U8 index = 0; !in.atEnd(); ++index) {
    const U32 at = in.offset();
    U8 type, length;
    Deserialize parameter({}, 0);
    if (!in.readFields(type, length) || !in.readCursor(parameter, length)) {
      return error(ReadRule::badOptionalParameters, at);
    }
    // An empty capabilities parameter has no capability to hold its place: kept as a parameter.
    if (type != capabilitiesParameter || length == 0) {
      out.otherParameters.push_back(Capability{type, index, parameter.rest()});
      continue;
    }
    while (!parameter.atEnd()) {
      const U32 capabilityAt = parameter.offset();
      Capability c;
      U8 capabilityLength;
      c.parameter = index;
      if (!parameter.readFields(c.code, capabilityLength) || !parameter.readBytes(c.value, capabilityLength)) {
        return error(ReadRule::badOptionalParameters, capabilityAt);
      }
      if (!capabilityLengthFits(c.code, c.value.size())) return error(ReadRule::badCapability, capabilityAt);
      typeCapability(out, c);
      out.capabilities.push_back(c);
    }
  }
  return {};
}

void writeOpen(Serialize& out, const Open& open) {
  Serialize::AllOrNothing guard(out);
  const U32 at = start(out, MessageType::open);
  out.addFields(open.version, open.myAs, open.holdTime, open.bgpIdentifier);
  const U32 parametersAt = out.writeOffset();
  out.addU8(0);
  // Each parameter is written with a zero length, filled in after its content.
  auto parameterStart = [&](U8 type) {
    const U32 p = out.writeOffset();
    out.addFields(type, U8{0});
    return p;
  };
  auto parameterEnd = [&](U32 p) {
    out.overwriteU8(p + 1, Serialize::lengthOctet(out.writeOffset() - p - 2, [] { return "OPEN capabilities parameter, in octets"; }));
  };
  auto capability = [&](U8 code, std::span<const U8> value) {
    out.addFields(code, Serialize::lengthOctet(value.size(), [&] { return fmt::format("OPEN capability {}, in octets", code); }),
                  Serialize::Octets{value.data(), static_cast<U32>(value.size())});
  };
  if (open.capabilities.empty()) {
    // The typed capabilities, in one parameter.
    const bool any = !open.multiprotocol.empty() || open.routeRefresh || open.enhancedRouteRefresh ||
                     open.extendedMessage || open.fourOctetAs || !open.addPath.empty();
    if (any) {
      const U32 p = parameterStart(capabilitiesParameter);
      auto code = [](CapabilityCode c) { return static_cast<U8>(c); };
      for (AfiSafi a : open.multiprotocol) {
        out.addFields(code(CapabilityCode::multiprotocol), U8{4}, static_cast<U16>(a.afi()), U8{0},
                      static_cast<U8>(a.safi()));
      }
      if (open.routeRefresh) capability(code(CapabilityCode::routeRefresh), {});
      if (open.enhancedRouteRefresh) capability(code(CapabilityCode::enhancedRouteRefresh), {});
      if (open.extendedMessage) capability(code(CapabilityCode::extendedMessage), {});
      if (open.fourOctetAs) out.addFields(code(CapabilityCode::fourOctetAs), U8{4}, *open.fourOctetAs);
      if (!open.addPath.empty()) {
        out.addFields(code(CapabilityCode::addPath),
                      Serialize::lengthOctet(4 * open.addPath.size(), [] { return "OPEN add-path capability, in octets"; }));
        for (const AddPathCapability& a : open.addPath) out.addFields(a.afiSafi, a.sendReceive);
      }
      parameterEnd(p);
    }
  }
  // As read: the parameters in their order, each capability in the parameter it came in.
  U8 last = 0;
  for (const Capability& c : open.capabilities) last = std::max(last, c.parameter);
  for (const Capability& c : open.otherParameters) last = std::max(last, c.parameter);
  const bool asRead = !open.capabilities.empty() || !open.otherParameters.empty();
  for (unsigned index = 0; asRead && index <= last; ++index) {
    auto other = std::find_if(open.otherParameters.begin(), open.otherParameters.end(),
                              [&](const Capability& c) { return c.parameter == index; });
    if (other != open.otherParameters.end()) {
      capability(other->code, other->value);
      continue;
    }
    const U32 p = parameterStart(capabilitiesParameter);
    for (const Capability& c : open.capabilities) {
      if (c.parameter == index) capability(c.code, c.value);
    }
    parameterEnd(p);
  }
  out.overwriteU8(parametersAt, Serialize::lengthOctet(out.writeOffset() - parametersAt - 1,
                                                       [] { return "OPEN optional parameters, in octets"; }));
  finish(out, at, bgpMaxMessageSize);
}

// ---------------------------------------------------------------------------------------------
// UPDATE (RFC 4271 section 4.3, RFC 7606)

ReadError readUpdate(std::span<const U8> octets, const SessionOptions& options, Update& out) {
  MessageHeader h;
  if (ReadError e = readWhole(octets, MessageType::update, options, h)) return e;
  Deserialize in(octets.subspan(bgpHeaderSize), bgpHeaderSize);
  U16 withdrawnLength, attributesLength;
  std::span<const U8> withdrawn;
  // RFC 7606 section 4: lengths that do not fit the message leave nothing to trust.
  if (!in.readU16(withdrawnLength) || !in.readBytes(withdrawn, withdrawnLength)) {
    return error(ReadRule::badWithdrawnLength, 19);
  }
  out.withdrawn = NlriList(withdrawn, ipv4UnicastAfiSafi, options.addPath.contains(ipv4UnicastAfiSafi), true, 21);
  const U32 attributesAt = in.offset();
  Deserialize attributes({}, 0);
  if (!in.readU16(attributesLength) || !in.readCursor(attributes, attributesLength)) {
    return error(ReadRule::badAttributesLength, attributesAt);
  }
  const U32 nlriAt = in.offset();
  out.nlri = NlriList(in.rest(), ipv4UnicastAfiSafi, options.addPath.contains(ipv4UnicastAfiSafi), false, nlriAt);
  if (ReadError e = out.withdrawn.check()) return e;
  if (ReadError e = out.nlri.check()) return e;
  ReadError worst = readPathAttributes(attributes, options, out.attributes);
  // RFC 7606 section 3 d: an UPDATE that announces routes needs the mandatory attributes.
  const bool announces = !out.nlri.empty() || (out.attributes.mpReach && !out.attributes.mpReach->nlri.empty());
  if (announces) {
    const ReadError e = checkMandatory(out.attributes, !out.nlri.empty(), attributesAt);
    if (e.action > worst.action) worst = e;
  }
  return worst;
}

void writeUpdate(Serialize& out, const Update& update, const SessionOptions& options) {
  Serialize::AllOrNothing guard(out);
  const U32 at = start(out, MessageType::update);
  const auto withdrawn = update.withdrawn.octets();
  out.addFields(static_cast<U16>(withdrawn.size()),
                Serialize::Octets{withdrawn.data(), static_cast<U32>(withdrawn.size())});
  const U32 attributesAt = out.writeOffset();
  out.addU16hton(0);
  writePathAttributes(out, update.attributes, options);
  out.overwriteU16hton(attributesAt, static_cast<U16>(out.writeOffset() - attributesAt - 2));
  out.addData(update.nlri.octets().data(), static_cast<U32>(update.nlri.octets().size()));
  finish(out, at, options.extendedMessage ? bgpMaxExtendedMessageSize : bgpMaxMessageSize);
}

// ---------------------------------------------------------------------------------------------
// NOTIFICATION, KEEPALIVE, ROUTE-REFRESH

ReadError readNotification(std::span<const U8> octets, Notification& out) {
  MessageHeader h;
  SessionOptions extended;
  extended.extendedMessage = true;
  if (ReadError e = readWhole(octets, MessageType::notification, extended, h)) return e;
  out.code = octets[19];
  out.subcode = octets[20];
  out.data = octets.subspan(21);
  return {};
}

void writeNotification(Serialize& out, const Notification& n) {
  Serialize::AllOrNothing guard(out);
  const U32 at = start(out, MessageType::notification);
  out.addFields(n.code, n.subcode, Serialize::Octets{n.data.data(), static_cast<U32>(n.data.size())});
  finish(out, at, bgpMaxExtendedMessageSize);
}

void writeKeepalive(Serialize& out) {
  Serialize::AllOrNothing guard(out);
  finish(out, start(out, MessageType::keepalive), bgpHeaderSize);
}

ReadError readRouteRefresh(std::span<const U8> octets, RouteRefresh& out) {
  MessageHeader h;
  if (ReadError e = readWhole(octets, MessageType::routeRefresh, SessionOptions{}, h)) return e;
  out.afiSafi = AfiSafi(static_cast<Afi>(octets[19] << 8 | octets[20]), static_cast<Safi>(octets[22]));
  out.subtype = octets[21];
  return {};
}

void writeRouteRefresh(Serialize& out, const RouteRefresh& r) {
  Serialize::AllOrNothing guard(out);
  const U32 at = start(out, MessageType::routeRefresh);
  out.addFields(static_cast<U16>(r.afiSafi.afi()), r.subtype, static_cast<U8>(r.afiSafi.safi()));
  finish(out, at, bgpHeaderSize + 4);
}

ReadError readMessage(std::span<const U8> octets, const SessionOptions& options, Message& out) {
  MessageHeader h;
  if (ReadError e = readHeader(octets, options, h)) return e;
  if (octets.size() < h.length) return error(ReadRule::truncated, static_cast<U32>(octets.size()));
  const auto whole = octets.first(h.length);
  switch (h.type) {
    case MessageType::open: return readOpen(whole, out.emplace<Open>());
    case MessageType::update: return readUpdate(whole, options, out.emplace<Update>());
    case MessageType::notification: return readNotification(whole, out.emplace<Notification>());
    case MessageType::keepalive: out.emplace<Keepalive>(); return {};
    case MessageType::routeRefresh: return readRouteRefresh(whole, out.emplace<RouteRefresh>());
  }
  return {};
}

void writeMessage(Serialize& out, const Message& message, const SessionOptions& options) {
  std::visit(
      [&](const auto& m) {
        using T = std::decay_t<decltype(m)>;
        if constexpr (std::is_same_v<T, Open>) writeOpen(out, m);
        if constexpr (std::is_same_v<T, Update>) writeUpdate(out, m, options);
        if constexpr (std::is_same_v<T, Notification>) writeNotification(out, m);
        if constexpr (std::is_same_v<T, Keepalive>) writeKeepalive(out);
        if constexpr (std::is_same_v<T, RouteRefresh>) writeRouteRefresh(out, m);
      },
      message);
}

}  // namespace Routing::Bgp

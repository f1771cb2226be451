// BGP messages from Python: read_message() turns octets into the classes of
// python/bgpcommon/_messages.py, and the Serialize methods add_message() and add_path_attributes()
// write those classes back through the library's writers.
//
// A malformed message is data (ReadResult.error with the rule, offset and RFC 7606 action), as in
// C++. What a Python caller gets wrong when writing raises: TypeError for an object of the wrong
// type, OverflowError for a number that does not fit its field (an AS above 65535 on a two-octet
// session included: the library would stop the process on it), ValueError for impossible options.
#include <deque>
#include <string>
#include <utility>

#include "BgpCommon/BgpMessage.h"
#include "python/Module.h"

namespace bgpcommon_python {

namespace {

using namespace Routing::Bgp;

py::object messagesModule() {
  static py::object* m = nullptr;
  return madeOnce(m, [] { return py::object(py::module_::import("bgpcommon._messages")); });
}
py::object make(const char* cls) { return messagesModule().attr(cls); }

py::bytes bytesOf(std::span<const U8> s) { return py::bytes(reinterpret_cast<const char*>(s.data()), s.size()); }

// ---- C++ to Python -------------------------------------------------------------------------

py::object toPy(const NlriList& list) {
  if (!list.typed()) return bytesOf(list.octets());  // a family whose entries are not read
  py::list out;
  for (const NlriEntry& e : list) {
    py::list labels;
    for (std::size_t i = 0; i < e.labelCount(); ++i) labels.append(e.labelField(i));
    out.append(make("Nlri")(toPython(std::any(e.prefix)), e.pathId, labels));
  }
  return out;
}
py::object toPy(Origin o) { return py::int_(static_cast<int>(o)); }
py::object toPy(bool b) { return py::bool_(b); }
py::object toPy(U32 n) { return py::int_(n); }
py::object toPy(Netzo::IpAddr a) { return toPython(std::any(a)); }
py::object toPy(const AsPath& p) {
  py::list out;
  std::size_t at = 0;
  for (const AsPath::Segment& s : p.segments) {
    py::list asns;
    for (std::size_t i = at; i < at + s.count; ++i) asns.append(p.asns[i].value());
    at += s.count;
    out.append(make("AsPathSegment")(s.type, asns));
  }
  return out;
}
py::object toPy(const Aggregator& a) { return make("Aggregator")(a.asn.value(), toPy(a.address)); }
py::object toPy(const LargeCommunity& c) { return make("LargeCommunity")(c.globalAdmin, c.localData1, c.localData2); }
py::object toPy(const RouteTarget& rt) { return py::cast(rt); }
template <typename T, std::size_t N>
py::object toPy(const absl::InlinedVector<T, N>& items) {
  py::list out;
  for (const T& item : items) out.append(toPy(item));
  return out;
}
py::object toPy(const absl::InlinedVector<U32, 16>& communities) {
  static py::object* community = nullptr;
  madeOnce(community, [] { return py::object(py::module_::import("bgpcommon._native").attr("Community")); });
  py::list out;
  for (U32 c : communities) out.append((*community)(c));
  return out;
}
py::object toPy(const MpReach& r) {
  return make("MpReach")(static_cast<unsigned>(r.afiSafi.afi()), static_cast<unsigned>(r.afiSafi.safi()),
                         toPython(std::any(r.nextHop)), toPy(r.nlri), toPython(std::any(r.linkLocalNextHop)),
                         r.nextHop.isIpv4() || r.nextHop.isIpv6() ? py::bytes() : bytesOf(r.nextHopOctets), r.reserved);
}
py::object toPy(const MpUnreach& r) {
  return make("MpUnreach")(static_cast<unsigned>(r.afiSafi.afi()), static_cast<unsigned>(r.afiSafi.safi()), toPy(r.withdrawn));
}

// Every typed attribute slot with its type code and its name in Python: the one list both
// directions walk.
template <typename Attrs, typename F>
void forEachSlot(Attrs& a, F&& f) {
  f(AttrType::origin, "origin", a.origin);
  f(AttrType::asPath, "as_path", a.asPath);
  f(AttrType::nextHop, "next_hop", a.nextHop);
  f(AttrType::multiExitDisc, "med", a.multiExitDisc);
  f(AttrType::localPref, "local_pref", a.localPref);
  f(AttrType::atomicAggregate, "atomic_aggregate", a.atomicAggregate);
  f(AttrType::aggregator, "aggregator", a.aggregator);
  f(AttrType::communities, "communities", a.communities);
  f(AttrType::originatorId, "originator_id", a.originatorId);
  f(AttrType::clusterList, "cluster_list", a.clusterList);
  f(AttrType::mpReachNlri, "mp_reach", a.mpReach);
  f(AttrType::mpUnreachNlri, "mp_unreach", a.mpUnreach);
  f(AttrType::extendedCommunities, "extended_communities", a.extendedCommunities);
  f(AttrType::as4Path, "as4_path", a.as4Path);
  f(AttrType::as4Aggregator, "as4_aggregator", a.as4Aggregator);
  f(AttrType::largeCommunities, "large_communities", a.largeCommunities);
}

py::object toPy(const PathAttributes& a) {
  py::dict fields, flags;
  forEachSlot(a, [&](AttrType type, const char* name, const auto& slot) {
    if (!slot) return;
    fields[name] = toPy(*slot);
    flags[py::int_(static_cast<int>(type))] = slot.flags;
  });
  py::list unknown, order;
  for (const RawAttribute& r : a.unknown) unknown.append(make("RawAttribute")(r.flags, r.type, bytesOf(r.value)));
  for (U8 t : a.order) order.append(t);
  fields["unknown"] = unknown, fields["flags"] = flags, fields["order"] = order;
  return make("PathAttributes")(**fields);
}

py::object toPy(const Open& o) {
  py::list multiprotocol, addPath, capabilities, others;
  for (AfiSafi a : o.multiprotocol) multiprotocol.append(py::make_tuple(unsigned(a.afi()), unsigned(a.safi())));
  for (const AddPathCapability& a : o.addPath) {
    addPath.append(py::make_tuple(unsigned(a.afiSafi.afi()), unsigned(a.afiSafi.safi()), a.sendReceive));
  }
  for (const Capability& c : o.capabilities) capabilities.append(make("Capability")(c.code, bytesOf(c.value), c.parameter));
  for (const Capability& c : o.otherParameters) others.append(make("Capability")(c.code, bytesOf(c.value), c.parameter));
  return make("Open")(o.myAs, o.holdTime, toPy(o.bgpIdentifier), multiprotocol,
                      o.fourOctetAs ? py::object(py::int_(o.fourOctetAs->value())) : py::none(), addPath, o.routeRefresh,
                      o.enhancedRouteRefresh, o.extendedMessage, capabilities, others, o.version);
}
py::object toPy(const Update& u) { return make("Update")(toPy(u.withdrawn), toPy(u.attributes), toPy(u.nlri)); }
py::object toPy(const Notification& n) { return make("Notification")(n.code, n.subcode, bytesOf(n.data)); }
py::object toPy(const Keepalive&) { return make("Keepalive")(); }
py::object toPy(const RouteRefresh& r) {
  return make("RouteRefresh")(unsigned(r.afiSafi.afi()), unsigned(r.afiSafi.safi()), r.subtype);
}

// ---- Python to C++ -------------------------------------------------------------------------

// What the C++ message views while it is written: octets built from Python objects.
struct Octets {
  std::deque<std::string> kept;
  std::span<const U8> keep(std::string s) {
    const std::string& k = kept.emplace_back(std::move(s));
    return {reinterpret_cast<const U8*>(k.data()), k.size()};
  }
};

template <typename T>
T number(py::handle v, const char* what) {
  return static_cast<T>(unsignedArg(v, typeid(T), what));
}
template <typename T>
T native(py::handle v, const char* what) {
  return std::any_cast<T>(fromPython(v, conversionFor(typeid(T)), what));
}
AfiSafi afiSafi(py::handle afi, py::handle safi) {
  return AfiSafi(static_cast<Afi>(number<U16>(afi, "afi")), static_cast<Safi>(number<U8>(safi, "safi")));
}
// `obj`, an instance of the message class `cls`; TypeError naming `what` otherwise (an ipaddress
// network where an Nlri belongs, a tuple for a LargeCommunity), rather than the AttributeError of
// the first field looked up or a conversion error of pybind11's.
py::handle instance(py::handle obj, const char* cls, const std::string& what) {
  if (!py::isinstance(obj, make(cls))) {
    raise(PyExc_TypeError, what + ": expected " + cls + ", not " + Py_TYPE(obj.ptr())->tp_name);
  }
  return obj;
}

Netzo::AutonomousSystem asNumber(py::handle v, const SessionOptions& o, bool alwaysFour, const char* what) {
  const U32 asn = number<U32>(v, what);
  if (!alwaysFour && !o.fourOctetAs && asn > 0xFFFF) {
    raise(PyExc_OverflowError, std::string(what) + ": AS " + std::to_string(asn) +
                                   " does not fit in two octets on a session without four-octet AS numbers");
  }
  return Netzo::AutonomousSystem(asn);
}

NlriList nlriFrom(py::handle entries, AfiSafi family, const SessionOptions& o, bool withdrawal, Octets& keep,
                  const char* what) {
  const bool addPath = o.addPath.contains(family);
  if (PyBytes_Check(entries.ptr())) return NlriList(keep.keep(entries.cast<std::string>()), family, addPath, withdrawal);
  Serialize s;
  const bool labelled = family.safi() == safiMplsLabel;
  const Netzo::AddressFamily af = family.afi() == afiIpv6 ? Netzo::AddressFamily::ipv6 : Netzo::AddressFamily::ipv4;
  for (py::handle n : entries) {
    instance(n, "Nlri", what);
    NlriEntry e;
    e.prefix = native<Netzo::IpGenPrefix>(n.attr("prefix"), "Nlri.prefix");
    if (e.prefix.family() != af) throw py::value_error("Nlri.prefix " + e.prefix.stringValue() + " is not of the family's AFI");
    e.pathId = number<U32>(n.attr("path_id"), "Nlri.path_id");
    // Without add-path for the family the entry has no room for an identifier, and an unlabelled
    // family none for labels: writing the entry without them would send another route than asked.
    if (e.pathId != 0 && !addPath) {
      throw py::value_error("Nlri.path_id " + std::to_string(e.pathId) + ": the session has no add-path for AFI " +
                            std::to_string(U16(family.afi())) + " SAFI " + std::to_string(U8(family.safi())));
    }
    py::object fields = n.attr("label_fields");
    if (!labelled && py::len(fields) != 0) {
      throw py::value_error("Nlri.label_fields: SAFI " + std::to_string(U8(family.safi())) +
                            " carries no labels (labelled unicast is SAFI 4)");
    }
    std::string labels;
    for (py::handle f : fields) {
      const U32 field = number<U32>(f, "Nlri.label_fields");
      if (field > 0xFFFFFF) raise(PyExc_OverflowError, "Nlri.label_fields: " + std::to_string(field) + " is above 3 octets");
      labels += {char(field >> 16), char(field >> 8), char(field)};
    }
    e.labelFields = keep.keep(std::move(labels));
    writeNlri(s, e, addPath, labelled);
  }
  return NlriList(keep.keep(std::string(reinterpret_cast<const char*>(s.data()), s.writeOffset())), family, addPath, withdrawal);
}

struct FromPy {
  const SessionOptions& o;
  Octets& keep;
  std::string what = "PathAttributes";  // the attribute being read, for errors

  void operator()(py::handle v, Origin& out) const { out = static_cast<Origin>(number<U8>(v, "origin")); }
  void operator()(py::handle v, bool& out) const { out = native<bool>(v, what.c_str()); }
  void operator()(py::handle v, U32& out) const { out = number<U32>(v, what.c_str()); }
  void operator()(py::handle v, Netzo::IpAddr& out) const { out = native<Netzo::IpAddr>(v, what.c_str()); }
  void path(py::handle segments, AsPath& out, bool alwaysFour) const {
    out.clear();
    for (py::handle s : segments) {
      instance(s, "AsPathSegment", what);
      std::vector<Netzo::AutonomousSystem> asns;
      for (py::handle a : s.attr("asns")) asns.push_back(asNumber(a, o, alwaysFour, "AsPathSegment.asns"));
      if (asns.empty()) throw py::value_error("an AS path segment holds at least one AS number");
      out.segmentAppend(number<U8>(s.attr("type"), "AsPathSegment.type"), asns);
    }
  }
  void aggregator(py::handle v, Aggregator& out, bool alwaysFour) const {
    instance(v, "Aggregator", what);
    out.asn = asNumber(v.attr("asn"), o, alwaysFour, "Aggregator.asn");
    out.address = native<Netzo::IpAddr>(v.attr("address"), "Aggregator.address");
  }
  void operator()(py::handle v, RouteTarget& out) const { out = native<RouteTarget>(v, what.c_str()); }
  void operator()(py::handle v, LargeCommunity& out) const {
    instance(v, "LargeCommunity", what);
    out = {number<U32>(v.attr("global_admin"), "LargeCommunity"), number<U32>(v.attr("local_data1"), "LargeCommunity"),
           number<U32>(v.attr("local_data2"), "LargeCommunity")};
  }
  template <typename T, std::size_t N>
  void operator()(py::handle v, absl::InlinedVector<T, N>& out) const {
    out.clear();
    for (py::handle item : v) (*this)(item, out.emplace_back());
  }
  void operator()(py::handle v, MpReach& out) const {
    instance(v, "MpReach", what);
    out.afiSafi = afiSafi(v.attr("afi"), v.attr("safi"));
    py::object nextHop = v.attr("next_hop"), linkLocal = v.attr("link_local_next_hop");
    out.nextHop = nextHop.is_none() ? Netzo::IpGenAddr() : native<Netzo::IpGenAddr>(nextHop, "MpReach.next_hop");
    out.linkLocalNextHop = linkLocal.is_none() ? Netzo::IpGenAddr() : native<Netzo::IpGenAddr>(linkLocal, "MpReach.link_local_next_hop");
    out.nextHopOctets = keep.keep(bytesLike(v.attr("next_hop_octets"), "MpReach.next_hop_octets"));
    out.reserved = number<U8>(v.attr("reserved"), "MpReach.reserved");
    out.nlri = nlriFrom(v.attr("nlri"), out.afiSafi, o, false, keep, "MpReach.nlri");
  }
  void operator()(py::handle v, MpUnreach& out) const {
    instance(v, "MpUnreach", what);
    out.afiSafi = afiSafi(v.attr("afi"), v.attr("safi"));
    out.withdrawn = nlriFrom(v.attr("withdrawn"), out.afiSafi, o, true, keep, "MpUnreach.withdrawn");
  }
};

PathAttributes attributesFrom(py::handle a, const SessionOptions& o, Octets& keep, const char* what) {
  instance(a, "PathAttributes", what);
  PathAttributes out;
  FromPy from{o, keep};
  py::dict flags = a.attr("flags");
  forEachSlot(out, [&](AttrType type, const char* name, auto& slot) {
    py::object v = a.attr(name);
    if (v.is_none() || v.ptr() == Py_False) return;
    from.what = std::string("PathAttributes.") + name;
    using T = std::decay_t<decltype(slot.value)>;
    if constexpr (std::is_same_v<T, AsPath>) {
      from.path(v, slot.value, type == AttrType::as4Path);
    } else if constexpr (std::is_same_v<T, Aggregator>) {
      from.aggregator(v, slot.value, type == AttrType::as4Aggregator);
    } else {
      from(v, slot.value);
    }
    slot.present = true;
    py::int_ code(static_cast<int>(type));
    slot.flags = flags.contains(code) ? number<U8>(flags[code], "PathAttributes.flags") : U8{0};
  });
  for (py::handle r : a.attr("unknown")) {
    instance(r, "RawAttribute", "PathAttributes.unknown");
    out.unknown.push_back({number<U8>(r.attr("flags"), "RawAttribute.flags"), number<U8>(r.attr("type"), "RawAttribute.type"),
                           keep.keep(bytesLike(r.attr("value"), "RawAttribute.value"))});
  }
  for (py::handle t : a.attr("order")) out.order.push_back(number<U8>(t, "PathAttributes.order"));
  return out;
}

std::vector<Capability> capabilitiesFrom(py::handle list, Octets& keep, const char* what) {
  std::vector<Capability> out;
  for (py::handle c : list) {
    instance(c, "Capability", what);
    out.push_back({number<U8>(c.attr("code"), "Capability.code"), number<U8>(c.attr("parameter"), "Capability.parameter"),
                   keep.keep(bytesLike(c.attr("value"), "Capability.value"))});
  }
  return out;
}

Message messageFrom(py::handle m, const SessionOptions& o, Octets& keep) {
  auto is = [&](const char* cls) { return py::isinstance(m, make(cls)); };
  if (is("Update")) {
    Update u;
    u.attributes = attributesFrom(m.attr("attributes"), o, keep, "Update.attributes");
    u.withdrawn = nlriFrom(m.attr("withdrawn"), ipv4UnicastAfiSafi, o, true, keep, "Update.withdrawn");
    u.nlri = nlriFrom(m.attr("nlri"), ipv4UnicastAfiSafi, o, false, keep, "Update.nlri");
    return u;
  }
  if (is("Open")) {
    Open open;
    open.version = number<U8>(m.attr("version"), "Open.version");
    open.myAs = number<U16>(m.attr("my_as"), "Open.my_as");
    open.holdTime = number<U16>(m.attr("hold_time"), "Open.hold_time");
    open.bgpIdentifier = native<Netzo::IpAddr>(m.attr("bgp_identifier"), "Open.bgp_identifier");
    for (py::handle p : m.attr("multiprotocol")) open.multiprotocol.push_back(afiSafi(p[py::int_(0)], p[py::int_(1)]));
    if (py::object f = m.attr("four_octet_as"); !f.is_none()) open.fourOctetAs = Netzo::AutonomousSystem(number<U32>(f, "Open.four_octet_as"));
    for (py::handle p : m.attr("add_path")) {
      open.addPath.push_back({afiSafi(p[py::int_(0)], p[py::int_(1)]), number<U8>(p[py::int_(2)], "Open.add_path")});
    }
    open.routeRefresh = native<bool>(m.attr("route_refresh"), "Open.route_refresh");
    open.enhancedRouteRefresh = native<bool>(m.attr("enhanced_route_refresh"), "Open.enhanced_route_refresh");
    open.extendedMessage = native<bool>(m.attr("extended_message"), "Open.extended_message");
    for (const Capability& c : capabilitiesFrom(m.attr("capabilities"), keep, "Open.capabilities")) open.capabilities.push_back(c);
    for (const Capability& c : capabilitiesFrom(m.attr("other_parameters"), keep, "Open.other_parameters")) open.otherParameters.push_back(c);
    return open;
  }
  if (is("Notification")) {
    return Notification{number<U8>(m.attr("code"), "Notification.code"), number<U8>(m.attr("subcode"), "Notification.subcode"),
                        keep.keep(bytesLike(m.attr("data"), "Notification.data"))};
  }
  if (is("Keepalive")) return Keepalive{};
  if (is("RouteRefresh")) {
    return RouteRefresh{afiSafi(m.attr("afi"), m.attr("safi")), number<U8>(m.attr("subtype"), "RouteRefresh.subtype")};
  }
  raise(PyExc_TypeError, std::string("expected a BGP message (Open, Update, Notification, Keepalive, RouteRefresh), not ") +
                             Py_TYPE(m.ptr())->tp_name);
}

}  // namespace

SessionOptions sessionOptions(bool fourOctetAs, bool extendedMessage, py::handle addPath) {
  SessionOptions o;
  o.fourOctetAs = fourOctetAs;
  o.extendedMessage = extendedMessage;
  for (py::handle p : addPath.is_none() ? py::tuple() : py::reinterpret_borrow<py::object>(addPath)) {
    if (py::len(p) != 2) throw py::value_error("add_path takes (afi, safi) pairs");
    const AfiSafi a = afiSafi(p[py::int_(0)], p[py::int_(1)]);
    if (o.addPath.contains(a)) continue;
    if (o.addPath.size() == AfiSafiSet::capacity) {
      throw py::value_error("add_path names at most " + std::to_string(AfiSafiSet::capacity) + " address families");
    }
    o.addPath.add(a);
  }
  return o;
}

// Each writes into a Serialize of its own first and appends the whole, so that a message refused
// at its end (too long for the session) leaves nothing of itself in `out`.
void writeMessageFrom(Serialize& out, py::handle message, const SessionOptions& o) {
  Octets keep;
  Serialize whole;
  writeMessage(whole, messageFrom(message, o, keep), o);
  out.addData(whole.data(), whole.writeOffset());
}

void writePathAttributesFrom(Serialize& out, py::handle attributes, const SessionOptions& o) {
  Octets keep;
  Serialize whole;
  writePathAttributes(whole, attributesFrom(attributes, o, keep, "attributes"), o);
  out.addData(whole.data(), whole.writeOffset());
}

void bindMessages(py::module_& m) {
  m.def(
      "read_message",
      [](py::handle data, bool fourOctetAs, bool extendedMessage, py::handle addPath) {
        const std::string octets = bytesLike(data, "read_message()");
        const SessionOptions o = sessionOptions(fourOctetAs, extendedMessage, addPath);
        Message message;
        const ReadError e = readMessage({reinterpret_cast<const U8*>(octets.data()), octets.size()}, o, message);
        py::object read = py::none(), error = py::none();
        if (e.action != ErrorAction::sessionReset) read = std::visit([](const auto& msg) { return toPy(msg); }, message);
        if (e) error = make("ReadError")(stringValue(e.rule), stringValue(e.action), e.offset, e.attributeType);
        return make("ReadResult")(read, error);
      },
      py::arg("data"), py::kw_only(), py::arg("four_octet_as") = true, py::arg("extended_message") = false,
      py::arg("add_path") = py::none(),
      R"(Reads the BGP message at the start of data (any bytes-like object), header included.

Returns a ReadResult: the message as an Open, Update, Notification, Keepalive or RouteRefresh, and
the error of a malformed one (rule, offset, RFC 7606 action; message is None when the action is
"sessionReset"). The options are what the session negotiated: four-octet AS numbers, extended
messages (RFC 8654), and the (afi, safi) pairs whose NLRI carry add-path identifiers (RFC 7911).)");
}

}  // namespace bgpcommon_python

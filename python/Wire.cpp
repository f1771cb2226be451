// What travels in BGP messages: route targets and the message serializer.
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <pybind11/stl.h>

#include "BgpCommon/BgpSerialize.h"
#include "BgpCommon/RouteTarget.h"
#include "python/Module.h"

namespace bgpcommon_python {

namespace {

using Routing::Bgp::RouteTarget;
using Routing::Bgp::Serialize;

// The operator's text, read strictly as the tool reads it (one character per byte, as text fields
// are); a refusal is RangeError naming the text.
RouteTarget routeTargetFromText(py::handle text) {
  PyObject* b = PyUnicode_AsLatin1String(text.ptr());
  if (b == nullptr) {
    PyErr_Clear();
    raise(rangeError(), "RouteTarget: " + py::repr(text).cast<std::string>() + ": not an operator's text");
  }
  return RouteTarget::fromOperatorText(std::string(py::reinterpret_steal<py::bytes>(b)));
}

RouteTarget routeTargetFromNumber(py::handle n) {
  static const Conversion& u64 = conversionFor(typeid(std::uint64_t));
  return RouteTarget(std::any_cast<std::uint64_t>(fromPython(n, u64, "RouteTarget")));
}

// (AS number or IPv4Address, local administrator): the operator's "GLOBAL:LOCAL" in one.
RouteTarget routeTargetFromPair(py::handle global, py::handle local) {
  const bool address = py::isinstance(global, py::module_::import("ipaddress").attr("IPv4Address"));
  for (py::handle part : {global, local}) {
    if (!(address && part.is(global)) && (!PyLong_Check(part.ptr()) || PyBool_Check(part.ptr()))) {
      raise(PyExc_TypeError, "RouteTarget(global, local) takes an AS number or an IPv4Address, and an int; not " +
                                 std::string(Py_TYPE(part.ptr())->tp_name));
    }
  }
  return routeTargetFromText(py::str(py::str(global).cast<std::string>() + ":" + py::str(local).cast<std::string>()));
}

py::bytes routeTargetOctets(const RouteTarget& rt) {
  char octets[8];
  for (int i = 0; i < 8; ++i) octets[i] = static_cast<char>(rt.value >> (56 - 8 * i));
  return py::bytes(octets, 8);
}

RouteTarget routeTargetFromOctets(py::handle b) {
  std::string octets = bytesLike(b, "RouteTarget.from_bytes()");
  if (octets.size() != 8) throw py::value_error("a route target is 8 octets, not " + std::to_string(octets.size()));
  std::uint64_t v = 0;
  for (unsigned char c : octets) v = v << 8 | c;
  return RouteTarget(v);
}

// a OP b by value for two route targets; NotImplemented for any other b, so that Python asks b and
// then answers as it does for unrelated types (== False, < TypeError).
template <typename Op>
py::object compared(const RouteTarget& a, py::handle b) {
  if (!py::isinstance<RouteTarget>(b)) return py::reinterpret_borrow<py::object>(Py_NotImplemented);
  return py::bool_(Op{}(a.value, b.cast<const RouteTarget&>().value));
}

// The Python Serialize: the library's writer, and lengths filled in over octets already written
// (1 or 2 octets, in network order).
struct Writer {
  Serialize s;

  py::bytes bytes() const { return py::bytes(reinterpret_cast<const char*>(s.data()), s.writeOffset()); }
  void patch(std::uint32_t offset, std::uint64_t value, unsigned octets) {
    if (static_cast<std::uint64_t>(offset) + octets > s.writeOffset()) {
      raise(PyExc_IndexError, "patch at " + std::to_string(offset) + " of " + std::to_string(octets) +
                                  " octets is past the " + std::to_string(s.writeOffset()) + " written");
    }
    octets == 1 ? s.overwriteU8(offset, static_cast<std::uint8_t>(value)) : s.overwriteU16hton(offset, static_cast<std::uint16_t>(value));
  }
};

// Runs one add; the serializer's limit becomes OverflowError (nothing was written).
template <typename F>
void add(Writer& w, F&& f) {
  try {
    f(w.s);
  } catch (const Kelp::RangeException& e) {
    const std::string_view what = e.what();
    // Too much for the message, or for a field's length octet: a size that does not fit its field.
    if (what.starts_with("Serialized bytes exceed") || what.starts_with("BGP message of") ||
        what.ends_with("above the 255 one length octet holds")) {
      raise(PyExc_OverflowError, e.what());
    }
    throw;
  }
}

// The offset of octets already written; IndexError for one that is not (a negative one included),
// TypeError for anything but an int.
std::uint32_t offsetArg(const Writer& w, py::handle offset, const char* method) {
  if (!PyLong_Check(offset.ptr()) || PyBool_Check(offset.ptr())) {
    raise(PyExc_TypeError, std::string(method) + " offset: expected an int, not " + Py_TYPE(offset.ptr())->tp_name);
  }
  int overflow = 0;
  const long long at = PyLong_AsLongLongAndOverflow(offset.ptr(), &overflow);
  if (overflow != 0 || at < 0 || at >= w.s.writeOffset()) {
    raise(PyExc_IndexError, std::string(method) + " offset " + py::str(offset).cast<std::string>() +
                                " is not within the " + std::to_string(w.s.writeOffset()) + " octets written");
  }
  return static_cast<std::uint32_t>(at);
}

template <typename T>
T addressArg(py::handle v, const char* method) {
  return std::any_cast<T>(fromPython(v, conversionFor(typeid(T)), method));
}

// Writes a placeholder length of `octets` octets where it is entered and, on a clean exit, the
// number of octets written after it.
struct LengthScope {
  py::object owner;  // keeps the Serialize alive
  Writer* w;
  unsigned octets;
  std::uint32_t at = 0;

  // Drops the length and what follows it (unless a scope entered before this one and left
  // already took them back: scopes used out of order).
  void takeBack() {
    if (at <= w->s.writeOffset()) w->s.truncate(at);
  }
};

}  // namespace

std::uint64_t unsignedArg(py::handle v, const std::type_info& type, const char* what) {
  const Conversion& c = conversionFor(type);
  std::any a = fromPython(v, c, what);
  return toPython(a).cast<std::uint64_t>();
}

void bindWire(py::module_& m) {
  nativeConversionIs(
      typeid(RouteTarget), [](const std::any& v) { return py::cast(std::any_cast<RouteTarget>(v)); },
      [](py::handle obj, std::string_view what) -> std::any {
        if (!py::isinstance<RouteTarget>(obj)) {
          raise(PyExc_TypeError, std::string(what) + ": expected a RouteTarget, not " + Py_TYPE(obj.ptr())->tp_name);
        }
        return obj.cast<RouteTarget>();
      });

  py::class_<RouteTarget>(m, "RouteTarget", R"(The route-target extended community (RFC 4360, RFC 5668).

RouteTarget(text) reads the operator's forms ("100:5", "70000:5", "1.4464:5", "100L:5",
"10.0.0.1:7", "0x" and 16 hex digits) strictly, as the bgpcommon tool does: every number decimal,
without sign, blank or leading zero, and within its field. Bad text raises RangeError naming it.
RouteTarget(number) takes the 64-bit value; RouteTarget(asn, local_admin) and
RouteTarget(IPv4Address, local_admin) the two administrators, as the text "GLOBAL:LOCAL" would.
int(rt) is the value, bytes(rt) the eight octets as they travel (RouteTarget.from_bytes() reads
them back from any bytes-like object); route targets compare and sort by value.)")
      .def(py::init([](py::handle v, py::handle local) {
             if (!local.is_none()) return routeTargetFromPair(v, local);
             if (PyUnicode_Check(v.ptr())) return routeTargetFromText(v);
             if (PyLong_Check(v.ptr()) && !PyBool_Check(v.ptr())) return routeTargetFromNumber(v);
             raise(PyExc_TypeError, std::string("RouteTarget() takes a text or an int, not ") + Py_TYPE(v.ptr())->tp_name);
           }),
           py::arg("value"), py::arg("local_admin") = py::none())
      .def_static("from_bytes", &routeTargetFromOctets, py::arg("octets"),
                  "The route target of eight octets as they travel.")
      .def_property_readonly("value", [](const RouteTarget& rt) { return rt.value; }, "The 64-bit value.")
      .def_property_readonly("type", [](const RouteTarget& rt) { return static_cast<unsigned>(rt.value >> 56); },
                             "The type octet: 0 two-octet AS, 1 IPv4 address, 2 four-octet AS.")
      .def_property_readonly("subtype", [](const RouteTarget& rt) { return static_cast<unsigned>(rt.value >> 48 & 0xFF); },
                             "The subtype octet: 2 for a route target.")
      .def_property_readonly("global_admin", [](const RouteTarget& rt) -> py::object {
        if (rt.extCommType() == RouteTarget::ExtCommType::ipv4Address) return toPython(std::any(rt.ipv4Addr()));
        return py::int_(rt.globalAdmin());
      }, "The global administrator: an AS number (int) or an IPv4Address.")
      .def_property_readonly("local_admin", [](const RouteTarget& rt) { return rt.localAdmin(); },
                             "The local administrator.")
      .def("text", [](const RouteTarget& rt, bool asdot) { return rt.toStrep(asdot); }, py::arg("asdot") = false,
           ""
           "The operator's text; AS numbers of 65536 and more in asdot notation when asdot.")
      .def("__bytes__", &routeTargetOctets)
      .def("__int__", [](const RouteTarget& rt) { return rt.value; })
      .def("__str__", [](const RouteTarget& rt) { return rt.toStrep(false); })
      .def("__repr__", [](const RouteTarget& rt) { return "RouteTarget('" + rt.toStrep(false) + "')"; })
      .def("__eq__", compared<std::equal_to<>>)
      .def("__ne__", compared<std::not_equal_to<>>)
      .def("__lt__", compared<std::less<>>)
      .def("__le__", compared<std::less_equal<>>)
      .def("__gt__", compared<std::greater<>>)
      .def("__ge__", compared<std::greater_equal<>>)
      .def("__hash__", [](const RouteTarget& rt) { return rt.hash(0); })
      .def("__reduce__", [](py::handle self) {
        return py::make_tuple(self.get_type(), py::make_tuple(self.cast<const RouteTarget&>().value));
      })
      .def("__copy__", [](py::handle self) { return py::reinterpret_borrow<py::object>(self); })
      .def("__deepcopy__", [](py::handle self, py::handle) { return py::reinterpret_borrow<py::object>(self); });

  py::class_<LengthScope>(m, "_LengthScope")
      .def("__enter__", [](LengthScope& l) {
        l.at = l.w->s.writeOffset();
        add(*l.w, [&](Serialize& s) { l.octets == 1 ? s.addU8(0) : s.addU16hton(0); });
        return l.at;
      })
      .def("__exit__", [](LengthScope& l, py::handle type, py::handle, py::handle) {
        // A block that raised, or wrote more than its length counts, takes back all it wrote,
        // its length included: what stays is never a length that does not match what follows.
        if (!type.is_none()) {
          l.takeBack();
          return false;
        }
        const std::uint64_t n = l.w->s.writeOffset() - l.at - l.octets;
        if (n >> (8 * l.octets) != 0) {
          l.takeBack();
          raise(PyExc_OverflowError, std::to_string(n) + " octets do not fit a length of " + std::to_string(l.octets) +
                                         " octet(s)");
        }
        l.w->patch(l.at, n, l.octets);
        return false;
      });

  py::class_<Writer>(m, "Serialize", R"(The BGP message serializer: appends fields in network order.

Each add past the 65535-octet limit of a BGP message raises OverflowError and writes nothing;
what was written before stays. An integer that does not fit its field raises OverflowError.
Addresses are ipaddress objects or their text. Lengths written before what they measure:

    with s.length(2):         # two octets, filled in with the length of what the block writes
                              # (or, if it raises or overflows them, taken back with it)
        s.add_u8(...)
    s.patch_u16(offset, n)    # or by hand, over octets already written)")
      .def(py::init<>())
      .def("add_u8", [](Writer& w, py::handle v) {
        auto n = unsignedArg(v, typeid(std::uint8_t), "add_u8()");
        add(w, [&](Serialize& s) { s.addU8(static_cast<std::uint8_t>(n)); });
      }, py::arg("value"))
      .def("add_u16", [](Writer& w, py::handle v) {
        auto n = unsignedArg(v, typeid(std::uint16_t), "add_u16()");
        add(w, [&](Serialize& s) { s.addU16hton(static_cast<std::uint16_t>(n)); });
      }, py::arg("value"))
      .def("add_u32", [](Writer& w, py::handle v) {
        auto n = unsignedArg(v, typeid(std::uint32_t), "add_u32()");
        add(w, [&](Serialize& s) { s.addU32hton(static_cast<std::uint32_t>(n)); });
      }, py::arg("value"))
      .def("add_as", [](Writer& w, py::handle v, bool fourOctet) {
        auto asn = unsignedArg(v, typeid(std::uint32_t), "add_as()");
        if (!fourOctet && asn > 0xFFFF) {
          raise(PyExc_OverflowError, "AS " + std::to_string(asn) + " does not fit in two octets (use AS_TRANS, 23456)");
        }
        add(w, [&](Serialize& s) { s.addAutonomousSystem(Netzo::AutonomousSystem(static_cast<std::uint32_t>(asn)), fourOctet); });
      }, py::arg("asn"), py::arg("four_octet") = true)
      .def("add_ipv4", [](Writer& w, py::handle a) {
        auto addr = addressArg<Netzo::IpAddr>(a, "add_ipv4()");
        add(w, [&](Serialize& s) { s.addIpv4Addr(addr); });
      }, py::arg("address"))
      .def("add_ipv6", [](Writer& w, py::handle a) {
        auto addr = addressArg<Netzo::Ip6Addr>(a, "add_ipv6()");
        add(w, [&](Serialize& s) { s.addIpv6Addr(addr); });
      }, py::arg("address"))
      .def("add_data", [](Writer& w, py::handle data) {
        std::string d = bytesLike(data, "add_data()");
        if (d.size() > 0xFFFFFFFFu) raise(PyExc_OverflowError, "Serialized bytes exceed bgpMaxExtendedMessageSize");
        add(w, [&](Serialize& s) { s.addData(reinterpret_cast<const std::uint8_t*>(d.data()), static_cast<std::uint32_t>(d.size())); });
      }, py::arg("data"))
      .def("patch_u8", [](Writer& w, py::handle offset, py::handle v) {
        w.patch(offsetArg(w, offset, "patch_u8()"), unsignedArg(v, typeid(std::uint8_t), "patch_u8()"), 1);
      }, py::arg("offset"), py::arg("value"), "Overwrites an octet already written.")
      .def("patch_u16", [](Writer& w, py::handle offset, py::handle v) {
        w.patch(offsetArg(w, offset, "patch_u16()"), unsignedArg(v, typeid(std::uint16_t), "patch_u16()"), 2);
      }, py::arg("offset"), py::arg("value"), "Overwrites two octets already written.")
      .def("length", [](py::object self, py::handle size) {
        const auto octets = static_cast<unsigned>(unsignedArg(size, typeid(std::uint8_t), "length()"));
        if (octets != 1 && octets != 2) throw py::value_error("a length is 1 or 2 octets");
        return LengthScope{self, &self.cast<Writer&>(), octets};
      }, py::arg("octets") = 2,
         ""
         "Writes a length of 1 or 2 octets and, when the block ends, fills in the octets the block wrote; "
         "__enter__ returns the length's offset. A block that raises, or writes more than the length counts "
         "(OverflowError), takes back all it wrote, its length included.")
      .def("add_message", [](Writer& w, py::handle message, bool fourOctetAs, bool extendedMessage, py::handle addPath) {
        const auto o = sessionOptions(fourOctetAs, extendedMessage, addPath);
        add(w, [&](Serialize& s) { writeMessageFrom(s, message, o); });
      }, py::arg("message"), py::kw_only(), py::arg("four_octet_as") = true, py::arg("extended_message") = false,
         py::arg("add_path") = py::none(),
         ""
         "Writes a whole message (Open, Update, Notification, Keepalive, RouteRefresh), header and length included, "
         "as a session with these options carries it; a well-formed message read with the same options is written as it came. "
         "OverflowError past the session's message size or past a field's length octet (a capability over 255 "
         "octets, say), and nothing written.")
      .def("add_path_attributes", [](Writer& w, py::handle attributes, bool fourOctetAs, py::handle addPath) {
        const auto o = sessionOptions(fourOctetAs, false, addPath);
        add(w, [&](Serialize& s) { writePathAttributesFrom(s, attributes, o); });
      }, py::arg("attributes"), py::kw_only(), py::arg("four_octet_as") = true, py::arg("add_path") = py::none(),
         ""
         "Writes every attribute of a PathAttributes, each with its flags and type code and its length in one "
         "octet or, when its flags say extended length, two.")
      .def("bytes", &Writer::bytes, "Everything written so far.")
      .def("__bytes__", &Writer::bytes)
      .def("__len__", [](const Writer& w) { return w.s.writeOffset(); })
      .def_property_readonly("offset", [](const Writer& w) { return w.s.writeOffset(); }, "Octets written so far.");
}

}  // namespace bgpcommon_python

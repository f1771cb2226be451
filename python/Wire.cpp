// What travels in BGP messages: route targets and the message serializer.
#include <string>

#include "BgpCommon/BgpSerialize.h"
#include "BgpCommon/RouteTarget.h"
#include "python/Module.h"

namespace bgpcommon_python {

namespace {

using Routing::Bgp::RouteTarget;
using Routing::Bgp::Serialize;

RouteTarget routeTargetFromText(const std::string& text) {
  RouteTarget rt;
  try {
    rt.stringValueIs(text);
  } catch (const std::invalid_argument& e) {
    // The hex form's number reader ("0x..." that is not a number): bad text like any other.
    throw Kelp::RangeException(e.what());
  } catch (const std::out_of_range& e) {
    throw Kelp::RangeException(e.what());
  }
  return rt;
}

// The eight octets as they travel: most significant first.
py::bytes routeTargetOctets(const RouteTarget& rt) {
  char octets[8];
  for (int i = 0; i < 8; ++i) octets[i] = static_cast<char>(rt.value >> (56 - 8 * i));
  return py::bytes(octets, 8);
}

RouteTarget routeTargetFromOctets(const py::bytes& b) {
  std::string octets = b;
  if (octets.size() != 8) throw py::value_error("a route target is 8 octets, not " + std::to_string(octets.size()));
  std::uint64_t v = 0;
  for (unsigned char c : octets) v = v << 8 | c;
  return RouteTarget(v);
}

// Runs one add; the serializer's limit becomes OverflowError (nothing was written).
template <typename F>
void add(Serialize& s, F&& f) {
  try {
    f(s);
  } catch (const Kelp::RangeException& e) {
    if (std::string_view(e.what()).starts_with("Serialized bytes exceed")) raise(PyExc_OverflowError, e.what());
    throw;
  }
}

}  // namespace

void bindWire(py::module_& m) {
  py::class_<RouteTarget>(m, "RouteTarget", R"(The route-target extended community.

RouteTarget(text) reads the operator's forms ("100:5", "70000:5", "1.4464:5", "100L:5",
"10.0.0.1:7", "0x" and 16 hex digits); bad text raises RangeError with the library's message.
bytes(rt) gives the eight octets as they travel, RouteTarget.from_bytes() reads them back.)")
      .def(py::init(&routeTargetFromText), py::arg("text"))
      .def_static("from_bytes", &routeTargetFromOctets, py::arg("octets"))
      .def_property_readonly("value", [](const RouteTarget& rt) { return rt.value; })
      .def("text", [](const RouteTarget& rt, bool asdot) { return rt.toStrep(asdot); }, py::arg("asdot") = false,
           "The operator's text; AS numbers of 65536 and more in asdot notation when asdot.")
      .def("__bytes__", &routeTargetOctets)
      .def("__str__", [](const RouteTarget& rt) { return rt.toStrep(false); })
      .def("__repr__", [](const RouteTarget& rt) { return "RouteTarget('" + rt.toStrep(false) + "')"; })
      .def("__eq__", [](const RouteTarget& a, const RouteTarget& b) { return a == b; })
      .def("__hash__", [](const RouteTarget& rt) { return rt.hash(0); });

  py::class_<Serialize>(m, "Serialize", R"(The BGP message serializer: appends fields in network order.

Each add past the 65535-octet limit of a BGP message raises OverflowError and writes nothing;
what was written before stays.)")
      .def(py::init<>())
      .def("add_u8", [](Serialize& s, std::uint8_t v) { add(s, [&](Serialize& w) { w.addU8(v); }); }, py::arg("value"))
      .def("add_u16", [](Serialize& s, std::uint16_t v) { add(s, [&](Serialize& w) { w.addU16hton(v); }); },
           py::arg("value"))
      .def("add_u32", [](Serialize& s, std::uint32_t v) { add(s, [&](Serialize& w) { w.addU32hton(v); }); },
           py::arg("value"))
      .def("add_as", [](Serialize& s, std::uint32_t asn, bool fourOctet) {
        if (!fourOctet && asn > 0xFFFF) {
          throw py::value_error("AS " + std::to_string(asn) + " does not fit in two octets (use AS_TRANS, 23456)");
        }
        add(s, [&](Serialize& w) { w.addAutonomousSystem(Netzo::AutonomousSystem(asn), fourOctet); });
      }, py::arg("asn"), py::arg("four_octet") = true)
      .def("add_ipv4", [](Serialize& s, const std::string& text) {
        Netzo::IpAddr a = Netzo::IpAddr::fromString(text);
        add(s, [&](Serialize& w) { w.addIpv4Addr(a); });
      }, py::arg("text"))
      .def("add_ipv6", [](Serialize& s, const std::string& text) {
        Netzo::Ip6Addr a = Netzo::Ip6Addr::fromString(text);
        add(s, [&](Serialize& w) { w.addIpv6Addr(a); });
      }, py::arg("text"))
      .def("add_data", [](Serialize& s, const py::bytes& data) {
        std::string_view d = data;
        if (d.size() > 0xFFFFFFFFu) raise(PyExc_OverflowError, "Serialized bytes exceed bgpMaxExtendedMessageSize");
        add(s, [&](Serialize& w) { w.addData(reinterpret_cast<const std::uint8_t*>(d.data()), static_cast<std::uint32_t>(d.size())); });
      }, py::arg("data"))
      .def("bytes", [](const Serialize& s) { return py::bytes(reinterpret_cast<const char*>(s.data()), s.writeOffset()); },
           "Everything written so far.")
      .def("__bytes__", [](const Serialize& s) { return py::bytes(reinterpret_cast<const char*>(s.data()), s.writeOffset()); })
      .def("__len__", &Serialize::writeOffset);
}

}  // namespace bgpcommon_python

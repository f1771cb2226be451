// Values of every registered type, reached through the type registry alone: a type added to the
// library shows up here with no code of its own.
//
// A C++ value reads as the Python object a Python user would reach for, chosen once per C++ type
// (a Conversion) from what the registry says of it:
//   bool, unsigned and signed numbers, text (str, one character per byte: Latin-1, as the long
//   form escapes it), bytes                      as themselves
//   Kelp::MaybeU63                               an int, or None when unset
//   an enumeration                               its Enum subclass (python/bgpcommon/_native.py)
//   a value type of one unsigned field, or of no field whose text is a decimal number (an
//   identifier, a tag, an AS number, a label)    its Number subclass, an int
//   IPv4 / IPv6 / either address, a prefix       ipaddress objects; an address or prefix of no
//                                                family is None
//   the community array of a policy result       a list of Community (ints printed HIGH:LOW)
//   a type with a Python class of its own        that class (the route target)
//   any other registered value type              a Value
// Going back, each conversion takes the same objects (and text where the type has a text form),
// and refuses anything else with an error naming the field.
//
// A Value is immutable: its fields are read through the type's reflective "get", and replace()
// builds a changed copy. Attribute reads do not go through Python's generic lookup first: the
// Value type's getattro looks the name up among the type's attributes (cached per type) before
// anything else, since a generic lookup that fails costs an exception.
#include <cmath>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <typeindex>
#include <unordered_map>
#include <vector>

#include <pybind11/stl.h>

#include "BgpCommon/IgpPolicyTypes.h"
#include "platform/Kelp/MaybeU63.h"
#include "platform/Netzo/IpGenPrefix.h"
#include "python/Module.h"

namespace bgpcommon_python {

enum class Kind : std::uint8_t {
  empty,
  boolean,
  unsignedNumber,
  signedNumber,
  floating,
  text,
  bytes,
  maybeU63,
  enumeration,
  number,      // one unsigned field
  numberText,  // no field, decimal text
  ipv4,
  ipv6,
  ipAny,
  prefix,
  communities,
  native,
  value,
  textOnly,
};

struct Conversion {
  Kind kind = Kind::textOnly;
  const std::type_info* cppType = nullptr;
  const Kelp::TypeInfo* type = nullptr;  // the registered type, where there is one
  // unsigned and signed numbers: read, build and the largest value.
  std::uint64_t (*getUnsigned)(const std::any&) = nullptr;
  std::any (*makeUnsigned)(std::uint64_t) = nullptr;
  std::int64_t (*getSigned)(const std::any&) = nullptr;
  std::any (*makeSigned)(std::int64_t) = nullptr;
  std::uint64_t max = 0;
  std::int64_t min = 0;
  // number: the conversion of the one field.
  const Conversion* inner = nullptr;
  // number, numberText, enumeration: the Python class; enumeration: the enumerators by name.
  PyObject* pyClass = nullptr;
  std::unordered_map<std::string, PyObject*> enumerators;
  // enumeration whose default value has no name (a zero left unnamed): that value, in Python (as
  // Level(0) gives it) and in C++. Null and empty otherwise.
  PyObject* unnamedDefault = nullptr;
  PyObject* unnamedNumber = nullptr;
  std::any defaultValue;
  NativeToPython toNative = nullptr;
  NativeFromPython fromNative = nullptr;
  // Text form and parser, where the type has them.
  Kelp::String (*print)(const std::any&) = nullptr;
  std::any (*parse)(std::string_view) = nullptr;
};

namespace {

// ---- Python objects used by the conversions (held for the life of the process) ---------------

struct PythonTypes {
  PyObject* ipv4Address;
  PyObject* ipv6Address;
  PyObject* ipv4Network;
  PyObject* ipv6Network;
  PyObject* community;
  py::object native;  // bgpcommon._native
};

const PythonTypes& pythonTypes() {
  static PythonTypes* t = nullptr;
  return madeOnce(t, [] {
    py::module_ ip = py::module_::import("ipaddress");
    py::module_ native = py::module_::import("bgpcommon._native");
    auto keep = [](py::object o) { return o.release().ptr(); };
    return PythonTypes{keep(ip.attr("IPv4Address")), keep(ip.attr("IPv6Address")), keep(ip.attr("IPv4Network")),
                       keep(ip.attr("IPv6Network")), keep(native.attr("Community")), native};
  });
}

// ---- Errors --------------------------------------------------------------------------------

std::string pythonTypeName(py::handle obj) { return Py_TYPE(obj.ptr())->tp_name; }

// An int's decimal text, whatever its subclass prints.
std::string decimal(py::handle n) {
  return py::reinterpret_steal<py::str>(PyLong_Type.tp_repr(n.ptr())).cast<std::string>();
}

[[noreturn]] void wrongType(std::string_view what, const char* expected, py::handle obj) {
  raise(PyExc_TypeError, std::string(what) + ": expected " + expected + ", not " + pythonTypeName(obj));
}

// Parses with the conversion's parser; a refusal is raised as `pythonType` naming `what`.
std::any parseAs(const Conversion& c, std::string_view text, std::string_view what, PyObject* pythonType) {
  try {
    return c.parse(text);
  } catch (const Kelp::RangeException& e) {
    raise(pythonType, std::string(what) + ": " + e.what());
  }
}

// ---- Building conversions ------------------------------------------------------------------

template <typename U>
void setUnsigned(Conversion& c) {
  c.kind = Kind::unsignedNumber;
  c.max = U(~U(0));
  c.getUnsigned = [](const std::any& v) -> std::uint64_t { return std::any_cast<U>(v); };
  c.makeUnsigned = [](std::uint64_t v) -> std::any { return static_cast<U>(v); };
}

template <typename S>
void setSigned(Conversion& c) {
  c.kind = Kind::signedNumber;
  c.max = static_cast<std::uint64_t>(std::numeric_limits<S>::max());
  c.min = std::numeric_limits<S>::min();
  c.getSigned = [](const std::any& v) -> std::int64_t { return std::any_cast<S>(v); };
  c.makeSigned = [](std::int64_t v) -> std::any { return static_cast<S>(v); };
}

// The name a registered type goes by in Python: the last part of its qualified name, or the whole
// name with "_" for "::" where two registered types share the last part.
std::string pythonNameOf(const Kelp::TypeInfo& t) {
  auto last = [](std::string_view n) { return n.substr(n.rfind(':') == std::string_view::npos ? 0 : n.rfind(':') + 1); };
  for (const Kelp::TypeInfo* other : Kelp::registeredTypes()) {
    if (other != &t && last(other->name) == last(t.name)) {
      std::string full(t.name);
      for (std::size_t at; (at = full.find("::")) != std::string::npos;) full.replace(at, 2, "_");
      return full;
    }
  }
  return std::string(last(t.name));
}

bool isDecimal(std::string_view s) { return !s.empty() && s.find_first_not_of("0123456789") == std::string_view::npos; }

using ConversionMap = std::unordered_map<std::type_index, std::unique_ptr<Conversion>>;
ConversionMap& conversions() {
  static ConversionMap* m = new ConversionMap;  // never destroyed: it holds Python objects
  return *m;
}

void fillFromRegistry(Conversion& c, const Kelp::TypeInfo& t) {
  c.type = &t;
  c.print = t.valueToStrep;
  c.parse = t.strepToValue;
  if (t.kind == Kelp::TypeKind::enumeration) {
    c.kind = Kind::enumeration;
    py::list entries;
    for (const Kelp::EnumEntryInfo& e : t.enumerators) entries.append(py::make_tuple(std::string(e.name), e.value));
    py::object unnamed = py::none();
    std::any byDefault = t.defaultValue != nullptr ? t.defaultValue() : std::any();
    if (byDefault.has_value() && isDecimal(t.valueToStrep(byDefault))) unnamed = py::int_(std::stoull(t.valueToStrep(byDefault)));
    py::object cls = pythonTypes().native.attr("enum_type")(std::string(t.name), pythonNameOf(t), entries, unnamed);
    py::dict byName = cls.attr("_by_name");
    for (auto item : byName) c.enumerators.emplace(item.first.cast<std::string>(), item.second.ptr());
    if (!unnamed.is_none()) {
      c.unnamedDefault = py::dict(cls.attr("_by_number"))[unnamed].ptr();  // the class holds both
      c.unnamedNumber = unnamed.release().ptr();
      c.defaultValue = std::move(byDefault);
    }
    c.pyClass = cls.release().ptr();
    return;
  }
  if (t.kind != Kelp::TypeKind::value) return;
  if (t.fields.size() == 1 && t.construct != nullptr) {
    const Conversion& inner = conversionFor(*t.fields[0].cppType);
    if (inner.kind == Kind::unsignedNumber) {
      c.kind = Kind::number;
      c.inner = &inner;
    }
  } else if (t.fields.empty() && t.defaultValue != nullptr && t.strepToValue != nullptr &&
             isDecimal(t.valueToStrep(t.defaultValue()))) {
    c.kind = Kind::numberText;
  }
  if (c.kind == Kind::number || c.kind == Kind::numberText) {
    c.pyClass = pythonTypes().native.attr("number_type")(std::string(t.name), pythonNameOf(t)).release().ptr();
  } else {
    c.kind = Kind::value;
  }
}

Conversion& newConversion(const std::type_info& cppType) {
  auto& slot = conversions()[std::type_index(cppType)];
  if (!slot) {
    slot = std::make_unique<Conversion>();
    slot->cppType = &cppType;
  }
  return *slot;
}

py::str latin1(std::string_view bytes) {
  PyObject* s = PyUnicode_DecodeLatin1(bytes.data(), static_cast<Py_ssize_t>(bytes.size()), nullptr);
  if (s == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(s);
}

std::string latin1Bytes(py::handle s, std::string_view what) {
  PyObject* b = PyUnicode_AsLatin1String(s.ptr());
  if (b == nullptr) {
    PyErr_Clear();
    raise(PyExc_ValueError, std::string(what) + ": text holds bytes, one character each (U+0000..U+00FF)");
  }
  return std::string(py::reinterpret_steal<py::bytes>(b));
}

// An instance of an int subclass, built without its constructor's checks.
py::object intOf(PyObject* cls, py::object number) {
  py::tuple args = py::make_tuple(number);
  PyObject* r = PyLong_Type.tp_new(reinterpret_cast<PyTypeObject*>(cls), args.ptr(), nullptr);
  if (r == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(r);
}

std::any fieldOf(const Kelp::TypeInfo& t, const std::any& v, std::size_t index);

template <Kind K>
void setKind(Conversion& c) {
  c.kind = K;
}

// How a value of each C++ type a field, argument or result may have meets Python, by type.
const std::unordered_map<std::type_index, void (*)(Conversion&)>& setters() {
  static const std::unordered_map<std::type_index, void (*)(Conversion&)> table = {
      {typeid(void), &setKind<Kind::empty>},
      {typeid(bool), &setKind<Kind::boolean>},
      {typeid(std::uint8_t), &setUnsigned<std::uint8_t>},
      {typeid(std::uint16_t), &setUnsigned<std::uint16_t>},
      {typeid(std::uint32_t), &setUnsigned<std::uint32_t>},
      {typeid(unsigned long), &setUnsigned<unsigned long>},
      {typeid(unsigned long long), &setUnsigned<unsigned long long>},
      {typeid(int), &setSigned<int>},
      {typeid(long), &setSigned<long>},
      {typeid(long long), &setSigned<long long>},
      {typeid(double), &setKind<Kind::floating>},
      {typeid(Kelp::String), &setKind<Kind::text>},
      {typeid(Kelp::Bytes), &setKind<Kind::bytes>},
      {typeid(Kelp::MaybeU63), &setKind<Kind::maybeU63>},
      {typeid(Routing::BgpRedistribute::CommunityArray), &setKind<Kind::communities>},
      {typeid(Netzo::IpAddr), &setKind<Kind::ipv4>},
      {typeid(Netzo::Ip6Addr), &setKind<Kind::ipv6>},
      {typeid(Netzo::IpGenAddr), &setKind<Kind::ipAny>},
      {typeid(Netzo::IpGenPrefix), &setKind<Kind::prefix>},
  };
  return table;
}

}  // namespace

const Conversion& conversionFor(const std::type_info& cppType) {
  auto it = conversions().find(std::type_index(cppType));
  if (it != conversions().end()) return *it->second;
  auto c = std::make_unique<Conversion>();
  c->cppType = &cppType;
  if (auto set = setters().find(std::type_index(cppType)); set != setters().end()) set->second(*c);
  if (const Kelp::TypeInfo* t = Kelp::findType(cppType)) {
    Kind known = c->kind;
    fillFromRegistry(*c, *t);
    if (known != Kind::textOnly) c->kind = known;  // the address types keep their ipaddress form
  }
  // Published whole, once made: making it ran Python code (the type's class), which lets other
  // threads run, and one of them may have made and published it meanwhile.
  auto& slot = conversions()[std::type_index(cppType)];
  if (!slot) slot = std::move(c);
  return *slot;
}

void nativeConversionIs(const std::type_info& cppType, NativeToPython to, NativeFromPython from) {
  Conversion& c = newConversion(cppType);
  c.kind = Kind::native;
  c.toNative = to;
  c.fromNative = from;
}

// A field-level conversion also learns the field's text form when its type is not registered.
static const Conversion& conversionForField(const Kelp::FieldInfo& f) {
  const Conversion& c = conversionFor(*f.cppType);
  if (c.print == nullptr && c.parse == nullptr) {
    Conversion& m = const_cast<Conversion&>(c);
    m.print = f.valueToStrep;
    m.parse = f.strepToValue;
  }
  return c;
}

py::object toPython(const std::any& v) { return toPython(v, conversionFor(v.has_value() ? v.type() : typeid(void))); }

py::object toPython(const std::any& v, const Conversion& c) {
  const PythonTypes& py = pythonTypes();
  switch (c.kind) {
    case Kind::empty:
      return py::none();
    case Kind::boolean:
      return py::bool_(std::any_cast<bool>(v));
    case Kind::unsignedNumber:
      return py::reinterpret_steal<py::object>(PyLong_FromUnsignedLongLong(c.getUnsigned(v)));
    case Kind::signedNumber:
      return py::reinterpret_steal<py::object>(PyLong_FromLongLong(c.getSigned(v)));
    case Kind::floating:
      return py::float_(std::any_cast<double>(v));
    case Kind::text:
      return latin1(std::any_cast<const Kelp::String&>(v));
    case Kind::bytes: {
      const auto& b = std::any_cast<const Kelp::Bytes&>(v);
      return py::bytes(reinterpret_cast<const char*>(b.data()), b.size());
    }
    case Kind::maybeU63: {
      const auto& m = std::any_cast<const Kelp::MaybeU63&>(v);
      if (!m.isSet()) return py::none();
      return py::reinterpret_steal<py::object>(PyLong_FromUnsignedLongLong(m.value()));
    }
    case Kind::enumeration: {
      Kelp::String name = c.print(v);
      auto it = c.enumerators.find(name);
      if (it != c.enumerators.end()) return py::reinterpret_borrow<py::object>(it->second);
      if (c.unnamedDefault != nullptr && name == c.print(c.defaultValue)) return py::reinterpret_borrow<py::object>(c.unnamedDefault);
      return py.native.attr("unnamed_enumerator")(py::handle(c.pyClass), std::stoull(name));
    }
    case Kind::number:
      return intOf(c.pyClass, toPython(fieldOf(*c.type, v, 0), *c.inner));
    case Kind::numberText: {
      Kelp::String text = c.print(v);
      return intOf(c.pyClass, py::reinterpret_steal<py::object>(PyLong_FromString(text.c_str(), nullptr, 10)));
    }
    case Kind::ipv4:
      return py::reinterpret_borrow<py::object>(py.ipv4Address)(std::any_cast<Netzo::IpAddr>(v).hostValue());
    case Kind::ipv6: {
      const auto& a = std::any_cast<const Netzo::Ip6Addr&>(v);
      return py::reinterpret_borrow<py::object>(py.ipv6Address)(
          py::bytes(reinterpret_cast<const char*>(a.octets().data()), a.octets().size()));
    }
    case Kind::ipAny: {
      const auto& a = std::any_cast<const Netzo::IpGenAddr&>(v);
      if (a.isIpv4()) return toPython(std::any(a.ipv4()));
      if (a.isIpv6()) return toPython(std::any(a.ipv6()));
      return py::none();
    }
    case Kind::prefix: {
      const auto& p = std::any_cast<const Netzo::IpGenPrefix&>(v);
      if (!p.address().isIpv4() && !p.address().isIpv6()) return py::none();
      PyObject* cls = p.address().isIpv4() ? py.ipv4Network : py.ipv6Network;
      py::object address = toPython(std::any(p.address()));
      return py::reinterpret_borrow<py::object>(cls)(py::make_tuple(address, p.length()), py::arg("strict") = false);
    }
    case Kind::communities: {
      const auto& a = std::any_cast<const Routing::BgpRedistribute::CommunityArray&>(v);
      py::list out(a.count());
      for (auto it = a.begin(); it; ++it) {
        py::object n = py::reinterpret_steal<py::object>(PyLong_FromUnsignedLong(it.value()));
        PyList_SET_ITEM(out.ptr(), it.position(), intOf(py.community, n).release().ptr());
      }
      return out;
    }
    case Kind::native:
      return c.toNative(v);
    case Kind::value:
      return py::cast(Value{c.type, v});
    case Kind::textOnly:
      if (c.print != nullptr) return latin1(c.print(v));
      break;
  }
  throw py::type_error(std::string("no Python form for a value of C++ type ") + c.cppType->name());
}

std::any fromPython(py::handle obj, const Conversion& c, std::string_view what) {
  if (py::isinstance<Value>(obj)) {
    const Value& v = obj.cast<const Value&>();
    if (v.value.type() == *c.cppType) return v.value;
    raise(PyExc_TypeError, std::string(what) + ": expected " + (c.type ? std::string(c.type->name) : "another value") +
                               ", not " + std::string(v.type->name));
  }
  PyObject* o = obj.ptr();
  const bool isInt = PyLong_Check(o) && !PyBool_Check(o);
  switch (c.kind) {
    case Kind::empty:
      break;
    case Kind::boolean:
      if (!PyBool_Check(o)) wrongType(what, "a bool", obj);
      return o == Py_True;
    case Kind::unsignedNumber: {
      if (!isInt) wrongType(what, "an int", obj);
      unsigned long long u = PyLong_AsUnsignedLongLong(o);  // OverflowError when negative or too large
      bool bad = PyErr_Occurred() != nullptr;
      PyErr_Clear();
      if (bad || u > c.max) {
        raise(PyExc_OverflowError, std::string(what) + ": " + decimal(obj) + " is out of range 0.." +
                                       std::to_string(c.max));
      }
      return c.makeUnsigned(u);
    }
    case Kind::signedNumber: {
      if (!isInt) wrongType(what, "an int", obj);
      int overflow = 0;
      long long s = PyLong_AsLongLongAndOverflow(o, &overflow);
      if (overflow != 0 || s < c.min || (s > 0 && static_cast<std::uint64_t>(s) > c.max)) {
        raise(PyExc_OverflowError, std::string(what) + ": " + decimal(obj) + " is out of range");
      }
      return c.makeSigned(s);
    }
    case Kind::floating:
      if (!PyFloat_Check(o) && !isInt) wrongType(what, "a float", obj);
      return obj.cast<double>();
    case Kind::text:
      if (!PyUnicode_Check(o)) wrongType(what, "a str", obj);
      return Kelp::String(latin1Bytes(obj, what));
    case Kind::bytes: {
      std::string b = bytesLike(obj, what);
      return Kelp::Bytes(b.begin(), b.end());
    }
    case Kind::maybeU63: {
      if (obj.is_none()) return Kelp::MaybeU63();
      static const Conversion& u63 = conversionFor(typeid(std::uint64_t));
      auto v = std::any_cast<std::uint64_t>(fromPython(obj, u63, what));
      if (v > Kelp::MaybeU63::kMaxValue) {
        raise(PyExc_OverflowError, std::string(what) + ": " + std::to_string(v) + " is out of range 0.." +
                                       std::to_string(Kelp::MaybeU63::kMaxValue));
      }
      return Kelp::MaybeU63(v);
    }
    case Kind::enumeration: {
      // The unnamed default is no text the parser reads, but a value of the type all the same.
      if (c.unnamedDefault != nullptr &&
          (o == c.unnamedDefault || (isInt && PyObject_RichCompareBool(o, c.unnamedNumber, Py_EQ) == 1))) {
        return c.defaultValue;
      }
      if (PyUnicode_Check(o)) return parseAs(c, std::string(py::str(obj)), what, rangeError());
      if (isInt) return parseAs(c, decimal(obj), what, rangeError());
      wrongType(what, "an enumerator name or number", obj);
    }
    case Kind::number: {
      if (!isInt) wrongType(what, "an int", obj);
      std::any inner = fromPython(obj, *c.inner, what);
      try {
        return c.type->construct(std::span<const std::any>(&inner, 1));
      } catch (const Kelp::RangeException& e) {
        raise(PyExc_OverflowError, std::string(what) + ": " + e.what());
      }
    }
    case Kind::numberText:
      if (!isInt) wrongType(what, "an int", obj);
      if (PyObject_RichCompareBool(o, py::int_(0).ptr(), Py_LT) == 1) {
        raise(PyExc_OverflowError, std::string(what) + ": " + decimal(obj) + " is negative");
      }
      return parseAs(c, decimal(obj), what, PyExc_OverflowError);
    case Kind::ipv4:
    case Kind::ipv6:
    case Kind::ipAny:
    case Kind::prefix: {
      const PythonTypes& py = pythonTypes();
      bool v4 = c.kind == Kind::prefix ? PyObject_IsInstance(o, py.ipv4Network) == 1
                                       : PyObject_IsInstance(o, py.ipv4Address) == 1;
      bool v6 = c.kind == Kind::prefix ? PyObject_IsInstance(o, py.ipv6Network) == 1
                                       : PyObject_IsInstance(o, py.ipv6Address) == 1;
      if ((c.kind == Kind::ipAny || c.kind == Kind::prefix) && obj.is_none()) return parseAs(c, "None", what, rangeError());
      bool fits = PyUnicode_Check(o) || (c.kind == Kind::ipv4 ? v4 : c.kind == Kind::ipv6 ? v6 : v4 || v6);
      if (!fits) {
        wrongType(what, c.kind == Kind::prefix ? "an IPv4Network, an IPv6Network or its text"
                  : c.kind == Kind::ipv4       ? "an IPv4Address or its text"
                  : c.kind == Kind::ipv6       ? "an IPv6Address or its text"
                                               : "an IPv4Address, an IPv6Address or its text",
                  obj);
      }
      return parseAs(c, py::str(obj).cast<std::string>(), what, rangeError());
    }
    case Kind::communities: {
      if (PyUnicode_Check(o) || !py::isinstance<py::iterable>(obj)) wrongType(what, "a list of communities", obj);
      std::string text = "[";
      for (py::handle item : obj) {
        py::object n = py::reinterpret_borrow<py::object>(pythonTypes().community)(item);
        text += (text.size() > 1 ? ", " : "") + std::to_string(PyLong_AsUnsignedLong(n.ptr()));
      }
      return parseAs(c, text + "]", what, rangeError());
    }
    case Kind::native:
      return c.fromNative(obj, what);
    case Kind::value:
      raise(PyExc_TypeError, std::string(what) + ": expected a " + std::string(c.type->name) + " value, not " +
                                 pythonTypeName(obj));
    case Kind::textOnly:
      if (c.parse != nullptr && PyUnicode_Check(o)) return parseAs(c, std::string(py::str(obj)), what, rangeError());
      break;
  }
  raise(PyExc_TypeError, std::string(what) + " cannot be given from Python");
}

std::string bytesLike(py::handle obj, std::string_view what) {
  if (PyUnicode_Check(obj.ptr()) || !PyObject_CheckBuffer(obj.ptr())) wrongType(what, "a bytes-like object", obj);
  Py_buffer view;
  if (PyObject_GetBuffer(obj.ptr(), &view, PyBUF_C_CONTIGUOUS) != 0) throw py::error_already_set();
  std::string out(static_cast<const char*>(view.buf), static_cast<std::size_t>(view.len));
  PyBuffer_Release(&view);
  return out;
}

namespace {

// ---- Per-type cache of attributes ------------------------------------------------------------

struct Attribute {
  const Kelp::AttrInfo* info;
  Kelp::KelpAttrBase base;
  const Conversion* conversion;  // fields
  std::string what;              // "Type.field", for errors
};

struct TypeCache {
  const Kelp::TypeInfo* type;
  std::string pythonName;
  std::vector<Attribute> attributes;  // fields first, in order
  std::size_t fieldCount = 0;
  std::any defaultValue;  // empty when the type has none
};

const TypeCache& cacheOf(const Kelp::TypeInfo* t) {
  static auto* caches = new std::unordered_map<const Kelp::TypeInfo*, std::unique_ptr<TypeCache>>;
  if (auto found = caches->find(t); found != caches->end()) return *found->second;
  // Published whole, once made, as conversions are (conversionFor): the field conversions run
  // Python code.
  auto c = std::make_unique<TypeCache>();
  c->type = t;
  c->pythonName = pythonNameOf(*t);
  for (const Kelp::AttrInfo& a : t->attributes) {
    Attribute at{&a, {a.id, a.name}, nullptr, c->pythonName + "." + std::string(a.name)};
    if (a.kind == Kelp::AttrKind::field && c->fieldCount < t->fields.size()) {
      at.conversion = &conversionForField(t->fields[c->fieldCount++]);
    }
    c->attributes.push_back(std::move(at));
  }
  if (t->defaultValue != nullptr) c->defaultValue = t->defaultValue();
  auto& slot = (*caches)[t];
  if (!slot) slot = std::move(c);
  return *slot;
}

const Attribute* attributeNamed(const TypeCache& c, std::string_view name) {
  for (const Attribute& a : c.attributes) {
    if (a.info->name == name) return &a;
  }
  return nullptr;
}

// Runs the reflective operation on `obj`; an answer other than "done" is an AttributeError.
std::any attributeOp(const Kelp::TypeInfo& t, std::any& obj, const Kelp::KelpAttrBase* a, int op,
                     const std::any* other = nullptr, std::span<const std::any> args = {}) {
  if (t.attributeOp == nullptr) throw py::type_error(std::string(t.name) + " has no attributes");
  std::any result;
  int status = t.attributeOp(&result, obj, a, op, other, args);
  if (status != Kelp::attrStatusDone) {
    throw py::attribute_error("'" + std::string(t.name) + "' value: operation " + std::to_string(op) +
                              " not supported" + (a != nullptr ? " on '" + std::string(a->name) + "'" : ""));
  }
  return result;
}

std::any fieldOf(const Kelp::TypeInfo& t, const std::any& v, std::size_t index) {
  const Attribute& a = cacheOf(&t).attributes[index];
  return attributeOp(t, const_cast<std::any&>(v), &a.base, Kelp::attrOpGet);
}

// A function of the value: called on a copy, with its arguments converted by its parameter types.
py::object callFunction(const Value& self, const Attribute& a, py::args args) {
  const Kelp::AttrInfo& info = *a.info;
  if (args.size() != info.parameterTypes.size()) {
    raise(PyExc_TypeError, a.what + "() takes " + std::to_string(info.parameterTypes.size()) + " argument(s), " +
                               std::to_string(args.size()) + " given");
  }
  std::vector<std::any> cargs;
  for (std::size_t i = 0; i < args.size(); ++i) {
    cargs.push_back(fromPython(args[i], conversionFor(*info.parameterTypes[i]),
                               a.what + "() argument " + std::to_string(i + 1)));
  }
  Value copy = self;
  std::any result = attributeOp(*copy.type, copy.value, &a.base, Kelp::attrOpCall, nullptr, cargs);
  if (!info.changesValue) return toPython(result);
  // An update returns the value it made (the value it was called on is immutable), and what the
  // function returned besides, if anything.
  py::object changed = toPython(copy.value);
  if (*info.resultType == typeid(void)) return changed;
  return py::make_tuple(changed, toPython(result));
}

py::object getAttribute(const Value& self, const Attribute& a) {
  switch (a.info->kind) {
    case Kelp::AttrKind::field:
      return toPython(attributeOp(*self.type, const_cast<std::any&>(self.value), &a.base, Kelp::attrOpGet), *a.conversion);
    case Kelp::AttrKind::constant:
      return toPython(attributeOp(*self.type, const_cast<std::any&>(self.value), &a.base, Kelp::attrOpGet));
    case Kelp::AttrKind::function:
      break;
  }
  Value bound = self;
  const Attribute* at = &a;
  return py::cpp_function([bound, at](py::args args) { return callFunction(bound, *at, std::move(args)); },
                          py::name(std::string(a.info->name).c_str()));
}

Value& valueOf(PyObject* self) { return py::handle(self).cast<Value&>(); }

// Sets the current Python error from the C++ exception being handled.
void setPythonError() {
  try {
    throw;
  } catch (py::error_already_set& e) {
    e.restore();
  } catch (const py::builtin_exception& e) {
    e.set_error();
  } catch (const Kelp::RangeException& e) {
    PyErr_SetString(rangeError(), e.what());
  } catch (const Kelp::TypeException& e) {
    PyErr_SetString(PyExc_TypeError, e.what());
  } catch (const std::exception& e) {
    PyErr_SetString(PyExc_RuntimeError, e.what());
  }
}

PyObject* valueGetattro(PyObject* self, PyObject* name) {
  try {
    Py_ssize_t n = 0;
    const char* s = PyUnicode_AsUTF8AndSize(name, &n);
    if (s != nullptr && n > 0 && s[0] != '_') {
      const Value& v = valueOf(self);
      if (const Attribute* a = attributeNamed(cacheOf(v.type), std::string_view(s, static_cast<std::size_t>(n)))) {
        return getAttribute(v, *a).release().ptr();
      }
    }
  } catch (...) {
    setPythonError();
    return nullptr;
  }
  return PyObject_GenericGetAttr(self, name);
}

int valueSetattro(PyObject* self, PyObject* name, PyObject*) {
  std::string typeName = "a";
  try {
    typeName = cacheOf(valueOf(self).type).pythonName;
  } catch (...) {
    PyErr_Clear();
  }
  PyErr_Format(PyExc_AttributeError, "%s values are immutable: v.replace(%U=...) gives a changed copy", typeName.c_str(),
               name);
  return -1;
}

const Kelp::TypeInfo& typeNamed(std::string_view name) {
  const Kelp::TypeInfo* t = Kelp::findType(name);
  if (t == nullptr) throw py::value_error("unknown type '" + std::string(name) + "' (see bgpcommon.types())");
  return *t;
}

// Builds a value of `t` from keyword fields; the others come from `base` (or the type's default).
std::any buildValue(const Kelp::TypeInfo& t, const py::kwargs& fields, const std::any* base) {
  if (t.kind != Kelp::TypeKind::value || t.construct == nullptr) {
    throw py::type_error(std::string(t.name) + " is not a value type built from fields");
  }
  const TypeCache& c = cacheOf(&t);
  if (base == nullptr && c.defaultValue.has_value()) base = &c.defaultValue;
  std::vector<std::any> args;
  std::size_t used = 0;
  for (std::size_t i = 0; i < c.fieldCount; ++i) {
    const Attribute& a = c.attributes[i];
    std::string name(a.info->name);
    if (fields.contains(name)) {
      args.push_back(fromPython(fields[name.c_str()], *a.conversion, a.what));
      ++used;
    } else if (base != nullptr) {
      args.push_back(attributeOp(t, const_cast<std::any&>(*base), &a.base, Kelp::attrOpGet));
    } else {
      throw py::type_error(c.pythonName + " needs the field '" + name + "' (the type has no default value)");
    }
  }
  if (used != fields.size()) {
    for (auto item : fields) {
      std::string name = item.first.cast<std::string>();
      const Attribute* a = attributeNamed(c, name);
      if (a == nullptr || a->info->kind != Kelp::AttrKind::field) {
        throw py::type_error(c.pythonName + " has no field '" + name + "'");
      }
    }
  }
  try {
    return t.construct(args);
  } catch (const Kelp::RangeException& e) {
    raise(PyExc_ValueError, c.pythonName + ": " + e.what());
  }
}

std::any parseText(const Kelp::TypeInfo& t, std::string_view text) {
  if (t.strepToValue == nullptr) throw py::type_error(std::string(t.name) + " cannot be built from text");
  return t.strepToValue(text);
}

// Text is read as the long form writes it, one character per byte (latin1Bytes), as every text
// field and pickle is; so the é of a text field typed into a long form is the octet 0xE9, as it is
// given by name (not the two octets of its UTF-8).
py::object parse(const py::str& pythonText, const std::optional<std::string>& typeName) {
  const std::string text = latin1Bytes(pythonText, "text");
  std::string name;
  if (typeName) {
    name = *typeName;
  } else {
    // The long form names its type: Value('Routing::Bgp::MaxRoutes', ** {...})
    static constexpr std::string_view head = "Value('";
    std::size_t end = text.find('\'', head.size());
    if (text.compare(0, head.size(), head) != 0 || end == std::string::npos) {
      throw py::value_error("the text names no type (it is not a Value(...) form): give type=");
    }
    name = text.substr(head.size(), end - head.size());
  }
  return toPython(parseText(typeNamed(name), text));
}

bool equal(const Value& a, const Value& b) {
  if (a.type != b.type) return false;
  if (a.type->attributeOp == nullptr) return a.type->valueToStrep(a.value) == b.type->valueToStrep(b.value);
  return std::any_cast<bool>(attributeOp(*a.type, const_cast<std::any&>(a.value), nullptr, Kelp::attrOpEqual, &b.value));
}

py::object notImplemented() { return py::reinterpret_borrow<py::object>(Py_NotImplemented); }

// a < b where the type has operator<; NotImplemented otherwise.
py::object less(const Value& a, py::handle other, bool swap) {
  if (!py::isinstance<Value>(other)) return notImplemented();
  const Value& b = other.cast<const Value&>();
  if (a.type != b.type || a.type->attributeOp == nullptr) return notImplemented();
  const Value& x = swap ? b : a;
  const Value& y = swap ? a : b;
  std::any r;
  if (x.type->attributeOp(&r, const_cast<std::any&>(x.value), nullptr, Kelp::attrOpLess, &y.value, {}) !=
      Kelp::attrStatusDone) {
    return notImplemented();
  }
  return py::bool_(std::any_cast<bool>(r));
}

// repr: TypeName(field=..., ...) with the fields that differ from the type's default (all of them
// when it has none), each as its own repr; a type without fields as TypeName('text').
py::dict fieldsOf(const Value& v);

std::string reprOf(const Value& v) {
  const TypeCache& c = cacheOf(v.type);
  if (c.fieldCount == 0) return c.pythonName + "(" + py::repr(latin1(v.type->valueToStrep(v.value))).cast<std::string>() + ")";
  std::string out = c.pythonName + "(";
  for (const auto& [name, value] : fieldsOf(v)) {
    out += (out.back() == '(' ? "" : ", ") + name.cast<std::string>() + "=" + py::repr(value).cast<std::string>();
  }
  return out + ")";
}

py::dict fieldsOf(const Value& v) {
  const TypeCache& c = cacheOf(v.type);
  py::dict out;
  for (std::size_t i = 0; i < c.fieldCount; ++i) {
    // Fields at their default are left out: one Python cannot give back (a pointer) is then
    // never given unless it is set.
    const Attribute& a = c.attributes[i];
    std::any f = attributeOp(*v.type, const_cast<std::any&>(v.value), &a.base, Kelp::attrOpGet);
    if (c.defaultValue.has_value() && a.conversion->print != nullptr) {
      std::any d = attributeOp(*v.type, const_cast<std::any&>(c.defaultValue), &a.base, Kelp::attrOpGet);
      if (a.conversion->print(f) == a.conversion->print(d)) continue;
    }
    out[py::str(std::string(a.info->name))] = toPython(f, *a.conversion);
  }
  return out;
}

const char* kindName(Kelp::AttrKind k) {
  switch (k) {
    case Kelp::AttrKind::field: return "field";
    case Kelp::AttrKind::constant: return "constant";
    case Kelp::AttrKind::function: return "function";
  }
  return "?";
}

// (name, default) of each field of `t`, the default in its Python form (Ellipsis when it has none);
// (name,) alone when the type has no default value, since every field is then needed.
py::list fieldDefaults(const Kelp::TypeInfo& t) {
  const TypeCache& c = cacheOf(&t);
  py::list out;
  for (std::size_t i = 0; i < c.fieldCount; ++i) {
    const Attribute& a = c.attributes[i];
    py::str name(std::string(a.info->name));
    if (!c.defaultValue.has_value()) {
      out.append(py::make_tuple(name));
      continue;
    }
    py::object d = py::ellipsis();
    try {
      d = toPython(attributeOp(t, const_cast<std::any&>(c.defaultValue), &a.base, Kelp::attrOpGet), *a.conversion);
    } catch (const std::exception&) {
      // a field Python cannot hold (a pointer): left at its default unless given
    }
    out.append(py::make_tuple(name, d));
  }
  return out;
}

// A value of a number-like type from a Python int.
std::any numberFrom(const std::string& typeName, py::handle n) {
  const Kelp::TypeInfo& t = typeNamed(typeName);
  return fromPython(n, conversionFor(*t.cppType), cacheOf(&t).pythonName);
}

}  // namespace

void bindValues(py::module_& m) {
  py::class_<Value> value(m, "Value", R"(A value of a registered type that has no Python type of its own.

Value(type_name, **fields) builds one from its fields (those left out keep their default);
Value(type_name, text) reads its long text form. Fields and constants read as attributes, in
their Python form (ints, enumerators, ipaddress objects, ...); functions are methods.

Values are immutable, as ipaddress objects are: v.replace(**fields) gives a changed copy, and a
function that changes its value (a non-const member function) returns the changed copy (or
(copy, result) when it also returns something). str() is the long text form, repr() an expression
that bgpcommon.namespace() evaluates back to the value. == is the type's equality, <, <=, >, >=
its ordering where it has one, hash() works where the type is hashable. to_dict() and to_json()
give the JSON of the tool's --json. Values pickle and copy.)");
  value
      .def(py::init([](const std::string& typeName, const std::optional<py::str>& text, const py::kwargs& fields) {
             const Kelp::TypeInfo& t = typeNamed(typeName);
             if (text) {
               if (fields.size() != 0) throw py::type_error("Value() takes a text or fields, not both");
               return Value{&t, parseText(t, latin1Bytes(*text, "text"))};
             }
             return Value{&t, buildValue(t, fields, nullptr)};
           }),
           py::arg("type_name"), py::arg("text") = py::none(), py::pos_only())
      .def_property_readonly("type_name", [](const Value& v) { return std::string(v.type->name); },
                             "The registered name of the value's type.")
      .def("replace", [](const Value& v, const py::kwargs& fields) { return Value{v.type, buildValue(*v.type, fields, &v.value)}; },
           "A copy with the given fields changed.")
      .def("to_json", [](const Value& v) { return v.type->valueToJson(v.value); },
           "The value's JSON, as the tool's --json prints it.")
      .def("to_dict", [](const Value& v) { return py::module_::import("json").attr("loads")(v.type->valueToJson(v.value)); },
           "The value's JSON as Python objects (a dict for a type of several fields).")
      .def("__str__", [](const Value& v) { return latin1(v.type->valueToStrep(v.value)); })
      .def("__repr__", &reprOf)
      .def("__dir__", [](const Value& v) {
        std::vector<std::string> names{"type_name", "replace", "to_dict", "to_json"};
        for (const Kelp::AttrInfo& a : v.type->attributes) names.emplace_back(a.name);
        return names;
      })
      .def("__eq__", [](const Value& a, py::object b) -> py::object {
        if (!py::isinstance<Value>(b)) return notImplemented();
        return py::bool_(equal(a, b.cast<const Value&>()));
      })
      .def("__ne__", [](const Value& a, py::object b) -> py::object {
        if (!py::isinstance<Value>(b)) return notImplemented();
        return py::bool_(!equal(a, b.cast<const Value&>()));
      })
      .def("__lt__", [](const Value& a, py::object b) { return less(a, b, false); })
      .def("__gt__", [](const Value& a, py::object b) { return less(a, b, true); })
      .def("__le__", [](const Value& a, py::object b) -> py::object {
        py::object r = less(a, b, true);
        return r.is(notImplemented()) ? r : py::bool_(!r.cast<bool>());
      })
      .def("__ge__", [](const Value& a, py::object b) -> py::object {
        py::object r = less(a, b, false);
        return r.is(notImplemented()) ? r : py::bool_(!r.cast<bool>());
      })
      .def("__hash__", [](const Value& v) -> std::size_t { return v.type->hash(v.value); })
      .def("__bool__", [](const Value& v) {
        if (v.type->attributeOp == nullptr) return true;
        return std::any_cast<bool>(attributeOp(*v.type, const_cast<std::any&>(v.value), nullptr, Kelp::attrOpTruth));
      })
      .def("__copy__", [](py::object self) { return self; })
      .def("__deepcopy__", [](py::object self, py::object) { return self; })
      .def("__reduce__", [](const Value& v) {
        // Through the long text form where the type reads one; otherwise through its fields.
        if (v.type->strepToValue != nullptr) {
          return py::make_tuple(pythonTypes().native.attr("from_text"), py::make_tuple(std::string(v.type->name), latin1(v.type->valueToStrep(v.value))));
        }
        return py::make_tuple(pythonTypes().native.attr("from_fields"), py::make_tuple(std::string(v.type->name), fieldsOf(v)));
      });
  auto* tp = reinterpret_cast<PyTypeObject*>(value.ptr());
  tp->tp_getattro = &valueGetattro;
  tp->tp_setattro = &valueSetattro;
  PyType_Modified(tp);

  m.def("_from_text", [](const std::string& typeName, py::handle text) {
    return toPython(parseText(typeNamed(typeName), latin1Bytes(text, "text")));
  });
  m.def("_from_fields", [](const std::string& typeName, const py::dict& fields) {
    auto kw = py::reinterpret_borrow<py::kwargs>(fields);
    return toPython(buildValue(typeNamed(typeName), kw, nullptr));
  });
  // The checks and text behind bgpcommon.Number (see _native.py).
  m.def("_number_check", [](const std::string& typeName, py::handle n) { return toPython(numberFrom(typeName, n)); });
  m.def("_number_text", [](const std::string& typeName, py::handle n) {
    return latin1(typeNamed(typeName).valueToStrep(numberFrom(typeName, n)));
  });
  m.def("_number_attribute", [](const std::string& typeName, py::handle n, const std::string& name) {
    const Kelp::TypeInfo& t = typeNamed(typeName);
    const Attribute* a = attributeNamed(cacheOf(&t), name);
    if (a == nullptr) {
      throw py::attribute_error("'" + cacheOf(&t).pythonName + "' object has no attribute '" + name + "'");
    }
    return getAttribute(Value{&t, numberFrom(typeName, n)}, *a);
  });
  m.def("_enum_value", [](const std::string& typeName, py::handle v) {
    const Kelp::TypeInfo& t = typeNamed(typeName);
    return toPython(fromPython(v, conversionFor(*t.cppType), cacheOf(&t).pythonName));
  });

  m.def("types", [] {
    std::vector<std::string> names;
    for (const Kelp::TypeInfo* t : Kelp::registeredTypes()) names.emplace_back(t->name);
    return names;
  }, "The names of the registered types, sorted.");

  m.def("default", [](const std::string& name) {
    const Kelp::TypeInfo& t = typeNamed(name);
    if (t.defaultValue == nullptr) throw py::type_error(name + " has no default value");
    return toPython(t.defaultValue());
  }, py::arg("type_name"), "A default-constructed value of the type, in its Python form.");

  m.def("parse", &parse, py::arg("text"), py::kw_only(), py::arg("type") = py::none(),
        ""
        "The value a long text form describes, in its Python form; its type is read from the text unless given.");

  m.def("attributes", [](const std::string& name) {
    std::vector<py::tuple> out;
    for (const Kelp::AttrInfo& a : typeNamed(name).attributes) out.push_back(py::make_tuple(a.id, a.name, kindName(a.kind)));
    return out;
  }, py::arg("type_name"), ""
                           "The type's reflective attributes as (number, name, kind) tuples.");

  m.def("python_type", [](const std::string& name) -> py::object {
    const Kelp::TypeInfo& t = typeNamed(name);
    if (t.cppType == nullptr) return py::none();
    const Conversion& c = conversionFor(*t.cppType);
    if (c.pyClass != nullptr) return py::reinterpret_borrow<py::object>(c.pyClass);
    return py::none();
  }, py::arg("type_name"), ""
                           "The Number or Enum subclass values of a number-like type or enumeration read as.");

  m.def("_python_types", [] {
    // The Python name of every registered value type and enumeration: its class, or for a Value
    // type a constructor taking its fields by name (or its long text form).
    static py::dict* names = nullptr;
    return madeOnce(names, [] {
      py::dict ns;
      for (const Kelp::TypeInfo* t : Kelp::registeredTypes()) {
        if (t->kind == Kelp::TypeKind::entity || t->cppType == nullptr) continue;
        const Conversion& c = conversionFor(*t->cppType);
        std::string name = pythonNameOf(*t);
        if (c.pyClass != nullptr) {
          ns[py::str(name)] = py::reinterpret_borrow<py::object>(c.pyClass);
        } else if (c.kind == Kind::value) {
          ns[py::str(name)] = pythonTypes().native.attr("value_constructor")(
              name, std::string(t->name), t->strepToValue != nullptr, fieldDefaults(*t));
        }
      }
      return ns;
    });
  });

  m.def("namespace", [m] {
    // Everything a long form or a repr refers to: Value, the words for booleans and "unset",
    // every enumerator's name (standing for itself, as an enumeration field reads it back), the
    // Python name of every registered type, the ipaddress classes and Community.
    py::dict ns;
    ns["Value"] = m.attr("Value");
    ns["True"] = py::bool_(true);
    ns["False"] = py::bool_(false);
    ns["None"] = py::none();
    for (const Kelp::TypeInfo* t : Kelp::registeredTypes()) {
      for (const Kelp::EnumEntryInfo& e : t->enumerators) ns[py::str(std::string(e.name))] = std::string(e.name);
    }
    ns.attr("update")(m.attr("_python_types")());
    py::module_ ip = py::module_::import("ipaddress");
    for (const char* n : {"IPv4Address", "IPv6Address", "IPv4Network", "IPv6Network"}) ns[n] = ip.attr(n);
    ns["Community"] = py::reinterpret_borrow<py::object>(pythonTypes().community);
    if (py::hasattr(m, "RouteTarget")) ns["RouteTarget"] = m.attr("RouteTarget");
    return ns;
  }, ""
     "A dict in which eval() of a long text form, or of a repr, gives the value it describes.");
}

}  // namespace bgpcommon_python

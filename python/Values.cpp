// Values of every registered type, reached through the type registry alone: a type added to the
// library shows up here with no code of its own.
//
// Field values cross the boundary as Python's own objects where there is an obvious one (bool,
// int, str, bytes, None or int for an optional number, a list for a community array, the
// enumerator's name for an enumeration) and as a Value for a nested value type. Going back, a
// Value is taken as it is; any other object is turned into the field's text form (a str as it
// stands, anything else through repr) and parsed by the field's own parser, so the library decides
// what it accepts and its errors are the ones raised.
//
// Text fields (Kelp::String) are byte strings; they map to str one byte per character (Latin-1),
// which is also how their long form escapes them, so eval of a long form gives back the same bytes.
#include <string>
#include <string_view>
#include <typeindex>
#include <unordered_map>
#include <vector>

#include <pybind11/stl.h>

#include "python/Module.h"

namespace bgpcommon_python {

namespace {

const Kelp::TypeInfo& typeNamed(std::string_view name) {
  const Kelp::TypeInfo* t = Kelp::findType(name);
  if (t == nullptr) throw py::value_error("unknown type '" + std::string(name) + "' (see bgpcommon.types())");
  return *t;
}

// The registered type whose C++ type is `type`, or null.
const Kelp::TypeInfo* typeOf(const std::type_info& type) {
  std::unordered_map<std::type_index, const Kelp::TypeInfo*> byType;
  for (const Kelp::TypeInfo* t : Kelp::registeredTypes()) {
    if (t->cppType != nullptr) byType.emplace(*t->cppType, t);
  }
  auto it = byType.find(type);
  return it == byType.end() ? nullptr : it->second;
}

py::str latin1(std::string_view bytes) {
  PyObject* s = PyUnicode_DecodeLatin1(bytes.data(), static_cast<Py_ssize_t>(bytes.size()), nullptr);
  if (s == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(s);
}

std::string latin1Bytes(py::handle s) {
  PyObject* b = PyUnicode_AsLatin1String(s.ptr());
  if (b == nullptr) throw py::error_already_set();
  return std::string(py::reinterpret_steal<py::bytes>(b));
}

// A plain C++ value as its Python object, or nothing when it is not a plain one.
py::object plainToPython(const std::any& v) {
  const std::type_info& t = v.type();
  if (t == typeid(bool)) return py::bool_(std::any_cast<bool>(v));
  if (t == typeid(std::uint8_t)) return py::int_(std::any_cast<std::uint8_t>(v));
  if (t == typeid(std::uint16_t)) return py::int_(std::any_cast<std::uint16_t>(v));
  if (t == typeid(std::uint32_t)) return py::int_(std::any_cast<std::uint32_t>(v));
  if (t == typeid(std::uint64_t)) return py::int_(std::any_cast<std::uint64_t>(v));
  if (t == typeid(unsigned long long)) return py::int_(std::any_cast<unsigned long long>(v));
  if (t == typeid(int)) return py::int_(std::any_cast<int>(v));
  if (t == typeid(std::int64_t)) return py::int_(std::any_cast<std::int64_t>(v));
  if (t == typeid(double)) return py::float_(std::any_cast<double>(v));
  if (t == typeid(Kelp::String)) return latin1(std::any_cast<const Kelp::String&>(v));
  if (t == typeid(Kelp::Bytes)) {
    const auto& b = std::any_cast<const Kelp::Bytes&>(v);
    return py::bytes(reinterpret_cast<const char*>(b.data()), b.size());
  }
  if (!v.has_value()) return py::none();
  return py::object();
}

// An enumerator as Python sees it: its name, or its number when it has none.
py::object enumToPython(const Kelp::TypeInfo& t, const std::any& v) {
  Kelp::String text = t.valueToStrep(v);
  if (!text.empty() && text.find_first_not_of("0123456789") == Kelp::String::npos) {
    return py::reinterpret_steal<py::object>(PyLong_FromString(text.c_str(), nullptr, 10));
  }
  return py::str(text);
}

// Any C++ value as its Python object; `field` (may be null) gives the text form of types the
// registry does not know.
py::object toPython(const std::any& v, const Kelp::FieldInfo* field) {
  if (py::object plain = plainToPython(v)) return plain;
  if (const Kelp::TypeInfo* t = typeOf(v.type())) {
    if (t->kind == Kelp::TypeKind::enumeration) return enumToPython(*t, v);
    return wrapValue(t, v);
  }
  if (field != nullptr && field->valueToStrep != nullptr) {
    // Types without an entry of their own print as Python literals: None, numbers, lists.
    Kelp::String text = field->valueToStrep(v);
    try {
      return py::module_::import("ast").attr("literal_eval")(text);
    } catch (const py::error_already_set&) {
      return py::str(text);
    }
  }
  throw py::type_error(std::string("no Python form for a value of C++ type ") + v.type().name());
}

// A Python object as the value of `field`.
std::any fieldFromPython(const Kelp::TypeInfo& owner, const Kelp::FieldInfo& field, py::handle obj) {
  if (py::isinstance<Value>(obj)) {
    const Value& v = obj.cast<const Value&>();
    if (v.value.type() == *field.cppType) return v.value;
    throw py::type_error(std::string(owner.name) + "." + std::string(field.name) + " takes no value of type " +
                         std::string(v.type->name));
  }
  if (*field.cppType == typeid(Kelp::String) && py::isinstance<py::str>(obj)) return Kelp::String(latin1Bytes(obj));
  if (*field.cppType == typeid(Kelp::Bytes) && py::isinstance<py::bytes>(obj)) {
    std::string b = obj.cast<std::string>();
    return Kelp::Bytes(b.begin(), b.end());
  }
  if (field.strepToValue == nullptr) {
    throw py::type_error(std::string(owner.name) + "." + std::string(field.name) + " cannot be given from Python");
  }
  std::string text = py::isinstance<py::str>(obj) ? obj.cast<std::string>() : py::repr(obj).cast<std::string>();
  return field.strepToValue(text);
}

const Kelp::AttrInfo& attributeNamed(const Kelp::TypeInfo& t, std::string_view name) {
  const Kelp::AttrInfo* a = t.attribute(name);
  if (a == nullptr) {
    throw py::attribute_error("'" + std::string(t.name) + "' value has no attribute '" + std::string(name) + "'");
  }
  return *a;
}

const Kelp::FieldInfo* fieldNamed(const Kelp::TypeInfo& t, std::string_view name) {
  for (const Kelp::FieldInfo& f : t.fields) {
    if (f.name == name) return &f;
  }
  return nullptr;
}

// Runs the reflective operation; an answer other than "done" is an AttributeError.
std::any attributeOp(Value& self, const Kelp::AttrInfo* a, int op, const std::any* other = nullptr,
                     std::span<const std::any> args = {}) {
  if (self.type->attributeOp == nullptr) throw py::type_error(std::string(self.type->name) + " has no attributes");
  std::any result;
  Kelp::KelpAttrBase attr{a != nullptr ? a->id : 0, a != nullptr ? a->name : std::string_view()};
  int status = self.type->attributeOp(&result, self.value, a != nullptr ? &attr : nullptr, op, other, args);
  if (status != Kelp::attrStatusDone) {
    throw py::attribute_error("'" + std::string(self.type->name) + "' value: operation " + std::to_string(op) +
                              " not supported" + (a != nullptr ? " on '" + std::string(a->name) + "'" : ""));
  }
  return result;
}

py::object getAttribute(Value& self, const std::string& name) {
  const Kelp::AttrInfo& a = attributeNamed(*self.type, name);
  switch (a.kind) {
    case Kelp::AttrKind::field:
      return toPython(attributeOp(self, &a, Kelp::attrOpGet), fieldNamed(*self.type, name));
    case Kelp::AttrKind::constant:
      return toPython(attributeOp(self, &a, Kelp::attrOpGet), nullptr);
    case Kelp::AttrKind::function:
      break;
  }
  // A function: a callable taking Values (the only arguments whose C++ type is known here).
  Value bound = self;
  return py::cpp_function([bound, a](py::args args) mutable {
    std::vector<std::any> cargs;
    for (py::handle h : args) {
      if (!py::isinstance<Value>(h)) throw py::type_error(std::string(a.name) + "() takes only bgpcommon values");
      cargs.push_back(h.cast<const Value&>().value);
    }
    return toPython(attributeOp(bound, &a, Kelp::attrOpCall, nullptr, cargs), nullptr);
  });
}

Value makeValue(const std::string& typeName, const py::kwargs& fields) {
  const Kelp::TypeInfo& t = typeNamed(typeName);
  if (t.kind != Kelp::TypeKind::value || t.construct == nullptr) {
    throw py::type_error(typeName + " is not a value type built from fields");
  }
  std::any zero;
  if (t.defaultValue != nullptr) zero = t.defaultValue();
  Value def{&t, zero};
  std::vector<std::any> args;
  std::size_t used = 0;
  for (const Kelp::FieldInfo& f : t.fields) {
    std::string name(f.name);
    if (fields.contains(name)) {
      args.push_back(fieldFromPython(t, f, fields[name.c_str()]));
      ++used;
    } else if (t.defaultValue != nullptr) {
      args.push_back(attributeOp(def, t.attribute(f.name), Kelp::attrOpGet));
    } else {
      throw py::type_error(typeName + " needs the field '" + name + "' (the type has no default value)");
    }
  }
  if (used != fields.size()) {
    for (auto item : fields) {
      std::string name = item.first.cast<std::string>();
      if (fieldNamed(t, name) == nullptr) throw py::type_error(typeName + " has no field '" + name + "'");
    }
  }
  return Value{&t, t.construct(args)};
}

Value parse(const std::string& text, const std::optional<std::string>& typeName) {
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
  const Kelp::TypeInfo& t = typeNamed(name);
  if (t.strepToValue == nullptr) throw py::type_error(name + " cannot be built from text");
  return Value{&t, t.strepToValue(text)};
}

bool equal(Value& a, const Value& b) {
  if (a.type != b.type) return false;
  if (a.type->attributeOp == nullptr) return a.type->valueToStrep(a.value) == b.type->valueToStrep(b.value);
  return std::any_cast<bool>(attributeOp(a, nullptr, Kelp::attrOpEqual, &b.value));
}

const char* kindName(Kelp::AttrKind k) {
  switch (k) {
    case Kelp::AttrKind::field: return "field";
    case Kelp::AttrKind::constant: return "constant";
    case Kelp::AttrKind::function: return "function";
  }
  return "?";
}

}  // namespace

py::object wrapValue(const Kelp::TypeInfo* type, std::any value) { return py::cast(Value{type, std::move(value)}); }

void bindValues(py::module_& m) {
  py::class_<Value>(m, "Value", R"(A value of a registered type.

Value(type_name, **fields) builds one from its fields (those left out keep their default);
str() and repr() give its long text form; fields and constants read as attributes; functions are
callables; == is the type's equality; hash() works where the type is hashable.)")
      .def(py::init(&makeValue), py::arg("type_name"))
      .def_property_readonly("type_name", [](const Value& v) { return std::string(v.type->name); })
      .def("__str__", [](const Value& v) { return v.type->valueToStrep(v.value); })
      .def("__repr__", [](const Value& v) { return v.type->valueToStrep(v.value); })
      .def("__getattr__", &getAttribute)
      .def("__dir__", [](const Value& v) {
        std::vector<std::string> names{"type_name"};
        for (const Kelp::AttrInfo& a : v.type->attributes) names.emplace_back(a.name);
        return names;
      })
      .def("__eq__", [](Value& a, py::object b) -> py::object {
        if (!py::isinstance<Value>(b)) return py::reinterpret_borrow<py::object>(Py_NotImplemented);
        return py::bool_(equal(a, b.cast<const Value&>()));
      })
      .def("__ne__", [](Value& a, py::object b) -> py::object {
        if (!py::isinstance<Value>(b)) return py::reinterpret_borrow<py::object>(Py_NotImplemented);
        return py::bool_(!equal(a, b.cast<const Value&>()));
      })
      .def("__hash__", [](const Value& v) -> std::size_t {
        if (v.type->hash == nullptr) return std::hash<std::string>()(v.type->valueToStrep(v.value));
        return v.type->hash(v.value);
      })
      .def("__bool__", [](Value& v) {
        if (v.type->attributeOp == nullptr) return true;
        return std::any_cast<bool>(attributeOp(v, nullptr, Kelp::attrOpTruth));
      });

  m.def("types", [] {
    std::vector<std::string> names;
    for (const Kelp::TypeInfo* t : Kelp::registeredTypes()) names.emplace_back(t->name);
    return names;
  }, "The names of the registered types, sorted.");

  m.def("default", [](const std::string& name) {
    const Kelp::TypeInfo& t = typeNamed(name);
    if (t.defaultValue == nullptr) throw py::type_error(name + " has no default value");
    return Value{&t, t.defaultValue()};
  }, py::arg("type_name"), "A default-constructed value of the type.");

  m.def("parse", &parse, py::arg("text"), py::kw_only(), py::arg("type") = py::none(),
        "The value a long text form describes; its type is read from the text unless given.");

  m.def("attributes", [](const std::string& name) {
    std::vector<py::tuple> out;
    for (const Kelp::AttrInfo& a : typeNamed(name).attributes) out.push_back(py::make_tuple(a.id, a.name, kindName(a.kind)));
    return out;
  }, py::arg("type_name"), "The type's reflective attributes as (number, name, kind) tuples.");

  m.def("namespace", [m] {
    // Everything a long form refers to: Value, the words for booleans and "unset", and every
    // enumerator's name (standing for itself, as an enumeration field reads it back).
    py::dict ns;
    ns["Value"] = m.attr("Value");
    ns["True"] = py::bool_(true);
    ns["False"] = py::bool_(false);
    ns["None"] = py::none();
    for (const Kelp::TypeInfo* t : Kelp::registeredTypes()) {
      for (const Kelp::EnumEntryInfo& e : t->enumerators) ns[py::str(std::string(e.name))] = std::string(e.name);
    }
    return ns;
  }, "A dict in which eval() of a long text form gives the value it describes.");
}

}  // namespace bgpcommon_python

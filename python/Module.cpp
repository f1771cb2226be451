// The bgpcommon Python module's compiled part, bgpcommon._bgpcommon: values of every registered
// type, route targets, the message serializer and the shared tables. The package
// (python/bgpcommon/__init__.py) re-exports it with the Python types values read as.
//
// Every C++ exception stops at this boundary: bad input (Kelp::RangeException) is
// bgpcommon.RangeError, a ValueError; misuse of the generic interface (Kelp::TypeException, also
// an unhashable value) is TypeError; anything else pybind11's usual mapping (RuntimeError at the
// least). Nothing reachable from here stops the interpreter: what the library would assert on is
// checked first.
#include "python/Module.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Kelp/Exception.h"

#ifndef BGPCOMMON_VERSION
#define BGPCOMMON_VERSION "unknown"
#endif

namespace bgpcommon_python {

namespace {
PyObject* theRangeError = nullptr;
}

void raise(PyObject* pythonType, const char* what) {
  PyErr_SetString(pythonType, what);
  throw py::error_already_set();
}

void raise(PyObject* pythonType, const std::string& what) { raise(pythonType, what.c_str()); }

PyObject* rangeError() { return theRangeError; }

namespace {

// The parts of `list` (a parameter list without its parentheses) between commas outside brackets
// and quotes.
std::vector<std::string_view> topLevelParts(std::string_view list) {
  std::vector<std::string_view> parts;
  int depth = 0;
  char quote = 0;
  std::size_t start = 0;
  for (std::size_t i = 0; i < list.size(); ++i) {
    const char ch = list[i];
    if (quote != 0) {
      if (ch == '\\') ++i;
      else if (ch == quote) quote = 0;
    } else if (ch == '\'' || ch == '"') {
      quote = ch;
    } else if (ch == '(' || ch == '[' || ch == '{') {
      ++depth;
    } else if (ch == ')' || ch == ']' || ch == '}') {
      --depth;
    } else if (ch == ',' && depth == 0) {
      parts.push_back(list.substr(start, i - start));
      start = i + 1;
    }
  }
  if (start < list.size()) parts.push_back(list.substr(start));
  return parts;
}

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && s.front() == ' ') s.remove_prefix(1);
  while (!s.empty() && s.back() == ' ') s.remove_suffix(1);
  return s;
}

// pybind11 opens a function's docstring with "name(a: T, b: U = d, *, c: V = e) -> R", built from
// the py::arg()s of its definition. Python's inspect.signature() and help() read a builtin's
// signature from a docstring that opens with "name(a, b=d, *, c=e)\n--\n\n" instead, without
// types. The parameter list of that form, or empty when `doc` does not open with pybind11's line.
std::string textSignature(std::string_view name, std::string_view doc) {
  doc = doc.substr(0, doc.find('\n'));
  if (!doc.starts_with(name) || doc.size() <= name.size() || doc[name.size()] != '(') return "";
  const std::size_t close = doc.rfind(") -> ");
  if (close == std::string_view::npos || close < name.size()) return "";
  std::string out = "(";
  for (std::string_view part : topLevelParts(doc.substr(name.size() + 1, close - name.size() - 1))) {
    part = trimmed(part);
    // The default is after " = ", the annotation between ':' and it.
    std::string_view value;
    if (const std::size_t eq = part.find(" = "); eq != std::string_view::npos && part.find(':') < eq) {
      value = part.substr(eq + 3);
      part = part.substr(0, eq);
    }
    part = trimmed(part.substr(0, part.find(':')));
    out += (out.size() > 1 ? ", " : "") + std::string(part) + (value.empty() ? "" : "=" + std::string(value));
  }
  return out + ")";
}

// Gives a function of this module the docstring form that inspect.signature() reads; its
// docstring as Python shows it (__doc__) stays pybind11's, types included.
void addTextSignature(PyObject* fn) {
  if (!PyCFunction_Check(fn)) return;
  PyMethodDef* def = reinterpret_cast<PyCFunctionObject*>(fn)->m_ml;
  if (def->ml_doc == nullptr) return;
  const std::string params = textSignature(def->ml_name, def->ml_doc);
  if (params.empty()) return;
  const std::string doc = def->ml_name + params + "\n--\n\n" + def->ml_doc;
  // pybind11 allocated the docstring with strdup() and frees it with free().
  std::free(const_cast<char*>(def->ml_doc));
  def->ml_doc = strdup(doc.c_str());
}

// Every function of the module and every method, static method and constructor of its classes:
// a class's signature is then its constructor's.
void addTextSignatures(py::module_& m) {
  for (auto [name, member] : py::reinterpret_borrow<py::dict>(m.attr("__dict__"))) {
    addTextSignature(member.ptr());
    if (!PyType_Check(member.ptr())) continue;
    for (auto [attr, method] : py::reinterpret_borrow<py::dict>(reinterpret_cast<PyTypeObject*>(member.ptr())->tp_dict)) {
      if (PyInstanceMethod_Check(method.ptr())) addTextSignature(PyInstanceMethod_GET_FUNCTION(method.ptr()));
      if (PyObject_TypeCheck(method.ptr(), &PyStaticMethod_Type)) addTextSignature(method.attr("__func__").ptr());
    }
  }
}

}  // namespace

}  // namespace bgpcommon_python

PYBIND11_MODULE(_bgpcommon, m) {
  namespace bp = bgpcommon_python;
  m.doc() = "The compiled part of bgpcommon; import bgpcommon instead.";
  m.attr("__version__") = BGPCOMMON_VERSION;

  bp::theRangeError = PyErr_NewExceptionWithDoc(
      "bgpcommon.RangeError", "Bad input: a text that does not parse, a number out of range, a limit exceeded.",
      PyExc_ValueError, nullptr);
  m.attr("RangeError") = bp::py::handle(bp::theRangeError);
  bp::py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const Kelp::RangeException& e) {
      PyErr_SetString(bp::theRangeError, e.what());
    } catch (const Kelp::TypeException& e) {
      PyErr_SetString(PyExc_TypeError, e.what());
    }
  });

  bp::bindWire(m);
  bp::bindValues(m);
  bp::bindTables(m);
  bp::bindMessages(m);
  bp::addTextSignatures(m);
}

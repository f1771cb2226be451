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
}

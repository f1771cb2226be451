// The bgpcommon Python module: values of every registered type, route targets, the message
// serializer and the shared IGP result tables.
//
// Every C++ exception stops at this boundary: bad input (Kelp::RangeException) is
// bgpcommon.RangeError, a ValueError; misuse of the generic interface (Kelp::TypeException, also
// an unhashable value) is TypeError; anything else pybind11's usual mapping (RuntimeError at the
// least). Nothing reachable from here stops the interpreter: what the library would assert on is
// checked first.
#include "python/Module.h"

#include "platform/Kelp/Exception.h"

namespace bgpcommon_python {

void raise(PyObject* pythonType, const char* what) {
  PyErr_SetString(pythonType, what);
  throw py::error_already_set();
}

}  // namespace bgpcommon_python

PYBIND11_MODULE(bgpcommon, m) {
  namespace bp = bgpcommon_python;
  m.doc() = "Data types of the BGP routing agent: values of every registered type, route targets, "
            "the message serializer and the shared IGP result tables.";

  static bp::py::handle rangeError = PyErr_NewExceptionWithDoc(
      "bgpcommon.RangeError", "Bad input: a text that does not parse, a number out of range, a limit exceeded.",
      PyExc_ValueError, nullptr);
  m.attr("RangeError") = rangeError;
  bp::py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const Kelp::RangeException& e) {
      PyErr_SetString(rangeError.ptr(), e.what());
    } catch (const Kelp::TypeException& e) {
      PyErr_SetString(PyExc_TypeError, e.what());
    }
  });

  bp::bindValues(m);
  bp::bindWire(m);
  bp::bindTables(m);
}

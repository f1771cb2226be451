#pragma once
// The pieces of the bgpcommon Python module, one per source file, and what they share.

#include <any>

#include <pybind11/pybind11.h>

#include "platform/Kelp/Registry.h"

namespace bgpcommon_python {

namespace py = pybind11;

// A value of any registered type, as Python holds it: the registry entry and the value itself.
struct Value {
  const Kelp::TypeInfo* type;
  std::any value;
};

// The Python object for a value of a registered type.
py::object wrapValue(const Kelp::TypeInfo* type, std::any value);

// Raises the Python exception `pythonType` with the message `what`.
[[noreturn]] void raise(PyObject* pythonType, const char* what);

void bindValues(py::module_& m);
void bindWire(py::module_& m);
void bindTables(py::module_& m);

}  // namespace bgpcommon_python

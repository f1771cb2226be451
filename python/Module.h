#pragma once
// The pieces of the bgpcommon Python module, one per source file, and what they share.

#include <any>
#include <exception>
#include <string>
#include <string_view>
#include <typeinfo>

#include <pybind11/pybind11.h>

#include "BgpCommon/BgpPathAttributes.h"
#include "platform/Kelp/Registry.h"

namespace bgpcommon_python {

namespace py = pybind11;

// A value of any registered type that has no Python type of its own, as Python holds it: the
// registry entry and the value itself.
struct Value {
  const Kelp::TypeInfo* type;
  std::any value;
};

// How values of one C++ type cross into Python and back (Values.cpp): built once per type and
// kept for the life of the process.
struct Conversion;
const Conversion& conversionFor(const std::type_info& cppType);

// The Python object for a C++ value (its own type's conversion, or the given one).
py::object toPython(const std::any& v);
py::object toPython(const std::any& v, const Conversion& c);
// The C++ value of `c`'s type that a Python object stands for. Errors name `what` (the field or
// argument): TypeError for an object of the wrong type, OverflowError for a number out of range,
// ValueError (RangeError) for text that does not parse.
std::any fromPython(py::handle obj, const Conversion& c, std::string_view what);

// A C++ type with a Python class of its own (the route target): how its values cross. Set before
// the first conversion of a value of that type.
using NativeToPython = py::object (*)(const std::any& v);
using NativeFromPython = std::any (*)(py::handle obj, std::string_view what);
void nativeConversionIs(const std::type_info& cppType, NativeToPython to, NativeFromPython from);

// Raises the Python exception `pythonType` with the message `what`.
[[noreturn]] void raise(PyObject* pythonType, const char* what);
[[noreturn]] void raise(PyObject* pythonType, const std::string& what);
// bgpcommon.RangeError.
PyObject* rangeError();

// A copy of the bytes of any object with the buffer protocol (bytes, bytearray, memoryview, ...);
// TypeError naming `what` otherwise (a str included).
std::string bytesLike(py::handle obj, std::string_view what);

// Runs f() without the GIL, then takes the GIL back. Not py::gil_scoped_release: once the
// interpreter is exiting, taking the GIL back ends a daemon thread by unwinding its stack, which
// that class's destructor (noexcept) turns into std::terminate, so a program that follows a table
// from a daemon thread would abort at exit.
template <typename F>
void withoutGil(F&& f) {
  PyThreadState* state = PyEval_SaveThread();
  std::exception_ptr error;
  try {
    f();
  } catch (...) {
    error = std::current_exception();
  }
  PyEval_RestoreThread(state);
  if (error) std::rethrow_exception(error);
}

// The object make() returns, made once per process and kept for its life: for objects whose
// making runs Python code (an import, a function of the package). Not a function-local static:
// Python code lets other threads run, and a second thread that asks meanwhile would wait in the
// static's guard holding the GIL, which the first needs back to finish, so both would wait for
// ever. Under the GIL instead, each thread that finds it unmade makes it, and the first to finish
// keeps its own. `slot` is a static pointer initialized to null (no guard).
template <typename T, typename Make>
T& madeOnce(T*& slot, Make&& make) {
  if (slot == nullptr) {
    T* made = new T(make());
    if (slot == nullptr) {
      slot = made;
    } else {
      delete made;
    }
  }
  return *slot;
}

// An unsigned argument of the width of `type`; OverflowError naming `what` when it does not fit,
// TypeError for anything but an int.
std::uint64_t unsignedArg(py::handle v, const std::type_info& type, const char* what);

// Messages.cpp: what a session negotiated, from read_message()'s and the writers' keyword
// arguments; and the writers of the Python message classes (bgpcommon._messages).
Routing::Bgp::SessionOptions sessionOptions(bool fourOctetAs, bool extendedMessage, py::handle addPath);
void writeMessageFrom(Routing::Bgp::Serialize& out, py::handle message, const Routing::Bgp::SessionOptions& o);
void writePathAttributesFrom(Routing::Bgp::Serialize& out, py::handle attributes, const Routing::Bgp::SessionOptions& o);

void bindValues(py::module_& m);
void bindMessages(py::module_& m);
void bindWire(py::module_& m);
void bindTables(py::module_& m);

}  // namespace bgpcommon_python

#pragma once
// The framework's exceptions.
//
// RangeException is what bad input becomes everywhere in the library: a text that does not parse,
// a number out of range, a limit exceeded. It is always thrown before anything is changed. Its
// message is complete and meant for an operator ("routes: expected an unsigned number at offset
// 34"). TypeException and UnhashableException report misuse of the generic (type-erased) interface.

#include <stdexcept>
#include <string>
#include <string_view>

namespace Kelp {

class RangeException : public std::range_error {
 public:
  explicit RangeException(const std::string& message) : std::range_error(message) {}
};

class TypeException : public std::logic_error {
 public:
  explicit TypeException(const std::string& message) : std::logic_error(message) {}
};

class UnhashableException : public TypeException {
 public:
  explicit UnhashableException(const std::string& message) : TypeException(message) {}
};

// Re-throws a RangeException raised while reading the attribute `attrName` so that the message
// names it: "value: routes: expected an unsigned number at offset 44".
[[noreturn]] void rethrowFromDeserializeAttr(const RangeException& e, std::string_view attrName);

// Helpers the generic type interface throws through, so the messages are uniform.
struct GenericIfImpl {
  [[noreturn]] static void throwUnhashableException(std::string_view typeName);
  [[noreturn]] static void throwTypeException(std::string_view expected, std::string_view actual);
};

}  // namespace Kelp

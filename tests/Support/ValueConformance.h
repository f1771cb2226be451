#pragma once
// One conformance check for every value type, so each type's test states only what is particular to it:
//   - print then parse (strepToValue, the registry) gives an equal value; operator<< prints the long form;
//   - a trailing character makes strepToValue throw, while the range constructor stops before it;
//   - values compare equal exactly when they print alike; hashable ones then hash alike, and values that
//     differ hash differently (seed 7): samples differing in one field only (10.0.0.0/8 and 10.0.0.0/16)
//     catch a hash that leaves a field out.

#include <any>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Kelp/Registry.h"

namespace testing_support {

template <typename T>
void expectValueConformance(const std::vector<T>& values) {
  const Kelp::TypeInfo* info = Kelp::findType(Kelp::typeNameOf<T>());
  ASSERT_NE(info, nullptr) << "type not registered: " << Kelp::typeNameOf<T>();
  for (const T& v : values) {
    Kelp::String text = Kelp::valueToStrep(v);
    SCOPED_TRACE(text);
    T back = Kelp::strepToValue<T>(text);
    EXPECT_TRUE(back == v);
    EXPECT_EQ(Kelp::valueToStrep(back), text);

    std::ostringstream os;
    os << v;
    EXPECT_EQ(os.str(), text);

    EXPECT_EQ(info->valueToStrep(info->strepToValue(text)), text);

    Kelp::String trailing = text + "x";
    EXPECT_THROW(Kelp::strepToValue<T>(trailing), Kelp::RangeException);
    Kelp::CharRange r(trailing);
    EXPECT_TRUE(Kelp::parseValue<T>(r) == v);
    EXPECT_EQ(r.rest(), "x");

    if constexpr (Kelp::Hashable<T>) {
      EXPECT_EQ(back.hash(7), v.hash(7));
    } else {
      EXPECT_THROW(info->hash(std::any(v)), Kelp::UnhashableException);
    }
  }
  for (std::size_t i = 0; i < values.size(); ++i) {
    for (std::size_t j = 0; j < values.size(); ++j) {
      bool sameText = Kelp::valueToStrep(values[i]) == Kelp::valueToStrep(values[j]);
      EXPECT_EQ(values[i] == values[j], sameText) << i << " vs " << j;
      if constexpr (Kelp::Hashable<T>) {
        if (!sameText) EXPECT_NE(values[i].hash(7), values[j].hash(7)) << "hash collides: " << i << " vs " << j;
      }
    }
  }
}

// Every prefix of a valid text, and the text with each single character removed, must be refused
// with RangeException (never accepted, never another exception).
template <typename T>
void expectDamagedTextsRefused(const T& v) {
  Kelp::String text = Kelp::valueToStrep(v);
  for (std::size_t n = 0; n < text.size(); ++n) {
    EXPECT_THROW(Kelp::strepToValue<T>(text.substr(0, n)), Kelp::RangeException) << text.substr(0, n);
  }
}

// The message of the Kelp::RangeException that `f` throws, or "(accepted)" when it throws none;
// other exceptions pass through and fail the test.
template <typename F>
std::string rangeMessage(F&& f) {
  try {
    f();
  } catch (const Kelp::RangeException& e) {
    return e.what();
  }
  return "(accepted)";
}

// One reflective operation on `obj`: through attribute number `id`, or with id 0 a whole-object
// operation against `other`. `arg`, when it holds a value, is the one argument.
template <typename T>
int attrOp(std::any& result, T& obj, int id, int op, const std::any& arg = {}, const T* other = nullptr) {
  const Kelp::KelpAttrBase attr{id, ""};
  const std::span<const std::any> args(&arg, arg.has_value() ? 1 : 0);
  return Kelp::genericIfAttributeOp(&result, &obj, id == 0 ? nullptr : &attr, op, other, args);
}

}  // namespace testing_support

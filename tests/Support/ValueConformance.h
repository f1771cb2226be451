#pragma once
// One conformance check for every value type: given sample values, it verifies what every value
// type promises, so each type's test states only what is particular to it.
//   - print then parse returns an equal value, through strepToValue and through the registry;
//   - operator<< writes exactly the long text form;
//   - a trailing character makes strepToValue throw, while the range constructor stops before it;
//   - values that print differently compare unequal, and equal values hash alike (when hashable).

#include <sstream>
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

    std::any viaRegistry = info->strepToValue(text);
    EXPECT_EQ(info->valueToStrep(viaRegistry), text);

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

}  // namespace testing_support

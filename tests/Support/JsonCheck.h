#pragma once
// Reads JSON as readers that hold every number as a double (JavaScript, jq) do, and says where
// that would lose something.

#include <string>

#include <nlohmann/json.hpp>

namespace testing_support {

// The path of the first integer in `j` that a double does not hold exactly, or "" when none.
inline std::string inexactInDouble(const nlohmann::json& j, const std::string& path = "") {
  if (j.is_number_unsigned()) {
    const auto v = j.get<std::uint64_t>();
    return static_cast<std::uint64_t>(static_cast<double>(v)) == v && v != UINT64_MAX ? "" : path;
  }
  if (j.is_number_integer()) {
    const auto v = j.get<std::int64_t>();
    return static_cast<std::int64_t>(static_cast<double>(v)) == v ? "" : path;
  }
  if (j.is_object() || j.is_array()) {
    for (auto it = j.begin(); it != j.end(); ++it) {
      const std::string at = path + "/" + (j.is_object() ? it.key() : std::to_string(it - j.begin()));
      if (std::string bad = inexactInDouble(*it, at); !bad.empty()) return bad;
    }
  }
  return "";
}

}  // namespace testing_support

#pragma once
// What the tool's --json output is made of beyond the library's described values: lists, a value
// that may be absent, and time stamps. Each wraps values whose JSON comes from Kelp::valueToJson,
// so that a command describes the shape of what it prints (a small described struct) and never
// writes a value's JSON itself.
//
//   struct Shown { Kelp::String name; tools::JsonList<Routing::Bgp::RouteTarget> targets; ... };
//   std::puts(Kelp::valueToJson(shown).c_str());

#include <cmath>
#include <optional>
#include <vector>

#include <fmt/format.h>

#include "platform/Kelp/Json.h"
#include "platform/Kelp/Time.h"

namespace tools {

// A JSON array of the items' JSON.
template <typename T>
struct JsonList {
  std::vector<T> items;
};
template <typename T>
void kelpJson(Kelp::String& out, const JsonList<T>& list) {
  out += '[';
  bool first = true;
  for (const T& item : list.items) {
    if (!first) out += ',';
    first = false;
    Kelp::jsonOf(out, item);
  }
  out += ']';
}

// The value's JSON, or null.
template <typename T>
struct JsonMaybe {
  std::optional<T> value;
};
template <typename T>
void kelpJson(Kelp::String& out, const JsonMaybe<T>& m) {
  if (m.value) {
    Kelp::jsonOf(out, *m.value);
  } else {
    out += "null";
  }
}

// JSON already written (a value's own, from Kelp::valueToJson), placed as it stands.
struct JsonRaw {
  Kelp::String text;
};
inline void kelpJson(Kelp::String& out, const JsonRaw& r) { out += r.text; }

// A number that need not be whole, in the shortest text that reads back exactly (null when it is
// not finite).
struct JsonReal {
  double value = 0;
};
inline void kelpJson(Kelp::String& out, const JsonReal& r) {
  if (!std::isfinite(r.value)) {
    out += "null";
  } else {
    fmt::format_to(std::back_inserter(out), "{}", r.value);
  }
}

// A time stamp as seconds since 1970-01-01 UTC (fractional), or null for 0.0, which the events
// tracking stamps use for "never".
struct JsonStamp {
  Kelp::Seconds seconds = 0.0;
};
inline void kelpJson(Kelp::String& out, const JsonStamp& s) {
  if (s.seconds == 0.0 || !std::isfinite(s.seconds)) {
    out += "null";
  } else {
    fmt::format_to(std::back_inserter(out), "{}", s.seconds);  // the shortest text that reads back exactly
  }
}

}  // namespace tools

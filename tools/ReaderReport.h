#pragma once
// What the demo's reader process reports to the demo: one count line for a pass over every route,
// and one line per identifier it was asked to look up. The reader writes it with the format
// functions, the demo (and its test) read it back with absorb, so the three cannot drift apart.
//
//   looked up 2000 routes in 0.41 ms (4.9 M lookups/s): resultFound 1920, resultDefault 80, resultNotFound 0, resultTagOnly 0
//   id 17: resultNotFound
//   id 29: resultFound Value('Routing::BgpRedistribute::IgpResult', ** {...})

#include <array>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>

#include "BgpCommon/IgpResultStatusReaderHelper.h"
#include "platform/Pico/Format.h"

namespace tools {

// The demo's tables: the IGP result table and the filtered-route table of this name.
inline constexpr const char* kDemoTableName = "static";

struct ReaderReport {
  using ReturnType = Routing::BgpRedistribute::IgpResultReturnType;
  // The return types in the order the count line gives them.
  static constexpr std::array<ReturnType, 4> kTypes = {ReturnType::resultFound, ReturnType::resultDefault,
                                                       ReturnType::resultNotFound, ReturnType::resultTagOnly};

  bool counted = false;                          // a count line was read
  std::uint64_t routes = 0;                      // routes looked up
  std::map<ReturnType, std::uint64_t> byType;    // answers by return type
  std::map<std::uint32_t, ReturnType> probes;    // identifier -> the answer for it

  static std::string countLine(std::uint64_t routes, double ms, const std::map<ReturnType, std::uint64_t>& byType) {
    std::string line = fmt::format("looked up {} routes in {:.2f} ms ({:.1f} M lookups/s):", routes, ms,
                                   ms > 0 ? static_cast<double>(routes) / ms / 1e3 : 0.0);
    const char* sep = " ";
    for (ReturnType t : kTypes) {
      const auto it = byType.find(t);
      line += fmt::format("{}{} {}", sep, stringValue(t), it == byType.end() ? 0 : it->second);
      sep = ", ";
    }
    return line;
  }
  static std::string probeLine(std::uint32_t id, ReturnType type, const std::string& record) {
    return fmt::format("id {}: {}{}{}", id, stringValue(type), record.empty() ? "" : " ", record);
  }

  // Takes in one line of the reader's output; false when it is neither kind of line.
  bool absorb(const std::string& line) {
    unsigned long long n = 0;
    int consumed = 0;
    if (std::sscanf(line.c_str(), "looked up %llu routes in %*f ms (%*f M lookups/s):%n", &n, &consumed) == 1 &&
        consumed > 0) {
      std::map<ReturnType, std::uint64_t> counts;
      const char* p = line.c_str() + consumed;
      for (ReturnType t : kTypes) {
        char name[32] = {};
        unsigned long long v = 0;
        int used = 0;
        if (std::sscanf(p, " %31[A-Za-z] %llu%n", name, &v, &used) != 2 || stringValue(t) != name) return false;
        counts[t] = v;
        p += used;
        if (*p == ',') ++p;
      }
      if (*p != '\0') return false;
      counted = true;
      routes = n;
      byType = std::move(counts);
      return true;
    }
    unsigned id = 0;
    char name[32] = {};
    if (std::sscanf(line.c_str(), "id %u: %31[A-Za-z]", &id, name) == 2) {
      for (ReturnType t : kTypes) {
        if (stringValue(t) == name) {
          probes[id] = t;
          return true;
        }
      }
    }
    return false;
  }

  std::uint64_t count(ReturnType t) const {
    const auto it = byType.find(t);
    return it == byType.end() ? 0 : it->second;
  }
};

}  // namespace tools

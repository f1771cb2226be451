#include "platform/Netzo/AutonomousSystem.h"

#include <fmt/format.h>

#include "platform/Kelp/Hash.h"
#include "platform/Kelp/Registry.h"
#include "platform/Netzo/NetzoText.h"

namespace Netzo {

namespace {

// A decimal number of at most `max`, without sign, blank or leading zero; false otherwise.
bool parseDecimal(std::string_view digits, std::uint32_t max, std::uint32_t& out) {
  if (digits.empty() || digits.size() > 10 || (digits.size() > 1 && digits[0] == '0')) return false;
  std::uint64_t v = 0;
  for (char c : digits) {
    if (!detail::isDecimalDigit(c)) return false;
    v = v * 10 + static_cast<unsigned>(c - '0');
  }
  if (v > max) return false;
  out = static_cast<std::uint32_t>(v);
  return true;
}

}  // namespace

AutonomousSystem AutonomousSystem::fromString(std::string_view text) {
  AutonomousSystem a;
  a.stringValueIs(text);
  return a;
}

Kelp::String AutonomousSystem::displayString(bool asDot) const {
  if (asDot && value_ > 0xFFFF) return fmt::format("{}.{}", value_ >> 16, value_ & 0xFFFF);
  return fmt::format("{}", value_);
}

void AutonomousSystem::stringValueIs(std::string_view text) {
  std::size_t dot = text.find('.');
  std::uint32_t v = 0;
  bool ok;
  if (dot == std::string_view::npos) {
    ok = parseDecimal(text, 0xFFFFFFFFu, v);
  } else {
    std::uint32_t high = 0, low = 0;
    ok = parseDecimal(text.substr(0, dot), 0xFFFF, high) && parseDecimal(text.substr(dot + 1), 0xFFFF, low);
    v = high << 16 | low;
  }
  if (!ok) detail::throwBadText("invalid AS number", text);
  value_ = v;
}

std::uint32_t AutonomousSystem::hash(std::uint32_t seed) const {
  Kelp::Hash h(seed);
  h.hashMix(value_);
  return h.result();
}

namespace {
const Kelp::TypeModule module("AutonomousSystem", {Kelp::typeInfo<AutonomousSystem>()});
}

}  // namespace Netzo

void Kelp::TextForm<Netzo::AutonomousSystem>::parse(CharRange& r, Netzo::AutonomousSystem& v) {
  using namespace Netzo::detail;
  std::size_t start = r.position();
  std::string_view token = takeWhile(r, [](char c) { return isDecimalDigit(c) || c == '.'; });
  parseTokenAt(r, start, [&] { v.stringValueIs(token); });
}

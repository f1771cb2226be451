#include "platform/Netzo/MplsLabel.h"

#include <fmt/format.h>

#include "platform/Kelp/Hash.h"
#include "platform/Kelp/Registry.h"
#include "platform/Netzo/NetzoText.h"

namespace Netzo {

namespace {

// A decimal number of at most `max`, without leading zero; false otherwise. Consumes the digits.
bool readDecimal(Kelp::CharRange& r, std::uint32_t max, std::uint32_t& out) {
  std::string_view digits = detail::takeWhile(r, detail::isDecimalDigit);
  if (digits.empty() || digits.size() > 7 || (digits.size() > 1 && digits[0] == '0')) return false;
  std::uint32_t v = 0;
  for (char c : digits) v = v * 10 + static_cast<unsigned>(c - '0');
  if (v > max) return false;
  out = v;
  return true;
}

}  // namespace

// ---- MplsLabel -----------------------------------------------------------------------------

MplsLabel MplsLabel::fromString(std::string_view text) {
  MplsLabel l;
  l.stringValueIs(text);
  return l;
}

void MplsLabel::stringValueIs(std::string_view text) {
  Kelp::CharRange r(text);
  std::uint32_t v = 0;
  if (!readDecimal(r, maxLabel, v) || !r.empty()) detail::throwBadText("invalid MPLS label", text);
  value_ = v;
}

Kelp::String MplsLabel::stringValue() const { return fmt::format("{}", value_); }

std::uint32_t MplsLabel::hash(std::uint32_t seed) const {
  Kelp::Hash h(seed);
  h.hashMix(value_);
  return h.result();
}

// ---- MplsLabelStack ------------------------------------------------------------------------

MplsLabelStack::MplsLabelStack(std::initializer_list<MplsLabel> labels, std::uint8_t ttl) {
  for (MplsLabel l : labels) labelAppend(l, 0, ttl);
}

MplsLabelStack MplsLabelStack::fromString(std::string_view text) {
  MplsLabelStack s;
  s.stringValueIs(text);
  return s;
}

void MplsLabelStack::labelAppend(MplsLabel label, std::uint8_t tc, std::uint8_t ttl) {
  if (!entries_.empty()) entries_.back() &= hton32(~(1u << 8));
  entries_.push_back(hton32(makeEntry(label, tc, true, ttl)));
}

void MplsLabelStack::stringValueIs(std::string_view text) {
  Kelp::CharRange r(text);
  std::vector<std::uint32_t> entries;
  bool ok = r.skipIf("[");
  if (ok && !r.skipIf("]")) {
    do {
      std::uint32_t label = 0, tc = 0, s = 0, ttl = 0;
      ok = readDecimal(r, MplsLabel::maxLabel, label) && r.skipIf(":") && readDecimal(r, 7, tc) && r.skipIf(":") &&
           readDecimal(r, 1, s) && r.skipIf(":") && readDecimal(r, 255, ttl);
      entries.push_back(hton32(label << 12 | tc << 9 | s << 8 | ttl));
    } while (ok && r.skipIf(", "));
    ok = ok && r.skipIf("]");
  }
  if (!ok || !r.empty()) detail::throwBadText("invalid MPLS label stack", text);
  entries_ = std::move(entries);
}

Kelp::String MplsLabelStack::stringValue() const {
  Kelp::String out = "[";
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    std::uint32_t e = hostEntry(i);
    fmt::format_to(std::back_inserter(out), "{}{}:{}:{}:{}", i == 0 ? "" : ", ", e >> 12, e >> 9 & 7, e >> 8 & 1,
                   e & 0xff);
  }
  out += "]";
  return out;
}

std::uint32_t MplsLabelStack::hash(std::uint32_t seed) const {
  Kelp::Hash h(seed);
  for (std::uint32_t e : entries_) h.hashMix(ntoh32(e));
  return h.result();
}

namespace {
const Kelp::TypeModule module("MplsLabel", {Kelp::typeInfo<MplsLabel>(), Kelp::typeInfo<MplsLabelStack>()});
}

}  // namespace Netzo

void Kelp::TextForm<Netzo::MplsLabel>::parse(CharRange& r, Netzo::MplsLabel& v) {
  using namespace Netzo::detail;
  std::size_t start = r.position();
  std::string_view token = takeWhile(r, isDecimalDigit);
  parseTokenAt(r, start, [&] { v.stringValueIs(token); });
}

void Kelp::TextForm<Netzo::MplsLabelStack>::parse(CharRange& r, Netzo::MplsLabelStack& v) {
  using namespace Netzo::detail;
  std::size_t start = r.position();
  // The stack's text ends at the first "]".
  std::string_view rest = r.rest();
  std::size_t close = rest.find(']');
  std::string_view token = close == std::string_view::npos ? rest : rest.substr(0, close + 1);
  r.advance(token.size());
  parseTokenAt(r, start, [&] { v.stringValueIs(token); });
}

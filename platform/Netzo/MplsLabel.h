#pragma once
// MPLS labels and label stacks (RFC 3032).
//
// MplsLabel holds a 20-bit label number in a 32-bit word. The word is not checked on construction:
// BGP code also passes label fields that are already shifted into their 24-bit NLRI position
// (label << 4 | S), and the serializer tells the two apart by size. isValid() says whether the word
// is a plain label. Its text is the decimal label; only 0..1048575 is read back.
//
// MplsLabelStack holds label stack entries as they travel, 32-bit words in network order:
//
//    0                   1                   2                   3
//   | Label (20 bits)                       | TC  |S|  TTL (8 bits)  |
//
// labelAppend() builds a well-formed stack: the new entry becomes the bottom of the stack (S set)
// and the previous bottom entry loses its S bit.
//
//   Netzo::MplsLabelStack s;
//   s.labelAppend(Netzo::MplsLabel(16), 0, 64);
//   s.labelAppend(Netzo::MplsLabel(17), 0, 64);
//   s.stringValue();   // "[16:0:0:64, 17:0:1:64]"  (label:tc:s:ttl per entry, top first)

#include <compare>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <ostream>
#include <utility>
#include <string_view>
#include <vector>

#include "platform/Kelp/Json.h"
#include "platform/Kelp/TextForm.h"
#include "platform/Kelp/ValueType.h"
#include "platform/Netzo/NetU32.h"

namespace Netzo {

class MplsLabel {
 public:
  static constexpr std::uint32_t maxLabel = 0xFFFFF;
  // Reserved label values (RFC 3032 section 2.1).
  static constexpr std::uint32_t ipv4ExplicitNull = 0;
  static constexpr std::uint32_t routerAlert = 1;
  static constexpr std::uint32_t ipv6ExplicitNull = 2;
  static constexpr std::uint32_t implicitNull = 3;

  constexpr MplsLabel() = default;
  constexpr explicit MplsLabel(std::uint32_t label) : value_(label) {}
  // Parses a decimal label of at most 1048575; throws Kelp::RangeException naming the text.
  static MplsLabel fromString(std::string_view text);

  constexpr std::uint32_t value() const { return value_; }
  constexpr bool isValid() const { return value_ <= maxLabel; }

  // Bad text throws Kelp::RangeException "invalid MPLS label "<text>"" and leaves the label unchanged.
  void stringValueIs(std::string_view text);
  Kelp::String stringValue() const;

  std::uint32_t hash(std::uint32_t seed) const;

  friend constexpr bool operator==(MplsLabel a, MplsLabel b) { return a.value_ == b.value_; }
  friend constexpr std::strong_ordering operator<=>(MplsLabel a, MplsLabel b) { return a.value_ <=> b.value_; }
  friend std::ostream& operator<<(std::ostream& os, MplsLabel a) { return os << a.value_; }
  template <typename H>
  friend H AbslHashValue(H h, MplsLabel a) {
    return H::combine(std::move(h), a.value_);
  }

  friend constexpr auto kelpType(Kelp::Tag<MplsLabel>) {
    return Kelp::valueType<MplsLabel>("Netzo::MplsLabel", Kelp::function("value", &MplsLabel::value));
  }

 private:
  std::uint32_t value_ = 0;
};

// In JSON (Kelp/Json.h): the label number.
inline void kelpJson(Kelp::String& out, MplsLabel l) { Kelp::jsonNumber(out, std::uint64_t{l.value()}); }

class MplsLabelStack {
 public:
  MplsLabelStack() = default;
  // A well-formed stack of `labels`, top first, with traffic class 0 and the given TTL.
  MplsLabelStack(std::initializer_list<MplsLabel> labels, std::uint8_t ttl = 0);
  // Parses the text form; throws Kelp::RangeException naming the text.
  static MplsLabelStack fromString(std::string_view text);

  static constexpr std::uint32_t makeEntry(MplsLabel label, std::uint8_t tc, bool bottom, std::uint8_t ttl) {
    return (label.value() & MplsLabel::maxLabel) << 12 | std::uint32_t(tc & 7) << 9 | std::uint32_t(bottom) << 8 |
           ttl;
  }

  std::size_t count() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  // Entry i (0 is the top of the stack), network order.
  NetU32 entry(std::size_t i) const { return NetU32::fromNetwork(entries_[i]); }
  // The same as a number: label << 12 | tc << 9 | s << 8 | ttl.
  std::uint32_t hostEntry(std::size_t i) const { return ntoh32(entries_[i]); }
  MplsLabel label(std::size_t i) const { return MplsLabel(hostEntry(i) >> 12); }
  bool bottomOfStack(std::size_t i) const { return (hostEntry(i) >> 8 & 1) != 0; }
  // The network-order entries, top first.
  const std::vector<std::uint32_t>& networkEntries() const { return entries_; }

  // Appends an entry exactly as given.
  void entryAppend(NetU32 entry) { entries_.push_back(entry.value()); }
  // Appends `label` as the new bottom of the stack (S set) and clears S on the entry above it.
  // A label above 1048575 keeps its low 20 bits.
  void labelAppend(MplsLabel label, std::uint8_t tc = 0, std::uint8_t ttl = 0);
  // Empties the stack, keeping its room.
  void entryDelAll() { entries_.clear(); }

  // "[label:tc:s:ttl, ...]", top first; "[]" when empty. Bad text throws Kelp::RangeException
  // "invalid MPLS label stack "<text>"" and leaves the stack unchanged.
  void stringValueIs(std::string_view text);
  Kelp::String stringValue() const;

  std::uint32_t hash(std::uint32_t seed) const;

  friend bool operator==(const MplsLabelStack& a, const MplsLabelStack& b) { return a.entries_ == b.entries_; }
  friend std::ostream& operator<<(std::ostream& os, const MplsLabelStack& s) { return os << s.stringValue(); }
  template <typename H>
  friend H AbslHashValue(H h, const MplsLabelStack& s) {
    return H::combine(std::move(h), s.entries_);
  }

  friend constexpr auto kelpType(Kelp::Tag<MplsLabelStack>) {
    return Kelp::valueType<MplsLabelStack>("Netzo::MplsLabelStack",
                                           Kelp::function("count", &MplsLabelStack::count),
                                           Kelp::function("stringValue", &MplsLabelStack::stringValue));
  }

 private:
  std::vector<std::uint32_t> entries_;  // network order, top of the stack first
};

}  // namespace Netzo

template <>
struct Kelp::TextForm<Netzo::MplsLabel> {
  static void print(String& out, Netzo::MplsLabel v) { printUnsigned(out, v.value()); }
  static void parse(CharRange& r, Netzo::MplsLabel& v);
};
template <>
struct Kelp::TextForm<Netzo::MplsLabelStack> {
  static void print(String& out, const Netzo::MplsLabelStack& v) { out += v.stringValue(); }
  static void parse(CharRange& r, Netzo::MplsLabelStack& v);
};

template <>
struct std::hash<Netzo::MplsLabel> {
  std::size_t operator()(Netzo::MplsLabel a) const noexcept { return a.hash(0); }
};

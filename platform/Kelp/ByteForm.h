#pragma once
// Byte forms: a described value type stored as bytes, field after field in the order of its
// description, each field through the codec of its type.
//
// A type opts in by naming its layout next to its description:
//
//   struct Sample : Kelp::ValueBase<Sample> {
//     static constexpr Kelp::ByteLayout kelpByteLayout = Kelp::ByteLayout::aligned;
//     std::uint32_t id = 0;
//     bool up = false;
//     std::uint64_t count = 0;
//     friend constexpr auto kelpType(Kelp::Tag<Sample>) { ... the three fields ... }
//   };
//   // bytes: 0 id(4) 4 up(1) 5 padding(3) 8 count(8); Kelp::ByteForm<Sample>::size(v) == 16
//
// so that the same list that gives the text form also gives the serialized length, the writer and
// the reader of the bytes, and the checks a reader needs. Adding a field to the description adds it
// to every one of them.
//
// Layouts: `packed` puts each field right after the one before; `aligned` puts each field at a
// multiple of its alignment, as a C struct of the same fields lies in memory. Padding bytes are
// never written. A record whose aligned byte form is also its memory image (memoryIsByteForm) can
// be copied in from bytes whole, which is what the shared-memory reader's inlined lookup does.
//
// Integers and enumerations are stored as they lie in memory: little-endian on every processor this
// library builds for (x86-64 and aarch64). A bool is one byte, 1 for true; reading takes any
// non-zero byte as true, and `canonical` tells whether a stored record used only 0 and 1.

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <tuple>
#include <type_traits>
#include <utility>

#include "platform/Kelp/ValueType.h"

namespace Kelp {

enum class ByteLayout : std::uint8_t { packed, aligned };

// The codec of a field type. Every codec offers:
//   kAlign                  the alignment of its first byte in an aligned layout
//   kMin, kMax              the fewest and the most bytes a value takes
//   size(v)                 the bytes `v` takes
//   put(out, v)             writes size(v) bytes
//   validate(in)            throws RangeException when the kMin bytes at `in` start no value
//   storedSize(in)          the bytes of the value stored at `in` (read from its first kMin bytes;
//                           never throws, and may exceed kMax where validate would throw)
//   get(in, v)              reads the value that validate has accepted
//   canonical(in)           false when the stored bytes are not exactly what put writes (a bool
//                           stored as 2, a count past its limit), so that a fast path copying
//                           records whole can leave them to get and its checks
// A one-byte codec whose canonical bytes are those with some bits clear names them in kStrayBits:
// a record's check then tests all such bytes of its fixed part with one mask a word. A variable
// codec whose only canonical test is that its stored size stays within kMax (a count within its
// limit) says so with kCanonicalWithinMax: a record's check that already holds the record to its
// length then has nothing to add for it.
template <typename T>
struct ByteCodec;

// A codec of a fixed number of bytes with nothing to check.
template <std::uint32_t N, std::uint32_t Align = N>
struct FixedByteCodec {
  static constexpr std::uint32_t kAlign = Align;
  static constexpr std::uint32_t kMin = N;
  static constexpr std::uint32_t kMax = N;
  template <typename V>
  static constexpr std::uint32_t size(const V&) {
    return N;
  }
  static void validate(const std::uint8_t*) {}
  static std::uint64_t storedSize(const std::uint8_t*) { return N; }
  static bool canonical(const std::uint8_t*) { return true; }
};

template <typename T>
  requires(std::is_integral_v<T> && !std::is_same_v<T, bool>) || std::is_enum_v<T>
struct ByteCodec<T> : FixedByteCodec<sizeof(T)> {
  static void put(std::uint8_t* out, const T& v) { std::memcpy(out, &v, sizeof v); }
  static void get(const std::uint8_t* in, T& v) { std::memcpy(&v, in, sizeof v); }
};

template <>
struct ByteCodec<bool> : FixedByteCodec<1> {
  static void put(std::uint8_t* out, bool v) { out[0] = v ? 1 : 0; }
  static void get(const std::uint8_t* in, bool& v) { v = in[0] != 0; }
  static bool canonical(const std::uint8_t* in) { return in[0] <= 1; }
  static constexpr std::uint8_t kStrayBits = 0xFE;  // put writes only 0 and 1
};

template <typename T>
concept HasByteForm = Described<T> && requires {
  { T::kelpByteLayout } -> std::convertible_to<ByteLayout>;
};

namespace detail {

constexpr std::uint32_t alignUp(std::uint32_t n, std::uint32_t a) { return (n + a - 1) / a * a; }

[[noreturn]] void throwRecordTooShort(std::string_view typeName, std::size_t have, std::uint32_t need);

}  // namespace detail

// The byte form of a described type that names its kelpByteLayout.
template <HasByteForm T>
struct ByteForm {
  static constexpr ByteLayout kLayout = T::kelpByteLayout;

  // Where a field starts after `offset` bytes.
  template <typename Codec>
  static constexpr std::uint32_t place(std::uint32_t offset) {
    return kLayout == ByteLayout::aligned ? detail::alignUp(offset, Codec::kAlign) : offset;
  }

  // The fewest (or most) bytes a record takes, each field placed after the one before.
  static constexpr std::uint32_t extent(bool most) {
    std::uint32_t n = 0;
    forEachField(typeDescOf<T>, [&](const auto& f) {
      using C = ByteCodec<typename std::decay_t<decltype(f)>::Member>;
      n = place<C>(n) + (most ? C::kMax : C::kMin);
    });
    return n;
  }

  // The fewest and most bytes a record takes, and the alignment of its first byte.
  static constexpr std::uint32_t kMin = extent(false);
  static constexpr std::uint32_t kMax = extent(true);
  static constexpr std::uint32_t kAlign = [] {
    std::uint32_t a = 1;
    if (kLayout == ByteLayout::aligned) {
      forEachField(typeDescOf<T>, [&](const auto& f) {
        a = std::max(a, ByteCodec<typename std::decay_t<decltype(f)>::Member>::kAlign);
      });
    }
    return a;
  }();

  static std::uint32_t size(const T& v) {
    std::uint32_t n = 0;
    forEachField(typeDescOf<T>, [&](const auto& f) {
      using C = ByteCodec<typename std::decay_t<decltype(f)>::Member>;
      n = place<C>(n) + C::size(v.*(f.member));
    });
    return n;
  }

  // Writes size(v) bytes; padding bytes keep what they held.
  static void put(std::uint8_t* out, const T& v) {
    std::uint32_t n = 0;
    forEachField(typeDescOf<T>, [&](const auto& f) {
      using C = ByteCodec<typename std::decay_t<decltype(f)>::Member>;
      n = place<C>(n);
      C::put(out + n, v.*(f.member));
      n += C::size(v.*(f.member));
    });
  }

  // The bytes of the field at `offset`, checked against what `in` holds.
  template <typename C>
  static std::uint32_t fieldSize(std::span<const std::uint8_t> in, std::uint32_t offset) {
    if (in.size() < std::size_t{offset} + C::kMin) detail::throwRecordTooShort(typeNameOf<T>(), in.size(), offset + C::kMin);
    C::validate(in.data() + offset);
    const std::uint64_t len = C::storedSize(in.data() + offset);
    if (in.size() < offset + len) detail::throwRecordTooShort(typeNameOf<T>(), in.size(), static_cast<std::uint32_t>(offset + len));
    return static_cast<std::uint32_t>(len);
  }

  // The length of the record at the front of `in`; RangeException when `in` is too short for it or
  // a field's bytes hold no value.
  static std::uint32_t sizeAt(std::span<const std::uint8_t> in) {
    std::uint32_t n = 0;
    forEachField(typeDescOf<T>, [&](const auto& f) {
      using C = ByteCodec<typename std::decay_t<decltype(f)>::Member>;
      n = place<C>(n);
      n += fieldSize<C>(in, n);
    });
    return n;
  }

  // Reads the record at the front of `in` into `v`; the checks of sizeAt.
  static void get(std::span<const std::uint8_t> in, T& v) {
    std::uint32_t n = 0;
    forEachField(typeDescOf<T>, [&](const auto& f) {
      using C = ByteCodec<typename std::decay_t<decltype(f)>::Member>;
      n = place<C>(n);
      const std::uint32_t len = fieldSize<C>(in, n);
      C::get(in.data() + n, v.*(f.member));
      n += len;
    });
  }

  // True when the record of `len` bytes (at most kMax) at `in` (which holds kMax bytes at least,
  // zeros after the record) is one that get reads without a complaint and that put would write
  // again byte for byte, padding aside: what a reader needs to know before it copies the bytes in
  // whole. For fixed fields followed by at most one variable one: the record's own length is then
  // the fixed part's plus what that field says it takes. Few instructions, no branches: a shared
  // table's reader runs it on every lookup.
  [[gnu::always_inline]] static bool canonical(const std::uint8_t* in, std::uint32_t len) {
    static_assert(variableLast(), "canonical sees one variable field, the last");
    // The stray bits of all fields that name them, a word at a time (byte i of a word is its bits
    // 8i..8i+7); a word past kMax is read only as far as kMax.
    std::uint64_t stray = 0;
    [&]<std::size_t... I>(std::index_sequence<I...>) __attribute__((always_inline)) {
      ((stray |= kStrayMask[I] == 0 ? 0 : wordAt(in, I) & kStrayMask[I]), ...);
    }(std::make_index_sequence<kStrayMask.size()>());
    std::uint64_t n = 0;  // 64 bits: the variable field's stored size needs no clamp
    bool ok = true;
    forEachField(typeDescOf<T>, [&](const auto& f) __attribute__((always_inline)) {
      using C = ByteCodec<typename std::decay_t<decltype(f)>::Member>;
      n = place<C>(n);
      // The variable field comes last, so a stored size past its kMax takes n past the record's
      // kMax and so past len.
      if constexpr (!requires { C::kStrayBits; } && !requires { C::kCanonicalWithinMax; }) ok &= C::canonical(in + n);
      if constexpr (C::kMin == C::kMax) {
        n += C::kMin;
      } else {
        n += C::storedSize(in + n);
      }
    });
    return (stray | static_cast<std::uint64_t>(!ok) | static_cast<std::uint64_t>(n > len)) == 0;
  }

 private:
  // Whether a field of variable size, if any, is the last one.
  static constexpr bool variableLast() {
    bool variableSeen = false, followed = false;
    forEachField(typeDescOf<T>, [&](const auto& f) {
      using C = ByteCodec<typename std::decay_t<decltype(f)>::Member>;
      followed = followed || variableSeen;
      variableSeen = variableSeen || C::kMin != C::kMax;
    });
    return !followed;
  }
  // kStrayBits of the fixed fields placed in the record's words.
  static constexpr auto kStrayMask = [] {
    std::array<std::uint64_t, (kMin + 7) / 8> mask{};
    std::uint32_t n = 0;
    forEachField(typeDescOf<T>, [&](const auto& f) {
      using C = ByteCodec<typename std::decay_t<decltype(f)>::Member>;
      n = place<C>(n);
      if constexpr (requires { C::kStrayBits; }) mask[n / 8] |= std::uint64_t{C::kStrayBits} << (8 * (n % 8));
      n += C::kMin;
    });
    return mask;
  }();
  [[gnu::always_inline]] static std::uint64_t wordAt(const std::uint8_t* in, std::size_t i) {
    std::uint64_t w = 0;
    std::memcpy(&w, in + 8 * i, std::min<std::size_t>(8, kMax - 8 * i));
    if constexpr (std::endian::native == std::endian::big) w = __builtin_bswap64(w);
    return w;
  }
};

// True when T's memory image is its aligned byte form: each field at its byte offset and nothing
// else in the object, so that bytes can be copied in whole (then `canonical` and the codecs'
// `tidy` decide the rest). Checked where a type relies on it.
template <HasByteForm T>
bool memoryIsByteForm() {
  if constexpr (T::kelpByteLayout != ByteLayout::aligned || !std::is_trivially_copyable_v<T> ||
                sizeof(T) != ByteForm<T>::kMax) {
    return false;
  } else {
    struct Zeros {
      unsigned char bytes[sizeof(T)] = {};
    };
    const T object = std::bit_cast<T>(Zeros{});
    const T* probe = &object;
    const auto* base = reinterpret_cast<const unsigned char*>(probe);
    std::uint32_t n = 0;
    bool same = true;
    forEachField(typeDescOf<T>, [&](const auto& f) {
      using C = ByteCodec<typename std::decay_t<decltype(f)>::Member>;
      n = ByteForm<T>::template place<C>(n);
      const auto* field = reinterpret_cast<const unsigned char*>(&(probe->*(f.member)));
      same = same && field - base == static_cast<std::ptrdiff_t>(n) && sizeof(probe->*(f.member)) == C::kMax;
      n += C::kMax;
    });
    return same;
  }
}

// Reads a record into `v` from its memory image: `words`, the record's bytes as sizeof(T) / 8
// little-endian words, zeros after the record. For a type whose memoryIsByteForm, and bytes that
// ByteForm<T>::canonical accepted. A codec whose field keeps state beyond its value (slots past a
// count) tidies its words first (tidyWords), so that `v` ends as get would have left it. The words
// are copied in whole, not field by field: the reader of a shared table copies records this way at
// the cost of a few wide moves.
template <HasByteForm T>
[[gnu::always_inline]] inline void fromImage(const std::uint64_t* words, T& v) {
  static_assert(sizeof(T) % 8 == 0 && std::is_trivially_copyable_v<T>);
  std::uint64_t tidied[sizeof(T) / 8];
  std::memcpy(tidied, words, sizeof tidied);
  std::uint32_t n = 0;
  forEachField(typeDescOf<T>, [&](const auto& f) __attribute__((always_inline)) {
    using C = ByteCodec<typename std::decay_t<decltype(f)>::Member>;
    n = ByteForm<T>::template place<C>(n);
    if constexpr (requires(std::uint64_t* w) { C::tidyWords(w, words, 0u); }) C::tidyWords(tidied, words, n);
    n += C::kMax;
  });
  std::memcpy(static_cast<void*>(&v), tidied, sizeof tidied);
}

// A nested described value of fixed size: its own fields in its own layout.
template <HasByteForm T>
struct ByteCodec<T> {
  static_assert(ByteForm<T>::kMin == ByteForm<T>::kMax, "a nested byte form has a fixed size");
  static constexpr std::uint32_t kAlign = ByteForm<T>::kAlign;
  static constexpr std::uint32_t kMin = ByteForm<T>::kMin;
  static constexpr std::uint32_t kMax = ByteForm<T>::kMax;
  static std::uint32_t size(const T&) { return kMax; }
  static void put(std::uint8_t* out, const T& v) { ByteForm<T>::put(out, v); }
  static void validate(const std::uint8_t* in) { ByteForm<T>::sizeAt(std::span(in, kMax)); }
  static std::uint64_t storedSize(const std::uint8_t*) { return kMax; }
  static void get(const std::uint8_t* in, T& v) { ByteForm<T>::get(std::span(in, kMax), v); }
  static bool canonical(const std::uint8_t* in) { return ByteForm<T>::canonical(in, kMax); }
};

// A described wrapper of one field (an identifier, a preference, a tag): stored as that field.
template <typename T>
  requires Described<T> && (!HasByteForm<T>) && (std::decay_t<decltype(typeDescOf<T>)>::size == 1)
struct ByteCodec<T> {
  using Inner = typename std::tuple_element_t<0, decltype(typeDescOf<T>.items)>::Member;
  using C = ByteCodec<Inner>;
  static constexpr std::uint32_t kAlign = C::kAlign;
  static constexpr std::uint32_t kMin = C::kMin;
  static constexpr std::uint32_t kMax = C::kMax;
  static constexpr auto member() { return std::get<0>(typeDescOf<T>.items).member; }
  static std::uint32_t size(const T& v) { return C::size(v.*member()); }
  static void put(std::uint8_t* out, const T& v) { C::put(out, v.*member()); }
  static void validate(const std::uint8_t* in) { C::validate(in); }
  static std::uint64_t storedSize(const std::uint8_t* in) { return C::storedSize(in); }
  static void get(const std::uint8_t* in, T& v) { C::get(in, v.*member()); }
  static bool canonical(const std::uint8_t* in) { return C::canonical(in); }
};

}  // namespace Kelp

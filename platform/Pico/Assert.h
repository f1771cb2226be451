#pragma once
// The always-on assertion of the library.
//
// PICO_ASSERT(expr) stays in release builds (unlike assert(), which NDEBUG removes) and reports a
// broken invariant through the C library's standard assertion path, so the report reads like any
// other failed assertion: the expression text, the source as "BgpCommon/<File>" (directory prefix
// and extension stripped at compile time), the line and __PRETTY_FUNCTION__.
//
//   PICO_ASSERT(asn.value() <= 0xFFFF);
//   -> prog: BgpCommon/BgpSerialize:77: void Routing::Bgp::Serialize::...: Assertion
//      `asn.value() <= 0xFFFF' failed.

#include <array>
#include <cassert>
#include <cstddef>

namespace Pico {

// Turns a compiler source path into the short source name used in assertion reports and traces:
// everything up to the last "BgpCommon/" or "platform/" is dropped ("platform/" itself too), and so
// is the extension. "/x/y/BgpCommon/RouteTarget.cpp" -> "BgpCommon/RouteTarget".
template <std::size_t N>
constexpr std::array<char, N> sourceName(const char (&path)[N]) {
  std::size_t begin = 0;
  auto matchAt = [&](std::size_t i, const char* word) {
    std::size_t k = 0;
    for (; word[k] != '\0'; ++k) {
      if (i + k >= N - 1 || path[i + k] != word[k]) return std::size_t{0};
    }
    return k;
  };
  for (std::size_t i = 0; i + 1 < N; ++i) {
    if (i == 0 || path[i - 1] == '/') {
      if (matchAt(i, "BgpCommon/") != 0) begin = i;
      if (std::size_t k = matchAt(i, "platform/"); k != 0) begin = i + k;
      if (matchAt(i, "tools/") != 0 || matchAt(i, "tests/") != 0) begin = i;
    }
  }
  std::size_t end = N - 1;
  for (std::size_t i = N - 1; i > begin; --i) {
    if (path[i - 1] == '/') break;
    if (path[i - 1] == '.') {
      end = i - 1;
      break;
    }
  }
  std::array<char, N> out{};
  for (std::size_t i = begin; i < end; ++i) out[i - begin] = path[i];
  return out;
}

// Reports the failure through __assert_fail and aborts. Never returns.
[[noreturn]] void assertFail(const char* expr, const char* file, unsigned line, const char* function);

}  // namespace Pico

#define PICO_SOURCE_NAME()                                                   \
  ([]() -> const char* {                                                     \
    static constexpr auto kPicoSourceName = ::Pico::sourceName(__FILE__);    \
    return kPicoSourceName.data();                                           \
  }())

#define PICO_ASSERT(expr)                                                            \
  (static_cast<bool>(expr)                                                           \
       ? void(0)                                                                     \
       : ::Pico::assertFail(#expr, PICO_SOURCE_NAME(), __LINE__, __PRETTY_FUNCTION__))

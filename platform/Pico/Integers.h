#pragma once
// The fixed-width unsigned integers of the library's interfaces, under their short names.
//
// They are global, like the C library's own fixed-width names, so that function signatures read
// the same in code, in assertion reports and in trace lines ("U32 Routing::Bgp::X::allocate()").

#include <cstdint>

using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;

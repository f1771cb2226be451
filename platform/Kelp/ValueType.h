#pragma once
// One description per value type.
//
// A value type states its qualified name and its attributes once, in declaration order, in a hidden
// friend found by argument-dependent lookup; everything else is generic code reading that list:
// the long text form and its parser, equality, the optional hash, the truth test and the reflective
// attribute operation. Attributes are numbered from 2 in the order listed (0 and 1 belong to the
// framework): stored fields first, then the constants and functions a type exposes.
//
//   struct MaxRoutes : Kelp::ValueBase<MaxRoutes> {
//     uint32_t routes = 0;
//     uint32_t warningThreshold = 0;
//     bool warningOnly = false;
//
//     MaxRoutes() = default;
//     MaxRoutes(uint32_t r, uint32_t w, bool o) : routes(r), warningThreshold(w), warningOnly(o) {}
//     explicit MaxRoutes(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }
//     Kelp::String toStrep() const;
//
//     friend constexpr auto kelpType(Kelp::Tag<MaxRoutes>) {
//       return Kelp::valueType<MaxRoutes>("Routing::Bgp::MaxRoutes",
//           Kelp::field("routes", &MaxRoutes::routes),                   // 2
//           Kelp::field("warningThreshold", &MaxRoutes::warningThreshold), // 3
//           Kelp::field("warningOnly", &MaxRoutes::warningOnly),         // 4
//           Kelp::function("toStrep", &MaxRoutes::toStrep));             // 5
//     }
//   };
//
// The long text form reads like a Python call:
//   Value('Routing::Bgp::MaxRoutes', ** {'routes': 1000, 'warningThreshold': 800, 'warningOnly': True})
// and is parsed back byte for byte: no whitespace is skipped.
//
// The pieces, each in its own header, all included here:
//   ValueDesc.h      the description and the loops over it
//   FieldText.h      the long text form and its parser
//   FieldEquality.h  equality, the field-wise hash, the truth test, ValueBase
//   Reflection.h     attribute numbers and genericIfAttributeOp

#include "platform/Kelp/EnumType.h"
#include "platform/Kelp/FieldEquality.h"
#include "platform/Kelp/FieldText.h"
#include "platform/Kelp/Reflection.h"
#include "platform/Kelp/ValueDesc.h"

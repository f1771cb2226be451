#pragma once
// The add-path send settings the agent works with (RFC 7911).
//
// A neighbour's configuration (AddPathSendConfig) says in operator terms how several paths per
// prefix are advertised; AddPathSendEffectiveConfig is the compact form that path selection and
// update generation read:
//   apBackupEnabled  advertise the precomputed backup path beside the best path
//   apSendAnyLimit   advertise up to this many paths of any kind; 0 off, 65535 no limit
//   apSendEcmpLimit  advertise up to this many equal-cost paths; 0 off
// An effective configuration made from one neighbour's configuration has at most one of the three
// set. The settings of several neighbours (of one update group, say) are combined with aggregate(),
// which never lowers a limit and never clears the backup flag:
//
//   auto group = AddPathSendEffectiveConfig::fromAppPathSendConfig(first);
//   group.aggregate(AddPathSendEffectiveConfig::fromAppPathSendConfig(second));
//
// Long text form:
//   Value('Routing::Bgp::AddPathSendEffectiveConfig', ** {'apBackupEnabled': False,
//   'apSendAnyLimit': 65535, 'apSendEcmpLimit': 0})   (one line)
// Short display form, toStrep():
//   apBackupEnabled=false; apSendAnyEnabled=true; apSendEcmpEnabled=false; apSendAnyLimit=65535;
//   apSendEcmpLimit=0
// Ordered and hashable. Reflective attributes: 2 apBackupEnabled, 3 apSendAnyLimit,
// 4 apSendEcmpLimit (get and set), 5 apDisabledLimit, 6 apNoLimit (get), 7 apSendAnyEnabled,
// 8 apSendAnyNoLimitEnabled, 9 apSendEcmpEnabled, 10 enabled, 11 aggregate, 12 toStrep,
// 13 fromAppPathSendConfig (call).

#include <cstdint>

#include "platform/Kelp/ValueType.h"
#include "platform/Routing/BgpConfigTypes.h"

namespace Routing::Bgp {

struct AddPathSendEffectiveConfig : Kelp::ValueBase<AddPathSendEffectiveConfig> {
  static constexpr std::uint16_t apDisabledLimit = 0;
  static constexpr std::uint16_t apNoLimit = 0xFFFF;  // every bit of the limit field set

  bool apBackupEnabled = false;
  std::uint16_t apSendAnyLimit = apDisabledLimit;
  std::uint16_t apSendEcmpLimit = apDisabledLimit;

  constexpr AddPathSendEffectiveConfig() = default;
  constexpr AddPathSendEffectiveConfig(bool backup, std::uint16_t anyLimit, std::uint16_t ecmpLimit)
      : apBackupEnabled(backup), apSendAnyLimit(anyLimit), apSendEcmpLimit(ecmpLimit) {}
  explicit AddPathSendEffectiveConfig(Kelp::CharRange& r) { Kelp::parseFields(r, *this); }

  bool apSendAnyEnabled() const { return apSendAnyLimit != apDisabledLimit; }
  bool apSendAnyNoLimitEnabled() const { return apSendAnyLimit == apNoLimit; }
  bool apSendEcmpEnabled() const { return apSendEcmpLimit != apDisabledLimit; }
  bool enabled() const { return apBackupEnabled || apSendAnyEnabled() || apSendEcmpEnabled(); }

  // Merges one aspect of `other` into this configuration, the first that `other` has of: the
  // backup flag (set it), the any-limit (raise ours to it), the ECMP limit (raise ours to it).
  // The rest of `other` is ignored; nothing here is lowered or cleared.
  void aggregate(const AddPathSendEffectiveConfig& other);

  // The effective form of a configuration. A kind code outside 0..4 is a broken invariant of the
  // configuration library and stops the process.
  static AddPathSendEffectiveConfig fromAppPathSendConfig(const AddPathSendConfig& config);

  // "apBackupEnabled=B; apSendAnyEnabled=B; apSendEcmpEnabled=B; apSendAnyLimit=N; apSendEcmpLimit=N"
  Kelp::String toStrep() const;

  // Lexicographic over the fields in declaration order, as unsigned numbers.
  friend bool operator<(const AddPathSendEffectiveConfig& a, const AddPathSendEffectiveConfig& b);

  // Kelp::Hash seeded with `seed`, the fields mixed in order by their width (1, 2, 2 bytes).
  std::uint32_t hash(std::uint32_t seed) const;

  friend constexpr auto kelpType(Kelp::Tag<AddPathSendEffectiveConfig>) {
    using C = AddPathSendEffectiveConfig;
    return Kelp::valueType<C>("Routing::Bgp::AddPathSendEffectiveConfig",
                              Kelp::settableField("apBackupEnabled", &C::apBackupEnabled),        // 2
                              Kelp::settableField("apSendAnyLimit", &C::apSendAnyLimit),          // 3
                              Kelp::settableField("apSendEcmpLimit", &C::apSendEcmpLimit),        // 4
                              Kelp::constant("apDisabledLimit", &C::apDisabledLimit),             // 5
                              Kelp::constant("apNoLimit", &C::apNoLimit),                         // 6
                              Kelp::function("apSendAnyEnabled", &C::apSendAnyEnabled),           // 7
                              Kelp::function("apSendAnyNoLimitEnabled", &C::apSendAnyNoLimitEnabled),  // 8
                              Kelp::function("apSendEcmpEnabled", &C::apSendEcmpEnabled),         // 9
                              Kelp::function("enabled", &C::enabled),                             // 10
                              Kelp::function("aggregate", &C::aggregate),                         // 11
                              Kelp::function("toStrep", &C::toStrep),                             // 12
                              Kelp::function("fromAppPathSendConfig", &C::fromAppPathSendConfig));  // 13
  }
};

}  // namespace Routing::Bgp

#include "BgpCommon/AddPathSendEffectiveConfig.h"

#include <sstream>
#include <tuple>

#include "platform/Kelp/Registry.h"
#include "platform/Pico/Assert.h"

namespace Routing::Bgp {

void AddPathSendEffectiveConfig::aggregate(const AddPathSendEffectiveConfig& other) {
  if (other.apBackupEnabled) {
    apBackupEnabled = true;
  } else if (other.apSendAnyEnabled()) {
    if (other.apSendAnyLimit > apSendAnyLimit) apSendAnyLimit = other.apSendAnyLimit;
  } else if (other.apSendEcmpLimit > apSendEcmpLimit) {
    apSendEcmpLimit = other.apSendEcmpLimit;
  }
}

AddPathSendEffectiveConfig AddPathSendEffectiveConfig::fromAppPathSendConfig(const AddPathSendConfig& config) {
  // Configured limits are wider than the 16 bits kept here; only the low 16 bits are used.
  const auto limit16 = static_cast<std::uint16_t>(config.limit);
  AddPathSendEffectiveConfig result;
  switch (config.kind) {
    case AddPathSendConfig::Kind::sendAny:
      result.apSendAnyLimit = apNoLimit;
      break;
    case AddPathSendConfig::Kind::sendDisabled:
      break;
    case AddPathSendConfig::Kind::sendLimited:
      result.apSendAnyLimit = limit16;
      break;
    case AddPathSendConfig::Kind::sendBackup:
      result.apBackupEnabled = true;
      break;
    case AddPathSendConfig::Kind::sendEcmp:
      // ECMP without a limit is not "no ECMP paths": it falls back to advertising every path.
      if (config.limit == 0) {
        result.apSendAnyLimit = apNoLimit;
      } else {
        result.apSendEcmpLimit = limit16;
      }
      break;
    default:
      PICO_ASSERT(false);
  }
  return result;
}

Kelp::String AddPathSendEffectiveConfig::toStrep() const {
  std::ostringstream os;
  os << std::boolalpha << "apBackupEnabled=" << apBackupEnabled << "; apSendAnyEnabled=" << apSendAnyEnabled()
     << "; apSendEcmpEnabled=" << apSendEcmpEnabled() << "; apSendAnyLimit=" << apSendAnyLimit
     << "; apSendEcmpLimit=" << apSendEcmpLimit;
  return os.str();
}

bool operator<(const AddPathSendEffectiveConfig& a, const AddPathSendEffectiveConfig& b) {
  return std::tie(a.apBackupEnabled, a.apSendAnyLimit, a.apSendEcmpLimit) <
         std::tie(b.apBackupEnabled, b.apSendAnyLimit, b.apSendEcmpLimit);
}

std::uint32_t AddPathSendEffectiveConfig::hash(std::uint32_t seed) const { return Kelp::hashFields(*this, seed); }

namespace {
const Kelp::TypeModule module("AddPathSendEffectiveConfig", {Kelp::typeInfo<AddPathSendEffectiveConfig>()});
}

}  // namespace Routing::Bgp

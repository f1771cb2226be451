// The address and prefix parsers of Netzo (IpAddr, Ip6Addr, IpGenAddr, IpGenPrefix) on arbitrary
// text; see NetzoFuzzCheck.h for the property.
#include <cstdint>

#include "fuzz/NetzoFuzzCheck.h"
#include "platform/Netzo/IpGenPrefix.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace Netzo;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  fuzz_support::checkText(text, IpAddr(192, 0, 2, 77));
  fuzz_support::checkText(text, Ip6Addr::fromString("2001:db8::77"));
  fuzz_support::checkText(text, IpGenAddr(IpAddr(198, 51, 100, 77)));
  fuzz_support::checkText(text, IpGenPrefix::fromString("203.0.113.77/31"));
  return 0;
}

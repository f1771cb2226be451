#include "BgpCommon/BgpRouteKey.h"

#include <iomanip>
#include <sstream>

#include <gtest/gtest.h>

namespace Routing::Bgp {
namespace {

// A key that overrides only what every key must (the family virtuals stay the base's), and whose
// formatter leaves the stream in hexadecimal with a fill character.
struct BareKey final : RouteKeyBase {
  std::uint32_t n = 0;
  explicit BareKey(std::uint32_t v) : n(v) {}
  std::uint32_t hash() const override { return n; }
  bool compare(const Brim::DedupHandleBase* o) const override { return static_cast<const BareKey*>(o)->n == n; }
  bool compareByContent(const Brim::DedupContentHandle&) const override { return false; }
  void formatDerivedType(std::ostream& os) const override { os << std::hex << std::setfill('*') << std::setw(6) << n; }
  void formatWithoutVrf(std::ostream& os) const override { formatDerivedType(os); }
};

TEST(RouteKeyBase, FormattingNeverLeaksIntoTheCallersStream) {
  auto k = Kelp::makePtr<BareKey>(255);
  std::ostringstream os;
  os << static_cast<const RouteKeyBase*>(k.get()) << " " << 255 << " " << std::setw(4) << 7 << " "
     << static_cast<const RouteKeyBase*>(nullptr);
  EXPECT_EQ(os.str(), "****ff 255    7 NULL");
  EXPECT_EQ(k->toStrep(), "****ff");
  EXPECT_EQ(toStrep(nullptr), "NULL");
}

TEST(RouteKeyBaseDeathTest, FamilyVirtualsMustBeOverridden) {
  auto k = Kelp::makePtr<BareKey>(1);
  Trackle::RingBuf ring(16);
  EXPECT_DEATH(k->afi(), "BgpCommon/BgpRouteKey.*0 && \"Must override in derived class\"");
  EXPECT_DEATH(k->qtPut(&ring), "Must override in derived class");
}

}  // namespace
}  // namespace Routing::Bgp

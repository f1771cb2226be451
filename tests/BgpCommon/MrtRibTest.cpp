// The RIB's own structures: attribute sets packed by number, and the paths' add-path identifiers.
#include <gtest/gtest.h>

#include <vector>

#include "BgpCommon/MrtRib.h"
#include "platform/Kelp/Exception.h"

namespace {

using namespace Routing::Bgp;

// More sets than one chunk holds (20000 of 67 to 87 octets, AS paths that differ) and than the
// index first has room for: each stored once, found again by octets and options, read back whole.
TEST(PackedAttributeSets, EachSetOnceByOctetsAndOptions) {
  PackedAttributeSets sets;
  SessionOptions v4, twoOctet;
  twoOctet.fourOctetAs = false;
  std::vector<std::vector<U8>> octets;
  std::vector<PackedAttributeSets::Number> numbers;
  for (U32 i = 0; i < 20000; ++i) {
    std::vector<U8> o = {0x40, 1, 1, 0, 0x40, 2, 0, 2, static_cast<U8>(15 + i % 6)};  // ORIGIN, AS_PATH
    for (U32 a = 0; a < 15 + i % 6; ++a) o.insert(o.end(), {0, 0, static_cast<U8>(i >> 8), static_cast<U8>(i + a)});
    o[6] = static_cast<U8>(o.size() - 7);
    numbers.push_back(sets.intern(o, v4));
    octets.push_back(std::move(o));
  }
  EXPECT_GE(numbers.back() >> PackedAttributeSets::kChunkBits, 1u) << "the sets span more than one chunk";
  for (std::size_t i = 0; i < octets.size(); ++i) {
    ASSERT_EQ(sets.intern(octets[i], v4), numbers[i]) << i;
    ASSERT_EQ(std::vector<U8>(sets[numbers[i]].octets.begin(), sets[numbers[i]].octets.end()), octets[i]) << i;
  }
  const PackedAttributeSets::Number empty = sets.intern({}, v4), other = sets.intern(octets[0], twoOctet);
  EXPECT_TRUE(sets[empty].octets.empty());
  EXPECT_TRUE(other != numbers[0] && !sets[other].options.fourOctetAs);
  PathAttributes attrs;
  EXPECT_FALSE(sets[numbers[0]].read(attrs));
  EXPECT_EQ(attrs.fullAsPath(v4).asns.size(), 15u);
  // Lengths of two octets in the header: sets past 255 octets, up to the longest, keep theirs.
  for (std::size_t size : {std::size_t{300}, PathAttributeSet::kMaxOctets}) {
    const std::vector<U8> longSet(size, static_cast<U8>(size));
    const PackedAttributeSets::Number n = sets.intern(longSet, v4);
    EXPECT_EQ(std::make_pair(sets.intern(longSet, v4), sets[n].octets.size()), std::make_pair(n, size));
  }
  EXPECT_THROW(sets.intern(std::vector<U8>(PathAttributeSet::kMaxOctets + 1), v4), Kelp::RangeException);
  EXPECT_EQ(sets.size(), octets.size() + 4);
  sets.clear();
  EXPECT_EQ(sets.size() + sets.allocatedBytes(), 0u);
  // Cleared, the store starts afresh: a new chunk for the first set.
  const PackedAttributeSets::Number first = sets.intern(octets[7], v4);
  EXPECT_EQ(std::vector<U8>(sets[first].octets.begin(), sets[first].octets.end()), octets[7]);
}

// Add-path identifiers are kept beside the paths from the first that is not 0 on, the paths before
// it reading 0; paths with equal attributes share one set, whatever their identifiers. A RIB cleared
// and loaded again reads the second dump's identifiers alone.
TEST(MrtRib, PathIdentifiersKeptBesideThePaths) {
  const std::vector<U8> attrs = {0x40, 1, 1, 0, 0x40, 2, 6, 2, 1, 0, 0, 0xfd, 0xe9, 0x40, 3, 4, 192, 0, 2, 1};
  const MrtRecord record{.type = U16(MrtType::tableDumpV2)};
  const SessionOptions options;
  MrtRib rib;
  const char* prefixes[] = {"10.0.0.0/8", "10.0.0.0/8", "10.1.0.0/16", "10.1.0.0/16"};
  for (const std::vector<U32>& load : {std::vector<U32>{0, 0, 7, 0}, std::vector<U32>{0, 0, 0, 9}}) {
    for (std::size_t i = 0; i < load.size(); ++i) {
      rib.route({.record = &record, .prefix = Netzo::IpGenPrefix::fromString(prefixes[i]), .pathId = load[i],
                 .options = &options, .attributeOctets = attrs});
    }
    std::vector<U32> ids;  // a path whose set is not the first path's would add 1000
    for (const RibPath& p : rib.paths()) ids.push_back(rib.pathIdOf(p) + (p.set == rib.paths()[0].set ? 0 : 1000));
    EXPECT_EQ(ids, load);
    EXPECT_EQ(rib.runs().size() + rib.attributeSets(), 3u);
    rib.clear();
    EXPECT_EQ(rib.routes() + rib.attributeSets() + rib.prefixes(), 0u);
  }
}

}  // namespace

// bgpcommon rib: real RIB dumps loaded into interned keys and attribute sets, the counts held to
// what bgpdump prints for the same files, and the published table read by a reader process and here.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include <nlohmann/json.hpp>

#include "BgpCommon/FilteredRtStatus.h"
#include "platform/Shelf/TempRoot.h"
#include "tests/Support/RunTool.h"

namespace {

using nlohmann::json;
using testing_support::runTool;

const std::string kPyasn = "/usr/lib/python3/dist-packages/data/";

// The number `bgpdump -m FILE | PIPELINE` prints.
std::uint64_t bgpdumpCount(const std::string& file, const std::string& pipeline) {
  FILE* p = popen(("bgpdump -m '" + file + "' 2>/dev/null | " + pipeline).c_str(), "r");
  unsigned long long n = 0;
  if (p == nullptr || std::fscanf(p, "%llu", &n) != 1) n = 0;
  if (p != nullptr) pclose(p);
  return n;
}

json ribJson(const std::string& args) {
  const auto r = runTool("rib --json " + args, true);
  // The dumps are the first megabyte of larger bzip2 files: the stream stops short, and that is
  // reported as the damage it is.
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_NE(r.err.find("badCompression at offset"), std::string::npos) << r.err;
  return json::parse(r.out, nullptr, false);
}

// Routes are bgpdump's lines, prefixes its distinct prefixes, and attribute sets its distinct
// attribute texts: in these dumps no two sets differ only in what bgpdump leaves out (flags,
// attribute order), and the IPv6 dump's whole MP_REACH_NLRI, whose NLRI restates each entry's
// prefix, must not keep prefixes from sharing a set.
TEST(RibCommand, CountsAreThoseOfBgpdump) {
  for (const std::string file : {kPyasn + "rib.20140523.0600_firstMB.bz2", kPyasn + "rib6.20151101.0600_firstMB.bz2"}) {
    SCOPED_TRACE(file);
    const json r = ribJson(file);
    const std::uint64_t routes = bgpdumpCount(file, "wc -l");
    ASSERT_GT(routes, 100000u) << "bgpdump and python3-pyasn come from scripts/setup";
    EXPECT_EQ(r["routes"], routes);
    EXPECT_EQ(r["prefixes"], bgpdumpCount(file, "cut -d'|' -f6 | sort -u | wc -l"));
    EXPECT_EQ(r["ipv4Prefixes"].get<std::uint64_t>() + r["ipv6Prefixes"].get<std::uint64_t>(), r["prefixes"]);
    EXPECT_EQ(r["attributeSets"], bgpdumpCount(file, "cut -d'|' -f7- | sort -u | wc -l"));
    EXPECT_EQ(r["damaged"], 1);
    EXPECT_GT(r["bytesPerRoute"].get<double>(), 0);
    EXPECT_EQ(r["published"], nullptr);
  }
}

// --publish: a record per prefix, checked from a reader process; read here too, every prefix of
// the dump is there and no other.
TEST(RibCommand, PublishedTableIsCheckedByAReaderProcess) {
  using Routing::BgpRedistribute::FilteredRtStatus;
  Shelf::TempRoot root;
  const std::string file = kPyasn + "rib.20080501.0644_firstMB.bz2";
  const json r = ribJson("--publish " + root.path() + " --name t --sample 300 " + file);
  const std::uint64_t prefixes = bgpdumpCount(file, "cut -d'|' -f6 | sort -u | wc -l");
  ASSERT_TRUE(r["published"].is_object()) << r;
  EXPECT_EQ(r["published"]["records"], prefixes);
  EXPECT_TRUE(r["published"]["agreed"].get<bool>());
  EXPECT_GT(r["published"]["sampled"].get<int>(), 100);
  EXPECT_GT(r["published"]["identifiers"].get<std::uint64_t>(), 1u);
  EXPECT_LT(r["published"]["identifiers"].get<std::uint64_t>(), prefixes);

  auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());
  em->mount(FilteredRtStatus::mountPath("t"), FilteredRtStatus::kTypeName, {KelpSharedMem::MountMode::reader, {}});
  auto table = Kelp::ptrDynamicCast<FilteredRtStatus>(em->entity(FilteredRtStatus::mountPath("t")));
  ASSERT_TRUE(table);
  EXPECT_EQ(table->filteredRouteCount(), prefixes);
  EXPECT_TRUE(table->routesProcessed());
  std::set<std::string> dumped;
  {
    FILE* p = popen(("bgpdump -m '" + file + "' 2>/dev/null | cut -d'|' -f6").c_str(), "r");
    char line[128];
    while (p != nullptr && std::fgets(line, sizeof line, p) != nullptr) dumped.insert(std::string(line, std::strlen(line) - 1));
    if (p != nullptr) pclose(p);
  }
  std::size_t strangers = 0;
  table->filteredRouteForEach([&](const Routing::BgpRedistribute::FilteredRoute& route) {
    strangers += dumped.count(route.key.stringValue()) == 0 || route.igpResultId.value == 0;
  });
  EXPECT_EQ(strangers, 0u);
  EXPECT_EQ(dumped.size(), prefixes);
}

}  // namespace

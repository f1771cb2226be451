// bgpcommon mrt: held line by line to bgpdump -m on the same files, and on damaged files made
// from real ones.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "BgpCommon/BgpMrt.h"
#include "tests/Support/RunTool.h"

namespace {

using testing_support::runTool;

const std::string kPyasn = "/usr/lib/python3/dist-packages/data/";
const std::string kUpdates = BGPCOMMON_SOURCE_DIR "/tests/data/updates.mrt";

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

// What `bgpdump -m FILE` prints.
std::vector<std::string> bgpdump(const std::string& file) {
  FILE* p = popen(("bgpdump -m '" + file + "' 2>/dev/null").c_str(), "r");
  std::string out;
  char buf[65536];
  for (std::size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
  if (p != nullptr) pclose(p);
  return lines(out);
}

// The first difference of two outputs, or "" when they are equal.
std::string difference(const std::vector<std::string>& ours, const std::vector<std::string>& theirs) {
  for (std::size_t i = 0; i < std::min(ours.size(), theirs.size()); ++i) {
    if (ours[i] != theirs[i]) return "line " + std::to_string(i + 1) + ":\n ours   " + ours[i] + "\n theirs " + theirs[i];
  }
  if (ours.size() != theirs.size()) return std::to_string(ours.size()) + " lines against " + std::to_string(theirs.size());
  return "";
}

std::string readFile(const std::string& path) { return (std::ostringstream() << std::ifstream(path, std::ios::binary).rdbuf()).str(); }
std::string writeFile(const std::string& name, const std::string& octets) {
  const std::string path = ::testing::TempDir() + name;
  std::ofstream(path, std::ios::binary) << octets;
  return path;
}

TEST(MrtCommand, BgpdumpOptionPrintsExactlyWhatBgpdumpPrints) {
  // The RouteViews dumps are the first megabyte of larger bzip2 files: both readers stop where the
  // stream does, and ours says so.
  for (const std::string file : {kPyasn + "rib.20080501.0644_firstMB.bz2", kPyasn + "rib.20140523.0600_firstMB.bz2",
                                 kPyasn + "rib6.20151101.0600_firstMB.bz2", kUpdates}) {
    SCOPED_TRACE(file);
    const std::vector<std::string> theirs = bgpdump(file);
    ASSERT_GT(theirs.size(), 20u) << "bgpdump and python3-pyasn come from scripts/setup";
    const auto ours = runTool("mrt --bgpdump " + file, true);
    EXPECT_EQ(difference(lines(ours.out), theirs), "");
    const bool cutShort = file != kUpdates;
    EXPECT_EQ(ours.status, cutShort ? 1 : 0) << ours.err;
    EXPECT_EQ(ours.err.find("badCompression at offset") != std::string::npos, cutShort) << ours.err;
  }
}

// Whole compressed files read to their end without damage (bzip2 and gzip, one stream and two).
TEST(MrtCommand, CompressedFilesReadWhole) {
  const std::vector<std::string> plain = lines(runTool("mrt --bgpdump " + kUpdates, true).out);
  const std::string dir = ::testing::TempDir();
  for (const std::string compress : {"bzip2 -c", "gzip -c"}) {
    const std::string file = dir + "whole-" + compress.substr(0, 4);
    ASSERT_EQ(std::system((compress + " '" + kUpdates + "' > " + file + "; " + compress + " '" + kUpdates + "' >> " + file).c_str()), 0);
    const auto r = runTool("mrt --bgpdump " + file, true);
    EXPECT_EQ(r.status, 0) << compress << ": " << r.err;
    std::vector<std::string> twice = plain;
    twice.insert(twice.end(), plain.begin(), plain.end());
    EXPECT_EQ(difference(lines(r.out), twice), "") << compress;
  }
}

// The records of `path` (the first `count`), header and body, as a plain file, and where each starts.
std::string firstRecords(const std::string& path, std::size_t count, std::vector<std::size_t>& offsets) {
  Routing::Bgp::MrtFile file(path);
  Routing::Bgp::MrtRecord r;
  std::string out;
  while (offsets.size() < count && file.next(r)) {
    offsets.push_back(out.size());
    const std::uint8_t head[12] = {std::uint8_t(r.timestamp >> 24), std::uint8_t(r.timestamp >> 16),
                                   std::uint8_t(r.timestamp >> 8), std::uint8_t(r.timestamp),
                                   std::uint8_t(r.type >> 8), std::uint8_t(r.type), std::uint8_t(r.subtype >> 8),
                                   std::uint8_t(r.subtype), std::uint8_t(r.length >> 24),
                                   std::uint8_t(r.length >> 16), std::uint8_t(r.length >> 8), std::uint8_t(r.length)};
    out.append(reinterpret_cast<const char*>(head), 12);
    if (r.type == 17) {
      const std::uint8_t us[4] = {std::uint8_t(r.microseconds >> 24), std::uint8_t(r.microseconds >> 16),
                                  std::uint8_t(r.microseconds >> 8), std::uint8_t(r.microseconds)};
      out.append(reinterpret_cast<const char*>(us), 4);
    }
    out.append(reinterpret_cast<const char*>(r.body.data()), r.body.size());
  }
  return out;
}

// Each damage is named with its offset on standard error, the exit status is 1, and what comes
// before it is printed as bgpdump prints it; a damaged RIB entry costs that entry only.
TEST(MrtCommand, DamageIsReportedWithItsOffsetAfterEverythingBeforeIt) {
  std::vector<std::size_t> at;
  const std::string updates = firstRecords(kUpdates, 100, at);
  ASSERT_TRUE(updates == readFile(kUpdates));
  std::vector<std::size_t> ribAt;
  const std::string rib = firstRecords(kPyasn + "rib.20140523.0600_firstMB.bz2", 4, ribAt);
  const std::string bz2 = readFile(kPyasn + "rib.20140523.0600_firstMB.bz2");
  std::string gzipped;
  {
    FILE* p = popen(("gzip -c '" + kUpdates + "'").c_str(), "r");
    char buf[4096];
    for (std::size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;) gzipped.append(buf, n);
    pclose(p);
  }
  ASSERT_EQ(ribAt.size(), 4u);
  ASSERT_GT(at.size(), 12u);
  auto lengthPlus = [](std::string f, std::size_t record, int by) {
    const std::size_t l = 8 + record;
    const unsigned length = (std::uint8_t(f[l + 2]) << 8 | std::uint8_t(f[l + 3])) + by;
    f[l + 2] = char(length >> 8), f[l + 3] = char(length);
    return f;
  };
  // The first RIB record's first entry: sequence, prefix length and prefix, entry count.
  const std::size_t entry = ribAt[1] + 12 + 4 + 1 + (std::uint8_t(rib[ribAt[1] + 16]) + 7) / 8 + 2;
  std::string badPeer = rib;
  badPeer[entry] = badPeer[entry + 1] = char(0xFF);
  struct Row {
    const char* name;
    std::string octets;
    const char* problem;
    std::size_t offset;             // named on standard error
    std::vector<std::string> lines;  // expected on standard output
  };
  const Row rows[] = {
      {"cut inside a record's header", updates.substr(0, at[7] + 7), "truncatedRecord", at[7],
       bgpdump(writeFile("first7.mrt", updates.substr(0, at[7])))},
      {"cut inside a record's body", updates.substr(0, at[9] + 30), "truncatedRecord", at[9],
       bgpdump(writeFile("first9.mrt", updates.substr(0, at[9])))},
      {"a record length three longer than the record", lengthPlus(updates, at[3], 3), "lengthMismatch", at[3],
       bgpdump(writeFile("first3.mrt", updates.substr(0, at[3])))},
      {"a record length three shorter", lengthPlus(updates, at[10], -3), "lengthMismatch", at[10],
       bgpdump(writeFile("first10.mrt", updates.substr(0, at[10])))},
      {"a peer index past the peer table", badPeer, "peerIndexOutOfRange", entry,
       [&] {
         std::vector<std::string> all = bgpdump(writeFile("rib4.mrt", rib));
         all.erase(all.begin());  // the first RIB entry's line
         return all;
       }()},
      {"a bzip2 stream cut short", bz2.substr(0, 300000), "badCompression", 0,
       bgpdump(writeFile("cut.bz2", bz2.substr(0, 300000)))},
      {"a gzip stream cut short", gzipped.substr(0, gzipped.size() / 2), "badCompression", 0,
       bgpdump(writeFile("cut.gz", gzipped.substr(0, gzipped.size() / 2)))},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ASSERT_FALSE(row.lines.empty());
    const auto r = runTool("mrt --bgpdump " + writeFile("damaged", row.octets), true);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find(std::string(row.problem) + " at offset "), std::string::npos) << r.err;
    if (row.offset != 0) EXPECT_NE(r.err.find(" " + std::to_string(row.offset)), std::string::npos) << r.err;
    EXPECT_EQ(difference(lines(r.out), row.lines), "");
  }
}

// --json: an object a line with the attributes by name; --prefix and --peer keep what bgpdump's
// lines of that prefix or peer show.
TEST(MrtCommand, JsonAndFilters) {
  const std::vector<std::string> all = bgpdump(kUpdates);
  const auto json = runTool("mrt --json " + kUpdates, true);
  ASSERT_EQ(json.status, 0) << json.err;
  const std::vector<std::string> objects = lines(json.out);
  ASSERT_EQ(objects.size(), all.size());
  const auto first = nlohmann::json::parse(objects[0]);
  EXPECT_EQ(first["type"], "announce");
  EXPECT_EQ(first["prefix"], "10.1.0.0/16");
  EXPECT_EQ(first["asPath"], "65001 4200000000 3356 {100,200,70000}");
  EXPECT_EQ(first["communities"][1], "no-export");
  EXPECT_EQ(first["largeCommunities"].size(), 0u);
  EXPECT_EQ(first["aggregator"], "4200000000 10.0.0.1");
  EXPECT_EQ(first["localPref"], 200);
  std::size_t addPath = 0;
  for (const std::string& o : objects) {
    const auto j = nlohmann::json::parse(o);
    // A state change has no prefix: value() rather than [] (which asserts on a missing key).
    const std::string prefix = j.value("prefix", "");
    if (prefix == "10.6.0.0/16" || prefix == "198.51.100.0/24") addPath += j.value("pathId", 0);
  }
  EXPECT_EQ(addPath, 7u + 5 + 6);  // add-path identifiers of an UPDATE and of a RIB record

  auto containing = [&](const std::string& part) {
    std::vector<std::string> out;
    for (const std::string& l : all)
      if (l.find(part) != std::string::npos) out.push_back(l);
    return out;
  };
  for (const auto& [option, part] : {std::pair<std::string, std::string>{"--prefix 10.2.3.0/24", "|10.2.3.0/24"},
                                     {"--peer 2001:db8::1", "STATE|2001:db8::1|"},
                                     {"--prefix 2001:db8:1::/48 --peer 127.0.0.1", "|2001:db8:1::/48"}}) {
    const auto r = runTool("mrt --bgpdump " + option + " " + kUpdates, true);
    EXPECT_EQ(difference(lines(r.out), containing(part)), "") << option;
    EXPECT_FALSE(containing(part).empty());
  }
}

}  // namespace

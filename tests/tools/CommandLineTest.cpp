// The tool's command-line conventions: what a mistyped or malformed command line says and how it
// exits, write errors on standard output, and an interrupted demo leaving nothing behind.
#include <gtest/gtest.h>

#include "tests/Support/RunTool.h"
#include "tools/ExitStatus.h"

namespace {

using tools::exitFailure;
using tools::exitUsage;

using testing_support::runTool;

TEST(CommandLine, MistakesAreNamedWithTheirStatus) {
  const std::string longWord(300, 'x');
  // arguments, exit status, the first line on standard error
  const std::tuple<std::string, int, std::string> rows[] = {
      {"shwo", exitUsage, "bgpcommon: unknown command \"shwo\" (see bgpcommon --help)"},
      {"igp-results shwo t", exitUsage,
       "bgpcommon: unknown command \"igp-results shwo\"; did you mean \"igp-results show\"? (see bgpcommon "
       "igp-results --help)"},
      {"vlaue list", exitUsage, "bgpcommon: unknown command \"vlaue\"; did you mean \"value\"? (see bgpcommon --help)"},
      {"value list >/dev/full", exitFailure, "bgpcommon: write error on standard output: No space left on device"},
      {"mrt " BGPCOMMON_SOURCE_DIR "/tests/data/updates.mrt >/dev/full", exitFailure,
       "bgpcommon: write error on standard output: No space left on device"},
      {"igp-results write t --root /nonexistent", exitUsage, "--records is required"},
      {"rib /nonexistent --publish /nonexistent --name a/b", exitUsage, "--name: a table name, not empty and without '/'"},
      {"igp-results write t --root ''", exitUsage, "--root: an absolute path expected"},
      {"rib /nonexistent --publish relative", exitUsage, "--publish: an absolute path expected"},
      {"igp-results write t --records 5 --first 4294967295 --root /nonexistent", exitUsage,
       "--first 4294967295 --records 5: keys beyond 4294967295"},
      {"igp-results write t --records 5 --size 4 --root /nonexistent", exitUsage, "--records 5 do not fit a table of --size 4"},
      {"igp-results write t --records 5 --hold -5 --root /nonexistent", exitUsage,
       "--hold: seconds (0 or more, or inf) expected"},
      {"igp-results write t --records 5 --hold nan --root /nonexistent", exitUsage,
       "--hold: seconds (0 or more, or inf) expected"},
      {"igp-results watch t --timeout -1 --root /nonexistent", exitUsage,
       "--timeout: seconds (0 or more, or inf) expected"},
      {"value parse " + longWord + " y", exitFailure,
       "unknown type \"" + longWord.substr(0, 64) + "...\" (see 'bgpcommon value list')"},
  };
  for (const auto& [args, status, err] : rows) {
    const auto r = runTool(args, true);
    EXPECT_EQ(r.status, status) << args;
    EXPECT_EQ(r.err.substr(0, r.err.find('\n')), err) << args;
  }
  const auto relative = runTool("igp-results list", true, "BGPCOMMON_SHM_ROOT=rel ");
  EXPECT_EQ(std::make_pair(relative.status, relative.err),
            std::make_pair(int(exitFailure), std::string("Shelf root 'rel' refused: it is not an absolute path\n")));
}

// Interrupted mid-run, or cut off by a reader that stops reading, the demo removes its tables.
TEST(CommandLine, InterruptedDemoLeavesNoTables) {
  const std::string tool = std::string(BGPCOMMON_BIN_DIR) + "/bgpcommon";
  const std::string out = ::testing::TempDir() + "demo-interrupted.txt";
  const std::string script =
      tool + " demo --routes 1000000 >" + out + " 2>&1 & p=$!; until grep -q '^Tables under' " + out +
      "; do sleep 0.05; done; kill -INT $p; wait $p; echo status=$?; "
      "d=$(sed -n 's/^Tables under \\(.*\\) (temporary)$/\\1/p' " + out + "); test -e \"$d\" && echo left $d; " +
      "d=$(" + tool + " demo --routes 1000 | sed -n 's/^Tables under \\(.*\\) (temporary)$/\\1/p;2q'); " +
      "test -e \"$d\" && echo left $d; echo done";
  FILE* p = popen(script.c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::string text;
  char buf[512];
  for (std::size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) text.append(buf, n);
  pclose(p);
  EXPECT_EQ(text, "status=130\ndone\n");
  std::remove(out.c_str());
}

}  // namespace

// The manual page and the bash completion the tool writes of itself.
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "tests/Support/RunTool.h"
#include "tools/ExitStatus.h"

namespace {

using testing_support::runTool;

std::string written(const std::string& kind) {
  const std::string path = ::testing::TempDir() + "bgpcommon-" + kind;
  EXPECT_EQ(runTool("generate-docs " + kind + " --output " + path).status, tools::exitOk);
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  std::remove(path.c_str());
  return text.str();
}

// What bash offers after each command line, as a user pressing Tab sees it.
TEST(DocsCommand, CompletionOffersCommandsOptionsAndTypeNames) {
  const std::pair<const char*, const char*> cases[] = {
      {"bgpcommon ", "demo events-tracking filtered-routes igp-results mrt rib route-target value --help -h --version"},
      {"bgpcommon igp-results w", "watch write"},
      {"bgpcommon igp-results watch t --", "--help --root --current --count --timeout --json"},
      {"bgpcommon igp-results watch t --count ", ""},
      {"bgpcommon events-tracking demo --advertise-threshold 1 ", ""},
      {"bgpcommon events-tracking demo --advertise-threshold 1 2 --j", "--json"},
      {"bgpcommon value parse Routing::Bgp::MaxR", "MaxRoutes"},
      {"bgpcommon value parse Routing::Bgp::MaxRoutes -", "--help -h --attributes -a --json"},
      {"bgpcommon demo --root /proc/sel", "/proc/self"},
  };
  const std::string script = ::testing::TempDir() + "bgpcommon-completion-test.sh";
  {
    std::ofstream s(script);
    s << written("bash-completion") << "PATH=" << BGPCOMMON_BIN_DIR << ":$PATH\n";
    for (const auto& [line, want] : cases) {
      s << "COMP_LINE='" << line << "'; COMP_POINT=${#COMP_LINE}; _bgpcommon; echo \"${COMPREPLY[*]}\"\n";
    }
  }
  FILE* p = popen(("bash " + script).c_str(), "r");
  ASSERT_NE(p, nullptr);
  char buf[4096];
  for (const auto& [line, want] : cases) {
    ASSERT_NE(fgets(buf, sizeof buf, p), nullptr) << line;
    EXPECT_EQ(std::string(buf), std::string(want) + "\n") << line;
  }
  EXPECT_EQ(pclose(p), 0);
  std::remove(script.c_str());
}

// The page formats without a warning, with each command's synopsis and every exit status.
TEST(DocsCommand, ManualPage) {
  const std::string page = written("man");
  EXPECT_NE(page.find(".SS \"bgpcommon igp\\-results watch [\\-\\-root DIR] [\\-\\-current] [\\-\\-count UINT] "
                      "[\\-\\-timeout S|inf] [\\-\\-json] NAME\"\n"),
            std::string::npos)
      << page;
  EXPECT_NE(page.find(".SS \"bgpcommon route\\-target [\\-\\-asdot] [\\-\\-json] TEXT...\"\n"), std::string::npos);
  for (const tools::ExitStatusMeaning& e : tools::kExitStatuses) {
    EXPECT_NE(page.find(".TP\n.B " + std::to_string(e.status) + "\n"), std::string::npos) << e.status;
  }
  EXPECT_NE(page.find(".TP\n.I \\&.NAME.lock\nbeside each table, in its directory, mode 0600"), std::string::npos);
  EXPECT_EQ(page.find("demo\\-reader"), std::string::npos);
  if (system("command -v groff >/dev/null") != 0) GTEST_SKIP() << "groff (package groff-base) is not installed";
  const std::string path = ::testing::TempDir() + "bgpcommon.1";
  std::ofstream(path) << page;
  FILE* p = popen(("groff -man -Tutf8 -ww -z " + path + " 2>&1").c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::string warnings;
  char buf[4096];
  while (fgets(buf, sizeof buf, p) != nullptr) warnings += buf;
  EXPECT_EQ(pclose(p), 0);
  EXPECT_EQ(warnings, "");
  std::remove(path.c_str());
}

// README's table of exit statuses lists the tool's statuses, in order, and no other.
TEST(DocsCommand, ReadmeListsTheExitStatuses) {
  std::ifstream readme(BGPCOMMON_SOURCE_DIR "/README.md");
  std::string line;
  while (std::getline(readme, line) && line != "| Status | Meaning |") continue;
  std::getline(readme, line);  // the rule under the heading
  for (const tools::ExitStatusMeaning& e : tools::kExitStatuses) {
    EXPECT_TRUE(std::getline(readme, line) && line.starts_with("| " + std::to_string(e.status) + " |")) << line;
  }
  EXPECT_TRUE(std::getline(readme, line) && !line.starts_with("|")) << line;
}

}  // namespace

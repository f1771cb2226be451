#pragma once
// Runs the bgpcommon tool as the shell would and captures what it prints.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace testing_support {

struct ToolResult {
  int status = -1;
  std::string out;  // standard output and standard error, in order (standard output alone when split)
  std::string err;  // standard error, when split
};

// `args` is appended to the tool's path as it stands: quote what the shell must not split. With
// `splitErr`, standard error is kept apart in `err`.
inline ToolResult runTool(const std::string& args, bool splitErr = false) {
  ToolResult r;
  const std::string errFile = ::testing::TempDir() + "bgpcommon-stderr-" + std::to_string(getpid()) + ".txt";
  const std::string launcher = BGPCOMMON_TOOL_LAUNCHER;  // the emulator of a cross build, else empty
  const std::string cmd = (launcher.empty() ? "" : launcher + " ") + BGPCOMMON_BIN_DIR + "/bgpcommon " + args +
                          (splitErr ? " 2>" + errFile : " 2>&1");
  FILE* p = popen(cmd.c_str(), "r");
  if (p == nullptr) return r;
  char buf[4096];
  for (std::size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
  const int st = pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  if (splitErr) {
    std::ostringstream text;
    text << std::ifstream(errFile).rdbuf();
    r.err = text.str();
    std::remove(errFile.c_str());
  }
  return r;
}

}  // namespace testing_support

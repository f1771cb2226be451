#pragma once
// Runs the bgpcommon tool as the shell would and captures what it prints.

#include <cstdio>
#include <string>
#include <sys/wait.h>

namespace testing_support {

struct ToolResult {
  int status = -1;
  std::string out;  // standard output and standard error, in order
};

// `args` is appended to the tool's path as it stands: quote what the shell must not split.
inline ToolResult runTool(const std::string& args) {
  ToolResult r;
  std::string cmd = std::string(BGPCOMMON_BIN_DIR) + "/bgpcommon " + args + " 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  if (p == nullptr) return r;
  char buf[4096];
  std::size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  int st = pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}

}  // namespace testing_support

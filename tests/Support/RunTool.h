#pragma once
// Runs the bgpcommon tool as the shell would and captures what it prints.

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace testing_support {

struct ToolResult {
  int status = -1;
  std::string out;  // standard output and standard error, in order (standard output alone when split)
  std::string err;  // standard error, when split
};

// `args` is appended to the tool's path as it stands: quote what the shell must not split. With
// `splitErr`, standard error is kept apart in `err`. `as` goes before the tool ("runuser -u nobody --").
inline ToolResult runTool(const std::string& args, bool splitErr = false, const std::string& as = "") {
  ToolResult r;
  const std::string errFile = ::testing::TempDir() + "bgpcommon-stderr-" + std::to_string(getpid()) + ".txt";
  const std::string launcher = BGPCOMMON_TOOL_LAUNCHER;  // the emulator of a cross build, else empty
  const std::string cmd = as + (launcher.empty() ? "" : launcher + " ") + BGPCOMMON_BIN_DIR + "/bgpcommon " + args +
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

// Starts the tool in the background as runTool runs it, standard output and error going to
// `outFile`, and returns its pid for waitTool.
inline pid_t startTool(const std::string& args, const std::string& outFile) {
  const std::string launcher = BGPCOMMON_TOOL_LAUNCHER;
  const std::string cmd = "exec " + (launcher.empty() ? "" : launcher + " ") + BGPCOMMON_BIN_DIR + "/bgpcommon " +
                          args + " >" + outFile + " 2>&1";
  const char* argv[] = {"/bin/sh", "-c", cmd.c_str(), nullptr};
  pid_t pid = -1;
  return posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) == 0 ? pid : -1;
}

// The exit status of a tool startTool started, or 128 + the signal that ended it; -1 when it had
// not ended after a minute (it is then killed).
inline int waitTool(pid_t pid) {
  int st = 0;
  for (int i = 0; i < 6000; ++i) {
    if (waitpid(pid, &st, WNOHANG) == pid) return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(pid, SIGKILL);
  waitpid(pid, &st, 0);
  return -1;
}

}  // namespace testing_support

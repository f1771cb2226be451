// Progress on standard error: shown on a terminal, never into a pipe or a file.
#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "tools/Progress.h"

namespace {

std::string drain(int fd) {
  std::string text;
  char buf[256];
  for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) text.append(buf, static_cast<std::size_t>(n));
  return text;
}

TEST(Progress, OnlyOnATerminalAndClearedAfterwards) {
  int master = -1, terminal = -1, pipeFds[2];
  ASSERT_EQ(openpty(&master, &terminal, nullptr, nullptr, nullptr), 0);
  ASSERT_EQ(pipe2(pipeFds, O_NONBLOCK), 0);
  ASSERT_EQ(fcntl(master, F_SETFL, O_NONBLOCK), 0);
  for (int fd : {terminal, pipeFds[1]}) {
    tools::Progress progress("records written", 8, fd, std::chrono::seconds(0));
    progress.update(2);
    progress.update(4);  // within the 0.2 s after the first: not shown
  }
  EXPECT_EQ(drain(master), "\rrecords written: 2 of 8 (25%)\r\033[K");
  EXPECT_EQ(drain(pipeFds[0]), "");
  for (int fd : {master, terminal, pipeFds[0], pipeFds[1]}) close(fd);
}

}  // namespace

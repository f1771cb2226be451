#pragma once
// What the tool's commands need to run a child of their own: a temporary table root removed also when
// the command is interrupted, and a child process run with every wait on it bounded.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/Shelf/TempRoot.h"

namespace tools {

// The child runChild is running, if any, so that an interrupted command can end it too.
inline std::atomic<pid_t> runningChild{0};

// While it lives, a process ended by SIGINT, SIGTERM or SIGPIPE first ends the child runChild runs
// and removes a temporary directory, then ends by that signal as it would have. Create it before
// any other thread: SIGINT and SIGTERM are blocked in this thread and those it starts, and one
// thread of its own waits for them, so the removal runs in no signal handler. SIGPIPE goes to the
// thread whose write failed; its handler passes it on to that thread.
class RemoveOnSignal {
 public:
  explicit RemoveOnSignal(const Shelf::TempRoot& dir) : path_(dir.temporary() ? dir.path() : std::string()) {
    sigset_t set = waited();
    pthread_sigmask(SIG_BLOCK, &set, &oldMask_);
    struct sigaction pipe {};
    pipe.sa_handler = [](int) {
      pipeSeen() = 1;
      kill(getpid(), SIGTERM);
    };
    sigaction(SIGPIPE, &pipe, &oldPipe_);
    waiter_ = std::thread([this] {
      int sig = 0;
      sigset_t set = waited();
      while (sigwait(&set, &sig) == 0 && sig == SIGUSR2 && !done_) {
      }
      if (done_) return;
      if (const pid_t child = runningChild.load(); child > 0) kill(child, SIGTERM);
      // The other threads run on meanwhile and may create a file just removed a directory
      // from: remove until nothing is left, bounded.
      struct stat st;
      for (int i = 0; i < 100 && !path_.empty() && lstat(path_.c_str(), &st) == 0; ++i) {
        Shelf::removeTree(path_);
        if (lstat(path_.c_str(), &st) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      if (pipeSeen()) sig = SIGPIPE;
      signal(sig, SIG_DFL);
      sigset_t one;
      sigemptyset(&one);
      sigaddset(&one, sig);
      pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
      raise(sig);
    });
  }
  ~RemoveOnSignal() {
    done_ = true;
    pthread_kill(waiter_.native_handle(), SIGUSR2);
    waiter_.join();
    sigaction(SIGPIPE, &oldPipe_, nullptr);
    pthread_sigmask(SIG_SETMASK, &oldMask_, nullptr);
  }
  RemoveOnSignal(const RemoveOnSignal&) = delete;
  RemoveOnSignal& operator=(const RemoveOnSignal&) = delete;

 private:
  static sigset_t waited() {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGINT, SIGTERM, SIGUSR2}) sigaddset(&set, sig);
    return set;
  }
  static volatile sig_atomic_t& pipeSeen() {
    static volatile sig_atomic_t seen = 0;
    return seen;
  }

  std::string path_;
  std::atomic<bool> done_ = false;
  sigset_t oldMask_;
  struct sigaction oldPipe_ {};
  std::thread waiter_;
};

// The path of the running program, so that it can start itself again.
inline std::string selfExecutable() {
  char buf[4096];
  const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) throw std::runtime_error("cannot find this program's executable");
  return std::string(buf, static_cast<std::size_t>(n));
}

// How a child ended: its exit status, 128 + the signal that ended it, or timedOut (it was killed).
struct ChildResult {
  int status = -1;
  bool timedOut = false;
  bool ok() const { return !timedOut && status == 0; }
};

// Runs `exe` with `args`, its standard output and error merged and handed to `onLine` line by
// line as they come, for at most `timeoutSeconds`; then it is killed. The final wait for its exit
// is bounded too (5 s), so a child that closes its output and hangs cannot hold the caller.
inline ChildResult runChild(const std::string& exe, const std::vector<std::string>& args, double timeoutSeconds,
                            const std::function<void(const std::string&)>& onLine) {
  using Clock = std::chrono::steady_clock;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  std::fflush(stdout);
  const pid_t pid = fork();
  if (pid < 0) {
    close(fds[0]);
    close(fds[1]);
    throw std::runtime_error("fork failed");
  }
  if (pid == 0) {
    sigset_t none;  // the child starts with no signal blocked, whatever its parent blocked
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    dup2(fds[1], STDOUT_FILENO);
    dup2(fds[1], STDERR_FILENO);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(exe.c_str()));
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(exe.c_str(), argv.data());
    _exit(127);
  }
  close(fds[1]);
  runningChild = pid;
  ChildResult result;
  std::string pending;
  const auto deadline = Clock::now() + std::chrono::duration<double>(timeoutSeconds);
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      result.timedOut = true;
      break;
    }
    pollfd p{fds[0], POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(std::min<long long>(left, 200))) <= 0) continue;
    char buf[4096];
    const ssize_t n = read(fds[0], buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    pending.append(buf, static_cast<std::size_t>(n));
    for (std::size_t eol; (eol = pending.find('\n')) != std::string::npos; pending.erase(0, eol + 1)) {
      onLine(pending.substr(0, eol));
    }
  }
  close(fds[0]);
  if (result.timedOut) kill(pid, SIGKILL);
  int status = 0;
  const auto exitDeadline = Clock::now() + std::chrono::seconds(5);
  pid_t done = 0;
  while ((done = waitpid(pid, &status, WNOHANG)) == 0 && Clock::now() < exitDeadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (done == 0) {
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    result.timedOut = true;
  }
  runningChild = 0;
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

}  // namespace tools

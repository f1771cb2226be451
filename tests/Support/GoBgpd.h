#pragma once
// A real BGP speaker for tests: GoBGP's daemon (Debian's gobgpd) on loopback, configured with one
// passive neighbour 127.0.0.1, and the test's end of a session with it.
//
// Every wait is a poll with a safety cap (kCap), never a sleep standing in for an event. gobgpd
// and every `gobgp` command run in process groups of their own that die with the test: the guard
// kills the group when it goes out of scope (a failed assertion or an exception included), and
// the kernel kills it when the test process dies without unwinding (PR_SET_PDEATHSIG).

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

namespace testing_support {

using Clock = std::chrono::steady_clock;
inline constexpr auto kCap = std::chrono::seconds(20);

// `program` found on PATH, or "" when it is not installed.
inline std::string programPath(const std::string& program) {
  std::istringstream path(std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin");
  for (std::string dir; std::getline(path, dir, ':');) {
    if (access((dir + "/" + program).c_str(), X_OK) == 0) return dir + "/" + program;
  }
  return "";
}

// A program started in a process group of its own, standard output and error to `outFd`; killed
// with its whole group when the guard goes.
class ChildGroup {
 public:
  ChildGroup(const std::vector<std::string>& args, int outFd) {
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {  // only async-signal-safe calls from here to exec
      setpgid(0, 0);
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(127);
      dup2(outFd, 1), dup2(outFd, 2);
      execv(argv[0], argv.data());
      _exit(127);
    }
    if (pid_ < 0) throw std::runtime_error("fork failed");
    setpgid(pid_, pid_);  // also here, so that the group exists whichever runs first
  }
  ~ChildGroup() { stop(); }
  ChildGroup(const ChildGroup&) = delete;
  ChildGroup& operator=(const ChildGroup&) = delete;

  // The exit status once it has ended (128 + signal), or -1 while it runs.
  int poll() {
    int st = 0;
    if (pid_ > 0 && waitpid(pid_, &st, WNOHANG) == pid_) status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st), pid_ = -1;
    return status_;
  }
  void stop() {
    if (pid_ <= 0) return;
    kill(-pid_, SIGKILL);
    int st = 0;
    waitpid(pid_, &st, 0);
    status_ = 128 + SIGKILL, pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  int status_ = -1;
};

struct ProgramOutput {
  int status = -1;  // -1: still running when the cap ran out (it was killed)
  std::string out;  // standard output and error
};

// Runs `args` to its end, or kills it when the cap runs out.
inline ProgramOutput runProgram(const std::vector<std::string>& args) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  ChildGroup child(args, fds[1]);
  close(fds[1]);
  ProgramOutput r;
  const auto deadline = Clock::now() + kCap;
  char buf[4096];
  for (pollfd p{fds[0], POLLIN, 0}; Clock::now() < deadline;) {
    if (::poll(&p, 1, 100) <= 0) continue;
    const ssize_t n = read(fds[0], buf, sizeof buf);
    if (n <= 0) break;
    r.out.append(buf, static_cast<std::size_t>(n));
  }
  close(fds[0]);
  while (Clock::now() < deadline && child.poll() < 0) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  r.status = child.poll();
  return r;
}

// A free TCP port on loopback (free when asked: a port is only reserved by binding it).
inline std::uint16_t freePort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  close(fd);
  return ntohs(a.sin_port);
}

// gobgpd with global AS `as`, router id 192.0.2.254, listening for BGP on 127.0.0.1 and one
// neighbour, 127.0.0.1 of AS `peerAs`, for IPv4 and IPv6 unicast. Passive: the test connects.
class GoBgpd {
 public:
  GoBgpd(std::uint32_t as, std::uint32_t peerAs)
      : dir_(std::filesystem::path(::testing::TempDir()) / ("gobgpd-" + std::to_string(getpid()))) {
    std::filesystem::create_directories(dir_);
    // A port taken between freePort() and gobgpd's bind ends gobgpd: start again on others.
    for (int attempt = 0; attempt < 3 && !daemon_; ++attempt) start(as, peerAs);
    if (!daemon_) throw std::runtime_error("gobgpd did not start; its log:\n" + log());
  }
  ~GoBgpd() {
    daemon_.reset();
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }

  std::uint16_t bgpPort() const { return bgpPort_; }
  std::string log() const {
    std::ostringstream text;
    text << std::ifstream(dir_ / "log").rdbuf();
    return text.str();
  }
  // `gobgp ARGS -j` against this daemon, as JSON; throws with its output when it fails.
  nlohmann::json json(std::vector<std::string> args) const {
    args.insert(args.begin(), {programPath("gobgp"), "-p", std::to_string(apiPort_)});
    args.push_back("-j");
    ProgramOutput r = runProgram(args);
    if (r.status != 0) throw std::runtime_error("gobgp failed (" + std::to_string(r.status) + "): " + r.out);
    return nlohmann::json::parse(r.out);
  }
  void cli(std::vector<std::string> args) const {
    args.insert(args.begin(), {programPath("gobgp"), "-p", std::to_string(apiPort_)});
    if (ProgramOutput r = runProgram(args); r.status != 0) throw std::runtime_error("gobgp failed: " + r.out);
  }
  // Polls `gobgp ARGS -j` until `done` holds for what it shows, and returns that; after the cap,
  // returns the last answer (the caller's comparison then says what is wrong).
  nlohmann::json waitFor(const std::vector<std::string>& args, const std::function<bool(const nlohmann::json&)>& done) const {
    const auto deadline = Clock::now() + kCap;
    nlohmann::json j = json(args);
    while (!done(j) && Clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      j = json(args);
    }
    return j;
  }

 private:
  void start(std::uint32_t as, std::uint32_t peerAs) {
    bgpPort_ = freePort(), apiPort_ = freePort();
    std::ofstream(dir_ / "gobgpd.toml") << "[global.config]\n  as = " << as
                                        << "\n  router-id = \"192.0.2.254\"\n  port = " << bgpPort_
                                        << "\n  local-address-list = [\"127.0.0.1\"]\n"
                                           "[[neighbors]]\n  [neighbors.config]\n    neighbor-address = \"127.0.0.1\"\n"
                                           "    peer-as = "
                                        << peerAs
                                        << "\n  [neighbors.transport.config]\n    passive-mode = true\n"
                                           "  [[neighbors.afi-safis]]\n    [neighbors.afi-safis.config]\n"
                                           "      afi-safi-name = \"ipv4-unicast\"\n"
                                           "  [[neighbors.afi-safis]]\n    [neighbors.afi-safis.config]\n"
                                           "      afi-safi-name = \"ipv6-unicast\"\n";
    const int logFd = open((dir_ / "log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    daemon_ = std::make_unique<ChildGroup>(
        std::vector<std::string>{programPath("gobgpd"), "-f", (dir_ / "gobgpd.toml").string(), "-p", "--pprof-disable",
                                 "--api-hosts", "127.0.0.1:" + std::to_string(apiPort_)},
        logFd);
    close(logFd);
    // Up once its API lists the neighbour: the BGP listener is open before neighbours are added.
    for (const auto deadline = Clock::now() + kCap; Clock::now() < deadline && daemon_->poll() < 0;) {
      const std::vector<std::string> ask{programPath("gobgp"), "-p", std::to_string(apiPort_), "neighbor", "-j"};
      if (ProgramOutput r = runProgram(ask); r.status == 0 && r.out.find("127.0.0.1") != std::string::npos) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    daemon_.reset();
  }

  std::filesystem::path dir_;
  std::uint16_t bgpPort_ = 0, apiPort_ = 0;
  std::unique_ptr<ChildGroup> daemon_;
};

// The test's end of a BGP session: a TCP connection to 127.0.0.1:port and whole messages each way.
class BgpSocket {
 public:
  explicit BgpSocket(std::uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) throw std::runtime_error("connect failed");
  }
  ~BgpSocket() { close(fd_); }
  BgpSocket(const BgpSocket&) = delete;
  BgpSocket& operator=(const BgpSocket&) = delete;

  void send(const std::uint8_t* data, std::size_t n) {
    for (ssize_t w; n > 0; data += w, n -= static_cast<std::size_t>(w)) {
      if ((w = ::send(fd_, data, n, MSG_NOSIGNAL)) <= 0) throw std::runtime_error("send failed");
    }
  }
  // The next whole message, header included, framed by the length in its header; throws when the
  // peer closes or nothing whole arrives within the cap.
  std::vector<std::uint8_t> receive() {
    std::vector<std::uint8_t> m(19);
    readExactly(m.data(), 19);
    const std::size_t length = m[16] << 8 | m[17];
    if (length < 19) throw std::runtime_error("message length " + std::to_string(length) + " below the header's 19");
    m.resize(length);
    readExactly(m.data() + 19, length - 19);
    return m;
  }

 private:
  void readExactly(std::uint8_t* p, std::size_t n) {
    const auto deadline = Clock::now() + kCap;
    for (pollfd pf{fd_, POLLIN, 0}; n > 0;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0 || ::poll(&pf, 1, static_cast<int>(left)) <= 0) throw std::runtime_error("nothing from the peer within the cap");
      const ssize_t r = read(fd_, p, n);
      if (r <= 0) throw std::runtime_error("the peer closed the session");
      p += r, n -= static_cast<std::size_t>(r);
    }
  }
  int fd_ = -1;
};

}  // namespace testing_support

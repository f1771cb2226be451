#pragma once
// A real BGP speaker for tests, GoBGP's gobgpd on loopback, and the test's end of a session with it.
// Every wait is a poll or a read with a safety cap (kCapSeconds), never a sleep standing in for an
// event. gobgpd runs in a process group of its own, killed by the guard however the test ends and
// by the kernel when the test process dies (PR_SET_PDEATHSIG); `gobgp` commands run under timeout(1).

#include <fcntl.h>
#include <netinet/in.h>
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
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace testing_support {

inline constexpr int kCapSeconds = 20;

// True when the shell finds `program`.
inline bool installed(const std::string& program) { return std::system(("command -v " + program + " >/dev/null").c_str()) == 0; }

inline sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(port);
  return a;
}

// A TCP port of loopback that was free when asked.
inline std::uint16_t freePort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a = loopback(0);
  socklen_t len = sizeof a;
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  close(fd);
  return ntohs(a.sin_port);
}

// gobgpd with global AS `as` and router id 192.0.2.254, listening for BGP on 127.0.0.1, with one
// passive neighbour 127.0.0.1 of AS `peerAs` for IPv4 and IPv6 unicast: the test connects.
class GoBgpd {
 public:
  GoBgpd(std::uint32_t as, std::uint32_t peerAs) : dir_(::testing::TempDir() + "gobgpd-" + std::to_string(getpid())) {
    std::filesystem::create_directories(dir_);
    // A port taken between freePort() and gobgpd's bind ends gobgpd: start again on another.
    for (int attempt = 0; attempt < 3 && pid_ < 0; ++attempt) start(as, peerAs);
    if (pid_ < 0) throw std::runtime_error("gobgpd did not start; its log:\n" + log());
  }
  // Stops gobgpd; its log goes to standard error when the test has failed.
  ~GoBgpd() {
    stop();
    if (::testing::Test::HasFailure()) std::cerr << "gobgpd's log:\n" << log();
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
  GoBgpd(const GoBgpd&) = delete;
  GoBgpd& operator=(const GoBgpd&) = delete;
  std::uint16_t bgpPort() const { return bgpPort_; }
  std::string log() const { return (std::ostringstream() << std::ifstream(dir_ + "/log").rdbuf()).str(); }
  // Runs `gobgp ARGS` against this daemon: its standard output, or an exception with what it said.
  std::string cli(const std::vector<std::string>& args) const {
    std::string cmd = "timeout -s KILL " + std::to_string(kCapSeconds) + " gobgp --target unix://" + dir_ + "/api";
    for (const std::string& a : args) cmd += " '" + a + "'";
    FILE* p = popen((cmd + " 2>&1").c_str(), "r");
    std::string out;
    char buf[4096];
    for (std::size_t n; p != nullptr && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    if (p == nullptr || pclose(p) != 0) throw std::runtime_error(cmd + " failed: " + out);
    return out;
  }
  // Polls `gobgp ARGS -j` until `done` holds for what it shows, and returns that; after the cap,
  // returns the last answer (the caller's comparison then says what is wrong).
  nlohmann::json waitFor(std::vector<std::string> args, const std::function<bool(const nlohmann::json&)>& done) const {
    args.push_back("-j");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kCapSeconds);
    nlohmann::json j = nlohmann::json::parse(cli(args));
    for (; !done(j) && std::chrono::steady_clock::now() < deadline; j = nlohmann::json::parse(cli(args))) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return j;
  }

 private:
  void start(std::uint32_t as, std::uint32_t peerAs) {
    bgpPort_ = freePort();
    std::ofstream config(dir_ + "/gobgpd.toml");
    config << "[global.config]\nas = " << as << "\nrouter-id = \"192.0.2.254\"\nport = " << bgpPort_
           << "\nlocal-address-list = [\"127.0.0.1\"]\n[[neighbors]]\n[neighbors.config]\nneighbor-address = \"127.0.0.1\"\n"
           << "peer-as = " << peerAs << "\n[neighbors.transport.config]\npassive-mode = true\n";
    for (const char* family : {"ipv4-unicast", "ipv6-unicast"}) {
      config << "[[neighbors.afi-safis]]\n[neighbors.afi-safis.config]\nafi-safi-name = \"" << family << "\"\n";
    }
    config.close();
    const std::vector<std::string> args = {"gobgpd", "-f", dir_ + "/gobgpd.toml", "-p", "--pprof-disable",
                                           "--api-hosts", "unix://" + dir_ + "/api"};  // gRPC on a socket file
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const int logFd = open((dir_ + "/log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {  // only async-signal-safe calls from here to exec
      setpgid(0, 0);
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(127);
      dup2(logFd, 1), dup2(logFd, 2);
      execvp(argv[0], argv.data());
      _exit(127);
    }
    close(logFd);
    if (pid_ < 0) return;
    setpgid(pid_, pid_);  // here too, so that the group exists whichever runs first
    // Up once its API lists the neighbour: the BGP listener opens before neighbours are added.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kCapSeconds);
    for (int st; std::chrono::steady_clock::now() < deadline && waitpid(pid_, &st, WNOHANG) == 0;) {
      try {
        if (cli({"neighbor"}).find("127.0.0.1") != std::string::npos) return;
      } catch (const std::runtime_error&) {  // the API is not up yet
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    stop();
  }
  void stop() {
    if (pid_ <= 0) return;
    kill(-pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

  std::string dir_;
  std::uint16_t bgpPort_ = 0;
  pid_t pid_ = -1;
};

// The test's end of a BGP session: a TCP connection to 127.0.0.1:port, whole messages each way.
class BgpSocket {
 public:
  explicit BgpSocket(std::uint16_t port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const timeval cap{kCapSeconds, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &cap, sizeof cap);
    const sockaddr_in a = loopback(port);
    if (connect(fd_, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) throw std::runtime_error("connect failed");
  }
  ~BgpSocket() { close(fd_); }
  BgpSocket(const BgpSocket&) = delete;
  BgpSocket& operator=(const BgpSocket&) = delete;
  void send(const std::uint8_t* data, std::size_t n) {
    if (::send(fd_, data, n, MSG_NOSIGNAL) != static_cast<ssize_t>(n)) throw std::runtime_error("send failed");
  }
  // The next whole message, header included, framed by the length in its header; throws when the
  // peer closes or nothing whole arrives within the cap.
  std::vector<std::uint8_t> receive() {
    std::vector<std::uint8_t> m(19);
    readExactly(m.data(), 19);
    m.resize(std::max<std::size_t>(19, m[16] << 8 | m[17]));
    readExactly(m.data() + 19, m.size() - 19);
    return m;
  }

 private:
  void readExactly(std::uint8_t* p, std::size_t n) {
    if (n > 0 && recv(fd_, p, n, MSG_WAITALL) != static_cast<ssize_t>(n)) {
      throw std::runtime_error("the peer closed the session, or sent nothing whole within the cap");
    }
  }
  int fd_;
};

}  // namespace testing_support

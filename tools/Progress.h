#pragma once
// Progress of a long run on standard error, for the person watching a terminal:
//
//   tools::Progress progress("records written", n);
//   for (std::uint64_t i = 0; i < n; ++i) { ...; progress.update(i + 1); }
//
// Nothing is printed unless the stream is a terminal (a pipe, a file or a test reading the output
// sees nothing), nor before the run has taken a second, so short runs stay silent. Then one line is
// rewritten in place at most five times a second, and cleared when the Progress goes.

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

namespace tools {

class Progress {
 public:
  using Clock = std::chrono::steady_clock;

  Progress(std::string what, std::uint64_t total, int fd = STDERR_FILENO,
           Clock::duration quiet = std::chrono::seconds(1))
      : what_(std::move(what)), total_(total), fd_(fd), shown_(isatty(fd) == 1), next_(Clock::now() + quiet) {}
  ~Progress() {
    if (printed_) dprintf(fd_, "\r\033[K");  // back to the start of the line, and erase it
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // `done` of the total are done. Costs one branch when nothing is shown.
  void update(std::uint64_t done) {
    if (!shown_) return;
    const Clock::time_point now = Clock::now();
    if (now < next_) return;
    next_ = now + std::chrono::milliseconds(200);
    dprintf(fd_, "\r%s: %llu of %llu (%llu%%)", what_.c_str(), static_cast<unsigned long long>(done),
            static_cast<unsigned long long>(total_),
            static_cast<unsigned long long>(total_ == 0 ? 100 : done * 100 / total_));
    printed_ = true;
  }

 private:
  std::string what_;
  std::uint64_t total_;
  int fd_;
  bool shown_;
  bool printed_ = false;
  Clock::time_point next_;
};

}  // namespace tools

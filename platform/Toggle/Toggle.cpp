#include "platform/Toggle/Toggle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include <nlohmann/json.hpp>

namespace Toggle {

namespace {
constexpr const char* kDefaultDirectory = "/etc/bgpcommon/toggles";
constexpr std::size_t kMaxFileSize = 1 << 20;

bool safeFileName(std::string_view name) {
  if (name.empty() || name.front() == '/') return false;
  std::size_t start = 0;
  while (start <= name.size()) {
    std::size_t end = name.find('/', start);
    if (end == std::string_view::npos) end = name.size();
    std::string_view part = name.substr(start, end - start);
    if (part.empty() || part == "." || part == "..") return false;
    start = end + 1;
  }
  return true;
}
}  // namespace

std::string toggleDirectory() {
  const char* env = std::getenv("BGPCOMMON_TOGGLE_DIR");
  return env != nullptr && *env != '\0' ? std::string(env) : std::string(kDefaultDirectory);
}

bool toggleStateFromJson(std::string_view json, std::string_view toggleName, bool defaultState) {
  nlohmann::json doc = nlohmann::json::parse(json.begin(), json.end(), nullptr, /*allow_exceptions=*/false);
  if (!doc.is_object()) return defaultState;
  auto it = doc.find(std::string(toggleName));
  if (it == doc.end()) return defaultState;
  if (it->is_boolean()) return it->get<bool>();
  if (it->is_object()) {
    auto enabled = it->find("enabled");
    if (enabled != it->end() && enabled->is_boolean()) return enabled->get<bool>();
  }
  return defaultState;
}

bool getToggleState(std::string_view toggleName, std::string_view fileName, bool defaultState) {
  if (!safeFileName(fileName)) return defaultState;
  // Read without blocking and only from a regular file: a FIFO put where the toggle file should
  // be would otherwise stop the first lookup, and with it the process, until someone wrote to it.
  // The file itself may not be a symbolic link either.
  const std::string path = toggleDirectory() + "/" + std::string(fileName);
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return defaultState;
  struct stat st;
  std::string text;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && static_cast<std::uint64_t>(st.st_size) <= kMaxFileSize) {
    text.resize(static_cast<std::size_t>(st.st_size) + 1);
    std::size_t done = 0;
    while (done < text.size()) {
      const ssize_t n = read(fd, text.data() + done, text.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      done += static_cast<std::size_t>(n);
    }
    text.resize(done);
  }
  close(fd);
  if (text.empty() || text.size() > kMaxFileSize) return defaultState;
  return toggleStateFromJson(text, toggleName, defaultState);
}

}  // namespace Toggle

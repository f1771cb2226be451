#include "platform/Shelf/Shelf.h"

#include <dirent.h>
#include <limits.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "platform/Shelf/Format.h"

namespace Shelf {

using namespace detail;

std::string Location::defaultRoot() {
  const char* env = std::getenv("BGPCOMMON_SHM_ROOT");
  return env != nullptr && *env != '\0' ? std::string(env) : std::string("/dev/shm/bgpcommon");
}

Location::Location(std::string root, std::string_view relativePath)
    : root_(root.empty() ? defaultRoot() : std::move(root)), path_(relativePath) {
  auto refuse = [&](std::string_view why) {
    Pico::fmthrow<Kelp::RangeException>("Shelf mount path '{}' refused: {}", path_, why);
  };
  if (path_.empty()) refuse("it is empty");
  if (path_.front() == '/') refuse("it is absolute; mount paths are relative to the root");
  if (path_.find('\0') != std::string::npos) refuse("it contains a NUL byte");
  std::size_t start = 0;
  while (true) {
    std::size_t end = path_.find('/', start);
    std::string_view c = std::string_view(path_).substr(start, end == std::string::npos ? end : end - start);
    if (c.empty()) refuse("it has an empty component");
    if (c == "..") refuse("it has a '..' component, which would leave the root");
    if (c == ".") refuse("it has a '.' component");
    if (c.size() > NAME_MAX) refuse(fmt::format("it has a component longer than {} bytes", NAME_MAX));
    components_.emplace_back(c);
    if (end == std::string::npos) break;
    start = end + 1;
  }
  while (root_.size() > 1 && root_.back() == '/') root_.pop_back();
}

int Location::openDirectory(bool create) const {
  if (create) {
    // The root may be several levels deep; make each level that is missing.
    for (std::size_t i = 1; i <= root_.size(); ++i) {
      if (i == root_.size() || root_[i] == '/') {
        std::string prefix = root_.substr(0, i);
        if (mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) return -1;
      }
    }
  }
  int fd = open(root_.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  for (std::size_t i = 0; i + 1 < components_.size(); ++i) {
    const char* c = components_[i].c_str();
    int next = openat(fd, c, O_DIRECTORY | O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (next < 0 && errno == ENOENT && create) {
      if (mkdirat(fd, c, 0755) != 0 && errno != EEXIST) {
        int saved = errno;
        close(fd);
        errno = saved;
        return -1;
      }
      next = openat(fd, c, O_DIRECTORY | O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    }
    int saved = errno;
    close(fd);
    errno = saved;
    if (next < 0) return -1;
    fd = next;
  }
  return fd;
}

}  // namespace Shelf

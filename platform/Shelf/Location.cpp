#include "platform/Shelf/Shelf.h"

#include <dirent.h>
#include <limits.h>
#include <pwd.h>
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

namespace {

// $BGPCOMMON_SHM_OWNER: a user name or number; nullopt when unset or unknown (then the defaults).
std::optional<unsigned> ownerFromEnvironment() {
  const char* env = std::getenv("BGPCOMMON_SHM_OWNER");
  if (env == nullptr || *env == '\0') return std::nullopt;
  char* end = nullptr;
  const unsigned long n = std::strtoul(env, &end, 10);
  if (*end == '\0') return static_cast<unsigned>(n);
  if (const passwd* pw = getpwnam(env)) return pw->pw_uid;
  return std::nullopt;
}

// A name as it goes into a message: at most 64 bytes, control characters escaped.
std::string clipped(std::string_view text) {
  std::string out;
  for (char c : text.substr(0, 64)) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
      out += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
    } else {
      out += c;
    }
  }
  if (text.size() > 64) out += "...";
  return out;
}

std::string userName(unsigned uid) {
  if (const passwd* pw = getpwuid(uid)) return fmt::format("{} ({})", uid, pw->pw_name);
  return std::to_string(uid);
}

}  // namespace

Location::Location(std::string root, std::string_view relativePath)
    : root_(root.empty() ? defaultRoot() : std::move(root)), path_(relativePath), owner_(ownerFromEnvironment()) {
  auto refuse = [&](std::string_view why) {
    Pico::fmthrow<Kelp::RangeException>("Shelf mount path '{}' refused: {}", clipped(path_), why);
  };
  if (root_.front() != '/') {
    // Resolved against each process's working directory, a relative root would name a different
    // table in each process.
    Pico::fmthrow<Kelp::RangeException>("Shelf root '{}' refused: it is not an absolute path", clipped(root_));
  }
  if (path_.empty()) refuse("it is empty");
  if (path_.front() == '/') refuse("it is absolute; mount paths are relative to the root");
  for (char c : path_) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) refuse("it contains a control character");
  }
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

std::string Location::distrust(const std::string& path, unsigned uid, unsigned mode) const {
  const bool trustedUser = owner_ ? uid == *owner_ : uid == geteuid() || uid == 0;
  if (!trustedUser) {
    if (owner_) return fmt::format("{} belongs to user {}, not to user {}", path, userName(uid), userName(*owner_));
    // A name that is no user's falls back to the defaults: trusting less, never more.
    const char* env = std::getenv("BGPCOMMON_SHM_OWNER");
    return fmt::format("{} belongs to user {}, not to this process's user or root ({})", path, userName(uid),
                       env != nullptr && *env != '\0'
                           ? fmt::format("BGPCOMMON_SHM_OWNER \"{}\" names no user", clipped(env))
                           : std::string("BGPCOMMON_SHM_OWNER names the user to trust"));
  }
  // Writable by others: they could replace what it holds. A sticky directory lets them add names
  // only, and what they add is refused by its owner.
  const bool sticky = S_ISDIR(mode) && (mode & S_ISVTX) != 0;
  if ((mode & 022) != 0 && !sticky) {
    return fmt::format("{} (mode {:04o}) is writable by users other than its owner", path, mode & 07777);
  }
  return {};
}

int Location::openDirectory(bool create, std::string& why) const {
  auto failed = [&](std::string_view what, const std::string& path) {
    const int saved = errno;
    why = fmt::format("{} {}: {}", what, path, std::strerror(saved));
    errno = saved;
    return -1;
  };
  auto checked = [&](int fd, const std::string& path) {
    struct stat st;
    if (fstat(fd, &st) != 0) {
      close(fd);
      return failed("cannot inspect", path);
    }
    why = distrust(path, st.st_uid, st.st_mode);
    if (!why.empty()) {
      close(fd);
      errno = EPERM;
      return -1;
    }
    return fd;
  };
  if (create) {
    // The root may be several levels deep; make each level that is missing (the umask applies).
    for (std::size_t i = 1; i <= root_.size(); ++i) {
      if (i == root_.size() || root_[i] == '/') {
        std::string prefix = root_.substr(0, i);
        if (mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) return failed("cannot create", prefix);
      }
    }
  }
  int fd = open(root_.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC);
  if (fd < 0) return failed("cannot open", root_);
  if ((fd = checked(fd, root_)) < 0) return -1;
  std::string path = root_;
  for (std::size_t i = 0; i + 1 < components_.size(); ++i) {
    const char* c = components_[i].c_str();
    path += "/" + components_[i];
    int next = openat(fd, c, O_DIRECTORY | O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (next < 0 && errno == ENOENT && create) {
      if (mkdirat(fd, c, 0755) != 0 && errno != EEXIST) {
        close(fd);
        return failed("cannot create", path);
      }
      next = openat(fd, c, O_DIRECTORY | O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    }
    const int saved = errno;
    close(fd);
    errno = saved;
    if (next < 0) return failed("cannot open", path);
    if ((fd = checked(next, path)) < 0) return -1;
  }
  return fd;
}

}  // namespace Shelf

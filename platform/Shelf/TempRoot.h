#pragma once
// Shelf::TempRoot: a root directory for shared-memory tables that lasts as long as its owner, for
// demonstrations and tests. It is the directory given (kept as it is), or a fresh private one
// (mode 0700, so the tables' owner checks pass) under /dev/shm, under /tmp where /dev/shm is not
// writable, removed with everything in it when the TempRoot goes.
//
//   Shelf::TempRoot root;                      // /dev/shm/bgpcommon-XXXXXX
//   auto em = Kelp::makePtr<KelpSharedMem::EntityManager>(root.path());

#include <ftw.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>

namespace Shelf {

// Removes `path` and everything under it, not following links.
inline void removeTree(const std::string& path) {
  nftw(
      path.c_str(), [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); }, 16,
      FTW_DEPTH | FTW_PHYS);
}

class TempRoot {
 public:
  explicit TempRoot(std::string given = {}, const char* stem = "bgpcommon") : path_(std::move(given)) {
    if (!path_.empty()) return;
    for (const char* dir : {"/dev/shm/", "/tmp/"}) {
      std::string pattern = std::string(dir) + stem + "-XXXXXX";
      if (mkdtemp(pattern.data()) != nullptr) {
        path_ = pattern;
        temporary_ = true;
        return;
      }
    }
    throw std::runtime_error("cannot create a temporary directory");
  }
  ~TempRoot() {
    if (temporary_) removeTree(path_);
  }
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;

  const std::string& path() const { return path_; }
  // Whether it was made here, and goes with this object.
  bool temporary() const { return temporary_; }

 private:
  std::string path_;
  bool temporary_ = false;
};

}  // namespace Shelf

#include "platform/Shelf/Format.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>

#include <cstdio>
#if defined(__aarch64__)
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

#include "platform/Pico/Assert.h"

namespace Shelf::detail {

#if defined(__x86_64__)
const bool kCrcInstruction = [] {
  __builtin_cpu_init();
  return __builtin_cpu_supports("sse4.2") != 0;
}();
#elif defined(__aarch64__)
// Optional in ARMv8.0, present on every ARMv8.1 core: the kernel says which.
const bool kCrcInstruction = (getauxval(AT_HWCAP) & HWCAP_CRC32) != 0;
#endif

std::uint64_t tableChecksum(Bytes words) {
  PICO_ASSERT(words.size() % 8 == 0 && words.size() <= kMaxSlotBytes);
  alignas(8) std::uint8_t scratch[kMaxSlotBytes];
  return copyAndSumWith<CrcTableStep, false>(scratch, words.data(), 0, 0, words.size());
}

std::optional<std::uint64_t> instructionChecksum(Bytes words) {
  PICO_ASSERT(words.size() % 8 == 0 && words.size() <= kMaxSlotBytes);
  if (!kCrcInstruction) return std::nullopt;
  alignas(8) std::uint8_t scratch[kMaxSlotBytes];
  return copyAndSumWith<CrcInstructionStep, false>(scratch, words.data(), 0, 0, words.size());
}
}  // namespace Shelf::detail

namespace Shelf::detail {

std::string headerProblem(const FileHeader& h, std::uint64_t fileSize) {
  if (h.magic != kMagic || h.version != kVersion) return "not a table file of this version";
  if (headerChecksum(&h) != h.geometryChecksum) return "header checksum mismatch";
  if (h.capacity == 0 || h.capacity > kMaxCapacity || h.keyMax == 0 || h.keyMax > kMaxKeyBytes ||
      slotBytesFor(h.keyMax, h.valueMax) > kMaxSlotBytes || !std::has_single_bit(h.ringCapacity) ||
      h.ringCapacity > kMaxRingCapacity || (h.liveMark & 1u) == 0) {
    return "header geometry out of range";
  }
  const Layout l = layoutFor(h.capacity, h.keyMax, h.valueMax, h.ringCapacity);
  if (l.slotCount != h.slotCount || l.slotSize != h.slotSize || l.ringEntrySize != h.ringEntrySize ||
      l.slotsOffset != h.slotsOffset || l.ringOffset != h.ringOffset || l.fileSize != h.fileSize) {
    return "header geometry does not match itself";
  }
  if (h.fileSize != fileSize) {
    return fmt::format("file of {} bytes, where its header's geometry needs {}", fileSize, h.fileSize);
  }
  return {};
}

std::string sideName(const std::string& leaf, std::string_view suffix) {
  std::string name = fmt::format(".{}{}", leaf, suffix);
  if (name.size() <= NAME_MAX) return name;
  // The leaf's checksum, zero-padded to whole words (a name holds no NUL, so padding is unambiguous).
  // Location refuses longer leaves.
  PICO_ASSERT(leaf.size() <= NAME_MAX);
  alignas(8) std::uint8_t padded[NAME_MAX + 8] = {};
  std::memcpy(padded, leaf.data(), leaf.size());
  const std::uint64_t hash = tableChecksum({padded, (leaf.size() + 7) / 8 * 8});
  const std::size_t keep = NAME_MAX - 1 - 17 - suffix.size();
  return fmt::format(".{}~{:016x}{}", std::string_view(leaf).substr(0, keep), hash, suffix);
}

int openRegular(int dirFd, const std::string& name, int flags, std::string& why, const Location* trust,
                struct stat* out) {
  const int fd = openat(dirFd, name.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
  if (fd < 0) {
    why = errno == ELOOP ? std::string("it is a symbolic link") : std::string(std::strerror(errno));
    return -1;
  }
  struct stat st;
  if (fstat(fd, &st) != 0) {
    why = std::strerror(errno);
    close(fd);
    return -1;
  }
  if (!S_ISREG(st.st_mode)) {
    why = S_ISDIR(st.st_mode)    ? "it is a directory"
          : S_ISFIFO(st.st_mode) ? "it is a FIFO"
          : S_ISSOCK(st.st_mode) ? "it is a socket"
                                 : "it is not a regular file";
    close(fd);
    errno = EINVAL;
    return -1;
  }
  if (trust != nullptr) {
    why = trust->distrust(name, st.st_uid, st.st_mode);
    if (!why.empty()) {
      close(fd);
      errno = EPERM;
      return -1;
    }
  }
  if (out != nullptr) *out = st;
  return fd;
}

bool writerLockHeld(int fd) {
  if (fd < 0) return false;
  struct flock probe {};
  probe.l_type = F_WRLCK;
  probe.l_whence = SEEK_SET;
  // An open file description lock, tested rather than taken: a reader never stands in a writer's way.
  if (fcntl(fd, F_OFD_GETLK, &probe) != 0) return false;
  return probe.l_type == F_WRLCK;
}

unsigned currentUmask() {
  // Linux shows it in /proc/self/status; umask() itself would have to change it to read it, which
  // races with other threads creating files.
  if (FILE* f = std::fopen("/proc/self/status", "re")) {
    char line[128];
    unsigned mask = 022;
    while (std::fgets(line, sizeof line, f) != nullptr) {
      if (std::sscanf(line, "Umask: %o", &mask) == 1) break;
    }
    std::fclose(f);
    return mask & 0777;
  }
  return 022;
}

}  // namespace Shelf::detail

// A shared-memory table reader attached to a table file of arbitrary bytes.
//
// A reader trusts nothing in the file: whatever the bytes, attaching, find, forEach, poll, wait and
// the header accessors must return (no crash, no endless loop: libFuzzer's -timeout catches a
// hang), damage goes to the corruption handler, and nothing handed out is larger than the bounds
// the reader was given. The input is one of two things, by its first byte:
//   even  the rest of the input is the whole file;
//   odd   a real table (written once by a Writer: stores, a replacement, an erase, a scalar, a
//         clear of nothing) damaged by the rest of the input, read as edits of three bytes each:
//         a 16-bit offset (modulo the file size) and a byte to xor there. An edit whose offset
//         has its top bit set instead cuts the file short at that offset.
// With no edits at all the table is whole, and then every entry the writer left must be found with
// its value and no corruption may be reported: that keeps the target honest about the valid case.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "platform/Shelf/Shelf.h"

namespace {

constexpr std::uint32_t kKeyMax = 8;
constexpr std::uint32_t kValueMax = 40;
const Shelf::Labels kLabels{"Fuzz::Table", "entries", "fuzz/table"};

Shelf::Bytes bytes(const std::string& s) { return {reinterpret_cast<const std::uint8_t*>(s.data()), s.size()}; }
// A poor hash on purpose: a handful of buckets, so the table has chains to walk and to damage.
std::uint32_t hashOf(Shelf::Bytes key) { return key.empty() ? 0 : key[0] & 3; }

struct Scratch {
  Scratch() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/shelf-fuzz-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    root = pattern;
    const Shelf::Location where(root, "fuzz/table");
    path = where.fullPath();
    {
      auto w = Shelf::Writer::create(where, kLabels, {16, kKeyMax, kValueMax, 8});
      const char* keys[] = {"alpha", "beta", "gamma", "delta", "echo", "ab", "b", "c"};
      for (const char* k : keys) w->put(bytes(k), hashOf(bytes(k)), bytes(std::string("value of ") + k));
      w->put(bytes("beta"), hashOf(bytes("beta")), bytes("beta, second version"));
      w->erase(bytes("delta"), hashOf(bytes("delta")));
      w->scalarIs(2, 0x0123456789ABCDEF);
      w->forEach([&](Shelf::Bytes k, Shelf::Bytes v) {
        entries[std::string(k.begin(), k.end())] = std::string(v.begin(), v.end());
      });
    }  // the writer closes: the file stays, readable, with no live writer
    std::ifstream in(path, std::ios::binary);
    image.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (image.empty() || entries.size() != 7) std::abort();
  }
  ~Scratch() {
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
  }

  // Puts `content` at the table's path as a new file, as a restarting writer would.
  void install(const std::vector<std::uint8_t>& content) const {
    const std::string tmp = path + ".new";
    const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) std::abort();
    std::size_t done = 0;
    while (done < content.size()) {
      const ssize_t n = ::write(fd, content.data() + done, content.size() - done);
      if (n <= 0) std::abort();
      done += static_cast<std::size_t>(n);
    }
    ::close(fd);
    if (std::rename(tmp.c_str(), path.c_str()) != 0) std::abort();
  }

  std::string root;
  std::string path;
  std::vector<std::uint8_t> image;
  std::map<std::string, std::string> entries;
};

const Scratch& scratch() {
  static const Scratch s;
  return s;
}

void checkLength(std::optional<std::uint32_t> n) {
  if (n && *n > kValueMax) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Scratch& s = scratch();
  if (size == 0) return 0;
  const bool damaged = (data[0] & 1) != 0;
  std::vector<std::uint8_t> file;
  bool whole = false;
  if (!damaged) {
    file.assign(data + 1, data + size);
  } else {
    file = s.image;
    whole = size < 4;
    for (std::size_t i = 1; i + 3 <= size; i += 3) {
      const std::uint32_t at = static_cast<std::uint32_t>(data[i]) << 8 | data[i + 1];
      if (file.empty()) break;
      if ((at & 0x8000) != 0) {
        file.resize((at & 0x7FFF) % file.size());
      } else {
        file[at % file.size()] ^= data[i + 2];
      }
    }
  }
  s.install(file);

  std::size_t reports = 0;
  Shelf::Reader reader(Shelf::Location(s.root, "fuzz/table"), kLabels, kKeyMax, kValueMax,
                       [&](std::string_view message) {
                         if (message.empty()) std::abort();  // a report must say what is wrong
                         ++reports;
                       });
  const bool attached = reader.attached();
  if (whole && !attached) std::abort();

  std::size_t listed = 0;
  reader.forEach([&](Shelf::Bytes k, Shelf::Bytes v) {
    if (k.size() > kKeyMax || v.size() > kValueMax) std::abort();
    if (++listed > 16) std::abort();  // never more entries than the table can hold
  });

  std::uint8_t out[kValueMax];
  for (const auto& [key, value] : s.entries) {
    const std::optional<std::uint32_t> n = reader.find(bytes(key), hashOf(bytes(key)), out, sizeof out);
    checkLength(n);
    if (whole && (!n || std::string(reinterpret_cast<char*>(out), *n) != value)) std::abort();
  }
  // Keys of the input's own making, the gone "delta" among them.
  checkLength(reader.find(bytes("delta"), hashOf(bytes("delta")), out, sizeof out));
  if (size > 1) {
    const Shelf::Bytes key(data + 1, std::min<std::size_t>(size - 1, kKeyMax));
    checkLength(reader.find(key, hashOf(key), out, sizeof out));
  }
  if (whole && reader.find(bytes("delta"), hashOf(bytes("delta")), out, sizeof out)) std::abort();

  for (std::uint32_t i = 0; i < Shelf::kScalarCount; ++i) (void)reader.scalar(i);
  if (whole && reader.scalar(2) != 0x0123456789ABCDEF) std::abort();
  (void)reader.occupancy();
  (void)reader.capacity();
  (void)reader.generation();
  if (whole && reader.writerOpen()) std::abort();
  std::size_t changes = 0;
  reader.poll([&](const Shelf::Change& c) {
    if (c.kind == Shelf::Change::Kind::key && c.key.size() > kKeyMax) std::abort();
    ++changes;
  });
  (void)reader.wait(0);
  if (whole && (reports != 0 || listed != s.entries.size())) std::abort();
  return 0;
}

// Runs a fuzz target's LLVMFuzzerTestOneInput over saved inputs (the seed corpus and every crash
// ever found), so that CTest replays them in every build, sanitizers included.
//   FooFuzzReplay DIR_OR_FILE...
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {
int runFile(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  return 1;
}
}  // namespace

int main(int argc, char** argv) {
  int count = 0;
  for (int i = 1; i < argc; ++i) {
    std::filesystem::path p(argv[i]);
    if (std::filesystem::is_directory(p)) {
      for (const auto& e : std::filesystem::recursive_directory_iterator(p)) {
        if (e.is_regular_file()) count += runFile(e.path());
      }
    } else if (std::filesystem::exists(p)) {
      count += runFile(p);
    }
  }
  std::printf("replayed %d inputs\n", count);
  return 0;
}

// Runs a fuzz harness over stored inputs without libFuzzer, so that any
// compiler (and the sanitizer builds of the tests) can replay the corpora:
//   replay_<target> FILE|DIRECTORY...
// Inputs run in name order; a harness that finds a fault aborts.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    if (!fs::is_directory(argv[i])) inputs.emplace_back(argv[i]);
    if (fs::is_directory(argv[i])) {
      for (const auto& entry : fs::directory_iterator(argv[i])) inputs.push_back(entry.path());
    }
  }
  std::sort(inputs.begin(), inputs.end());
  LLVMFuzzerInitialize(&argc, &argv);
  for (const fs::path& path : inputs) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
      std::fprintf(stderr, "cannot read %s\n", path.c_str());
      return 1;
    }
    const std::vector<uint8_t> bytes(std::istreambuf_iterator<char>(file), {});
    std::fprintf(stderr, "%s\n", path.c_str());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  std::printf("replayed %zu inputs\n", inputs.size());
  return inputs.empty() ? 1 : 0;
}

// Replays inputs of a fuzzer without the fuzzer: every file that is named, and every file in a
// directory that is named. A broken property or a sanitizer's report ends the program.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "steps.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool replay(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return false;
  }
  const std::vector<char> content{std::istreambuf_iterator<char>(file), {}};
  // Named before it runs: the last name before a crash is the input that caused it.
  std::fprintf(stderr, "%s\n", path.c_str());
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(content.data()), content.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  size_t inputs = 0;
  for (int i = 1; i < argc; ++i) {
    if (!std::filesystem::is_directory(argv[i])) {
      if (!replay(argv[i])) return 1;
      ++inputs;
      continue;
    }
    std::vector<std::filesystem::path> paths;
    for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
      paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    for (const auto& path : paths)
      if (!replay(path)) return 1;
    inputs += paths.size();
  }
  std::printf("%zu inputs replayed\n", inputs);
  return inputs != 0 ? 0 : 1;
}

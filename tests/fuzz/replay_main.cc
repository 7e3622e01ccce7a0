// Runs the fuzz entry point over the files given on the command line (or in the directories
// given), for builds without a fuzzing engine. Exits non-zero if there is nothing to replay.
#include <stdint.h>
#include <stdio.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    if (fs::is_regular_file(argv[i])) files.emplace_back(argv[i]);
    if (!fs::is_directory(argv[i])) continue;
    for (const auto &entry : fs::recursive_directory_iterator(argv[i]))
      if (entry.is_regular_file()) files.push_back(entry.path());
  }
  for (const fs::path &file : files) {
    std::ifstream in(file, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  printf("%zu passed, 0 failed\n", files.size());
  return files.empty() ? 1 : 0;
}

// Runs the fuzz entry point over the files given on the command line (or in the directories
// given), for builds without a fuzzing engine. Exits non-zero if there is nothing to replay.
#include <dirent.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

void collect(const std::string &path, std::vector<std::string> *files) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return;
  if (!S_ISDIR(info.st_mode)) {
    files->push_back(path);
    return;
  }
  DIR *dir = opendir(path.c_str());
  if (dir == nullptr) return;
  while (struct dirent *entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") collect(path + "/" + name, files);
  }
  closedir(dir);
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) collect(argv[i], &files);
  for (const std::string &file : files) {
    std::ifstream in(file, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  printf("%zu passed, 0 failed\n", files.size());
  return files.empty() ? 1 : 0;
}

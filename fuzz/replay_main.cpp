// A main for a fuzz target that is built without libFuzzer: gives the target every file of the folders named, once.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_target.h"

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> files_in(const char *folder) {
  std::vector<fs::path> files;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    if (entry->is_regular_file(error)) files.push_back(entry->path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

// Told before each: where an input ends the process, the last line names it.
void replay(const fs::path &file) {
  std::printf("%s\n", file.c_str());
  std::fflush(stdout);
  std::ifstream stream(file, std::ios::binary);
  const std::string content(std::istreambuf_iterator<char>(stream), {});
  // A block of exactly its size: an address sanitizer sees the first byte read too many.
  const auto input = std::make_unique<std::uint8_t[]>(content.size());
  std::copy(content.begin(), content.end(), input.get());
  LLVMFuzzerTestOneInput(input.get(), content.size());
}

}  // namespace

int main(int argc, char **argv) {
  std::size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    for (const fs::path &file : files_in(argv[i])) {
      replay(file);
      ++count;
    }
  }
  std::printf("%zu inputs replayed\n", count);
  return count > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

// Runs a target over every file of the folder named: the regression test where there is no libFuzzer.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  int files = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[1])) {
    if (!entry.is_regular_file()) continue;
    std::fprintf(stderr, "%s\n", entry.path().filename().c_str());
    std::ifstream file(entry.path(), std::ios::binary);
    const std::vector<char> bytes(std::istreambuf_iterator<char>(file), {});
    const std::vector<std::uint8_t> exact(bytes.begin(), bytes.end());  // no spare capacity: overruns are seen
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
    ++files;
  }
  return files > 0 ? 0 : 1;
}

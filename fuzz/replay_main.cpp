// Runs a target over its corpus, without a fuzzer: replay_TARGET FILE-OR-DIRECTORY...
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "target.h"

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> FilesOf(const fs::path& path) {
  if (!fs::is_directory(path)) return {path};
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(path)) files.push_back(entry.path());
  return files;
}

void Replay(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(file), {}};
  // Printed first, so that a failure appears after the name of its input.
  std::cerr << path.string() << ", " << bytes.size() << " bytes\n";
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    for (const fs::path& file : FilesOf(argv[i])) {
      Replay(file);
      ++count;
    }
  }
  std::cerr << count << " inputs\n";
  return count > 0 ? 0 : 1;
}

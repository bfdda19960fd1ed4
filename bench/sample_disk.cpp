#include "sample_disk.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace cpd::bench {

namespace {

void WriteFile(const std::string& path, const std::vector<char>& bytes) {
  std::ofstream file(path, std::ios::binary);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

}  // namespace

SampleDisk::SampleDisk() : SampleDisk(std::filesystem::temp_directory_path()) {}

SampleDisk::SampleDisk(const std::filesystem::path& parent) : root_(parent / "udisk-bench-XXXXXX") {
  if (::mkdtemp(root_.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), root_);
  }
  WriteFile(root_ + big_file_, std::vector<char>(kBigFileSize, 'x'));
}

SampleDisk::~SampleDisk() {
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

const std::string& SampleDisk::Directory(int files, size_t bytes) {
  const auto [at, is_new] = directories_.try_emplace(files, "/" + std::to_string(files) + "/files");
  if (is_new) {
    // Each directory has its own parent: its listing includes "..", which must not change when
    // another directory is made.
    std::filesystem::create_directories(root_ + at->second);
    for (int i = 0; i < files; ++i)
      WriteFile(root_ + at->second + "/" + FileName(i), std::vector<char>(bytes, 'x'));
    ::sync();  // no write-back during a measurement
  }
  return at->second;
}

std::string SampleDisk::FileName(int number) { return "file-" + std::to_string(number) + ".txt"; }

}  // namespace cpd::bench

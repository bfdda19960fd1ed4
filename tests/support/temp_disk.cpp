#include "support/temp_disk.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace cpd::test {

namespace fs = std::filesystem;

TempDisk::TempDisk(const fs::path& parent) {
  std::string directory = (parent / "udisk-test-XXXXXX").string();
  if (mkdtemp(directory.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), directory);
  }
  letter_ = directory + "/";
  root_ = letter_ + label();
  fs::create_directory(root_);
}

TempDisk::~TempDisk() {
  std::error_code ignored;
  fs::remove_all(letter_, ignored);
}

void TempDisk::MakeFile(const std::string& path, const std::string& content) const {
  std::ofstream file(Local(path), std::ios::binary);
  file << content;
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

void TempDisk::MakeDir(const std::string& path) const { fs::create_directories(Local(path)); }

void TempDisk::MakeLink(const std::string& path, const std::string& target) const {
  fs::create_symlink(target, Local(path));
}

void TempDisk::Remove(const std::string& path) const { fs::remove_all(Local(path)); }

bool TempDisk::Exists(const std::string& path) const {
  return fs::exists(fs::symlink_status(Local(path)));
}

bool TempDisk::IsDir(const std::string& path) const { return fs::is_directory(Local(path)); }

std::string TempDisk::ReadBack(const std::string& path) const {
  std::ifstream file(Local(path), std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string DeviceParams(const std::string& root, const std::string& name) {
  const size_t label = root.rfind('/') + 1;
  return R"({"letter":")" + root.substr(0, label) + R"(","label":")" + root.substr(label) +
         R"(","name":")" + name + R"("})";
}

size_t OpenDescriptors() {
  const fs::directory_iterator descriptors("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(descriptors), end(descriptors)));
}

DescriptorCheck::~DescriptorCheck() {
  EXPECT_EQ(OpenDescriptors(), before_) << "descriptors before and after differ";
}

}  // namespace cpd::test

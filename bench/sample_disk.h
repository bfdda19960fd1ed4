// The directory that all loads work on.
#pragma once

#include <cstddef>
#include <filesystem>
#include <map>
#include <string>

namespace cpd::bench {

/// A temporary directory, removed by the destructor.
class SampleDisk {
 public:
  /// Makes it in the directory TMPDIR.
  SampleDisk();
  explicit SampleDisk(const std::filesystem::path& parent);
  ~SampleDisk();
  SampleDisk(const SampleDisk&) = delete;
  SampleDisk& operator=(const SampleDisk&) = delete;

  [[nodiscard]] const std::string& root() const { return root_; }
  /// A file of kBigFileSize bytes, relative to the root.
  [[nodiscard]] const std::string& big_file() const { return big_file_; }
  /// A directory with `files` files of `bytes` bytes each, relative to the root. The first call
  /// makes it.
  const std::string& Directory(int files, size_t bytes = 0);
  /// The name of one of its files.
  static std::string FileName(int number);

  static constexpr size_t kBigFileSize = 64 << 20;

 private:
  std::string root_;
  std::string big_file_ = "/big";
  std::map<int, std::string> directories_;
};

}  // namespace cpd::bench

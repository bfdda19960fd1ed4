// The directory that all loads work on.
#pragma once

#include <cstddef>
#include <filesystem>
#include <map>
#include <string>

namespace cpd::bench {

/// A directory of its own, removed at the end.
class SampleDisk {
 public:
  /// Under the temporary directory (TMPDIR).
  SampleDisk();
  explicit SampleDisk(const std::filesystem::path& parent);
  ~SampleDisk();
  SampleDisk(const SampleDisk&) = delete;
  SampleDisk& operator=(const SampleDisk&) = delete;

  [[nodiscard]] const std::string& root() const { return root_; }
  /// A file of kBigFileSize bytes, relative to the root.
  [[nodiscard]] const std::string& big_file() const { return big_file_; }
  /// A directory of so many files, each of `bytes`, relative to the root; made when first asked
  /// for.
  const std::string& Directory(int files, size_t bytes = 0);
  /// The name of one of them.
  static std::string FileName(int number);

  static constexpr size_t kBigFileSize = 64 << 20;

 private:
  std::string root_;
  std::string big_file_ = "/big";
  std::map<int, std::string> directories_;
};

}  // namespace cpd::bench

// A directory that plays the disk.
#pragma once

#include <filesystem>
#include <string>

namespace cpd::test {

/// A fresh directory DISK in a temporary one; both go at the end. Paths are relative to the disk
/// and begin with a slash, as in requests. What cannot be done throws.
class TempDisk {
 public:
  explicit TempDisk(const std::filesystem::path& parent = std::filesystem::temp_directory_path());
  ~TempDisk();
  TempDisk(const TempDisk&) = delete;
  TempDisk& operator=(const TempDisk&) = delete;

  /// The disk's directory; `letter` followed by `label`.
  [[nodiscard]] const std::string& root() const { return root_; }
  [[nodiscard]] const std::string& letter() const { return letter_; }
  [[nodiscard]] std::string label() const { return "DISK"; }
  /// The local path of a file on the disk.
  [[nodiscard]] std::string Local(const std::string& path) const { return root_ + path; }

  void MakeFile(const std::string& path, const std::string& content) const;
  void MakeDir(const std::string& path) const;
  void MakeLink(const std::string& path, const std::string& target) const;
  void Remove(const std::string& path) const;
  [[nodiscard]] bool Exists(const std::string& path) const;  ///< a link counts itself
  [[nodiscard]] bool IsDir(const std::string& path) const;
  [[nodiscard]] std::string ReadBack(const std::string& path) const;

 private:
  std::string letter_;
  std::string root_;
};

/// The parameters of a device whose disk is the directory `root`: the label is its last name, the
/// letter what stands before.
std::string DeviceParams(const std::string& root, const std::string& name = "Stick");

/// Descriptors that this process has open.
size_t OpenDescriptors();

/// Fails the running test at its end when more or fewer descriptors are open than at its beginning.
class DescriptorCheck {
 public:
  DescriptorCheck() : before_(OpenDescriptors()) {}
  ~DescriptorCheck();
  DescriptorCheck(const DescriptorCheck&) = delete;
  DescriptorCheck& operator=(const DescriptorCheck&) = delete;
  /// So many descriptors are meant to stay open.
  void Expect(size_t more) { before_ += more; }

 private:
  size_t before_;
};

}  // namespace cpd::test

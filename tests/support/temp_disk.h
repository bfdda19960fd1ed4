// A directory that serves as the disk.
#pragma once

#include <filesystem>
#include <string>

namespace cpd::test {

/// A new directory DISK in a temporary one; the destructor removes both. Paths are relative to the
/// disk and begin with a slash, as in requests. Operations that fail throw.
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
  [[nodiscard]] bool Exists(const std::string& path) const;  ///< links are not followed
  [[nodiscard]] bool IsDir(const std::string& path) const;
  [[nodiscard]] std::string ReadBack(const std::string& path) const;

 private:
  std::string letter_;
  std::string root_;
};

/// The parameters of a device whose disk is the directory `root`: the label is its last component,
/// the letter everything before that.
std::string DeviceParams(const std::string& root, const std::string& name = "Stick");

/// Descriptors that this process has open.
size_t OpenDescriptors();

/// The destructor fails the test when more or fewer descriptors are open than at construction.
class DescriptorCheck {
 public:
  DescriptorCheck() : before_(OpenDescriptors()) {}
  ~DescriptorCheck();
  DescriptorCheck(const DescriptorCheck&) = delete;
  DescriptorCheck& operator=(const DescriptorCheck&) = delete;
  /// Expects `more` further descriptors to stay open.
  void Expect(size_t more) { before_ += more; }

 private:
  size_t before_;
};

}  // namespace cpd::test

// Directories of a test's own, in place of the user's.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

namespace cpd::test {

/// A new directory; the destructor removes it with all that is in it.
class ScratchDirectory {
 public:
  /// @throws std::runtime_error
  ScratchDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "cpd-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp");
    path_ = name;
  }
  ~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

/// Sets $XDG_RUNTIME_DIR to a scratch directory while it lives.
class OwnRuntimeDirectory {
 public:
  OwnRuntimeDirectory() {
    if (const char* set = std::getenv(kVariable)) before_ = set;
    setenv(kVariable, path().c_str(), 1);
  }
  ~OwnRuntimeDirectory() { before_ ? setenv(kVariable, before_->c_str(), 1) : unsetenv(kVariable); }
  OwnRuntimeDirectory(const OwnRuntimeDirectory&) = delete;
  OwnRuntimeDirectory& operator=(const OwnRuntimeDirectory&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return directory_.path(); }

 private:
  static constexpr const char* kVariable = "XDG_RUNTIME_DIR";

  ScratchDirectory directory_;
  std::optional<std::string> before_;
};

}  // namespace cpd::test

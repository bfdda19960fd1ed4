// Programs that a test puts in place of the machine's own.
#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace cpd::test {

/// While an instance exists, PATH begins with a directory of the test's own, whose programs record
/// how they were called.
class Shims {
 public:
  Shims() {
    std::string directory = (std::filesystem::temp_directory_path() / "shims-XXXXXX").string();
    if (mkdtemp(directory.data()) == nullptr) throw std::runtime_error("cannot make " + directory);
    directory_ = directory;
    setenv("PATH", (directory + ":" + path_before_).c_str(), 1);
  }
  ~Shims() {
    setenv("PATH", path_before_.c_str(), 1);
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
  Shims(const Shims&) = delete;
  Shims& operator=(const Shims&) = delete;

  /// Adds a program that only exits with `status`.
  void Add(const std::string& program, int status = 0) { Put(program, "", status); }
  /// A program that prints `output` and ends with `status`.
  void AddPrinting(const std::string& program, const std::string& output, int status = 0) {
    Write(program + ".output", output);
    Put(program, "/bin/cat '" + File(program + ".output") + "'", status);
  }
  /// A program that runs until Release.
  void AddWaiting(const std::string& program) {
    if (mkfifo(File("gate").c_str(), 0600) != 0) throw std::runtime_error("cannot make a FIFO");
    Put(program, ": <'" + File("gate") + "'", 0);
  }
  /// Waits until the program of AddWaiting has been called, and lets it end.
  void Release() const { std::ofstream(File("gate")); }
  /// Replaces cat by one that finds only the files that SetFile makes.
  void AddCat() { Put("cat", "/bin/cat '" + File("root") + "'\"$1\" 2>/dev/null", 0); }
  void SetFile(const std::string& path, const std::string& content) {
    Write("root" + path, content);
  }

  using Words = std::vector<std::string>;
  /// The calls so far, in order, the program's name first.
  [[nodiscard]] std::vector<Words> Calls() const {
    std::vector<Words> calls;
    std::ifstream record(File("calls"), std::ios::binary);
    for (std::string line; std::getline(record, line, kCallEnd);) {
      std::istringstream rest(line);
      Words& words = calls.emplace_back();
      for (std::string word; std::getline(rest, word, kWordEnd);) words.push_back(word);
    }
    return calls;
  }
  /// The same, each call's words joined by blanks.
  [[nodiscard]] std::vector<std::string> CommandLines() const {
    std::vector<std::string> lines;
    for (const Words& words : Calls()) {
      std::string& line = lines.emplace_back();
      for (const std::string& word : words) line += (line.empty() ? "" : " ") + word;
    }
    return lines;
  }

 private:
  static constexpr char kWordEnd = '\x1f';
  static constexpr char kCallEnd = '\x1e';

  [[nodiscard]] std::string File(const std::string& name) const { return directory_ / name; }
  void Write(const std::string& name, const std::string& content) const {
    std::filesystem::create_directories(std::filesystem::path(File(name)).parent_path());
    std::ofstream(File(name), std::ios::binary) << content;
  }
  void Put(const std::string& program, const std::string& action, int status) const {
    Write(program, "#!/bin/sh\n{ printf '%s\\037' " + program + " \"$@\"; printf '\\036'; } >>'" +
                       File("calls") + "'\n" + action + "\nexit " + std::to_string(status) + "\n");
    chmod(File(program).c_str(), 0755);
  }

  const std::string path_before_ = getenv("PATH");
  std::filesystem::path directory_;
};

}  // namespace cpd::test

// Runs shell commands. Words are quoted, so that the shell runs nothing in them; a command that is
// too long is not run.
#pragma once

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

namespace cpd {

/// Most commands must be shorter than this, in bytes.
constexpr size_t kCommandSize = 256;

/// `text` as one word for the shell: unchanged when no character is special, else quoted.
inline std::string ShellWord(std::string_view text) {
  static constexpr std::string_view kPlain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-+:@%,=/";
  if (text.find_first_not_of(kPlain) == std::string_view::npos) return std::string(text);
  std::string word = "'";
  for (const char c : text) {
    if (c == '\'') {
      word += R"('\'')";
    } else {
      word += c;
    }
  }
  return word + "'";
}

/// Runs a command to its end. @return what system returns; -1 when the command is too long
inline int RunCommand(const std::string& command) {
  return command.size() < kCommandSize ? std::system(command.c_str()) : -1;
}

/// The standard output of a running command. The destructor waits for the command to end.
class CommandOutput {
 public:
  /// Holds a line, its line feed and a NUL. The rest of a longer line reads as the next line.
  using Line = std::array<char, 1024>;

  /// Does not start a command of `size` bytes or more.
  explicit CommandOutput(const std::string& command, size_t size = kCommandSize)
      : pipe_(command.size() < size ? popen(command.c_str(), "re") : nullptr) {}

  [[nodiscard]] bool started() const { return pipe_ != nullptr; }
  /// @return false at the end, or when no command was started
  template <size_t N>
  bool ReadLine(std::array<char, N>* line) {
    return started() && std::fgets(line->data(), N, pipe_.get()) != nullptr;
  }

 private:
  struct Close {
    void operator()(FILE* pipe) const { pclose(pipe); }
  };
  std::unique_ptr<FILE, Close> pipe_;
};

}  // namespace cpd

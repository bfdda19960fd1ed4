// Shell commands. A word of a command runs nothing; a command that its buffer would cut is not run.
#pragma once

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

namespace cpd {

/// The buffer of most commands, terminator included.
constexpr size_t kCommandSize = 256;

/// `text` as one word for the shell: as it is where the shell cannot mistake it, else in quotes.
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

/// Runs a command to its end. @return as system; -1 too when it would be cut
inline int RunCommand(const std::string& command) {
  return command.size() < kCommandSize ? std::system(command.c_str()) : -1;
}

/// A running command's standard output. Its end waits for the command's.
class CommandOutput {
 public:
  /// Longest line, with its line feed; what follows reads as a line of its own.
  using Line = std::array<char, 1024>;

  /// Does not start a command that a buffer of `size` bytes would cut.
  explicit CommandOutput(const std::string& command, size_t size = kCommandSize)
      : pipe_(command.size() < size ? popen(command.c_str(), "re") : nullptr) {}

  [[nodiscard]] bool started() const { return pipe_ != nullptr; }
  /// @return false at the end, or where nothing was started
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

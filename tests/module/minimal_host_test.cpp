// The example shows what the README says, and works.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/temp_disk.h"

namespace cpd::test {
namespace {

std::string Content(const char* path) {
  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}

/// The README's blocks in a language.
std::vector<std::string> Blocks(const std::string& language) {
  const std::string begin = "\n```" + language + "\n";
  const std::string end = "```\n";
  const auto readme = Content(README);
  std::vector<std::string> blocks;
  for (size_t at = readme.find(begin); at != std::string::npos; at = readme.find(begin, at)) {
    at += begin.size();
    blocks.push_back(readme.substr(at, readme.find(end, at) - at));
  }
  return blocks;
}

/// What a command prints to its standard output.
std::string Printed(const std::string& command) {
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  std::string printed;
  for (int c = fgetc(pipe.get()); c != EOF; c = fgetc(pipe.get())) printed += static_cast<char>(c);
  return printed;
}

std::string Quoted(const std::string& word) { return " '" + word + "'"; }

/// Expects that a file has the README's blocks in a language, in their order.
void ExpectShown(const char* file, const std::string& language, size_t least) {
  const auto text = Content(file);
  const auto blocks = Blocks(language);
  EXPECT_GE(blocks.size(), least);
  size_t at = 0;
  for (const auto& block : blocks) {
    at = text.find(block, at);
    ASSERT_NE(at, std::string::npos) << "not in " << file << ", or in another order:\n" << block;
    at += block.size();
  }
}

TEST(MinimalHost, IsShownInPartsByTheReadme) {
  ExpectShown(MINIMAL_HOST_SOURCE "/main.cpp", "cpp", 4);
  ExpectShown(MINIMAL_HOST_SOURCE "/CMakeLists.txt", "cmake", 1);
}

TEST(MinimalHost, HasFewerThan150Lines) {
  const auto program = Content(MINIMAL_HOST_SOURCE "/main.cpp");
  EXPECT_GT(program.size(), 0U);
  EXPECT_LT(std::ranges::count(program, '\n'), 150);
}

TEST(MinimalHost, PrintsAFileOfTheDisk) {
  const TempDisk disk;
  std::string content;
  for (int i = 0; i < 20'000; ++i) content += std::to_string(i) + "\n";
  disk.MakeFile("/a file", content);
  EXPECT_EQ(Printed(MINIMAL_HOST + Quoted(disk.root()) + " 'a file' 2>/dev/null; echo $?"),
            content + "0\n");
}

TEST(MinimalHost, SaysWhatItCannotRead) {
  const TempDisk disk;
  EXPECT_EQ(Printed(MINIMAL_HOST + Quoted(disk.root()) + " missing 2>&1 | tail -n 1"),
            "minimal-host: /missing cannot be read, or is empty\n");
}

TEST(MinimalHost, ConfinesPathsToTheDisk) {
  const TempDisk disk;
  std::ofstream(disk.letter() + "outside") << "secret";
  EXPECT_EQ(Printed(MINIMAL_HOST + Quoted(disk.root()) + " ../outside 2>/dev/null; echo $?"),
            "1\n");
}

}  // namespace
}  // namespace cpd::test

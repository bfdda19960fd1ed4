// Names with arbitrary bytes, on a terminal and in JSON.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "commands/shown_name.h"
#include "module/json.h"

namespace cpd::host {
namespace {

namespace fs = std::filesystem;

TEST(JsonString, EscapesQuotesBackslashesAndControls) {
  EXPECT_EQ(JsonString("a\"b\\c\n\x1b"), R"("a\"b\\c\u000a\u001b")");
}

TEST(JsonString, KeepsUtf8) {
  for (const char* text : {"\u00e4", "\u20ac", "\U0001f4be", "\ufffd", "\U0010ffff"}) {
    EXPECT_EQ(JsonString(text), std::string("\"") + text + '"');
  }
}

TEST(JsonString, HasAReplacementForEachByteThatIsNotUtf8) {
  const std::string mark = "\ufffd";
  EXPECT_EQ(JsonString("a\xff"
                       "b"),
            "\"a" + mark + "b\"");
  EXPECT_EQ(JsonString("\xe2\x82"), "\"" + mark + mark + "\"");             // cut
  EXPECT_EQ(JsonString("\xc0\xaf"), "\"" + mark + mark + "\"");             // too long
  EXPECT_EQ(JsonString("\xe0\x80\xaf"), "\"" + mark + mark + mark + "\"");  // too long
  EXPECT_EQ(JsonString("\xed\xa0\x80"), "\"" + mark + mark + mark + "\"");  // a surrogate
  EXPECT_EQ(JsonString("\xf4\x90\x80\x80"), "\"" + mark + mark + mark + mark + "\"");  // beyond
  EXPECT_EQ(JsonString("\xe2\x82\""), "\"" + mark + mark + "\\\"\"");
}

TEST(ShownName, IsUnchangedOutsideATerminal) {
  EXPECT_EQ(ShownName("a\x1b[31mb\n"), "a\x1b[31mb\n");
}

/// What a command prints.
std::string Output(const std::string& command) {
  std::string out;
  const std::unique_ptr<FILE, int (*)(FILE*)> program(popen(command.c_str(), "r"), pclose);
  std::array<char, 4096> part{};
  while (const size_t count = fread(part.data(), 1, part.size(), program.get())) {
    out.append(part.data(), count);
  }
  return out;
}

/// The parts of a text that end with `end`.
std::multiset<std::string> Split(const std::string& text, char end) {
  std::istringstream in(text);
  std::multiset<std::string> parts;
  for (std::string part; std::getline(in, part, end);) parts.insert(part);
  return parts;
}

/// Names with every byte, and with everything that is special to a shell or a terminal.
class Quoting : public testing::Test {
 protected:
  Quoting() {
    for (int byte = 1; byte < 256; ++byte) {
      for (const char* before : {"", "a", "'", "\n"}) {
        for (const char* after : {"", "b", "'", "\x1b"}) {
          Add(std::string(before) + static_cast<char>(byte) + after);
        }
      }
    }
    const std::vector<std::string> parts = {
        "a", "'", "\"", " ", "\n",     "\x1b[31m", "\\",     "$(x)",   "#",    "~",       "{",
        "}", "-", "=",  "@", "\u00e4", "\u0085",   "\u2028", "\u20ac", "\xff", "\xe2\x82"};
    std::minstd_rand random(1);
    for (int i = 0; i < 2000; ++i) {
      std::string name;
      for (auto count = 1 + random() % 6; count > 0; --count)
        name += parts[random() % parts.size()];
      Add(name);
    }
    std::string place = (fs::temp_directory_path() / "cpd-names-XXXXXX").string();
    if (mkdtemp(place.data()) != nullptr) place_ = place;
  }
  ~Quoting() override {
    std::error_code ignored;
    fs::remove_all(place_, ignored);
  }

  std::set<std::string> names_;
  fs::path place_;

 private:
  void Add(const std::string& name) {
    if (name != "." && name.find('/') == std::string::npos) names_.insert(name);
  }
};

TEST_F(Quoting, IsThatOfLs) {
  std::multiset<std::string> ours;
  for (const auto& name : names_) {
    // ls 9.1 quotes these wrongly.
    if (name.find('\'') != std::string::npos && QuotedForShell(name + 'a').ends_with("''a'")) {
      continue;
    }
    std::ofstream(place_ / name);
    ours.insert(QuotedForShell(name));
  }
  const auto theirs = Split(
      Output("cd " + place_.string() + " && LC_ALL=C.UTF-8 ls -A1 --quoting-style=shell-escape"),
      '\n');
  ASSERT_GT(ours.size(), 4000U);
  ASSERT_EQ(theirs.size(), ours.size());
  std::vector<std::string> differing;
  std::ranges::set_difference(ours, theirs, std::back_inserter(differing));
  EXPECT_TRUE(differing.empty()) << testing::PrintToString(differing);
}

TEST_F(Quoting, IsReadByAShellAsTheName) {
  std::ofstream script(place_ / "script");
  script << "printf '%s\\0'";
  for (const auto& name : names_) script << ' ' << QuotedForShell(name);
  script.close();
  const auto read = Split(Output("bash " + (place_ / "script").string()), '\0');
  EXPECT_TRUE(std::ranges::equal(read, names_));
}

}  // namespace
}  // namespace cpd::host

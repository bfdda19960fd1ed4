// The README's program is the one in examples/, and works.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace cpd::test {
namespace {

std::string Content(const char* path) {
  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}

TEST(MinimalHost, IsTheProgramOfTheReadme) {
  const auto program = Content(MINIMAL_HOST_SOURCE);
  ASSERT_FALSE(program.empty());
  EXPECT_NE(Content(README).find("\n```cpp\n" + program + "```\n"), std::string::npos);
}

TEST(MinimalHost, GetsTheNoticeAndTheAnnouncement) {
  const std::unique_ptr<FILE, int (*)(FILE*)> host(
      popen("cd \"$(dirname '" UDISK_MODULE "')\" && '" MINIMAL_HOST "' 2>/dev/null; echo $?", "r"),
      pclose);
  ASSERT_NE(host, nullptr);
  std::vector<std::string> lines;
  for (std::array<char, 256> line{}; fgets(line.data(), line.size(), host.get()) != nullptr;) {
    lines.emplace_back(line.data());
  }
  // The packets come from the service thread, so the open trace may be printed before, between or
  // after them.
  ASSERT_EQ(std::erase(lines, "event LOCAL_UDISK_DRIVER_OPEN\n"), 1U);
  EXPECT_EQ(lines,
            (std::vector<std::string>{"to the remote side: 122\n", "to the remote side: 100\n",
                                      "event LOCAL_UDISK_DRIVER_CLOSE\n", "0\n"}));
}

}  // namespace
}  // namespace cpd::test

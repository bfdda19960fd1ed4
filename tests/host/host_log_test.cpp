// How the host writes its log.
#include "module/host_log.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string>

#include "cpd/log.h"

namespace cpd::host {
namespace {

TEST(HostLogTest, WritesALineToStandardErrorWithOneCall) {
  std::array<int, 2> ends{};  // keep what each call writes apart
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[1], STDERR_FILENO);
    SetUpLog(LogLevel::kError, "");
    const std::string path(5000, 'p');
    tesselLogPrint(0, 7, "TAG", "cannot read %s: %d", "a file", 5);
    tesselLogPrint(0, 7, "TAG", "%s", path.c_str());
    _exit(0);
  }
  close(ends[1]);
  std::string line(10000, '\0');
  line.resize(
      static_cast<size_t>(std::max<ssize_t>(recv(ends[0], line.data(), line.size(), 0), 0)));
  EXPECT_TRUE(line.ends_with(" TAG cannot read a file: 5\n")) << line;
  std::string long_line;
  std::array<char, 10000> part{};
  for (ssize_t size = 0; (size = recv(ends[0], part.data(), part.size(), 0)) > 0;) {
    long_line.append(part.data(), static_cast<size_t>(size));
  }
  EXPECT_TRUE(long_line.ends_with(" TAG " + std::string(5000, 'p') + '\n'));
  close(ends[0]);
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace cpd::host

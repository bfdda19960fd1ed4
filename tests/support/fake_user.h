// Who the process is: getuid and getpwuid of the test program.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace cpd::test {

/// Makes the process look like another user for its life. One at a time.
class FakeUser {
 public:
  /// @param home  the user's home directory; empty option = getpwuid knows no such user
  FakeUser(uid_t uid, std::optional<std::string> home);
  ~FakeUser();
  FakeUser(const FakeUser&) = delete;
  FakeUser& operator=(const FakeUser&) = delete;
};

}  // namespace cpd::test

// The user of the process, as getuid and getpwuid of the test program report it.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace cpd::test {

/// While an instance exists, the process appears to run as another user. One at a time.
class FakeUser {
 public:
  /// @param home  the user's home directory; nullopt = getpwuid does not know the user
  FakeUser(uid_t uid, std::optional<std::string> home);
  ~FakeUser();
  FakeUser(const FakeUser&) = delete;
  FakeUser& operator=(const FakeUser&) = delete;
};

}  // namespace cpd::test

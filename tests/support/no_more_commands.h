// Commands that cannot be started, on request.
#pragma once

namespace cpd::test {

/// While one exists system() and popen() of the test program start nothing and fail.
class NoMoreCommands {
 public:
  NoMoreCommands();
  ~NoMoreCommands();
  NoMoreCommands(const NoMoreCommands&) = delete;
  NoMoreCommands& operator=(const NoMoreCommands&) = delete;
};

}  // namespace cpd::test

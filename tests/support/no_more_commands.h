// Makes commands fail to start.
#pragma once

namespace cpd::test {

/// While an instance exists, system() and popen() of the test program fail and start nothing.
class NoMoreCommands {
 public:
  NoMoreCommands();
  ~NoMoreCommands();
  NoMoreCommands(const NoMoreCommands&) = delete;
  NoMoreCommands& operator=(const NoMoreCommands&) = delete;
};

}  // namespace cpd::test

// Places on other machines, and the commands that reach them.
#include "commands/line_options.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

namespace cpd::host {
namespace {

std::string HostAndPath(const std::string& text) {
  const auto place = ParseRemotePlace(text);
  return place ? place->host + " " + place->path : "local";
}

TEST(RemotePlace, IsWrittenAsForRsync) {
  EXPECT_EQ(HostAndPath("server:/media/STICK"), "server /media/STICK");
  EXPECT_EQ(HostAndPath("me@server:stick"), "me@server stick");
  EXPECT_EQ(HostAndPath("server:/a:b"), "server /a:b");
  EXPECT_EQ(HostAndPath("server:"), "server ");
}

TEST(RemotePlace, HasBracketsAroundAnAddressWithColons) {
  EXPECT_EQ(HostAndPath("[fe80::1%eth0]:/media"), "fe80::1%eth0 /media");
  EXPECT_EQ(HostAndPath("me@[::1]:/media"), "me@::1 /media");
  EXPECT_EQ(HostAndPath("server:/a[1]:b"), "server /a[1]:b");
}

TEST(RemotePlace, IsNotALocalPath) {
  for (const char* path : {"/media/STICK", "stick", "./a:b", "/a:b", ":a", "", "[::1", "a/b:c"}) {
    EXPECT_EQ(HostAndPath(path), "local") << path;
  }
}

TEST(RemotePlace, IsNotAnOption) {
  EXPECT_THROW(ParseRemotePlace("-oProxyCommand=touch x:/media"), std::runtime_error);
}

/// The words that a shell makes of a command.
std::vector<std::string> Words(const std::string& shell, const std::string& command) {
  const std::string script =
      shell + " -c 'for word; do printf \"%s\\\\0\" \"$word\"; done' x " + command;
  FILE* const output = popen(script.c_str(), "r");
  std::vector<std::string> words(1);
  for (int c = std::fgetc(output); c != EOF; c = std::fgetc(output)) {
    if (c == '\0') {
      words.emplace_back();
    } else {
      words.back() += static_cast<char>(c);
    }
  }
  pclose(output);
  words.pop_back();
  return words;
}

/// `command` without `begin`, with which it must begin.
std::string After(const std::string& command, const std::string& begin) {
  EXPECT_TRUE(command.starts_with(begin)) << command;
  return command.substr(std::min(begin.size(), command.size()));
}

TEST(RemoteCommand, RunsTheProgramThereWithItsOptions) {
  LineOptions options;
  options.port = "2222";
  options.config = "/my config";
  options.identity = "key";
  const auto words =
      Words("sh", After(RemoteCommand(options, "me@server", {"serve", "/a"}), "exec "));
  EXPECT_EQ(words, (std::vector<std::string>{
                       "ssh", "-T", "-x", "-a", "-o", "ClearAllForwardings=yes", "-p", "2222", "-F",
                       "/my config", "-i", "key", "me@server", "cpd-host 'serve' '/a'"}));
}

TEST(RemoteCommand, GivesAnotherProgramNoOptionsOfSsh) {
  LineOptions options;
  options.rsh = "env A=1 my-rsh -q";
  options.remote_program = "sudo cpd-host";
  EXPECT_EQ(
      Words("sh", After(RemoteCommand(options, "server", {"serve"}), "exec ")),
      (std::vector<std::string>{"env", "A=1", "my-rsh", "-q", "server", "sudo cpd-host 'serve'"}));
}

// Two shells read the path: the one here, and the one there, whatever it is.
TEST(RemoteCommand, PassesEveryPathAsOneWordThroughBothShells) {
  const std::vector<std::string> paths{
      "/with space",     "/$(touch x)", "/`id`",    "/a;b", "/it's", "/\"double\"", "/back\\slash",
      "/{a,b}",          "~",           "*",        "",     "-n",    "/a\nb",       "/a\tb",
      "/not \xff utf-8", "/a!b",        "/a\x01'b", "#",    "$HOME"};
  for (const char* shell : {"sh", "bash"}) {
    for (const auto& path : paths) {
      const auto here = Words("sh", After(RemoteCommand({}, "server", {"serve", path}), "exec "));
      EXPECT_EQ(Words(shell, After(here.back(), "cpd-host ")),
                (std::vector<std::string>{"serve", path}))
          << shell << ": " << here.back();
    }
  }
}

}  // namespace
}  // namespace cpd::host

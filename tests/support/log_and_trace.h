// A handler's log lines and traces, in a form that a test can compare as a whole.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/expectations.h"
#include "support/fake_host.h"

namespace cpd::test {

/// A log line of a function, without its place in the source: `Debug: function: message`.
inline std::string DebugLine(const std::string& function, const std::string& message) {
  return "Debug: " + function + ": " + message;
}
inline std::string ErrorLine(const std::string& function, const std::string& message) {
  return "Error: " + function + ": " + message;
}

/// The log so far, in order, in that form: lines of handlers and of the file layer.
inline std::vector<std::string> LogSoFar() {
  std::vector<std::string> lines;
  for (const LogLine& line : Log().Lines()) {
    EXPECT_EQ(line.level, line.word == "Error:" ? kError : kDebug) << line.raw;
    EXPECT_EQ(line.file,
              line.function.starts_with("Udisk") ? "file_manager_linux.cpp" : "operator.cpp")
        << line.raw;
    lines.push_back(line.word + ' ' + line.function + ": " + line.message);
  }
  return lines;
}

/// The log line that comes with every trace.
inline std::string TraceLine(const std::string& mount_point) {
  return DebugLine("GetLocalMountPoint", "local mMountDrive:" + mount_point);
}

/// `text` with '#' for every run of digits, where a test cannot know the number.
inline std::string WithoutNumbers(const std::string& text) {
  std::string shown;
  for (const char c : text) {
    const bool digit = c >= '0' && c <= '9';
    if (!digit) shown += c;
    if (digit && !shown.ends_with('#')) shown += '#';
  }
  return shown;
}

/// Expects a handler's trace: this text after a place in the source, and this detail, if any, which
/// is a path.
inline void ExpectTrace(const Trace& trace, const std::string& event, bool success,
                        const std::string& handler, const std::string& text,
                        const std::optional<std::string>& detail, const std::string& mount_point) {
  EXPECT_EQ(trace.event, "LOCAL_" + event);
  EXPECT_EQ(trace.detail, detail);
  EXPECT_EQ(trace.id.size(), 16U);
  EXPECT_EQ(trace.id.find_first_not_of("0123456789abcdef"), std::string::npos) << trace.id;
  std::map<std::string, std::string> fields = trace.fields;
  ExpectMadeIn(handler, text, fields["message"]);
  fields.erase("message");
  EXPECT_EQ(fields, (std::map<std::string, std::string>{{"status", success ? "success" : "error"},
                                                        {"success", success ? "true" : "false"},
                                                        {"productName", mount_point}}));
}

}  // namespace cpd::test

#include "module/host_log.h"

#include <fmt/format.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <stdexcept>

#include "cpd/log.h"

namespace cpd::host {
namespace {

// Set once, before any thread logs.
int g_level = static_cast<int>(LogLevel::kError);
std::unique_ptr<FILE, int (*)(FILE*)> g_file(nullptr, &std::fclose);
// Erases the status line on a terminal before a log line is written there.
const char* g_line_start = "";

}  // namespace

void SetUpLog(LogLevel level, const std::string& file) {
  g_level = static_cast<int>(level);
  if (!file.empty()) {
    g_file.reset(std::fopen(file.c_str(), "ae"));
    if (g_file == nullptr) {
      throw std::runtime_error(
          fmt::format("cannot open log file {}: {}", file, std::strerror(errno)));
    }
    setlinebuf(g_file.get());
  } else {
    // Writes a line with one system call, while stderr, which has no buffer, needs one for each
    // part.
    static char buffer[1024];
    g_file = {fdopen(STDERR_FILENO, "w"), &std::fflush};
    if (g_file != nullptr) (void)std::setvbuf(g_file.get(), buffer, _IOLBF, sizeof buffer);
    if (isatty(STDERR_FILENO) != 0) g_line_start = "\r\x1b[K";
  }
}

}  // namespace cpd::host

extern "C" __attribute__((visibility("default"))) void tesselLogPrint(int /*channel*/, int level,
                                                                      const char* tag,
                                                                      const char* format, ...) {
  using namespace cpd::host;
  if (level < g_level) return;
  timeval now{};
  gettimeofday(&now, nullptr);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char when[32] = "";
  (void)std::strftime(when, sizeof when, "%F %T", &local);

  FILE* out = g_file != nullptr ? g_file.get() : stderr;
  va_list arguments;
  va_start(arguments, format);
  // The lock keeps other threads' lines out of this one. Errors are ignored: there is nowhere to
  // report them.
  flockfile(out);
  (void)std::fprintf(out, "%s%s.%06ld %s ", g_line_start, when, static_cast<long>(now.tv_usec),
                     tag);
  (void)std::vfprintf(out, format, arguments);
  (void)std::fputc('\n', out);
  funlockfile(out);
  va_end(arguments);
}

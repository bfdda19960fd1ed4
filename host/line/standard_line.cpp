#include "line/standard_line.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace cpd::host {
namespace {

Descriptor Duplicate(int fd) {
  Descriptor copy(fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  if (!copy.ok()) throw std::system_error(errno, std::generic_category(), "standard descriptors");
  return copy;
}

}  // namespace

StandardLine::StandardLine() {
  if (isatty(STDIN_FILENO) != 0) {
    throw std::runtime_error(
        "standard input is a terminal; another cpd-host starts this command and speaks to it");
  }
  line_ = {.in = Duplicate(STDIN_FILENO), .out = Duplicate(STDOUT_FILENO), .received = {}};
  const Descriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (dup2(nothing.get(), STDIN_FILENO) < 0 || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
    throw std::system_error(errno, std::generic_category(), "standard descriptors");
  }
}

Line StandardLine::Next() {
  if (!line_.in.ok()) throw std::runtime_error("the line has ended");
  return std::move(line_);
}

}  // namespace cpd::host

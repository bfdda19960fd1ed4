// Logging through the host. A line reads: file function(line): "Debug:" "message", with the quote
// characters; an escape such as \n in a message reaches the log as two characters.
#pragma once

#include <string_view>

#include "cpd/log.h"

namespace cpd {

/// What follows the last '/' or '\' of a path.
consteval const char* BaseName(const char* path) {
  const std::string_view text(path);
  const size_t slash = text.find_last_of("/\\");
  return slash == std::string_view::npos ? path : path + slash + 1;
}

}  // namespace cpd

// The stringizing operator puts the quotes around word and message and keeps escapes as written.
#define UDISK_LOG(level, word, function, message, ...)                                             \
  tesselLogPrint(0, level, "CPD_LOG", "%s %s(%d): " #word " " #message, ::cpd::BaseName(__FILE__), \
                 static_cast<const char*>(function), __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#define UDISK_DEBUG(message, ...) \
  UDISK_LOG(5, "Debug:", __func__, message __VA_OPT__(, ) __VA_ARGS__)
#define UDISK_ERROR(message, ...) \
  UDISK_LOG(7, "Error:", __func__, message __VA_OPT__(, ) __VA_ARGS__)
/// For a step of a larger operation: the line names that operation, not the step.
#define UDISK_DEBUG_OF(function, message, ...) \
  UDISK_LOG(5, "Debug:", #function, message __VA_OPT__(, ) __VA_ARGS__)
#define UDISK_ERROR_OF(function, message, ...) \
  UDISK_LOG(7, "Error:", #function, message __VA_OPT__(, ) __VA_ARGS__)

// What a catch block knows of an exception of any type, the host's own ones included.
#pragma once

#include <exception>

namespace cpd {

/// The text of the exception that is being handled; call it within a catch block only. Valid until
/// that block ends.
inline const char* CaughtText() {
  try {
    throw;
  } catch (const std::exception& error) {
    return error.what();
  } catch (...) {
    return "an exception without a text";
  }
}

}  // namespace cpd

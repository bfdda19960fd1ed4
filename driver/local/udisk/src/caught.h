// The text of a caught exception of any type, including types of the host's own.
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

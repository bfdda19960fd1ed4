#pragma once

#include <cstdio>
#include <string>

namespace cpd::host {

/// Prints a text to standard error. Errors are ignored: a terminal that has gone away must not end
/// the host.
inline void PrintError(const std::string& text) { (void)std::fputs(text.c_str(), stderr); }

}  // namespace cpd::host

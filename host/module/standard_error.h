#pragma once

#include <cstdio>
#include <string>

namespace cpd::host {

/// Prints a text to standard error, if that can be written: a terminal that has gone away must not
/// take the host along.
inline void PrintError(const std::string& text) { (void)std::fputs(text.c_str(), stderr); }

}  // namespace cpd::host

// How a disk's names are shown on the user's terminal.
#pragma once

#include <string>
#include <string_view>

namespace cpd::host {

/// A name as `ls` prints it: unchanged, unless standard output is a terminal; then as
/// QuotedForShell, because the terminal would carry out an escape sequence, and a line feed would
/// look like another entry.
std::string ShownName(std::string_view name);

/// A name as `ls --quoting-style=shell-escape` writes it: a word that a shell reads as that name,
/// with quotes only if it needs them, and with escapes for everything unprintable.
std::string QuotedForShell(std::string_view name);

}  // namespace cpd::host

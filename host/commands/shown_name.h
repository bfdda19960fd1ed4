// Names from a disk on the user's terminal.
#pragma once

#include <string>
#include <string_view>

namespace cpd::host {

/// A name as `ls` shows it: on a terminal as QuotedForShell, because an escape sequence in it would
/// reach the terminal, and a line feed look like another entry; elsewhere, as in a pipe, unchanged.
std::string ShownName(std::string_view name);

/// A name as `ls --quoting-style=shell-escape` writes it: a word that a shell reads as that name,
/// with quotes only where it needs them, and with escapes for all that cannot be printed.
std::string QuotedForShell(std::string_view name);

}  // namespace cpd::host

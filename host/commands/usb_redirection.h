#pragma once

#include <string>
#include <vector>

#include "commands/stop_signals.h"

namespace cpd::host {

struct UsbOptions {
  std::string match;  ///< label or UUID of the only disk to redirect; empty = every disk
  std::string place;  ///< [USER@]HOST:DIRECTORY
  /// Options of the redirect command that each disk gets.
  std::vector<std::string> arguments;
};

/// Redirects every USB disk that is there or comes, until a stop signal: mounts it in /media and
/// shows it as DIRECTORY/LABEL on the other machine. Prints a line for each change.
/// @throws std::runtime_error when this cannot begin
void RedirectUsbDisks(const UsbOptions& options, const StopSignals& stop_signals);

}  // namespace cpd::host

// Shared by the commands that work over a line.
#pragma once

#include <chrono>
#include <string>

#include "commands/stop_signals.h"
#include "line/line_keeper.h"
#include "line/line_source.h"

namespace cpd::host {

/// How long the first hello may take: somebody may have to type a password.
inline constexpr std::chrono::seconds kFirstHelloLimit{120};

/// Connects; the stop signals end the process meanwhile.
/// @throws StreamError when there is no line to the other side
/// @throws std::exception when this side cannot begin
void Connect(LineKeeper& keeper, const StopSignals& signals);

/// Keeps the line up until a stop signal, or until it ends for good.
/// @return whether the other side knows that the session has ended
/// @throws EndedError when the other side failed, or the line dropped and is not replaced
/// @throws std::runtime_error when this side failed
bool KeepUntilStopped(LineKeeper& keeper, const StopSignals& signals);

/// @throws EndedError unless the line ended because a user of the other side wanted it to, or this
/// side failed
/// @throws std::runtime_error when this side failed
void CheckEnding(const Ending& ending);

/// Tells the other side why this one cannot begin.
/// @param role  of this side
void Refuse(Line line, Role role, const std::string& why);

}  // namespace cpd::host

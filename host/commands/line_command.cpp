#include "commands/line_command.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <utility>

#include "line/frame_reader.h"

namespace cpd::host {

void Connect(LineKeeper& keeper, const StopSignals& signals) {
  const MortalWhile mortal(signals);
  keeper.Connect();
}

bool KeepUntilStopped(LineKeeper& keeper, const StopSignals& signals) {
  const auto stop = signals.MakeDescriptor();
  const Descriptor ended(eventfd(0, EFD_CLOEXEC));
  std::optional<Ending> ending;
  keeper.Keep([&](const Ending& how) {
    ending = how;
    const uint64_t one = 1;
    (void)!write(ended.get(), &one, sizeof one);
  });
  std::array<pollfd, 2> events{{{.fd = stop.get(), .events = POLLIN, .revents = 0},
                                {.fd = ended.get(), .events = POLLIN, .revents = 0}}};
  while (poll(events.data(), events.size(), -1) < 0) continue;
  const bool is_up = keeper.state().is_up;
  keeper.Finish(Farewell::kDone, "");
  if (events[1].revents == 0) return is_up;
  CheckEnding(*ending);
  return true;
}

void CheckEnding(const Ending& ending) {
  if (ending.kind == Ending::Kind::kFarewell && ending.farewell == Farewell::kDone) return;
  if (ending.kind == Ending::Kind::kClosed) throw std::runtime_error(ending.text);
  throw EndedError(ending);
}

void Refuse(Line line, Role role, const std::string& why) {
  Connection connection(std::move(line), {.role = role, .window = 0});
  connection.SayGoodbye(Farewell::kFailed, why);
}

}  // namespace cpd::host

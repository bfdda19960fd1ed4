#include "commands/line_options.h"

#include <fmt/format.h>

#include <stdexcept>
#include <string_view>

#include "commands/command.h"

namespace cpd::host {
namespace {

/// A word for any shell. QuotedForShell is easier to read, but not every shell understands $''.
std::string Word(std::string_view text) {
  std::string word = "'";
  for (const char c : text) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

}  // namespace

void AddStreamOptions(CLI::App* command, LineOptions* options) {
  command
      ->add_option("--window", options->window,
                   "Bytes that may be on their way to each side [16777216]")
      ->check(CLI::Range(uint64_t{1} << 20, uint64_t{1} << 30).description(""))
      ->type_name("BYTES");
  AddOffFlag(command, "--no-sandbox", &options->sandbox, "Run without the sandbox; for debugging");
}

void AddReconnectOption(CLI::App* command, LineOptions* options) {
  command
      ->add_option("--reconnect", options->reconnect,
                   "How long requests wait for a line that dropped; 0: end with it [300]")
      ->type_name("SECONDS")
      ->check(CLI::NonNegativeNumber);
}

void AddDialOptions(CLI::App* command, LineOptions* options) {
  command->add_option("--via", options->via,
                      "Shell command whose standard input and output lead to the other side");
  command->add_option("--rsh", options->rsh, "Program to reach another machine with [ssh]");
  command->add_option("--remote-program", options->remote_program,
                      "This program's path on the other machine [cpd-host]");
  command->add_option("-p", options->port, "Port, for ssh")->type_name("PORT");
  command->add_option("-F", options->config, "Configuration file, for ssh")->type_name("CONFIG");
  command->add_option("-i", options->identity, "Key file, for ssh")->type_name("KEY");
  AddReconnectOption(command, options);
}

std::optional<RemotePlace> ParseRemotePlace(const std::string& text) {
  // An IPv6 address is in brackets, perhaps after a user.
  const size_t bracket = text.find('[');
  const bool is_bracketed =
      bracket != std::string::npos && (bracket == 0 || text[bracket - 1] == '@');
  const size_t search_from = is_bracketed ? text.find(']') : 0;
  if (search_from == std::string::npos) return std::nullopt;
  const size_t colon = text.find(':', search_from);
  if (colon == std::string::npos || colon == 0 || text.find('/') < colon) return std::nullopt;
  RemotePlace place{.host = text.substr(0, colon), .path = text.substr(colon + 1)};
  if (place.host.starts_with('-')) {
    throw std::runtime_error(fmt::format("{} is not the name of a machine", place.host));
  }
  if (is_bracketed) std::erase_if(place.host, [](char c) { return c == '[' || c == ']'; });
  return place;
}

std::string RemoteCommand(const LineOptions& options, const std::string& host,
                          const std::vector<std::string>& arguments) {
  // The shell of the other machine reads the words once more.
  std::string remote = options.remote_program;
  for (const auto& argument : arguments) remote += ' ' + Word(argument);
  std::string command = "exec " + options.rsh;
  // No terminal, no forwarding: the line carries this stream only.
  if (options.rsh == "ssh") command += " -T -x -a -o ClearAllForwardings=yes";
  if (!options.port.empty()) command += " -p " + Word(options.port);
  if (!options.config.empty()) command += " -F " + Word(options.config);
  if (!options.identity.empty()) command += " -i " + Word(options.identity);
  return command + ' ' + Word(host) + ' ' + Word(remote);
}

}  // namespace cpd::host

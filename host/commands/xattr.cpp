#include <fmt/format.h>

#include <memory>
#include <string>

#include "commands/packet_command.h"

namespace cpd::host {

void AddXattrCommand(CLI::App* app, CommandLine* line) {
  const auto name = std::make_shared<std::string>();
  const auto print = [name](RemoteFiles& files, const std::string& path) {
    const bool has_value = Await<bool>(
        path, [&](auto done) { files.HasExtendedAttribute(path, *name, std::move(done)); });
    fmt::print("{}\n", has_value ? "has a value" : "no value");
  };
  AddPacketCommand(app, line, "xattr", "Ask for an extended attribute without a mount",
                   "File on the disk", print)
      ->required();
  app->get_subcommand("xattr")
      ->add_option("NAME", *name, "Attribute, such as user.comment")
      ->required();
}

}  // namespace cpd::host

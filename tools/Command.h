#pragma once
// The bgpcommon tool's subcommands register themselves here, one source file each:
//
//   static tools::CommandRegistration reg("value", [](CLI::App& app) {
//     auto* cmd = app.add_subcommand("value", "Print and parse values of registered types");
//     ...
//   });
//
// Each setup adds its subcommand to the application and attaches callbacks; a callback that
// wants a non-zero exit status throws CLI::RuntimeError(status).

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace tools {

using CommandSetup = std::function<void(CLI::App&)>;

struct CommandRegistration {
  CommandRegistration(std::string name, CommandSetup setup);
};

struct RegisteredCommand {
  std::string name;
  CommandSetup setup;
};
std::vector<RegisteredCommand>& registeredCommands();

}  // namespace tools

// bgpcommon: shows the library at work from the shell.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include <fmt/format.h>

#include "bgpcommon/version.h"
#include "tools/Command.h"

namespace tools {

std::vector<RegisteredCommand>& registeredCommands() {
  static std::vector<RegisteredCommand> commands;
  return commands;
}

CommandRegistration::CommandRegistration(std::string name, CommandSetup setup) {
  registeredCommands().push_back({std::move(name), std::move(setup)});
}

std::string helpFooter() {
  auto list = [](std::string title, const auto& entries) {
    std::size_t width = 0;
    for (const Documented& d : entries) width = std::max(width, std::strlen(d.name));
    for (const Documented& d : entries) title += fmt::format("\n  {:<{}}  {}", d.name, width, d.text);
    return title;
  };
  return list("Exit status:", kExitStatuses) + "\n" + list("Environment:", kEnvironment);
}

}  // namespace tools

int main(int argc, char** argv) {
  CLI::App app{"bgpcommon: data types of a BGP routing agent, from the shell"};
  app.name("bgpcommon");  // not the path it was started by
  app.set_version_flag("--version", std::string("bgpcommon ") + BGPCOMMON_VERSION);
  app.footer(tools::helpFooter());
  app.require_subcommand(1);
  auto& commands = tools::registeredCommands();
  std::sort(commands.begin(), commands.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
  for (const auto& c : commands) c.setup(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::RuntimeError& e) {
    return e.get_exit_code();  // a subcommand's own status
  } catch (const CLI::ParseError& e) {
    // CLI11 gives each kind of bad command line its own status (105 and up); the tool has one for
    // all of them. Help and --version are no error.
    return app.exit(e) == 0 ? tools::exitOk : tools::exitUsage;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return tools::exitFailure;
  }
  return tools::exitOk;
}

// bgpcommon: shows the library at work from the shell.
#include <algorithm>
#include <cstdio>

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

}  // namespace tools

int main(int argc, char** argv) {
  CLI::App app{"bgpcommon: data types of a BGP routing agent, from the shell"};
  app.name("bgpcommon");  // not the path it was started by
  app.set_version_flag("--version", std::string("bgpcommon ") + BGPCOMMON_VERSION);
  app.footer(
      "Exit status: 0 done, 1 bad input or a failure (also a bad command line); some commands say more.\n"
      "Environment: BGPCOMMON_SHM_ROOT (root of the shared-memory tables, default /dev/shm/bgpcommon),\n"
      "BGPCOMMON_TOGGLE_DIR (feature toggle files, default /etc/bgpcommon/toggles), BGPCOMMON_TRACE\n"
      "(trace levels to print, as numbers: 1,3).");
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
    // all of them, as for bad text: 1. Help still exits 0.
    return app.exit(e) == 0 ? 0 : 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
  }
  return 0;
}

#pragma once
// The bgpcommon tool's subcommands register themselves here, one source file each:
//
//   static tools::CommandRegistration reg("value", [](CLI::App& app) {
//     auto* cmd = app.add_subcommand("value", "Print and parse values of registered types");
//     ...
//   });
//
// Each setup adds its subcommand to the application and attaches callbacks; a callback that
// wants a non-zero exit status calls exitWith(status) with a status of tools/ExitStatus.h.

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "tools/ExitStatus.h"

namespace tools {

// A name and what it means, as the help footer and the manual page list them (with the exit statuses
// of tools/ExitStatus.h).
struct Documented {
  const char* name;
  const char* text;
};
inline constexpr Documented kEnvironment[] = {
    {"BGPCOMMON_HASH_SEED", "the process's hash seed (a number; default random): reproducible runs"},
    {"BGPCOMMON_SHM_OWNER",
     "the user whose tables a reader trusts, a name or number (default this process's user or root): to read "
     "another user's tables"},
    {"BGPCOMMON_SHM_ROOT", "root of the shared-memory tables (default /dev/shm/bgpcommon)"},
    {"BGPCOMMON_TOGGLE_DIR", "feature toggle files (default /etc/bgpcommon/toggles)"},
    {"BGPCOMMON_TRACE", "trace levels to print, as numbers: 1,3"},
};
// Where the tables live (the manual page's FILES).
inline constexpr Documented kFiles[] = {
    {"/dev/shm/bgpcommon",
     "the root of the shared-memory tables, unless $BGPCOMMON_SHM_ROOT or --root names another; it, every "
     "directory below it and every table file must belong to the table's owner (or root) and be writable by no "
     "one else (a sticky directory such as /dev/shm is fine)"},
    {"ROOT/routing/rib/igpResultStatus/NAME", "IGP result table NAME (igp-results), one file, mapped by its readers"},
    {"ROOT/routing/rib/filteredRtStatus/NAME", "filtered-route table NAME (filtered-routes)"},
    {".NAME.lock",
     "beside each table, in its directory, mode 0600: the lock its writer holds while it lives; a second writer "
     "is refused, naming the holder's pid"},
    {".NAME.new", "beside each table: the file a starting writer builds before it takes the table's place"},
};

// The top-level help's footer: the exit statuses and the environment variables.
std::string helpFooter();

// Throws the exception that makes the tool exit with `status`.
[[noreturn]] inline void exitWith(ExitStatus status) { throw CLI::RuntimeError(status); }

// Option checks shared by the commands: a text that is not empty (a --rib of "" would read the
// current directory by accident); a root of tables, an absolute path (resolved against each
// process's working directory, a relative one would name other tables in each; said before a
// long load, not after it); and a duration in seconds, not negative, not NaN, possibly inf.
inline const CLI::Validator nonEmpty(
    [](std::string& s) { return s.empty() ? std::string("must not be empty") : std::string(); }, "", "nonEmpty");
inline const CLI::Validator tableRoot(
    [](std::string& s) { return s.starts_with('/') ? std::string() : std::string("an absolute path expected"); }, "",
    "tableRoot");
inline const CLI::Validator seconds(
    [](std::string& s) {
      double v = 0;
      if (!CLI::detail::lexical_cast(s, v) || !(v >= 0)) return std::string("seconds (0 or more, or inf) expected");
      return std::string();
    },
    "", "seconds");

// A table's name is the last component of its path: not empty, and without a '/' (a table
// published under "a/b" is one that show, watch and list cannot reach).
inline const CLI::Validator tableName(
    [](std::string& s) {
      return s.empty() || s.find('/') != std::string::npos ? std::string("a table name, not empty and without '/'")
                                                           : std::string();
    },
    "", "tableName");

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

#pragma once
// The bgpcommon tool's exit statuses and what each means. The help's footer and the manual page
// list them from here, README's table is checked against them, and the tests name them.

namespace tools {

// A bad command line (unknown command or option, a missing or malformed argument) is the only
// usage error; bad text given as an argument is bad input. A new status gets its row below.
enum ExitStatus : int {
  exitOk = 0,
  exitFailure = 1,
  exitUsage = 2,
  exitTimedOut = 3,
};

struct ExitStatusMeaning {
  ExitStatus status;
  const char* text;
};
// One row per status, in the order of their numbers.
inline constexpr ExitStatusMeaning kExitStatuses[] = {
    {exitOk, "done"},
    {exitFailure, "bad input, or the command failed (show, mrt: a record damaged; show: a KEY without a record; "
                  "watch: no table appeared)"},
    {exitUsage, "bad command line: unknown command or option, missing or malformed argument"},
    {exitTimedOut, "igp-results watch: --timeout passed before --count changes arrived"},
};
static_assert(
    [] {
      int next = 0;
      for (const ExitStatusMeaning& m : kExitStatuses) {
        if (m.status != next++) return false;
      }
      return true;
    }(),
    "kExitStatuses lists every status once, in order");

}  // namespace tools

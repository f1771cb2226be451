#pragma once
// Feature toggles.
//
// A toggle file is a JSON object in the toggle directory mapping toggle names to their state:
//
//   /etc/bgpcommon/toggles/Ira.json:
//   { "StaticRouteCommunities": false,
//     "SomethingElse": { "enabled": true } }
//
// The directory is $BGPCOMMON_TOGGLE_DIR, or /etc/bgpcommon/toggles when that is unset.
// getToggleState never fails: an absent or unreadable file, malformed JSON, an absent toggle or a
// value that is neither a boolean nor an object with a boolean "enabled" all give `defaultState`.
// A file name that would leave the directory ("../x", "/abs") is not read.

#include <string>
#include <string_view>

namespace Toggle {

// The directory toggle files are read from.
std::string toggleDirectory();

bool getToggleState(std::string_view toggleName, std::string_view fileName, bool defaultState);

// The same from a JSON text instead of a file (what getToggleState does after reading the file).
bool toggleStateFromJson(std::string_view json, std::string_view toggleName, bool defaultState);

}  // namespace Toggle

using Toggle::getToggleState;

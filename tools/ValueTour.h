#pragma once

namespace tools {

// Prints a short tour of the configuration value types (with `json`, as one JSON object); false
// if a value did not survive its print and parse.
bool valueTour(bool json = false);

}  // namespace tools

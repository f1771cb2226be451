#pragma once

namespace tools {

// Prints a short tour of the configuration value types; false if a value did not survive its
// print and parse.
bool valueTour();

}  // namespace tools

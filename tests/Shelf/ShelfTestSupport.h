#pragma once
// A private root directory for the shared-memory table tests, removed afterwards.

#include "platform/Shelf/TempRoot.h"

namespace testing_support {

struct TempRoot : Shelf::TempRoot { TempRoot() : Shelf::TempRoot({}, "bgpcommon-test") {} };

}  // namespace testing_support

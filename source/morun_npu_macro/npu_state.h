// The variables of morun_state.h under the names by which the library uses them.
#pragma once

#include "include/morun_state.h"
#include "source/own.h"

MORUN_OWN(context)
MORUN_OWN(morun_map_db)
MORUN_OWN(version_prerel)
MORUN_OWN(npu_version)

namespace morun {

// Copies the current values to the program's copies of these variables. Must be called after each change.
void publish_state();

}  // namespace morun

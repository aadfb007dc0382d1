// The variables of morun_state.h as the library works on them.
#pragma once

#include "include/morun_state.h"
#include "source/own.h"

MORUN_OWN(context)
MORUN_OWN(morun_map_db)
MORUN_OWN(version_prerel)
MORUN_OWN(npu_version)

namespace morun {

// Brings the copies of these variables that the program holds up to date; called after each change.
void publish_state();

}  // namespace morun

// Runs the remote methods on the software DSP.
#pragma once

#include <cstdint>

#include "platform/emulator/dsp/session.h"

namespace parlo::dsp {

// Runs the method of `call` in `session`. Refuses a scalars word that is no method's. Returns a status.
int32_t run_method(Session& session, const Call& call, Reply& reply);

}  // namespace parlo::dsp

// Runs the remote methods on the software DSP.
#pragma once

#include <cstdint>

#include "platform/emulator/dsp/session.h"
#include "platform/parlo.h"

namespace parlo::dsp {

// Checks the scalars word and the buffers against the remote interface, then runs the method in `session`.
int32_t run_method(Session& session, uint32_t scalars, const parlo_argument* arguments);

}  // namespace parlo::dsp

// Sessions whose DSP half is a process of its own, as their host process sees them.
//
// The process runs the program parlo-dsp, which stands beside libparlo.so. It has the shared memory whose descriptors it
// was sent, and nothing else of the host. When a call finds that the process has died, or when the process does not
// answer in time, the session is lost. The host ends the process with the session; without a host, the process ends by
// itself.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/emulator/dsp/dsp.h"

namespace parlo::process {

// Starts the process of a session. Returns a status. `units` must outlive the session.
int32_t start(dsp::MatrixUnitTable& units, uint32_t limit_milliseconds, std::shared_ptr<dsp::Space>& space);

// Returns 0, no limit, where the processes are slow.
uint32_t default_limit_milliseconds();

}  // namespace parlo::process

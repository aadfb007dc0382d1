// Work shared among the processors that the caller may use.
#pragma once

#include <cstddef>
#include <functional>

namespace parlo::dsp {

// Processors in the calling thread's affinity mask, at least 1.
size_t n_processors();

// Starts `worker` on n_thread threads, the caller's among them, and returns when all have ended. Fewer are started
// where the system gives no more; the workers have to share the work out among themselves. They throw nothing.
void run_on_threads(size_t n_thread, const std::function<void()>& worker);

}  // namespace parlo::dsp

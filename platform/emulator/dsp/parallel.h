// Sharing work among the processors that the caller may use.
#pragma once

#include <cstddef>
#include <functional>

namespace parlo::dsp {

// Returns the number of processors in the calling thread's affinity mask, at least 1.
size_t n_processors();

// Runs `worker` on n_thread threads, one of which is the calling thread, and returns when all have ended. When the
// system refuses a thread, fewer threads run. The workers must divide the work among themselves, and must not throw.
void run_on_threads(size_t n_thread, const std::function<void()>& worker);

}  // namespace parlo::dsp

// The processors that the process uses. The software matrix unit runs as many threads as there are processors.
#pragma once

#include <cstddef>
#include <functional>

namespace bench {

// Pins the process to the processor on which it runs, and returns that processor.
int pin();

// Returns the number of processors that the process was given before it was pinned.
size_t n_processors_given();

// Runs `work` on that number of processors.
void run_on_processors(size_t n_processor, const std::function<void()>& work);

// Runs `here` in the calling thread and `there` in another one, each on a processor of its own.
void run_in_two_threads(const std::function<void()>& here, const std::function<void()>& there);

}  // namespace bench

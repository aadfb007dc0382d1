// The processors that the process works on. The software matrix unit takes as many threads.
#pragma once

#include <cstddef>
#include <functional>

namespace bench {

// Pins the process to the processor it is on, and returns that.
int pin();

// How many the process was given before it was pinned.
size_t n_processors_given();

// Runs `work` on that many of them.
void run_on_processors(size_t n_processor, const std::function<void()>& work);

}  // namespace bench

#include "platform/emulator/dsp/parallel.h"

#include <sched.h>

#include <algorithm>
#include <exception>
#include <thread>
#include <vector>

namespace parlo::dsp {

size_t n_processors() {
  cpu_set_t mask;
  if (sched_getaffinity(0, sizeof mask, &mask) != 0) return std::max(1u, std::thread::hardware_concurrency());
  return static_cast<size_t>(std::max(1, CPU_COUNT(&mask)));
}

void run_on_threads(size_t n_thread, const std::function<void()>& worker) {
  std::vector<std::jthread> threads;
  try {
    threads.reserve(n_thread);
    while (threads.size() + 1 < n_thread) threads.emplace_back(worker);
  } catch (const std::exception&) {  // no further thread: the threads that run share all the work
  }
  worker();
}

}  // namespace parlo::dsp

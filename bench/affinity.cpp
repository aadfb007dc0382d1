#include "bench/affinity.h"

#include <sched.h>

#include <cerrno>
#include <exception>
#include <future>
#include <system_error>

namespace bench {
namespace {

cpu_set_t given_processors() {
  cpu_set_t mask;
  CPU_ZERO(&mask);
  sched_getaffinity(0, sizeof mask, &mask);
  return mask;
}

const cpu_set_t given = given_processors();
int pinned = -1;

void keep_to(const cpu_set_t& mask) {
  if (sched_setaffinity(0, sizeof mask, &mask) != 0)
    throw std::system_error(errno, std::generic_category(), "sched_setaffinity");
}

// Returns the pinned processor and the next ones that the process was given.
cpu_set_t processors(size_t n_processor) {
  cpu_set_t mask;
  CPU_ZERO(&mask);
  CPU_SET(pinned, &mask);
  for (int i = 0; i < CPU_SETSIZE && static_cast<size_t>(CPU_COUNT(&mask)) < n_processor; ++i)
    if (CPU_ISSET(i, &given)) CPU_SET(i, &mask);
  return mask;
}

}  // namespace

int pin() {
  pinned = sched_getcpu();
  keep_to(processors(1));
  return pinned;
}

size_t n_processors_given() {
  return static_cast<size_t>(CPU_COUNT(&given));
}

void run_on_processors(size_t n_processor, const std::function<void()>& work) {
  keep_to(processors(n_processor));
  work();
  keep_to(processors(1));
}

void run_in_two_threads(const std::function<void()>& here, const std::function<void()>& there) {
  // The new thread begins on the processor of this one, and needs it until it is moved.
  std::promise<void> moved;
  auto other = std::async(std::launch::async, [&there, &moved] {
    try {
      cpu_set_t mask = processors(2);
      CPU_CLR(pinned, &mask);
      keep_to(mask);
      moved.set_value();
    } catch (...) {
      moved.set_exception(std::current_exception());
      return;
    }
    there();
  });
  moved.get_future().get();
  here();
  other.get();
}

}  // namespace bench

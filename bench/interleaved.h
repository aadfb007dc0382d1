// An operation and its yardstick, timed in turn by the CPU time of the calling thread: other work that takes the
// processor away does not count, and what it does to caches and clock rate meets both alike.
#pragma once

#include <vector>

#include "bench/row.h"

namespace bench {

// Seconds of one call each; the yardstick's is the mean of before and after, 0 without one.
struct Round {
  double operation;
  double yardstick;
};

class Interleaved {
 public:
  // Warms up and finds out how often to call each.
  explicit Interleaved(Work work);

  Round next_round() const;

 private:
  // Calls in a row, enough for the clock.
  struct Calls {
    std::function<void()> call;
    size_t count = 0;
  };
  static Calls calls_for(std::function<void()> call);
  static double seconds_per_call(const Calls& calls);

  Calls operation_;
  Calls yardstick_;
};

struct Quartiles {
  double first, median, third;
};
Quartiles quartiles(std::vector<double> values);

}  // namespace bench

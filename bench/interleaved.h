// An operation and its yardstick, timed in turn: what other work does to caches and clock rate meets both alike.
#pragma once

#include <vector>

#include "bench/row.h"

namespace bench {

// Seconds of one call each; the yardstick's is the mean of before and after. 0 for what there is not.
struct Round {
  double operation;
  double yardstick;
  double peer;
};

class Interleaved {
 public:
  // Warms up and finds out how often to call each, so that it takes `least_seconds`; 0: once.
  Interleaved(Work work, double least_seconds);

  Round next_round() const;

 private:
  // Calls in a row, enough for the clock.
  struct Calls {
    std::function<void()> call;
    size_t count = 0;
  };
  Calls calls_for(std::function<void()> call) const;
  double seconds_per_call(const Calls& calls) const;

  double least_seconds_;
  Clock clock_;
  Calls operation_;
  Calls yardstick_;
  Calls peer_;
};

struct Quartiles {
  double first, median, third;
};
Quartiles quartiles(std::vector<double> values);

}  // namespace bench

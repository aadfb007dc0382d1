// Times an operation and its yardstick in turn. A change of the caches or of the clock rate by other programs then
// affects both alike.
#pragma once

#include <vector>

#include "bench/row.h"

namespace bench {

// Seconds of one call of each. The yardstick runs before and after the operation, and its time is the mean. 0 for a
// part that the work does not have.
struct Round {
  double operation;
  double yardstick;
  double peer;
};

class Interleaved {
 public:
  // Warms up and chooses how often each round calls the operation and the yardstick, so that each takes
  // `least_seconds`. With `least_seconds` 0, a round calls each once.
  Interleaved(Work work, double least_seconds);

  Round next_round() const;

 private:
  // A number of calls in a row, long enough for the clock's resolution.
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

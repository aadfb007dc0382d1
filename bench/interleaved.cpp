#include "bench/interleaved.h"

#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace bench {
namespace {

double seconds(Clock clock) {
  timespec time;
  clock_gettime(clock == Clock::thread ? CLOCK_THREAD_CPUTIME_ID : CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// Interpolates between neighbouring values where the position is not a whole number. `sorted` is not empty.
double quantile(const std::vector<double>& sorted, double fraction) {
  const double place = fraction * static_cast<double>(sorted.size() - 1);
  const auto below = static_cast<size_t>(place);
  const size_t above = std::min(below + 1, sorted.size() - 1);
  return std::lerp(sorted[below], sorted[above], place - static_cast<double>(below));
}

}  // namespace

Interleaved::Interleaved(Work work, double least_seconds)
    : least_seconds_(least_seconds),
      clock_(work.clock),
      operation_(calls_for(std::move(work.operation))),
      yardstick_(calls_for(std::move(work.yardstick.run))),
      peer_(calls_for(std::move(work.peer))) {}

Round Interleaved::next_round() const {
  if (!yardstick_.call) return {seconds_per_call(operation_), 0, 0};
  const double before = seconds_per_call(yardstick_);
  const double operation = seconds_per_call(operation_);
  const double after = seconds_per_call(yardstick_);
  return {operation, (before + after) / 2, peer_.call ? seconds_per_call(peer_) : 0};
}

Interleaved::Calls Interleaved::calls_for(std::function<void()> call) const {
  if (!call) return {};
  Calls calls{std::move(call), 1};
  if (least_seconds_ == 0) return calls;
  double fastest = seconds_per_call(calls);
  for (int again = 0; again < 3; ++again) fastest = std::min(fastest, seconds_per_call(calls));
  calls.count = static_cast<size_t>(std::ceil(least_seconds_ / std::max(fastest, 1e-8)));
  return calls;
}

double Interleaved::seconds_per_call(const Calls& calls) const {
  const double start = seconds(clock_);
  for (size_t i = 0; i < calls.count; ++i) {
    calls.call();
    benchmark::ClobberMemory();
  }
  return (seconds(clock_) - start) / static_cast<double>(calls.count);
}

Quartiles quartiles(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return {quantile(values, 0.25), quantile(values, 0.5), quantile(values, 0.75)};
}

}  // namespace bench

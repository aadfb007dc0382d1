// Reports the measurements of a row as Google Benchmark's counters, and prints the table of them.
#pragma once

#include <benchmark/benchmark.h>

#include <vector>

#include "bench/interleaved.h"
#include "bench/row.h"

namespace bench {

// Measures in rounds; each round is an iteration of the benchmark. A failing operation becomes an error of the run.
void measure(const Row& row, benchmark::State& state);
void measure(const CallRow& row, benchmark::State& state);

// Prints a line for each row when the row is done, and a heading for each kind of row.
class Table : public benchmark::BenchmarkReporter {
 public:
  explicit Table(size_t name_width) : name_width_(name_width) {}

  bool ReportContext(const Context&) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override;

  bool any_error() const { return any_error_; }

 private:
  void print(const Run& run);
  void print_ratio(const benchmark::UserCounters& counters, const std::string& yardstick);
  void print_split(const benchmark::UserCounters& counters);
  void print_head(const char* head);

  size_t name_width_;
  const char* head_ = nullptr;  // the heading of the rows printed last
  bool any_error_ = false;
};

}  // namespace bench

#include "bench/table.h"

#include <fmt/format.h>

#include <cstdio>
#include <exception>
#include <string>
#include <utility>

namespace bench {
namespace {

const char* verdict(double ratio, double wanted) {
  if (ratio >= wanted) return "ok";
  return ratio >= wanted / 2 ? "half" : "LOW";
}

void report(const Row& row, const std::vector<Round>& rounds, benchmark::State& state) {
  std::vector<double> ratios, operation, yardstick;
  for (const Round& round : rounds) {
    ratios.push_back(round.yardstick / round.operation);
    operation.push_back(round.operation);
    yardstick.push_back(round.yardstick);
  }
  state.counters["time"] = quartiles(operation).median;
  if (yardstick.front() == 0) return;
  const Quartiles ratio = quartiles(ratios);
  state.counters["yardstick_time"] = quartiles(yardstick).median;
  state.counters["q1"] = ratio.first;
  state.counters["ratio"] = ratio.median;
  state.counters["q3"] = ratio.third;
  if (row.wanted > 0) state.counters["wanted"] = row.wanted;
}

void measure_rounds(const Row& row, benchmark::State& state) {
  Work work = row.prepare();
  state.SetLabel(work.yardstick.name);
  const Interleaved interleaved(std::move(work));
  std::vector<Round> rounds;
  for (auto _ : state) {
    rounds.push_back(interleaved.next_round());
    state.SetIterationTime(rounds.back().operation);
  }
  report(row, rounds, state);
}

std::string microseconds(double seconds) {
  return fmt::format("{:.1f}", 1e6 * seconds);
}

std::string ratio_text(double ratio) {
  return fmt::format("{:.2f}", ratio);
}

}  // namespace

void measure(const Row& row, benchmark::State& state) try {
  measure_rounds(row, state);
} catch (const std::exception& error) {
  state.SkipWithError(error.what());
}

bool Table::ReportContext(const Context&) {
  fmt::print("{:<{}}  {:>10}  {:<9} {:>10}  {:>5}  {:>5} {:>5}  {:>6}  {}\n", "operation", name_width_, "time, us",
             "yardstick", "time, us", "ratio", "q1", "q3", "wanted", "verdict");
  return true;
}

void Table::ReportRuns(const std::vector<Run>& runs) {
  for (const Run& run : runs) print(run);
  std::fflush(stdout);
}

void Table::print(const Run& run) {
  const std::string& name = run.run_name.function_name;
  if (run.error_occurred) {
    any_error_ = true;
    fmt::print("{:<{}}  failed: {}\n", name, name_width_, run.error_message);
    return;
  }
  const auto& counters = run.counters;
  fmt::print("{:<{}}  {:>10}", name, name_width_, microseconds(counters.at("time")));
  if (counters.contains("ratio")) {
    fmt::print("  {:<9} {:>10}  {:>5}  {:>5} {:>5}", run.report_label, microseconds(counters.at("yardstick_time")),
               ratio_text(counters.at("ratio")), ratio_text(counters.at("q1")), ratio_text(counters.at("q3")));
  }
  if (counters.contains("wanted")) {
    const double wanted = counters.at("wanted");
    fmt::print("  {:>6}  {}", ratio_text(wanted), verdict(counters.at("ratio"), wanted));
  }
  fmt::print("\n");
}

}  // namespace bench

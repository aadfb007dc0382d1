#include "bench/table.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <utility>

#include "bench/memory.h"
#include "bench/platform_calls.h"

namespace bench {
namespace {

constexpr char ratio_head[] = "  time, us  yardstick   time, us  ratio     q1    q3  past   peer  wanted  verdict";
constexpr char split_head[] = "  time, us   staging  platform      back  calls  library  wanted  verdict";

const char* verdict(double ratio, double wanted) {
  if (ratio >= wanted) return "ok";
  return ratio >= wanted / 2 ? "half" : "LOW";
}

// The rounds of a row at one place of its memory.
struct Rounds {
  explicit Rounds(size_t bytes) : past_page(bytes) {}

  size_t past_page;
  std::vector<double> ratios, peer_ratios, operation, yardstick;

  void add(const Round& round) {
    ratios.push_back(round.yardstick / round.operation);
    if (round.peer > 0) peer_ratios.push_back(round.yardstick / round.peer);
    operation.push_back(round.operation);
    yardstick.push_back(round.yardstick);
  }
  double ratio() const { return quartiles(ratios).median; }
};

void report(const Row& row, const Rounds& rounds, benchmark::State& state) {
  state.counters["time"] = quartiles(rounds.operation).median;
  if (rounds.yardstick.front() == 0) return;
  const Quartiles ratio = quartiles(rounds.ratios);
  state.counters["past_page"] = static_cast<double>(rounds.past_page);
  state.counters["yardstick_time"] = quartiles(rounds.yardstick).median;
  state.counters["q1"] = ratio.first;
  state.counters["ratio"] = ratio.median;
  state.counters["q3"] = ratio.third;
  if (!rounds.peer_ratios.empty()) state.counters["peer"] = quartiles(rounds.peer_ratios).median;
  if (row.wanted > 0) state.counters["wanted"] = row.wanted;
}

// The number of rounds at each place of the memory.
size_t rounds_at_a_place(const benchmark::State& state) {
  return static_cast<size_t>(state.max_iterations) / places().size();
}

// A round takes at least this long. When there is only one round, it makes one call.
double least_seconds(const benchmark::State& state) {
  return rounds_at_a_place(state) > 1 ? 0.010 : 0;
}

// Takes medians over single calls, because an interrupt or a page fault makes single calls slower.
void measure_calls(const CallRow& row, benchmark::State& state) {
  place_memory(places().front());
  const std::function<void()> call = row.prepare();
  for (int i = 0; i < 3; ++i) call();
  std::vector<double> whole, staging, platform, bringing_back, shares;
  double n_platform_calls = 0;
  for (auto _ : state) {
    double round = 0;
    do {
      const Split split = bench::split(call);
      whole.push_back(split.whole());
      staging.push_back(split.staging);
      platform.push_back(split.platform);
      bringing_back.push_back(split.bringing_back);
      shares.push_back(split.library() / split.whole());
      n_platform_calls = static_cast<double>(split.n_platform_calls);
      round += split.whole();
    } while (round < least_seconds(state));
    state.SetIterationTime(round);
  }
  auto& counters = state.counters;
  counters["time"] = quartiles(whole).median;
  counters["staging"] = quartiles(staging).median;
  counters["platform"] = quartiles(platform).median;
  counters["bringing_back"] = quartiles(bringing_back).median;
  counters["platform_calls"] = n_platform_calls;
  counters["share"] = quartiles(shares).median;
  if (row.wanted_share > 0) counters["wanted_share"] = row.wanted_share;
}

void measure_rounds(const Row& row, benchmark::State& state) {
  std::optional<Interleaved> interleaved;
  std::vector<Rounds> measured;
  for (auto _ : state) {
    if (measured.empty() || measured.back().operation.size() == rounds_at_a_place(state)) {
      measured.emplace_back(places()[measured.size()]);
      place_memory(measured.back().past_page);
      interleaved.reset();
      Work work = row.prepare();
      state.SetLabel(work.yardstick.name);
      interleaved.emplace(std::move(work), least_seconds(state));
    }
    const Round round = interleaved->next_round();
    measured.back().add(round);
    state.SetIterationTime(round.operation);
  }
  const auto is_slower = [](const Rounds& a, const Rounds& b) { return a.ratio() < b.ratio(); };
  report(row, *std::min_element(measured.begin(), measured.end(), is_slower), state);
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

void measure(const CallRow& row, benchmark::State& state) try {
  measure_calls(row, state);
} catch (const std::exception& error) {
  state.SkipWithError(error.what());
}

void Table::ReportRuns(const std::vector<Run>& runs) {
  for (const Run& run : runs) print(run);
  std::fflush(stdout);
}

void Table::print_head(const char* head) {
  if (head == head_) return;
  fmt::print("{}{:<{}}  {}\n", head_ == nullptr ? "" : "\n", "operation", name_width_, head);
  head_ = head;
}

void Table::print_ratio(const benchmark::UserCounters& counters, const std::string& yardstick) {
  if (counters.contains("ratio")) {
    fmt::print("  {:<9} {:>10}  {:>5}  {:>5} {:>5}  {:>4}", yardstick, microseconds(counters.at("yardstick_time")),
               ratio_text(counters.at("ratio")), ratio_text(counters.at("q1")), ratio_text(counters.at("q3")),
               static_cast<int>(counters.at("past_page")));
    fmt::print("  {:>5}", counters.contains("peer") ? ratio_text(counters.at("peer")) : "");
  }
  if (counters.contains("wanted")) {
    const double wanted = counters.at("wanted");
    fmt::print("  {:>6}  {}", ratio_text(wanted), verdict(counters.at("ratio"), wanted));
  }
}

void Table::print_split(const benchmark::UserCounters& counters) {
  fmt::print("  {:>8}  {:>8}  {:>8}  {:>5}  {:>6.1f}%", microseconds(counters.at("staging")),
             microseconds(counters.at("platform")), microseconds(counters.at("bringing_back")),
             static_cast<int>(counters.at("platform_calls")), 100 * counters.at("share"));
  if (counters.contains("wanted_share")) {
    const double wanted = counters.at("wanted_share");
    fmt::print("  {:>5.0f}%  {}", 100 * wanted, counters.at("share") <= wanted ? "ok" : "LOW");
  }
}

void Table::print(const Run& run) {
  const std::string& name = run.run_name.function_name;
  const auto& counters = run.counters;
  const bool is_split = counters.contains("share");
  print_head(is_split ? split_head : ratio_head);
  if (run.error_occurred) {
    any_error_ = true;
    fmt::print("{:<{}}  failed: {}\n", name, name_width_, run.error_message);
    return;
  }
  fmt::print("{:<{}}  {:>10}", name, name_width_, microseconds(counters.at("time")));
  if (is_split)
    print_split(counters);
  else
    print_ratio(counters, run.report_label);
  fmt::print("\n");
}

}  // namespace bench

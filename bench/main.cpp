// morun_bench prints a table of the library's operations and compares each with a yardstick.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <fstream>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/affinity.h"
#include "bench/memory.h"
#include "bench/peers.h"
#include "bench/row.h"
#include "bench/table.h"
#include "bench/yardsticks.h"

namespace {

struct Arguments {
  std::string filter;
  std::string json;
  std::vector<size_t> places;
  int n_round = 5;
  bool is_quick = false, are_sizes = false;
};

std::string regex_error_text(const std::string& pattern) try {
  const std::regex regex(pattern);
  return {};
} catch (const std::regex_error& error) {
  return error.what();
}

std::string multiple_of_4_error_text(const std::string& number) {
  size_t value = 0;
  CLI::detail::lexical_cast(number, value);
  return value % 4 == 0 ? std::string() : number + " is no multiple of 4";
}

void add_arguments(CLI::App& app, Arguments& arguments) {
  app.add_option("--filter", arguments.filter, "measure only the rows in whose names this regular expression occurs")
      ->type_name("REGEX")
      ->check(CLI::Validator(regex_error_text, ""));
  app.add_option("--rounds", arguments.n_round, "rounds a row at each place of its memory, 5 or more")
      ->type_name("N")
      ->check(CLI::Range(5, 10000))
      ->capture_default_str();
  app.add_option("--past", arguments.places,
                 "place all memory so many bytes past the start of a page, a multiple of 4, instead of at 16 and at 0")
      ->type_name("BYTES")
      ->delimiter(',')
      ->check(CLI::Range(0, 4092))
      ->check(CLI::Validator(multiple_of_4_error_text, ""));
  app.add_flag("--quick", arguments.is_quick,
               "one call of each operation, in its first shape: whether all of them work")
      ->excludes("--rounds");
  app.add_flag("--sizes", arguments.are_sizes, "measure products of many sizes instead of the usual rows");
  app.add_option("--json", arguments.json, "write the measurements there too, in Google Benchmark's format")
      ->type_name("FILE");
}

std::vector<bench::Row> usual_rows() {
  std::vector<bench::Row> rows;
  for (const auto& group : {bench::conversion_rows(), bench::product_rows(), bench::weight_rows()})
    rows.insert(rows.end(), group.begin(), group.end());
  return rows;
}

template <class Row>
std::vector<Row> chosen(std::vector<Row> rows, const std::string& filter) {
  const std::regex regex(filter);
  std::erase_if(rows, [&](const Row& row) { return !std::regex_search(row.name, regex); });
  return rows;
}

// Keeps one row of each operation. The operation is the part of the name before the shape.
template <class Row>
void keep_first_shapes(std::vector<Row>& rows) {
  std::set<std::string> operations;
  std::erase_if(rows,
                [&](const Row& row) { return !operations.insert(row.name.substr(0, row.name.find('/'))).second; });
}

// The benchmarks refer to the rows, so the rows must live until they are measured.
template <class Row>
void register_rows(const std::vector<Row>& rows, int n_round) {
  for (const Row& row : rows)
    benchmark::RegisterBenchmark(row.name.c_str(), [&row](benchmark::State& state) { bench::measure(row, state); })
        ->Iterations(n_round * static_cast<int>(bench::places().size()))
        ->UseManualTime();
}

template <class Row>
size_t greatest_name_size(const std::vector<Row>& rows) {
  size_t size = 0;
  for (const Row& row : rows) size = std::max(size, row.name.size());
  return size;
}

std::string processor_name() {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);)
    if (line.starts_with("model name")) return line.substr(line.find(':') + 2);
  return "of unknown name";
}

void describe(const std::string& key, const std::string& value) {
  fmt::print("{:<10} {}\n", key, value);
  benchmark::AddCustomContext(key, value);
}

// `flags` must live until the end: Google Benchmark keeps a pointer to the first string.
void start_google_benchmark(std::vector<std::string>& flags) {
  std::vector<char*> pointers;
  for (std::string& flag : flags) pointers.push_back(flag.data());
  int n_flag = static_cast<int>(pointers.size());
  benchmark::Initialize(&n_flag, pointers.data());
}

// Measures and prints the registered rows. Returns false when a row failed.
bool print_table(size_t name_width) {
  bench::Table table(name_width);
  benchmark::RunSpecifiedBenchmarks(&table);
  return !table.any_error();
}

int run(const Arguments& arguments) {
  std::vector<bench::Row> rows = chosen(arguments.are_sizes ? bench::size_rows() : usual_rows(), arguments.filter);
  std::vector<bench::CallRow> call_rows;
  if (!arguments.are_sizes) call_rows = chosen(bench::call_rows(), arguments.filter);
  if (rows.empty() && call_rows.empty()) throw std::runtime_error("no row matches the filter");
  if (!arguments.places.empty()) bench::choose_places(arguments.places);
  const int n_round = arguments.is_quick ? 1 : arguments.n_round;
  if (arguments.is_quick) keep_first_shapes(rows), keep_first_shapes(call_rows);

  std::vector<std::string> flags = {"morun_bench"};
  if (!arguments.json.empty()) flags.push_back("--benchmark_out=" + arguments.json);
  start_google_benchmark(flags);

  const int processor = bench::pin();
  describe("processor",
           fmt::format("{}, pinned to number {}; vectors {}", processor_name(), processor, bench::backend_in_use()));
  describe("sgemm", bench::openblas_description());
  describe("peer", bench::onednn_description());
  describe("ratio", fmt::format("yardstick's thread CPU time / operation's; median and quartiles of {} rounds, at the "
                                "worst of these bytes past a page: {}",
                                n_round, fmt::join(bench::places(), ", ")));
  fmt::print("\n");

  register_rows(rows, n_round);
  register_rows(call_rows, n_round);
  return print_table(std::max(greatest_name_size(rows), greatest_name_size(call_rows))) ? 0 : 1;
}

}  // namespace

int main(int n_argument, char** argument) {
  CLI::App app{"Times the library's operations against yardsticks, on one thread", "bench"};
  Arguments arguments;
  add_arguments(app, arguments);
  CLI11_PARSE(app, n_argument, argument);
  try {
    return run(arguments);
  } catch (const std::exception& error) {
    fmt::print(stderr, "bench: {}\n", error.what());
    return 1;
  }
}

// morun, the command-line tool: reads the command line and runs one sub-command.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>

#include "tools/morun/commands.h"

namespace {

std::string failure_line(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return fmt::format("morun: {}\n", text);
}

void add_info(CLI::App& app) {
  auto* const command = app.add_subcommand("info", "Report the platform, the DSP, the library and its limits");
  auto arguments = std::make_shared<tool::InfoArguments>();
  command->add_flag("--json", arguments->as_json, "print one JSON document");
  command->callback([arguments] { tool::info(*arguments); });
}

void add_hello(CLI::App& app) {
  auto* const command = app.add_subcommand(
      "hello", "Greet from the host and from the DSP, on standard error; fails when the DSP does not answer");
  command->callback([] { tool::hello(); });
}

void add_mm(CLI::App& app) {
  auto* const command = app.add_subcommand("mm", "Multiply two matrices on the NPU: Y = X * W");
  auto arguments = std::make_shared<tool::MmArguments>();
  command->add_option("X", arguments->x, "n_row x n_inner activation, .npy")->required();
  command->add_option("W", arguments->w, "n_inner x n_col weights, .npy")->required();
  command->add_option("-o,--output", arguments->y, "n_row x n_col result, .npy")->required();
  command->add_flag("--check", arguments->check, "compare with a product in double precision on the host");
  command->add_option("--repeat", arguments->n_repeat, "compute the product this often; times are best and mean")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  command->footer(R"(
X and W hold f32 or f16 values and are of any shape. The NPU takes them rounded to f16; Y is written as f32.

--check multiplies the values as given and prints the largest |error| of all elements, as it is and relative to the
largest |exact value|. Elements whose exact value is infinite or not a number are left out and counted; a result that
is so where the exact value is finite deviates infinitely.)");
  command->callback([arguments] { tool::mm(*arguments); });
}

void add_make(CLI::App& app) {
  auto* const command = app.add_subcommand("make", "Write a .npy matrix of random values from -1 to 1");
  auto arguments = std::make_shared<tool::MakeArguments>();
  command->add_option("ROWS", arguments->n_row)->required()->check(CLI::PositiveNumber);
  command->add_option("COLS", arguments->n_col)->required()->check(CLI::PositiveNumber);
  command->add_option("-o,--output", arguments->output, ".npy file to write")->required();
  command->add_option("--seed", arguments->seed, "equal seeds give equal matrices")->capture_default_str();
  command->add_flag("--f16", arguments->f16, "f16 values instead of f32");
  command->callback([arguments] { tool::make(*arguments); });
}

}  // namespace

int main(int n_argument, char** arguments) {
  CLI::App app{"Matrix products on the NPU, from the command line", "morun"};
  app.set_version_flag("--version", MORUN_VERSION);
  app.require_subcommand(1);
  app.failure_message([](const CLI::App*, const CLI::Error& error) { return failure_line(error.what()); });
  add_info(app);
  add_hello(app);
  add_mm(app);
  add_make(app);

  try {
    app.parse(n_argument, arguments);
    if (std::fflush(stdout) != 0) throw std::runtime_error("standard output cannot be written");
    return EXIT_SUCCESS;
  } catch (const CLI::ParseError& error) {
    return app.exit(error);
  } catch (const std::bad_alloc&) {
    fmt::print(stderr, "{}", failure_line("not enough memory"));
  } catch (const std::exception& error) {
    fmt::print(stderr, "{}", failure_line(error.what()));
  }
  return EXIT_FAILURE;
}

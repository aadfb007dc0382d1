// morun, the command-line tool: reads the command line and runs one sub-command.

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/morun/commands.h"
#include "tools/morun/error.h"
#include "tools/morun/files/temporary_file.h"
#include "tools/morun/form_names.h"
#include "tools/morun/kernels.h"
#include "tools/morun/standard_streams.h"
#include "tools/morun/suggestion.h"
#include "tools/morun/version.h"

namespace {

// The exit status besides EXIT_SUCCESS and EXIT_FAILURE.
constexpr int exit_misuse = 2;

// CLI::PositiveNumber would name the greatest double as its bound, in 309 digits.
const CLI::Range any_count(1u, UINT32_MAX);

constexpr char environment_and_exit_statuses[] = R"(
Environment: The emulated platform alone reads these variables. PARLO_DSP=process runs each DSP session in a process of
its own. PARLO_PROFILE=FILE describes the chip. PARLO_TRACE=1 prints each call of the platform; PARLO_TRACE=FILE writes
the calls as trace events.

Exit status: 0 when the command succeeds; 1 when a file, an operand, memory or the DSP makes it fail, or when verify
finds a wrong result; 2 when the command line is wrong. When a signal ends the program, shells report 128 + its number.
A failure prints its cause in one line on standard error. Warnings go there too and do not change the status.)";

std::string kernel_list(bool (*is_listed)(const tool::Kernel&)) {
  std::string list = "Kernels:";
  for (const tool::Kernel& kernel : tool::kernels()) {
    if (is_listed(kernel)) list += fmt::format("\n  {}", kernel.name);
  }
  return list;
}

void read_shape(const std::string& text, tool::BenchArguments& arguments) {
  int end = 0;
  const int n_read =
      std::sscanf(text.c_str(), "%9ux%9ux%9u%n", &arguments.n_row, &arguments.n_col, &arguments.n_inner, &end);
  if (n_read != 3 || static_cast<size_t>(end) != text.size()) {
    throw CLI::ValidationError("--shape", text + " is not three numbers as in 64x1024x1024");
  }
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

// The files of the weights of one, two or three products. Each of these forms has an option of its own.
struct WeightOptions {
  std::vector<std::filesystem::path> single, pair, qkv;

  std::vector<std::filesystem::path> given() const { return !single.empty() ? single : !pair.empty() ? pair : qkv; }
};

void add_mm(CLI::App& app) {
  auto* const command = app.add_subcommand("mm", "Multiply on the NPU: Y = X * W, for up to three W at a time");
  auto arguments = std::make_shared<tool::MmArguments>();
  auto weights = std::make_shared<WeightOptions>();
  command->add_option("X", arguments->x, "n_row x n_inner activation, .npy")->required();
  auto* const single =
      command->add_option("W", weights->single, "n_inner x n_col weights, .npy or PACKED.safetensors:TENSOR")
          ->expected(1);
  auto* const pair = command->add_option("--pair", weights->pair, "two weights instead, of equally many columns");
  pair->type_name("U F")->expected(2)->excludes(single);
  auto* const qkv =
      command->add_option("--qkv", weights->qkv, "three weights instead, K and V of equally many columns");
  qkv->type_name("Q K V")->expected(3)->excludes(single)->excludes(pair);
  command->add_option("-o,--output", arguments->y, "n_row x n_col result, .npy; with --pair and --qkv one for each")
      ->required()
      ->type_name("Y...")
      ->expected(1, 3);
  auto kind = std::make_shared<std::string>();
  command->add_option("--weights", *kind, "what the NPU takes weights as; default f16, or as they are packed")
      ->check(CLI::IsMember({"f16", "a8w8", "a8w4"}));
  auto* const check =
      command->add_flag("--check", arguments->check, "compare with a product in double precision on the host");
  command->add_option("--max-error", arguments->max_error, "fail where a result's relative Frobenius error is larger")
      ->needs(check);
  command->add_option("--repeat", arguments->n_repeat, "compute the product this often; times are best and mean")
      ->check(any_count)
      ->capture_default_str();
  command->footer(R"(
  morun mm X.npy W.npy -o Y.npy
  morun mm X.npy --pair U.npy F.npy -o YU.npy YF.npy
  morun mm X.npy --qkv Q.npy K.npy V.npy -o YQ.npy YK.npy YV.npy --weights a8w8 --check
  morun mm X.npy packed.safetensors:model.layers.0.mlp.up_proj.weight -o Y.npy

Weights of packed files (morun pack) are multiplied as they are packed, and --check compares with the values that they
stand for.

-o stands behind the matrices. "-" is standard output, and the report then goes to standard error. The matrices hold
f16, f32 or f64 values and have any shape. f64 values are rounded to f32. An array of rank 1 is a matrix of one row.
Results are written as f32. --pair and --qkv run one fused kernel, which brings the activation to the NPU once.

The command warns of operands that are NaN or infinite, and of operands beyond the range of f16 that it rounds to f16.

--weights f16: activation, weights and results are rounded to f16. a8w8 and a8w4: the weights are quantised to 8 or 4
bits a value with a scale and a zero point for each column, the activation to 8 bits with a scale for each row, and the
sums are exact. Zero points are cut to the range of the values: a column without values of both signs loses accuracy,
and one of a single value becomes 0.

--check multiplies the values as given. For each result it prints the largest |error| of all elements, the same relative
to the largest |exact value|, and the Frobenius norm of the error relative to that of the exact product. Elements whose
exact value is infinite or NaN are counted and left out. An infinite or NaN result with a finite exact value deviates
infinitely.)");
  command->callback([arguments, weights, kind] {
    using enum tool::WeightKind;
    if (!kind->empty()) arguments->weights = *kind == "a8w8" ? a8w8 : *kind == "a8w4" ? a8w4 : f16;
    arguments->w = weights->given();
    if (arguments->w.empty()) throw CLI::ValidationError("mm", "one of W, --pair and --qkv is required");
    if (arguments->w.size() != arguments->y.size()) {
      throw CLI::ValidationError("--output", fmt::format("{} weights give as many results, and {} are named",
                                                         arguments->w.size(), arguments->y.size()));
    }
    tool::mm(*arguments);
  });
}

// Rules keep their order: the last that matches decides.
void add_rule_option(CLI::App& command, const char* name, const char* what,
                     const std::function<void(std::string)>& add) {
  command.add_option_function<std::string>(name, add, what)->trigger_on_parse()->expected(1)->allow_extra_args(false);
}

void add_pack(CLI::App& app) {
  auto* const command = app.add_subcommand("pack", "Pack the weights of a checkpoint into one file that the NPU reads");
  auto arguments = std::make_shared<tool::PackArguments>();
  command
      ->add_option("SOURCE", arguments->sources, "NAME.safetensors, NAME.safetensors.index.json, a directory, or .npy")
      ->required();
  auto* const output = command->add_option("-o,--output", arguments->output, "file to write")->type_name("FILE");
  command->add_option("--weights", arguments->form, "the form of what is packed")
      ->check(CLI::IsMember({"f16", "a8w8", "a8w4"}))
      ->capture_default_str();
  add_rule_option(*command, "--form", "PATTERN=FORM: another form, or carried, for tensors of such names; repeatable",
                  [arguments](const std::string& rule) {
                    const size_t at = rule.rfind('=');
                    if (at == std::string::npos) throw CLI::ValidationError("--form", rule + " is not PATTERN=FORM");
                    const std::string form = rule.substr(at + 1);
                    if (std::ranges::count(tool::form_names, form) == 0)
                      throw CLI::ValidationError(
                          "--form", fmt::format("{} is none of {}", form, fmt::join(tool::form_names, ", ")));
                    arguments->rules.emplace_back(rule.substr(0, at), form);
                  });
  add_rule_option(*command, "--skip", "PATTERN: tensors of such names are carried over as they are; repeatable",
                  [arguments](const std::string& pattern) { arguments->rules.emplace_back(pattern, "carried"); });
  command->add_option("--quantiser", arguments->quantiser, "how scales and zero points are chosen")
      ->check(CLI::IsMember({"minmax", "mse", "calibrated", "library"}))
      ->capture_default_str();
  command
      ->add_option("--activations", arguments->activations,
                   "a directory of TENSOR.npy, or one .npy file for one matrix")
      ->type_name("PATH");
  command->add_option("--damping", arguments->damping, "of calibrated, in mean diagonals of the covariance")
      ->check(CLI::Range(0.0, 1.0))
      ->capture_default_str();
  command->add_option("--report", arguments->report, "also write errors and odd values as JSON; - is standard output")
      ->type_name("FILE");
  command->add_option("--jobs", arguments->n_job, "threads; the bytes are the same for any number")
      ->check(CLI::Range(1, 256))
      ->capture_default_str();
  command->add_flag("--no-transpose", arguments->no_transpose, "matrices of safetensors files are n_inner x n_col");
  command->add_flag("--allow-nonfinite", arguments->allow_non_finite, "take NaN and infinities among the weights");
  auto* const dry_run =
      command->add_flag("--dry-run", arguments->dry_run, "print what would become of each tensor, and write nothing");
  command->footer(R"(
  morun pack model.safetensors.index.json -o packed.safetensors --weights a8w8 --form '*.lm_head.weight=f16'
  morun pack W.npy -o packed.safetensors --weights a8w4 --quantiser calibrated --activations X.npy

Packed are 2-dimensional tensors of F64, F32, F16 or BF16 whose names end in "weight" and contain neither "embed" nor
"norm", and .npy matrices of any name; all others are carried over as they are. --form and --skip take shell patterns;
the last that matches a name decides. Matrices of safetensors files are n_col x n_inner, as PyTorch has those of linear
layers, and are transposed; .npy matrices are n_inner x n_col.

docs/weight-files.md describes the file and the quantisers.)");
  command->callback([arguments, output, dry_run] {
    if (output->count() == 0 && dry_run->count() == 0) throw CLI::RequiredError("--output");
    if (arguments->output == "-")
      throw CLI::ValidationError("--output", "a packed file is renamed into its place, and cannot be standard output");
    if (arguments->quantiser == "calibrated" && arguments->activations.empty())
      throw CLI::ValidationError("--quantiser", "calibrated needs --activations");
    tool::pack(*arguments);
  });
}

void add_inspect(CLI::App& app) {
  auto* const command = app.add_subcommand("inspect", "List the tensors of a packed file");
  auto arguments = std::make_shared<tool::InspectArguments>();
  command->add_option("FILE", arguments->file, "packed file")->required();
  command->add_flag("--json", arguments->as_json, "print one JSON document");
  command->add_flag("--verify", arguments->verify, "read every tensor and compare it with its checksum");
  command->callback([arguments] { tool::inspect(*arguments); });
}

void add_unpack(CLI::App& app) {
  auto* const command = app.add_subcommand("unpack", "Write the real values that a packed matrix stands for");
  auto arguments = std::make_shared<tool::UnpackArguments>();
  command->add_option("FILE", arguments->file, "packed file")->required();
  command->add_option("TENSOR", arguments->tensor, "a packed matrix in it")->required();
  command->add_option("-o,--output", arguments->output, "n_inner x n_col matrix of f32, .npy; - is standard output")
      ->required();
  command->callback([arguments] { tool::unpack(*arguments); });
}

void add_verify(CLI::App& app) {
  auto* const command = app.add_subcommand("verify", "Compare every kernel with an independent product on the host");
  auto arguments = std::make_shared<tool::VerifyArguments>();
  command->add_flag("--quick", arguments->quick, "small shapes, for slow machines");
  command->add_option("--kernel", arguments->kernel, "kernels that have this in their names; all otherwise");
  command->add_option("--seed", arguments->seed, "equal seeds give equal values")->capture_default_str();
  command->add_flag("--one-session", arguments->one_session,
                    "leave out weights in several sessions, for which some 6 GiB of shared memory are reserved");
  command->footer(
      R"(
Each call prints one line: the shape as rows x columns x inner dimension, the values, the session of each weight matrix,
deviation and bound of the element that uses the largest share of its bound, the time of the call, and the verdict.
Bounds follow from the roundings that the kernel must make; without roundings the bound is 0. "by design" marks calls
that the library defines to give something else than the product, or to fail: weights in several sessions, row-major
weights, or a strided result that is packed. The command checks these calls against that definition. It fails when one
call fails.

The upper interface (morun_...) follows after the lower interface has closed the DSP. The upper interface opens the DSP,
reserves 1.3 GiB of shared memory and chooses sessions by itself. "+8" behind the columns means that 8 elements lie
between the rows of the result; the call must not change them. When the DSP refuses an integer product of the upper
interface, the library ends the process, so these products come last. The report then lacks its last line, the exit
status is 1, and standard error names the refused product.

)" + kernel_list([](const tool::Kernel&) { return true; }));
  command->callback([arguments] { tool::verify(*arguments); });
}

void add_bench(CLI::App& app) {
  auto* const command = app.add_subcommand("bench", "Time the kernels and their parts");
  auto arguments = std::make_shared<tool::BenchArguments>();
  auto shape =
      std::make_shared<std::string>(fmt::format("{}x{}x{}", arguments->n_row, arguments->n_col, arguments->n_inner));
  command->add_option("--kernel", arguments->kernel, "kernels that have this in their names; all otherwise");
  command->add_option("--shape", *shape, "rows, columns of each result, inner dimension")
      ->type_name("RxCxI")
      ->capture_default_str();
  command->add_option("--json", arguments->json, "also write the times as Google Benchmark does; - is standard output")
      ->type_name("FILE");
  command
      ->add_option("--timeline", arguments->timeline,
                   "on the emulated platform, write every call with its phases as trace events, which chrome://tracing "
                   "and Perfetto show")
      ->type_name("FILE");
  command->footer(
      R"(
A time is the best of all calls within half a second. The table times the whole call of a kernel, its conversions alone
on the same data ("convert"), and its remote method alone ("remote"). The rest of a call's time is checks.

)" + kernel_list([](const tool::Kernel& kernel) { return kernel.is_timed(); }));
  command->callback([arguments, shape] {
    read_shape(*shape, *arguments);
    tool::bench(*arguments);
  });
}

void add_make(CLI::App& app) {
  auto* const command = app.add_subcommand("make", "Write a .npy matrix of random values from -1 to 1");
  auto arguments = std::make_shared<tool::MakeArguments>();
  command->add_option("ROWS", arguments->n_row)->required()->check(any_count);
  command->add_option("COLS", arguments->n_col)->required()->check(any_count);
  command->add_option("-o,--output", arguments->output, ".npy file to write; - is standard output")->required();
  command->add_option("--seed", arguments->seed, "equal seeds give equal matrices")->capture_default_str();
  command->add_flag("--f16", arguments->f16, "f16 values instead of f32");
  command->callback([arguments] { tool::make(*arguments); });
}

// ---- The command line as a whole -----------------------------------------------------------------------------------

std::vector<std::string> command_names(CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* const command : app.get_subcommands({})) names.push_back(command->get_name());
  return names;
}

std::vector<std::string> option_names(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::Option* const option : command.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

std::string unknown(const char* kind, const std::string& word, const std::vector<std::string>& known) {
  const std::string meant = tool::nearest(word, known);
  const std::string hint =
      meant.empty() ? fmt::format("there are {}", fmt::join(known, ", ")) : fmt::format("did you mean {}?", meant);
  return fmt::format("there is no {} {}; {}", kind, word, hint);
}

// An unknown word explains the failure better than a missing argument that follows from the unknown word.
std::string explanation(CLI::App& app, const CLI::ParseError& error) {
  const std::vector<CLI::App*> chosen = app.get_subcommands();
  const std::vector<std::string> rest = app.remaining(true);
  if (chosen.empty()) {
    const std::vector<std::string> names = command_names(app);
    if (rest.empty()) return fmt::format("a command is required: {}", fmt::join(names, ", "));
    return rest[0].starts_with('-') ? unknown("option", rest[0], option_names(app))
                                    : unknown("command", rest[0], names);
  }
  const auto option = std::ranges::find_if(rest, [](const std::string& word) { return word.starts_with('-'); });
  if (option == rest.end()) return error.what();
  return chosen[0]->get_name() + ": " +
         unknown("option", option->substr(0, option->find('=')), option_names(*chosen[0]));
}

void require_standard_output() {
  if (tool::is_writable(STDOUT_FILENO)) return;
  throw std::runtime_error(fmt::format("standard output cannot be written: {}", std::strerror(EBADF)));
}

// Printed text may still wait in a buffer, so a failure to write it shows only here.
void finish_standard_output() {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return;
  throw std::runtime_error(fmt::format("standard output cannot be written: {}", std::strerror(errno)));
}

void print_failure(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  std::fprintf(stderr, "morun: %s\n", text.c_str());
}

void print_want_of_memory() {
  std::fputs("morun: not enough memory\n", stderr);
}

// Where no one can catch an exception: destructors of JSON documents ask for memory, and so do global objects.
[[noreturn]] void terminate() {
  try {
    if (const std::exception_ptr error = std::current_exception()) std::rethrow_exception(error);
  } catch (const std::bad_alloc&) {
    print_want_of_memory();
    _exit(EXIT_FAILURE);
  } catch (...) {
  }
  std::abort();
}

[[gnu::constructor(101)]] void set_terminate_before_there_are_global_objects() {
  std::set_terminate(terminate);
}

int run(int n_argument, char** arguments) {
  CLI::App app{"Matrix products on the NPU, from the command line", "morun"};
  bool as_json = false;
  auto* const json = app.add_flag("--json", as_json, "with --version: its details, as one JSON document");
  json->needs(app.set_version_flag("--version", [&as_json] { return tool::version_text(as_json); }));
  app.require_subcommand(1);
  app.footer(environment_and_exit_statuses);
  add_info(app);
  add_hello(app);
  add_mm(app);
  add_pack(app);
  add_inspect(app);
  add_unpack(app);
  add_verify(app);
  add_bench(app);
  add_make(app);

  require_standard_output();
  try {
    app.parse(n_argument, arguments);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() != EXIT_SUCCESS) return print_failure(explanation(app, error)), exit_misuse;
    app.exit(error);  // prints the help or the version
    std::cout.flush();
  }
  finish_standard_output();
  return EXIT_SUCCESS;
}

}  // namespace

int main(int n_argument, char** arguments) {
  tool::occupy_standard_streams();
  tool::remove_temporary_files_on_interruption();
  try {
    return run(n_argument, arguments);
  } catch (const std::bad_alloc&) {
    print_want_of_memory();
  } catch (const std::length_error&) {
    print_want_of_memory();
  } catch (const tool::Misuse& error) {
    print_failure(error.what());
    return exit_misuse;
  } catch (const std::exception& error) {
    print_failure(error.what());
  }
  return EXIT_FAILURE;
}

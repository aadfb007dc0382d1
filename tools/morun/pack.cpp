#include <fmt/format.h>
#include <morun_weights.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tools/morun/commands.h"
#include "tools/morun/error.h"
#include "tools/morun/files/output_file.h"
#include "tools/morun/files/packed_file.h"
#include "tools/morun/files/temporary_file.h"
#include "tools/morun/form_names.h"
#include "tools/morun/progress.h"
#include "tools/morun/standard_streams.h"
#include "weights/output_target.h"
#include "weights/printable.h"

namespace tool {
namespace {

using printable::escaped;

// ---- Interruption --------------------------------------------------------------------------------------------------

std::atomic<morun_weights_packer*> running;
std::atomic<int> caught = 0;

void interrupt_running(int signal) {
  caught = signal;
  if (morun_weights_packer* const packer = running) morun_weights_packer_interrupt(packer);
}

// While it lives, signals have the packer end, which leaves no file; then the signal takes the effect that it had
// before.
class InterruptiblePacking {
 public:
  explicit InterruptiblePacking(morun_weights_packer* packer) {
    running = packer;
    struct sigaction action = {};
    action.sa_handler = interrupt_running;
    for (size_t i = 0; i < signals.size(); ++i) {
      sigaction(signals[i], nullptr, &before_[i]);
      if (before_[i].sa_handler != SIG_IGN) sigaction(signals[i], &action, nullptr);
    }
  }
  ~InterruptiblePacking() {
    for (size_t i = 0; i < signals.size(); ++i) sigaction(signals[i], &before_[i], nullptr);
    running = nullptr;
    if (caught != 0) std::raise(caught);
  }
  InterruptiblePacking(const InterruptiblePacking&) = delete;
  InterruptiblePacking& operator=(const InterruptiblePacking&) = delete;

 private:
  static constexpr std::array signals = interruptions;
  std::array<struct sigaction, signals.size()> before_ = {};
};

// ---- The packer ----------------------------------------------------------------------------------------------------

struct PackerRelease {
  void operator()(morun_weights_packer* packer) const { morun_weights_packer_free(packer); }
};
using Packer = std::unique_ptr<morun_weights_packer, PackerRelease>;

void show(void* user, const morun_weights_progress* progress) {
  const double rate = static_cast<double>(progress->n_byte_done) / std::max(progress->seconds, 1e-9);
  const double left = rate > 0 ? static_cast<double>(progress->n_byte - progress->n_byte_done) / rate : 0;
  static_cast<Progress*>(user)->show(fmt::format("{} of {} tensors, {:.0f} of {:.0f} MB at {:.0f} MB/s, {:.0f} s left",
                                                 progress->n_tensor_done, progress->n_tensor,
                                                 static_cast<double>(progress->n_byte_done) * 1e-6,
                                                 static_cast<double>(progress->n_byte) * 1e-6, rate * 1e-6, left));
}

Packer make_packer(const PackArguments& arguments, Progress& progress) {
  morun_weights_pack_options options;
  morun_weights_pack_options_init(&options);
  options.form = number_of(form_names, arguments.form);
  options.quantiser = number_of(quantiser_names, arguments.quantiser);
  options.transpose = arguments.no_transpose ? 0 : 1;
  options.allow_non_finite = arguments.allow_non_finite ? 1 : 0;
  options.n_job = arguments.n_job;
  options.damping = arguments.damping;
  options.activations = arguments.activations.empty() ? nullptr : arguments.activations.c_str();
  options.progress = show;
  options.user = &progress;
  morun_weights_packer* made = nullptr;
  require_weights(morun_weights_packer_create(&options, &made));
  Packer packer(made);
  for (const std::filesystem::path& source : arguments.sources) {
    require_weights(morun_weights_packer_add_source(made, source.c_str()));
  }
  for (const auto& [pattern, form] : arguments.rules) {
    require_weights(morun_weights_packer_add_rule(made, pattern.c_str(), number_of(form_names, form)));
  }
  return packer;
}

std::vector<morun_weights_decision> decisions_of(const Packer& packer) {
  uint64_t count = 0;
  require_weights(morun_weights_packer_count(packer.get(), &count));
  std::vector<morun_weights_decision> decisions(count);
  for (uint64_t i = 0; i < count; ++i) {
    require_weights(morun_weights_packer_decision(packer.get(), i, &decisions[i]));
  }
  return decisions;
}

std::string shape_of(const morun_weights_decision& decision) {
  const std::vector<uint64_t> shape(decision.shape, decision.shape + decision.n_dimension);
  return fmt::format("{}", fmt::join(shape, " x "));
}

void print_decisions(const std::vector<morun_weights_decision>& decisions) {
  for (const morun_weights_decision& decision : decisions) {
    fmt::print("{:<8} {:<5} {:<16} {} ({})\n", form_names[static_cast<size_t>(decision.form)], decision.dtype,
               shape_of(decision), escaped(decision.name), escaped(decision.reason));
  }
}

// ---- Reports -------------------------------------------------------------------------------------------------------

nlohmann::ordered_json report_of(const morun_weights_decision& decision) {
  nlohmann::ordered_json tensor = {{"name", decision.name},
                                   {"file", std::string(decision.file)},
                                   {"dtype", decision.dtype},
                                   {"shape", std::vector(decision.shape, decision.shape + decision.n_dimension)},
                                   {"form", form_names[static_cast<size_t>(decision.form)]},
                                   {"reason", decision.reason},
                                   {"bytes", decision.n_byte}};
  if (decision.form == MORUN_WEIGHTS_CARRIED) return tensor;
  if (is_quantised(decision.form)) tensor["quantiser"] = quantiser_names[static_cast<size_t>(decision.quantiser)];
  tensor["error"] = decision.error;
  if (decision.product_error >= 0) tensor["product_error"] = decision.product_error;
  const morun_weights_statistics& figures = decision.statistics;
  tensor["nan"] = figures.n_nan;
  tensor["infinite"] = figures.n_infinite;
  tensor["f16_overflow"] = figures.n_overflow;
  tensor["constant_columns"] = figures.n_constant;
  tensor["zero_columns"] = figures.n_zero;
  nlohmann::ordered_json& worst = tensor["worst_columns"] = nlohmann::ordered_json::array();
  for (uint32_t i = 0; i < figures.n_worst; ++i) {
    worst.push_back({{"column", figures.worst[i].column}, {"error", figures.worst[i].relative_error}});
  }
  return tensor;
}

// The worst tensor comes first.
std::string format_report(std::vector<morun_weights_decision> decisions) {
  std::ranges::stable_sort(decisions, std::ranges::greater(), &morun_weights_decision::error);
  nlohmann::ordered_json report = {{"tensors", nlohmann::ordered_json::array()}};
  for (const morun_weights_decision& decision : decisions) report["tensors"].push_back(report_of(decision));
  return report.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

void warn(const morun_weights_decision& decision) {
  const morun_weights_statistics& figures = decision.statistics;
  if (figures.n_nan + figures.n_infinite > 0) {
    fmt::print(stderr, "morun: warning: {}: {} values are NaN and {} infinite\n", escaped(decision.name), figures.n_nan,
               figures.n_infinite);
  }
  const bool takes_halves = decision.form == MORUN_WEIGHTS_F16 || decision.quantiser == MORUN_WEIGHTS_LIBRARY;
  if (figures.n_overflow > 0 && takes_halves) {
    fmt::print(stderr, "morun: warning: {}: {} values are beyond the range of f16 and become infinite\n",
               escaped(decision.name), figures.n_overflow);
  }
}

void print_summary(const std::vector<morun_weights_decision>& decisions, double seconds) {
  uint64_t n_source_byte = 0, n_byte = 0;
  const morun_weights_decision* worst = nullptr;
  for (const morun_weights_decision& decision : decisions) {
    n_source_byte += decision.n_source_byte;
    n_byte += decision.n_byte;
    if (decision.form == MORUN_WEIGHTS_CARRIED) continue;
    warn(decision);
    if (worst == nullptr || decision.error > worst->error) worst = &decision;
  }
  const auto n_packed = std::ranges::count_if(decisions, [](const auto& d) { return d.form != MORUN_WEIGHTS_CARRIED; });
  fmt::print("packed {} of {} tensors, {:.1f} MB into {:.1f} MB, in {:.1f} s ({:.0f} MB/s)\n", n_packed,
             decisions.size(), static_cast<double>(n_source_byte) * 1e-6, static_cast<double>(n_byte) * 1e-6, seconds,
             static_cast<double>(n_source_byte) * 1e-6 / std::max(seconds, 1e-9));
  if (worst != nullptr)
    fmt::print("largest relative error {}, of {}\n", error_text(worst->error), escaped(worst->name));
}

}  // namespace

void pack(const PackArguments& arguments) {
  Progress progress;
  const Packer packer = make_packer(arguments, progress);
  if (arguments.dry_run) return print_decisions(decisions_of(packer));
  std::optional<OutputFile> report;
  std::optional<StandardOutputAside> summary_aside;
  if (!arguments.report.empty()) report.emplace(arguments.report);
  if (report && report->target() == output::behind_links(arguments.output))
    throw Error("{}: every result needs a file of its own", arguments.report.native());
  if (arguments.report == "-") summary_aside.emplace();

  const auto start = std::chrono::steady_clock::now();
  {
    const InterruptiblePacking interruptible(packer.get());
    const int32_t status = morun_weights_packer_run(packer.get(), arguments.output.c_str());
    progress.clear();
    require_weights(status);
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const std::vector<morun_weights_decision> decisions = decisions_of(packer);
  if (report) {
    const std::string text = format_report(decisions);
    report->write(text.data(), text.size());
    report->commit();
  }
  print_summary(decisions, seconds);
}

}  // namespace tool

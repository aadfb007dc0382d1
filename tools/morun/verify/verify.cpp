#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>
#include <span>
#include <string>

#include "tools/morun/commands.h"
#include "tools/morun/error.h"
#include "tools/morun/layouts.h"
#include "tools/morun/operands.h"
#include "tools/morun/progress.h"
#include "tools/morun/session_regions.h"
#include "tools/morun/upper.h"
#include "tools/morun/verify/expected.h"
#include "tools/morun/verify/judge.h"

namespace tool {
namespace {

// ---- Cases ---------------------------------------------------------------------------------------------------------

struct Case {
  const Kernel* kernel;
  ProductShape shape;
  Values values;
  std::vector<size_t> sessions;  // the session of each weight matrix
  size_t row_gap = 0;            // for the upper interface: elements between the result's rows
};

struct Extents {
  size_t n_row, n_col, n_inner;
};

constexpr Extents partial_tiles = {33, 64, 96};
constexpr Extents quick_extents[] = {{1, 32, 32}, partial_tiles, {96, 64, 160}};
constexpr Extents more_extents[] = {{2, 4096, 32}, {3, 32, 4096},  {65, 32, 64},
                                    {200, 96, 64}, {96, 160, 224}, {224, 352, 416}};
constexpr Extents test_sizes[] = {{1, 32, 32}, {100, 32, 32}, {4099, 32, 32}};  // rows are bytes
constexpr Extents free_extents = {7, 5, 11};                                    // for kernels that take any extents
constexpr size_t some_gap = 8;

// Q has fewer columns than K and V.
ProductShape shape_of(const Kernel& kernel, const Extents& extents) {
  const size_t n_row = round_up(extents.n_row, kernel.form.row_multiple);
  ProductShape shape = {n_row, extents.n_inner, std::vector<size_t>(kernel.n_weights, extents.n_col)};
  if (kernel.n_weights == 3) shape.n_col[1] = shape.n_col[2] = extents.n_col + 32;
  return shape;
}

std::vector<Extents> extents_of(const Kernel& kernel, bool quick) {
  if (kernel.operands == Operands::bytes) return {std::begin(test_sizes), std::end(test_sizes)};
  std::vector<Extents> list(std::begin(quick_extents), std::end(quick_extents));
  if (kernel.operands == Operands::upper_on_host) list.push_back(free_extents);
  if (!quick) list.insert(list.end(), std::begin(more_extents), std::end(more_extents));
  return list;
}

std::vector<Values> values_of(const Kernel& kernel) {
  if (kernel.operands == Operands::bytes) return {Values::random};
  if (kernel.weights != WeightKind::f16) return {Values::random, Values::extreme};
  return {Values::random, Values::whole, Values::extreme};
}

std::vector<std::vector<size_t>> sessions_of(const Kernel& kernel) {
  if (kernel.is_on_host() || kernel.is_upper()) return {};
  if (kernel.n_weights == 1) return {{1}};
  if (kernel.n_weights == 2) return {{1, 1}, {0, 1}, {1, 0}};
  return {{1, 1, 1}, {0, 1, 1}, {0, 0, 1}, {0, 1, 2}};
}

std::vector<Case> make_cases(const VerifyArguments& arguments) {
  std::vector<Case> cases;
  for (const Kernel* const kernel : kernels_named(arguments.kernel)) {
    const std::vector<size_t> session_0(kernel->n_weights, 0);
    for (const Extents& extents : extents_of(*kernel, arguments.quick)) {
      for (const Values values : values_of(*kernel)) {
        cases.push_back({kernel, shape_of(*kernel, extents), values, session_0});
      }
    }
    if (kernel->form.takes_tensors) {
      cases.push_back({kernel, shape_of(*kernel, partial_tiles), Values::random, session_0, some_gap});
    }
    if (arguments.one_session) continue;
    for (const std::vector<size_t>& sessions : sessions_of(*kernel)) {
      cases.push_back({kernel, shape_of(*kernel, partial_tiles), Values::random, sessions});
    }
  }
  return cases;
}

// ---- What the library defines to differ from the product -----------------------------------------------------------

enum class Outcome { product, earlier_sums, refused };

struct Design {
  std::vector<Outcome> outcomes;  // of each weight matrix
  std::string note;               // empty: the outcome is the product
  const char* refused_call = "";  // a part of the call's text in the error record
};

Design design_of(const Kernel& kernel, const std::vector<size_t>& sessions) {
  Design design = {std::vector<Outcome>(kernel.n_weights, Outcome::product), "", ""};
  if (kernel.operands != Operands::converted) return design;
  if (kernel.n_weights == 1) {
    if (kernel.weights != WeightKind::a8w4 || sessions[0] == 0) return design;
    return {{Outcome::refused}, "it runs on session 0, which does not map the weights", "W_fd, Wq_offset"};
  }
  if (std::count(sessions.begin(), sessions.end(), sessions[0]) == static_cast<ptrdiff_t>(sessions.size())) {
    return design;
  }

  const bool refuses_v = kernel.n_weights == 3 && sessions[2] != sessions[1];
  if (kernel.weights == WeightKind::a8w8) {
    std::fill(design.outcomes.begin() + 1, design.outcomes.end(), Outcome::earlier_sums);
    design.note = kernel.n_weights == 2 ? "F is of earlier sums in A1"
                  : refuses_v           ? "K is of earlier sums in A1, "
                                        : "K and V are of earlier sums in A1 and A2";
  }
  if (refuses_v) {
    design.outcomes[2] = Outcome::refused;
    design.note += "V runs in K's session, which does not map it";
    design.refused_call = "VW_fd";
  }
  return design;
}

// Returns an empty string when the outcome is the product.
std::string upper_note(const Case& c) {
  const UpperForm& form = c.kernel->form;
  std::string note;
  if (form.w_layout == MORUN_LAYOUT_2D_RM && (c.kernel->is_on_host() || c.shape.n_col[0] != c.shape.n_inner)) {
    note = "the weights' data are taken as n_col rows of n_inner";
  }
  if (form.packs_rows && c.row_gap > 0) note += fmt::format("{}Y is packed", note.empty() ? "" : ", ");
  return note;
}

// ---- Judgement -----------------------------------------------------------------------------------------------------

struct Finding {
  Judge judge;
  std::string by_design, left_out;  // what differs by design, and what was left out and why; empty: nothing
  double milliseconds = 0;
};

// Returns the status of the call, and adds its time to the finding.
uint32_t run_timed(const Kernel& kernel, const Call& call, Finding& finding) {
  const auto start = std::chrono::steady_clock::now();
  const uint32_t status = kernel.run(call);
  finding.milliseconds = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  return status;
}

std::string error_text(uint32_t status) {
  return fmt::format("status {}: {}", status, tavik_error_get_last()->message);
}

void judge_test(const Case& c, Region& region, tavik_context* context, Finding& finding) {
  constexpr size_t n_behind = 256;  // bytes behind a result that must not change
  const size_t n_byte = c.shape.n_row;
  region.clear();
  auto* const bytes = region.at<uint8_t>(region.take(n_byte + n_behind));
  const auto pattern = [](size_t i) { return static_cast<uint8_t>(i * 151 + i / 256); };
  for (size_t i = 0; i < n_byte + n_behind; ++i) bytes[i] = pattern(i);

  Call call;
  call.context = context;
  call.n_row = static_cast<int32_t>(n_byte);
  call.products[0].weights.fd = region.fd();
  const uint32_t status = run_timed(*c.kernel, call, finding);
  if (status != TAVIK_SUCCESS) return finding.judge.fail(error_text(status));
  for (size_t i = 0; i < n_byte + n_behind; ++i) {
    const double expected = (pattern(i) + (i < n_byte ? 1 : 0)) % 256;
    finding.judge.judge({expected, 0}, bytes[i], [i] { return fmt::format("byte {}", i); });
  }
}

std::string result_name(const Kernel& kernel, size_t i) {
  constexpr const char* names[][3] = {{"Y"}, {"U", "F"}, {"Q", "K", "V"}};
  return names[kernel.n_weights - 1][i];
}

void judge_untouched(const PreparedCall& prepared, const Case& c, size_t i, Judge& judge) {
  for (size_t r = 0; r < c.shape.n_row; ++r) {
    for (size_t col = 0; col < c.shape.n_col[i]; ++col) {
      if (prepared.result(i, r, col) == double{PreparedCall::untouched}) continue;
      return judge.fail(result_name(*c.kernel, i) + " is written by a call that is refused");
    }
  }
}

template <typename Prepared>
void judge_elements(const Prepared& prepared, const Case& c, size_t i, const std::vector<Expected>& elements,
                    Judge& judge) {
  const size_t n_col = c.shape.n_col[i];
  for (size_t index = 0; index < elements.size(); ++index) {
    const size_t r = index / n_col;
    const size_t col = index % n_col;
    judge.judge(elements[index], prepared.result(i, r, col),
                [&] { return fmt::format("{}({}, {})", result_name(*c.kernel, i), r, col); });
  }
  judge.require_telling_values();
}

void judge_status(uint32_t status, const Design& design, Judge& judge) {
  if (*design.refused_call == '\0') {
    if (status != TAVIK_SUCCESS) judge.fail(error_text(status));
    return;
  }
  const std::string message = tavik_error_get_last()->message;
  if (status == TAVIK_SUCCESS) judge.fail("the call succeeds, although " + design.note);
  if (status != TAVIK_SUCCESS && message.find(design.refused_call) == std::string::npos) judge.fail(error_text(status));
}

// Kernels activate the session of their weights and lock the matrix unit for it, so they find it unlocked. The single
// a8w4 product runs on session 0 without looking up a session, so session 0 must be active and must hold the lock.
void prepare_device(const Kernel& kernel, tavik_context* context, SessionRegions& regions) {
  if (kernel.operands != Operands::converted || kernel.weights != WeightKind::a8w4 || kernel.n_weights != 1) {
    const int32_t status = tavik_unlock_compute_device(context);
    if (status != TAVIK_SUCCESS) throw Error("the matrix unit cannot be unlocked: status {}", status);
    return;
  }
  uint64_t handle = 0;
  require(tavik_context_get_handle_from_fd(context, static_cast<int32_t>(regions.region(0, 0).fd()), &handle),
          "session 0 cannot be made active");
  lock_matrix_unit(context);
}

void judge_product(const Case& c, uint64_t seed, tavik_context* context, SessionRegions& regions, Finding& finding) {
  std::vector<Region*> places;
  for (size_t i = 0; i < c.sessions.size(); ++i) places.push_back(&regions.region(c.sessions[i], i));
  const OperandSet operands = make_operands(*c.kernel, c.shape, c.values, seed);
  const PreparedCall prepared(context, *c.kernel, operands, places);
  prepare_device(*c.kernel, context, regions);
  const uint32_t status = run_timed(*c.kernel, prepared.call(), finding);

  const Design design = design_of(*c.kernel, c.sessions);
  judge_status(status, design, finding.judge);
  if (!finding.judge.failure().empty()) return;
  for (size_t i = 0; i < operands.weights.size(); ++i) {
    switch (design.outcomes[i]) {
      case Outcome::refused:
        judge_untouched(prepared, c, i, finding.judge);
        break;
      case Outcome::earlier_sums:
        judge_elements(prepared, c, i, expected_of_earlier_sums(operands, i), finding.judge);
        break;
      case Outcome::product:
        judge_elements(prepared, c, i, expected_product(*c.kernel, operands, i), finding.judge);
        break;
    }
  }
  finding.by_design = design.note;
}

void judge_upper(const Case& c, uint64_t seed, Finding& finding) {
  const OperandSet operands = make_operands(*c.kernel, c.shape, c.values, seed);
  const UpperCall prepared(*c.kernel, operands, c.row_gap);
  const uint32_t status = run_timed(*c.kernel, prepared.call(), finding);
  if (status != MORUN_SUCCESS) return finding.judge.fail(fmt::format("status {}, see standard error", status));
  judge_elements(prepared, c, 0, expected_product(*c.kernel, operands, 0), finding.judge);
  if (!prepared.leaves_the_rest()) finding.judge.fail("memory around Y's elements is written");
  finding.by_design = upper_note(c);
}

void judge_lower(const Case& c, uint64_t seed, tavik_context* context, SessionRegions& regions, Finding& finding) {
  if (*std::max_element(c.sessions.begin(), c.sessions.end()) >= regions.n_session()) {
    finding.left_out = "no further session: " + regions.shortage();
  } else if (c.kernel->operands == Operands::bytes) {
    judge_test(c, regions.region(c.sessions[0], 0), context, finding);
  } else {
    judge_product(c, seed, context, regions, finding);
  }
}

// ---- Report --------------------------------------------------------------------------------------------------------

constexpr char row_format[] = "{:<42} {:<15} {:<8} {:<8} {:>9} {:>9} {:>9}  {}\n";

std::string shape_text(const Case& c) {
  if (c.kernel->operands == Operands::bytes) return fmt::format("{} bytes", c.shape.n_row);
  std::string columns = fmt::format("{}", c.shape.n_col[0]);
  if (c.shape.n_col.back() != c.shape.n_col[0]) columns += fmt::format("/{}", c.shape.n_col.back());
  if (c.row_gap > 0) columns += fmt::format("+{}", c.row_gap);
  return fmt::format("{}x{}x{}", c.shape.n_row, columns, c.shape.n_inner);
}

std::string sessions_text(const Case& c) {
  if (c.kernel->is_on_host()) return "host";
  return c.kernel->is_upper() ? "-" : fmt::format("{}", fmt::join(c.sessions, " "));
}

void print_row(const Case& c, const Finding& finding, const std::string& verdict) {
  constexpr const char* values[] = {"random", "whole", "extreme"};
  std::string deviation, bound;
  if (finding.judge.has_elements()) {
    deviation = fmt::format("{:.2g}", finding.judge.deviation());
    bound = fmt::format("{:.2g}", finding.judge.bound());
  }
  fmt::print(row_format, c.kernel->name, shape_text(c), values[static_cast<size_t>(c.values)], sessions_text(c),
             deviation, bound, fmt::format("{:.3f}", finding.milliseconds), verdict);
  std::fflush(stdout);
}

// Runs one case after the other and prints the findings.
class Report {
 public:
  explicit Report(size_t n_case) : n_case_(n_case) {
    fmt::print(row_format, "kernel", "shape", "values", "sessions", "deviation", "bound", "ms", "verdict");
  }

  // `judge` is called with the case, its number and a Finding.
  template <typename Judging>
  void examine(std::span<const Case> cases, const Judging& judge) {
    for (const Case& c : cases) {
      progress_.show(n_done_, n_case_, "calls");
      Finding finding;
      try {
        judge(c, n_done_, finding);
      } catch (const Error& error) {
        finding.judge.fail(error.what());
      }
      progress_.clear();
      print_row(c, finding, verdict_of(finding));
      ++n_done_;
    }
  }

  void conclude() const {
    fmt::print("{} calls: {} good, {} by design, {} failed, {} left out\n", n_done_, n_good_, n_by_design_, n_failed_,
               n_left_out_);
    if (n_failed_ > 0) throw Error("{} of {} calls failed", n_failed_, n_done_);
  }

 private:
  std::string verdict_of(const Finding& finding) {
    const std::string failure = finding.judge.failure();
    if (!failure.empty()) return ++n_failed_, "FAILED: " + failure;
    if (!finding.left_out.empty()) return ++n_left_out_, "left out: " + finding.left_out;
    if (!finding.by_design.empty()) return ++n_by_design_, "by design: " + finding.by_design;
    return ++n_good_, "good";
  }

  Progress progress_;
  size_t n_case_;
  size_t n_done_ = 0, n_good_ = 0, n_by_design_ = 0, n_failed_ = 0, n_left_out_ = 0;
};

// Limits and a region size that suffice for all cases.
struct Room {
  explicit Room(std::span<const Case> cases) : options(default_options()) {
    options.n_row_max = options.input_matrix_size_max = options.output_matrix_size_max = 0;
    for (const Case& c : cases) {
      const tavik_options needed = options_for(c.shape);
      options.n_row_max = std::max(options.n_row_max, needed.n_row_max);
      options.input_matrix_size_max = std::max(options.input_matrix_size_max, needed.input_matrix_size_max);
      options.output_matrix_size_max = std::max(options.output_matrix_size_max, needed.output_matrix_size_max);
      region_bytes = std::max(region_bytes, tool::region_bytes(c.shape));
    }
  }
  tavik_options options;
  uint64_t region_bytes = 0;
};

void verify_lower(std::span<const Case> cases, uint64_t seed, Report& report) {
  if (cases.empty()) return;
  const Room room(cases);
  size_t n_session = 1;
  for (const Case& c : cases) {
    n_session = std::max(n_session, *std::max_element(c.sessions.begin(), c.sessions.end()) + 1);
  }
  const Context context = open_context(room.options);
  SessionRegions regions(context.get(), room.region_bytes, n_session);
  report.examine(cases, [&](const Case& c, size_t i, Finding& finding) {
    judge_lower(c, seed + i, context.get(), regions, finding);
  });
}

void verify_upper(std::span<const Case> cases, uint64_t seed, Report& report) {
  if (cases.empty()) return;
  std::optional<UpperInterface> upper;
  std::string problem;
  try {
    upper.emplace();
  } catch (const Error& error) {
    problem = error.what();
  }
  report.examine(cases, [&](const Case& c, size_t i, Finding& finding) {
    if (!problem.empty()) return finding.judge.fail(problem);
    judge_upper(c, seed + i, finding);
  });
}

}  // namespace

// Examines one interface after the other, because a device's DSP may lack room for both at once.
void verify(const VerifyArguments& arguments) {
  const std::vector<Case> cases = make_cases(arguments);
  const auto upper = std::ranges::find_if(cases, [](const Case& c) { return c.kernel->is_upper(); });
  Report report(cases.size());
  verify_lower({cases.begin(), upper}, arguments.seed, report);
  verify_upper({upper, cases.end()}, arguments.seed, report);
  report.conclude();
}

}  // namespace tool

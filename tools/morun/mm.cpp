#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "tools/morun/commands.h"
#include "tools/morun/error.h"
#include "tools/morun/exact.h"
#include "tools/morun/files/npy.h"
#include "tools/morun/files/output_file.h"
#include "tools/morun/files/packed_file.h"
#include "tools/morun/operand_check.h"
#include "tools/morun/product.h"
#include "tools/morun/progress.h"
#include "tools/morun/standard_streams.h"

namespace tool {
namespace {

struct Timing {
  double best = 0;  // seconds
  double mean = 0;
};

template <typename Work>
Timing time_repeated(uint32_t n_repeat, const Work& work) {
  using Clock = std::chrono::steady_clock;
  Timing timing;
  for (uint32_t i = 0; i < n_repeat; ++i) {
    const auto start = Clock::now();
    work();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    timing.best = i == 0 ? seconds : std::min(timing.best, seconds);
    timing.mean += seconds / n_repeat;
  }
  return timing;
}

// The kernels of several products require equal numbers of columns: of U and F, and of K and V.
void require_equal_columns(const std::vector<WeightFile>& w) {
  if (w.size() < 2 || w.back().n_col() == w[w.size() - 2].n_col()) return;
  const WeightFile& other = w[w.size() - 2];
  throw Error("{} has {} columns and {} has {}; the numbers must be equal", other.name(), other.n_col(),
              w.back().name(), w.back().n_col());
}

ProductShape shape_of(const NpyFile& x, const std::vector<WeightFile>& w) {
  ProductShape shape = {x.n_row(), x.n_col(), {}};
  for (const WeightFile& file : w) {
    if (x.n_col() != file.n_row()) {
      throw Error("{} has {} columns and {} has {} rows; the numbers must be equal", x.path().native(), x.n_col(),
                  file.name(), file.n_row());
    }
    shape.n_col.push_back(file.n_col());
  }
  require_equal_columns(w);
  return shape;
}

void require_different_files(const std::vector<OutputFile>& files) {
  std::set<std::filesystem::path> targets;
  for (const OutputFile& file : files) {
    if (!targets.insert(file.target()).second) {
      throw Error("{}: every result needs a file of its own", file.name().native());
    }
  }
}

WeightKind kind_of_form(int32_t form) {
  return form == MORUN_WEIGHTS_A8W8   ? WeightKind::a8w8
         : form == MORUN_WEIGHTS_A8W4 ? WeightKind::a8w4
                                      : WeightKind::f16;
}

// The form in which the NPU gets the weights: that of packed weights, and otherwise the one of the command line.
WeightKind kind_of(const std::vector<WeightFile>& w, const std::optional<WeightKind>& wanted) {
  std::optional<WeightKind> kind = wanted;
  for (const WeightFile& file : w) {
    if (!file.is_packed()) continue;
    const WeightKind packed = kind_of_form(file.tensor().form);
    if (kind && *kind != packed)
      throw Error("{} is packed in another form than the other weights or --weights", file.name());
    kind = packed;
  }
  return kind.value_or(WeightKind::f16);
}

// Reads the activation into rows of padded length.
Matrix read_activation(const NpyFile& file, const ProductPlan& plan, Progress& progress) {
  Matrix x(file.n_row(), file.n_col(), plan.n_inner);
  OperandCheck check(file, plan.kernel->weights == WeightKind::f16);
  constexpr size_t n_value_at_a_time = 1 << 20;
  const size_t n_row_at_a_time = std::max(n_value_at_a_time / plan.n_inner, size_t{1});
  for (size_t first = 0; first < x.n_row; first += n_row_at_a_time) {
    progress.show(first, x.n_row, "rows of the activation read");
    const size_t n_row = std::min(n_row_at_a_time, x.n_row - first);
    file.read({first, n_row, 0, x.n_col}, x.row(first), x.row_stride);
    check.add(x.row(first), n_row * x.row_stride);
  }
  progress.clear();
  fmt::print(stderr, "{}", check.warnings());
  return x;
}

// Checks weights and shows progress while the weights are read.
class WeightReading {
 public:
  WeightReading(const std::vector<WeightFile>& files, const ProductPlan& plan, Progress& progress)
      : progress_(progress) {
    for (size_t i = 0; i < files.size(); ++i) {
      if (files[i].is_packed()) continue;
      checks_.emplace(i, OperandCheck(files[i].npy(), true));
      n_value_ += plan.n_inner * plan.n_col[i];
    }
  }

  void observe(size_t i, const std::vector<float>& values) {
    checks_.at(i).add(values.data(), values.size());
    n_done_ += values.size();
    progress_.show(n_done_, n_value_, "weights read");
  }

  void conclude() const {
    progress_.clear();
    for (const auto& [i, check] : checks_) fmt::print(stderr, "{}", check.warnings());
  }

 private:
  Progress& progress_;
  std::map<size_t, OperandCheck> checks_;  // of files that are not packed
  size_t n_value_ = 0, n_done_ = 0;
};

void print_timing(const ProductShape& shape, const ProductPlan& plan, const Timing& timing, uint32_t n_repeat) {
  double n_flop = 0;
  for (const size_t n_col : shape.n_col) {
    fmt::print("shape  {0} x {1} = ({0} x {2}) * ({2} x {1}), {3} {4}\n", shape.n_row, n_col, shape.n_inner,
               plan.n_band(), plan.n_band() == 1 ? "band" : "bands");
    n_flop += 2.0 * static_cast<double>(shape.n_row) * static_cast<double>(shape.n_inner) * static_cast<double>(n_col);
  }
  fmt::print("time   best {:.3f} ms, mean {:.3f} ms of {}\n", timing.best * 1e3, timing.mean * 1e3, n_repeat);
  fmt::print("speed  {:.2f} {}/s\n", n_flop / timing.best * 1e-9, plan.kernel->is_quantised() ? "GOP" : "GFLOP");
}

// `label` is empty, or names one of several results.
void print_deviation(const std::string& label, const Deviation& deviation) {
  fmt::print("check  {}largest deviation {:.3g} absolute, {:.3g} relative to the largest value {:.4g}\n", label,
             deviation.largest_error, deviation.relative(), deviation.largest_exact);
  fmt::print("       relative Frobenius error {:.3g}\n", deviation.relative_frobenius());
  if (deviation.n_left_out > 0) fmt::print("       {} elements are not finite and left out\n", deviation.n_left_out);
}

}  // namespace

// The files of results hold no padding.
void mm(const MmArguments& arguments) {
  const NpyFile x_file(arguments.x);
  const std::vector<WeightFile> w_files(arguments.w.begin(), arguments.w.end());
  const ProductShape shape = shape_of(x_file, w_files);
  const ProductPlan plan = plan_product(kind_of(w_files, arguments.weights), shape);
  std::vector<OutputFile> outputs(arguments.y.begin(), arguments.y.end());
  require_different_files(outputs);
  std::optional<StandardOutputAside> report_aside;
  if (std::ranges::count(arguments.y, "-") > 0) report_aside.emplace();

  const Context context = open_context(plan.options);
  Progress progress;
  const Matrix x = read_activation(x_file, plan, progress);
  WeightReading reading(w_files, plan, progress);
  const Weights weights(context.get(), plan, w_files,
                        [&](size_t i, const std::vector<float>& values) { reading.observe(i, values); });
  reading.conclude();
  std::vector<Matrix> y;
  for (size_t i = 0; i < plan.n_col.size(); ++i) y.emplace_back(shape.n_row, shape.n_col[i], plan.n_col[i]);

  lock_matrix_unit(context.get());
  size_t n_row_before = 0;  // before this repetition
  const size_t n_row = plan.n_row * arguments.n_repeat;
  progress.show(0, n_row, "rows multiplied");
  const Timing timing = time_repeated(arguments.n_repeat, [&] {
    multiply(context.get(), plan, x, weights, y,
             [&](size_t n_row_done) { progress.show(n_row_before + n_row_done, n_row, "rows multiplied"); });
    n_row_before += plan.n_row;
  });
  progress.clear();

  for (size_t i = 0; i < y.size(); ++i) {
    write_npy([&](const void* bytes, size_t n_byte) { outputs[i].write(bytes, n_byte); }, y[i]);
    outputs[i].commit();
  }
  print_timing(shape, plan, timing, arguments.n_repeat);
  if (!arguments.check) return;
  double largest_error = 0;
  for (size_t i = 0; i < y.size(); ++i) {
    const Deviation deviation = deviation_from_exact(
        x, w_files[i], y[i], [&](size_t n_done, size_t n) { progress.show(n_done, n, "pieces compared"); });
    progress.clear();
    print_deviation(y.size() == 1 ? "" : arguments.y[i].native() + ": ", deviation);
    largest_error = std::max(largest_error, deviation.relative_frobenius());
  }
  if (arguments.max_error && !(largest_error <= *arguments.max_error))
    throw Error("the relative Frobenius error is {:.3g}, above {:.3g}", largest_error, *arguments.max_error);
}

}  // namespace tool

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "tools/morun/commands.h"
#include "tools/morun/error.h"
#include "tools/morun/exact.h"
#include "tools/morun/npy.h"
#include "tools/morun/output_file.h"
#include "tools/morun/product.h"
#include "tools/morun/progress.h"

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

// What the kernels of several products take: U and F alike, K and V alike.
void require_equal_columns(const std::vector<NpyFile>& w) {
  if (w.size() < 2 || w.back().n_col() == w[w.size() - 2].n_col()) return;
  const NpyFile& other = w[w.size() - 2];
  throw Error("{} has {} columns and {} has {}; the numbers must be equal", other.path().native(), other.n_col(),
              w.back().path().native(), w.back().n_col());
}

ProductShape shape_of(const NpyFile& x, const std::vector<NpyFile>& w) {
  ProductShape shape = {x.n_row(), x.n_col(), {}};
  for (const NpyFile& file : w) {
    if (x.n_col() != file.n_row()) {
      throw Error("{} has {} columns and {} has {} rows; the numbers must be equal", x.path().native(), x.n_col(),
                  file.path().native(), file.n_row());
    }
    shape.n_col.push_back(file.n_col());
  }
  require_equal_columns(w);
  return shape;
}

void require_different_files(std::vector<std::filesystem::path> files) {
  std::sort(files.begin(), files.end());
  const auto twice = std::adjacent_find(files.begin(), files.end());
  if (twice != files.end()) throw Error("{}: every result needs a file of its own", twice->native());
}

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

// `label` is empty, or the name of one result of several.
void print_deviation(const std::string& label, const Deviation& deviation) {
  fmt::print("check  {}largest deviation {:.3g} absolute, {:.3g} relative to the largest value {:.4g}\n", label,
             deviation.largest_error, deviation.relative(), deviation.largest_exact);
  fmt::print("       relative Frobenius error {:.3g}\n", deviation.relative_frobenius());
  if (deviation.n_left_out > 0) fmt::print("       {} elements are not finite and left out\n", deviation.n_left_out);
}

}  // namespace

void mm(const MmArguments& arguments) {
  require_different_files(arguments.y);
  NpyFile x_file(arguments.x);
  std::vector<NpyFile> w_files(arguments.w.begin(), arguments.w.end());
  const ProductShape shape = shape_of(x_file, w_files);
  const ProductPlan plan = plan_product(arguments.weights, shape);
  const std::vector<OutputFile> outputs(arguments.y.begin(), arguments.y.end());

  const Context context = open_context(plan.options);
  std::vector<Matrix> w;
  for (NpyFile& file : w_files) w.push_back(file.read());
  const Weights weights(context.get(), plan, w);
  const Matrix x = with_columns(x_file.read(), plan.n_inner);
  std::vector<Matrix> y;
  for (const size_t n_col : plan.n_col) y.emplace_back(plan.n_row, n_col);

  lock_matrix_unit(context.get());
  const Timing timing = time_repeated(arguments.n_repeat, [&] {
    const Progress progress(plan.n_band() > 1);
    multiply(context.get(), plan, x, weights, y,
             [&](size_t n_row_done) { progress.show(n_row_done, plan.n_row, "rows"); });
  });

  for (size_t i = 0; i < y.size(); ++i) {
    y[i] = with_columns(std::move(y[i]), shape.n_col[i]);
    outputs[i].write([&](std::ostream& stream) { write_npy(stream, y[i], NpyType::f32); });
  }
  print_timing(shape, plan, timing, arguments.n_repeat);
  if (!arguments.check) return;
  for (size_t i = 0; i < y.size(); ++i) {
    const std::string label = y.size() == 1 ? "" : arguments.y[i].native() + ": ";
    print_deviation(label, deviation_from_exact(x, w[i], y[i]));
  }
}

}  // namespace tool

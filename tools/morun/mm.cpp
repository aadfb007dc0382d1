#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "tools/morun/commands.h"
#include "tools/morun/error.h"
#include "tools/morun/exact.h"
#include "tools/morun/npy.h"
#include "tools/morun/output_file.h"
#include "tools/morun/product.h"

namespace tool {
namespace {

// One line on the terminal that is written over, and gone at the end; nothing where standard error is no terminal.
class Progress {
 public:
  explicit Progress(bool wanted) : shown_(wanted && isatty(STDERR_FILENO) != 0) {}
  ~Progress() {
    if (shown_) fmt::print(stderr, "\r\x1b[K");
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void show(size_t n_row_done, size_t n_row) const {
    if (shown_) fmt::print(stderr, "\r\x1b[K{} of {} rows", n_row_done, n_row);
  }

 private:
  bool shown_;
};

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

void print_timing(const ProductShape& shape, const ProductPlan& plan, const Timing& timing, uint32_t n_repeat) {
  const double n_flop =
      2.0 * static_cast<double>(shape.n_row) * static_cast<double>(shape.n_inner) * static_cast<double>(shape.n_col);
  fmt::print("shape  {0} x {1} = ({0} x {2}) * ({2} x {1}), {3} {4}\n", shape.n_row, shape.n_col, shape.n_inner,
             plan.n_band(), plan.n_band() == 1 ? "band" : "bands");
  fmt::print("time   best {:.3f} ms, mean {:.3f} ms of {}\n", timing.best * 1e3, timing.mean * 1e3, n_repeat);
  fmt::print("speed  {:.2f} GFLOP/s\n", n_flop / timing.best * 1e-9);
}

void print_deviation(const Deviation& deviation) {
  fmt::print("check  largest deviation {:.3g} absolute, {:.3g} relative to the largest value {:.4g}\n",
             deviation.largest_error, deviation.relative(), deviation.largest_exact);
  if (deviation.n_left_out > 0) fmt::print("       {} elements are not finite and left out\n", deviation.n_left_out);
}

}  // namespace

void mm(const MmArguments& arguments) {
  NpyFile x_file(arguments.x);
  NpyFile w_file(arguments.w);
  if (x_file.n_col() != w_file.n_row()) {
    throw Error("{} has {} columns and {} has {} rows; the numbers must be equal", x_file.path().native(),
                x_file.n_col(), w_file.path().native(), w_file.n_row());
  }
  const ProductShape shape = {x_file.n_row(), x_file.n_col(), w_file.n_col()};
  const ProductPlan plan = plan_product(shape);
  const OutputFile output(arguments.y);

  const Context context = open_context(plan.options);
  const Matrix w = w_file.read();
  const F16Weights weights(context.get(), plan, w);
  const Matrix x = with_columns(x_file.read(), plan.n_inner);
  Matrix y(plan.n_row, plan.n_col);
  const Timing timing = time_repeated(arguments.n_repeat, [&] {
    const Progress progress(plan.n_band() > 1);
    multiply(context.get(), plan, x, weights, y, [&](size_t n_row_done) { progress.show(n_row_done, plan.n_row); });
  });

  y = with_columns(std::move(y), shape.n_col);
  output.write([&](std::ostream& stream) { write_npy(stream, y, NpyType::f32); });
  print_timing(shape, plan, timing, arguments.n_repeat);
  if (arguments.check) print_deviation(deviation_from_exact(x, w, y));
}

}  // namespace tool

#include "weights/calibration.h"

#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>
#include <memory>
#include <numeric>

#include "weights/error.h"

namespace weights {
namespace {

constexpr uint64_t largest_n_inner = 65536;

void require_finite(const morun_weights_calibration& calibration, uint64_t n_row, const float* activation,
                    uint64_t row_stride) {
  for (uint64_t r = 0; r < n_row; ++r) {
    const float* const row = activation + r * row_stride;
    const float* const end = row + calibration.n_inner;
    const float* const found = std::find_if(row, end, [](float value) { return !std::isfinite(value); });
    if (found != end)
      throw Error(MORUN_WEIGHTS_ACTIVATION_VALUE, "the activation is not finite at row %ju, column %ju", uintmax_t{r},
                  static_cast<uintmax_t>(found - row));
  }
}

void add(morun_weights_calibration& calibration, uint64_t n_row, const float* activation, uint64_t row_stride) {
  constexpr uint64_t rows_at_a_time = 64;
  const auto n_inner = static_cast<Eigen::Index>(calibration.n_inner);
  for (uint64_t first = 0; first < n_row; first += rows_at_a_time) {
    const uint64_t n = std::min(rows_at_a_time, n_row - first);
    Eigen::MatrixXd columns(n_inner, static_cast<Eigen::Index>(n));
    for (uint64_t r = 0; r < n; ++r)
      columns.col(static_cast<Eigen::Index>(r)) =
          Eigen::Map<const Eigen::VectorXf>(activation + (first + r) * row_stride, n_inner).cast<double>();
    calibration.covariance.selfadjointView<Eigen::Lower>().rankUpdate(columns);
  }
}

std::vector<uint32_t> order_of_variance(const Eigen::MatrixXd& covariance) {
  std::vector<uint32_t> order(static_cast<size_t>(covariance.rows()));
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(),
                   [&](uint32_t a, uint32_t b) { return covariance(a, a) < covariance(b, b); });
  return order;
}

void finish(morun_weights_calibration& calibration, double damping) {
  Eigen::MatrixXd& covariance = calibration.covariance;
  const double mean = covariance.diagonal().mean();
  if (!(mean > 0)) throw Error(MORUN_WEIGHTS_ACTIVATION_VALUE, "the activation holds zeros alone");
  const std::vector<uint32_t> order = order_of_variance(covariance);

  const Eigen::Index n = covariance.rows();
  Eigen::MatrixXd damped(n, n);  // the lower triangle
  for (Eigen::Index j = 0; j < n; ++j) {
    for (Eigen::Index i = j; i < n; ++i) {
      const auto [low, high] = std::minmax(order[static_cast<size_t>(i)], order[static_cast<size_t>(j)]);
      damped(i, j) = covariance(high, low);
    }
    damped(j, j) += damping * mean;
  }
  // With L L^T = C the inverse of C is F F^T, F being the inverse of L^T.
  const Eigen::LLT<Eigen::Ref<Eigen::MatrixXd>> cholesky(damped);
  if (cholesky.info() != Eigen::Success || !(damped.diagonal().minCoeff() > 0))
    throw Error(MORUN_WEIGHTS_COVARIANCE, "the covariance damped by %g has no Cholesky factor; a larger damping helps",
                damping);
  Eigen::MatrixXd factor = Eigen::MatrixXd::Identity(n, n);
  damped.triangularView<Eigen::Lower>().adjoint().solveInPlace(factor);
  if (!factor.allFinite())
    throw Error(MORUN_WEIGHTS_COVARIANCE, "the covariance damped by %g has no finite inverse; a larger damping helps",
                damping);

  for (Eigen::Index j = 0; j < n; ++j)
    for (Eigen::Index i = 0; i < j; ++i) covariance(i, j) = covariance(j, i);
  calibration.order = order;
  calibration.factor = std::move(factor);
  calibration.is_finished = true;
}

}  // namespace

double product_squares(const morun_weights_calibration& calibration, const Eigen::MatrixXd& columns) {
  const Eigen::MatrixXd products = calibration.covariance * columns;
  const double sum = products.cwiseProduct(columns).sum();
  return std::isnan(sum) ? HUGE_VAL : std::max(0.0, sum);
}

}  // namespace weights

int32_t morun_weights_calibration_create(uint64_t n_inner, morun_weights_calibration** calibration) {
  return weights::guarded([&] {
    weights::require_not_null(calibration, "calibration");
    weights::require_argument(n_inner >= 1 && n_inner <= weights::largest_n_inner, "n_inner is not within 1 to 65536");
    auto made = std::make_unique<morun_weights_calibration>(n_inner);
    const auto n = static_cast<Eigen::Index>(n_inner);
    made->covariance = Eigen::MatrixXd::Zero(n, n);
    *calibration = made.release();
  });
}

int32_t morun_weights_calibration_add(morun_weights_calibration* calibration, uint64_t n_row, const float* activation,
                                      uint64_t row_stride) {
  return weights::guarded([&] {
    weights::require_not_null(calibration, "calibration");
    weights::require_not_null(activation, "activation");
    weights::require_argument(!calibration->is_finished, "the calibration is finished");
    weights::require_argument(row_stride >= calibration->n_inner, "row_stride is below n_inner");
    weights::require_finite(*calibration, n_row, activation, row_stride);
    weights::add(*calibration, n_row, activation, row_stride);
  });
}

int32_t morun_weights_calibration_finish(morun_weights_calibration* calibration, double damping) {
  return weights::guarded([&] {
    weights::require_not_null(calibration, "calibration");
    weights::require_argument(!calibration->is_finished, "the calibration is finished");
    weights::require_argument(damping >= 0 && damping <= 1, "damping is not within 0 to 1");
    weights::finish(*calibration, damping);
  });
}

void morun_weights_calibration_free(morun_weights_calibration* calibration) {
  delete calibration;
}

// The covariance of a layer's activations and the factor of its inverse.
#pragma once

#include <Eigen/Core>
#include <cstdint>
#include <vector>

#include "include/morun_weights.h"

struct morun_weights_calibration {
  explicit morun_weights_calibration(uint64_t n) : n_inner(n) {}

  uint64_t n_inner;
  bool is_finished = false;
  Eigen::MatrixXd covariance;  // sum over the rows of x^T x, without damping; the lower triangle until it is finished
  // Finished: the inner indices in the order of rising variance, which is the order from the last row to quantise to
  // the first; and upper triangular F with F F^T = the inverse of the damped covariance in this order.
  std::vector<uint32_t> order;
  Eigen::MatrixXd factor;
};

namespace weights {

// The sum of the squares of X times columns of n_inner values.
double product_squares(const morun_weights_calibration& calibration, const Eigen::MatrixXd& columns);

}  // namespace weights

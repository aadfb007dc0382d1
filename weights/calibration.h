// The covariance of a layer's activations and the factor of its inverse.
#pragma once

#include <Eigen/Core>
#include <cstdint>

#include "include/morun_weights.h"

struct morun_weights_calibration {
  explicit morun_weights_calibration(uint64_t n) : n_inner(n) {}

  uint64_t n_inner;
  bool is_finished = false;
  Eigen::MatrixXd covariance;  // sum over the rows of x^T x, without damping
  Eigen::MatrixXd factor;      // finished: upper Cholesky factor of the inverse of the damped covariance
};

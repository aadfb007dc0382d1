#include "bench/yardsticks.h"

#include <cblas.h>
#include <fmt/format.h>

#include <cstring>
#include <memory>

#include "bench/memory.h"

namespace bench {
namespace {

std::shared_ptr<float> filled_floats(size_t count) {
  const auto memory = filled_memory(count * sizeof(float));
  return {memory, reinterpret_cast<float*>(memory.get())};
}

}  // namespace

Yardstick memcpy_yardstick(size_t n_byte_moved) {
  const size_t n_byte = n_byte_moved / 2;
  return {"memcpy", [n_byte, source = filled_memory(n_byte), target = filled_memory(n_byte)] {
            std::memcpy(target.get(), source.get(), n_byte);
          }};
}

Yardstick sgemm_nn_yardstick(size_t n_row, size_t n_col, size_t n_inner) {
  openblas_set_num_threads(1);
  const auto m = static_cast<blasint>(n_row), n = static_cast<blasint>(n_col), k = static_cast<blasint>(n_inner);
  return {"sgemm NN", [m, n, k, X = filled_floats(n_row * n_inner), W = filled_floats(n_inner * n_col),
                       A = filled_floats(n_row * n_col)] {
            cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, m, n, k, 1, X.get(), k, W.get(), n, 0, A.get(), n);
          }};
}

std::string openblas_description() {
  return fmt::format("OpenBLAS on one thread, core type {}", openblas_get_corename());
}

}  // namespace bench

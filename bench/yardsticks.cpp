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

Yardstick sgemm_yardstick(const char* name, CBLAS_TRANSPOSE transposed, size_t n_row, size_t n_col, size_t n_inner) {
  openblas_set_num_threads(1);
  const auto m = static_cast<blasint>(n_row), n = static_cast<blasint>(n_col), k = static_cast<blasint>(n_inner);
  return {name, [transposed, m, n, k, X = filled_floats(n_row * n_inner), W = filled_floats(n_inner * n_col),
                 A = filled_floats(n_row * n_col)] {
            cblas_sgemm(CblasRowMajor, CblasNoTrans, transposed, m, n, k, 1, X.get(), k, W.get(),
                        transposed == CblasTrans ? k : n, 0, A.get(), n);
          }};
}

}  // namespace

Yardstick memcpy_yardstick(size_t n_byte_moved) {
  const size_t n_byte = n_byte_moved / 2;
  return {"memcpy", [n_byte, source = filled_memory(n_byte), target = filled_memory(n_byte)] {
            std::memcpy(target.get(), source.get(), n_byte);
          }};
}

Yardstick sgemm_nn_yardstick(size_t n_row, size_t n_col, size_t n_inner) {
  return sgemm_yardstick("sgemm NN", CblasNoTrans, n_row, n_col, n_inner);
}

Yardstick sgemm_nt_yardstick(size_t n_row, size_t n_col, size_t n_inner) {
  return sgemm_yardstick("sgemm NT", CblasTrans, n_row, n_col, n_inner);
}

Yardstick sgemv_yardstick(size_t n_row, size_t n_col) {
  openblas_set_num_threads(1);
  const auto m = static_cast<blasint>(n_row), n = static_cast<blasint>(n_col);
  return {"sgemv", [m, n, W = filled_floats(n_row * n_col), x = filled_floats(n_col), y = filled_floats(n_row)] {
            cblas_sgemv(CblasRowMajor, CblasNoTrans, m, n, 1, W.get(), n, x.get(), 1, 0, y.get(), 1);
          }};
}

std::string openblas_description() {
  return fmt::format("OpenBLAS on one thread, core type {}", openblas_get_corename());
}

}  // namespace bench

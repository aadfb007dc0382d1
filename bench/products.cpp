// Products on the software matrix unit, matrices in shared buffers in the layouts it takes: the remote call and the
// unit, nothing else. The unit uses as many threads as the process may use processors, here one.
#include <fmt/format.h>

#include <cstdint>
#include <memory>

#include "bench/npu.h"
#include "bench/row.h"
#include "bench/yardsticks.h"

namespace bench {
namespace {

struct Shape {
  uint32_t n_row, n_col, n_inner;  // rows in whole tiles
};

struct Descriptors {
  uint32_t A, X, W;
};

using Multiply = void (*)(const Npu& npu, const Shape& shape, const Descriptors& fd);

void mm_f16(const Npu& npu, const Shape& s, const Descriptors& fd) {
  require(tavik_npu_mm_f16_ah_f16_ah_f16_wh(npu.context(), static_cast<int32_t>(s.n_row), static_cast<int32_t>(s.n_col),
                                            static_cast<int32_t>(s.n_inner), fd.A, fd.X, fd.W, 0, 0, 0));
}

struct Product {
  const char* name;
  Shape shape;
  double wanted;
  uint64_t A_bytes, X_bytes, W_bytes;  // of an element
  Multiply multiply;
};

const Product products[] = {
    {"npu_mm_f16_ah_f16_ah_f16_wh", {128, 2048, 2048}, 0.80, 2, 2, 2, mm_f16},
    {"npu_mm_f16_ah_f16_ah_f16_wh", {1024, 1024, 4096}, 0.80, 2, 2, 2, mm_f16},
    {"npu_mm_f16_ah_f16_ah_f16_wh", {64, 4096, 4096}, 0.80, 2, 2, 2, mm_f16},
};

Work prepare(const Product& product) {
  const Shape s = product.shape;
  const auto npu = std::make_shared<Npu>();
  const auto buffer = [&npu](uint64_t n_row, uint64_t n_col, uint64_t n_byte) {
    return npu->filled_buffer(n_row * n_col * n_byte);
  };
  const Descriptors fd = {buffer(s.n_row, s.n_col, product.A_bytes), buffer(s.n_row, s.n_inner, product.X_bytes),
                          buffer(s.n_inner, s.n_col, product.W_bytes)};
  return {[npu, s, fd, multiply = product.multiply] { multiply(*npu, s, fd); },
          sgemm_nn_yardstick(s.n_row, s.n_col, s.n_inner)};
}

}  // namespace

std::vector<Row> product_rows() {
  std::vector<Row> rows;
  for (const Product& product : products) {
    const Shape& s = product.shape;
    rows.push_back({fmt::format("{}/{}x{}x{}", product.name, s.n_row, s.n_col, s.n_inner), product.wanted,
                    [&product] { return prepare(product); }});
  }
  return rows;
}

}  // namespace bench

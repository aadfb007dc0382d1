// Products of matrices in shared buffers, in the products' own layouts: on the software matrix unit, by the remote call
// alone or with the conversions around it, and on the host. The unit runs as many threads as the process has
// processors, here one.
#include <fmt/format.h>

#include <cstdint>
#include <memory>

#include "bench/affinity.h"
#include "bench/npu.h"
#include "bench/peers.h"
#include "bench/row.h"
#include "bench/yardsticks.h"
#include "include/morun_tensor.h"

namespace bench {
namespace {

struct Shape {
  uint32_t n_row, n_col, n_inner;  // n_row is a multiple of 32, except for products of row-major activations
};

// Several weight matrices of one activation stand one after the other in W, and their results in A.
struct Operands {
  SharedBuffer A, X, W;
};

using Multiply = void (*)(const Npu& npu, const Shape& shape, const Operands& operands);

void npu_mm_f16(const Npu& npu, const Shape& s, const Operands& o) {
  require(tavik_npu_mm_f16_ah_f16_ah_f16_wh(npu.context(), static_cast<int32_t>(s.n_row), static_cast<int32_t>(s.n_col),
                                            static_cast<int32_t>(s.n_inner), o.A.fd, o.X.fd, o.W.fd, 0, 0, 0));
}

template <auto remote_call>
void veyra_mm(const Npu& npu, const Shape& s, const Operands& o) {
  require_remote(remote_call(npu.handle(o.W), s.n_row, s.n_col, s.n_inner, o.A.fd, o.X.fd, o.W.fd, 0, 0, 0));
}

void npu_3mm_f16(const Npu& npu, const Shape& s, const Operands& o) {
  const auto n_row = static_cast<int32_t>(s.n_row), n_col = static_cast<int32_t>(s.n_col);
  auto* const A = static_cast<float*>(o.A.data);
  const uint64_t A_size = uint64_t{s.n_row} * s.n_col;  // elements of one result
  const uint32_t W_size = 2 * s.n_inner * s.n_col;      // bytes of one weight matrix
  require(tavik_npu_3mm_f32_rm_f32_rm_f16_wh(npu.context(), n_row, n_col, n_col, static_cast<int32_t>(s.n_inner), A,
                                             A + A_size, A + 2 * A_size, static_cast<const float*>(o.X.data), o.W.fd,
                                             o.W.fd, o.W.fd, 0, W_size, 2 * W_size));
}

void npu_mm_f32(const Npu& npu, const Shape& s, const Operands& o) {
  require(tavik_npu_mm_f32_rm_f32_rm_f16_wh(npu.context(), static_cast<int32_t>(s.n_row), static_cast<int32_t>(s.n_col),
                                            static_cast<int32_t>(s.n_inner), static_cast<float*>(o.A.data),
                                            static_cast<const float*>(o.X.data), o.W.fd, 0));
}

// The values of the weights stand for their zero points, scales and sums too.
template <auto kernel>
void quantised_mm(const Npu& npu, const Shape& s, const Operands& o) {
  npu.handle(o.W);  // locks the matrix unit; not every kernel locks it
  require(kernel(npu.context(), static_cast<int32_t>(s.n_row), static_cast<int32_t>(s.n_col),
                 static_cast<int32_t>(s.n_inner), static_cast<float*>(o.A.data), static_cast<const float*>(o.X.data),
                 o.W.fd, 0, 0, 0, 0));
}

// Runs the product on the cross-session buffers.
template <auto product>
void integer_mm(const Npu& npu, const Shape& s, const Operands& o) {
  require(product(npu.context(), static_cast<int32_t>(s.n_row), static_cast<int32_t>(s.n_col),
                  static_cast<int32_t>(s.n_inner), ~0u, ~0u, o.W.fd, 0, 0, 0));
}

template <auto product, class Activation>
void cpu_mm(const Npu& npu, const Shape& s, const Operands& o) {
  require(product(npu.context(), s.n_row, s.n_col, s.n_inner, static_cast<float*>(o.A.data),
                  static_cast<const Activation*>(o.X.data), static_cast<const uint16_t*>(o.W.data)));
}

// The two other kernels of the reference product: block by block, and row by row.
void qmmbp(const Npu&, const Shape& s, const Operands& o) {
  for (uint32_t row = 0; row < s.n_row; row += 4)
    for (uint32_t col = 0; col < s.n_col; col += 4)
      qmmbp_HxD_(s.n_col, s.n_inner, static_cast<float*>(o.A.data) + size_t{row} * s.n_col + col,
                 static_cast<const uint16_t*>(o.W.data) + size_t{col} * s.n_inner,
                 static_cast<const uint16_t*>(o.X.data) + size_t{row} * s.n_inner);
}
void qdotx(const Npu&, const Shape& s, const Operands& o) {
  for (uint32_t row = 0; row < s.n_row; ++row)
    for (uint32_t col = 0; col < s.n_col; col += 4)
      qdotxH(s.n_inner, static_cast<float*>(o.A.data) + size_t{row} * s.n_col + col,
             static_cast<const uint16_t*>(o.W.data) + size_t{col} * s.n_inner,
             static_cast<const uint16_t*>(o.X.data) + size_t{row} * s.n_inner);
}

void tensor_mm(const Npu&, const Shape& s, const Operands& o) {
  morun_tensor_cpu_matmul_scenario_5(s.n_row, s.n_col, s.n_inner, static_cast<uint16_t*>(o.A.data),
                                     static_cast<const uint16_t*>(o.X.data), static_cast<const uint16_t*>(o.W.data));
}

Yardstick nn(const Shape& s) {
  return s.n_row == 1 ? sgemv_yardstick(s.n_col, s.n_inner) : sgemm_nn_yardstick(s.n_row, s.n_col, s.n_inner);
}
Yardstick nt(const Shape& s) {
  return s.n_row == 1 ? sgemv_yardstick(s.n_col, s.n_inner) : sgemm_nt_yardstick(s.n_row, s.n_col, s.n_inner);
}

Peer f32_peer(const Shape& s) {
  return matmul_peer(s.n_row, s.n_col, s.n_inner, Element::f32, Element::f32, Element::f32);
}
Peer bytes_peer(const Shape& s) {
  return matmul_peer(s.n_row, s.n_col, s.n_inner, Element::u8, Element::i8, Element::i32);
}
Peer no_peer(const Shape&) {
  return {};
}

struct TimedProduct {
  const char* name;
  double A_bytes, X_bytes, W_bytes;  // of an element
  uint32_t n_weights;                // weight matrices of one activation
  std::vector<Shape> shapes;
  Wanted wanted;  // for each shape
  Multiply multiply;
  Peer (*peer)(const Shape& shape);
  Yardstick (*yardstick)(const Shape& shape) = nn;
};

const std::vector<Shape> large = {{128, 2048, 2048}, {1024, 1024, 4096}, {1024, 4096, 4096}, {64, 4096, 4096}};
const std::vector<Shape> medium = {{128, 2048, 2048}, {256, 1024, 1024}};
const std::vector<Shape> vector = {{1, 4096, 4096}};

constexpr Wanted reference = {0.25, 0.19, 1.0};

const TimedProduct products[] = {
    {"npu_mm_f16_ah_f16_ah_f16_wh", 2, 2, 2, 1, large, {1.05, 0.95}, npu_mm_f16, f32_peer},
    {"npu_3mm_f32_rm_f32_rm_f16_wh", 4, 4, 2, 3, {{128, 2048, 2048}}, {}, npu_3mm_f16, f32_peer},
    {"veyra_mm_a8w8", 4, 1, 1, 1, large, {2.6, 1.4}, veyra_mm<tavik_veyra_mm_a8w8>, bytes_peer},
    {"veyra_mm_a8w4", 4, 1, 0.5, 1, large, {2.5, 1.4}, veyra_mm<tavik_veyra_mm_a8w4>, bytes_peer},
    {"npu_mm_f32_rm_f32_rm_f16_wh", 4, 4, 2, 1, vector, {}, npu_mm_f32, f32_peer},
    {"veyra_1mm_ui8i8_i32_tessel", 4, 1, 1, 1, vector, {}, integer_mm<tavik_veyra_1mm_ui8i8_i32_tessel>, bytes_peer},
    {"veyra_1mm_ui8i4_i32_tessel", 4, 1, 0.5, 1, vector, {}, integer_mm<tavik_veyra_1mm_ui8i4_i32_tessel>, bytes_peer},
    {"cpu_mm_fp32_rm_fp16_rm_fp16_zb", 4, 2, 2, 1, medium, reference,
     cpu_mm<tavik_cpu_mm_fp32_rm_fp16_rm_fp16_zb, uint16_t>, f32_peer},
    {"cpu_mm_fp32_rm_fp32_rm_fp16_zb", 4, 4, 2, 1, medium, reference,
     cpu_mm<tavik_cpu_mm_fp32_rm_fp32_rm_fp16_zb, float>, f32_peer},
    {"qmmbp_HxD_", 4, 2, 2, 1, {{128, 2048, 2048}}, {}, qmmbp, f32_peer},
    {"qdotxH", 4, 2, 2, 1, {{128, 2048, 2048}}, {}, qdotx, f32_peer},
    {"tensor_cpu_matmul_scenario_5",
     2,
     2,
     2,
     1,
     {{128, 4096, 4096}, {1024, 1024, 4096}},
     {1.0, 1.0},
     tensor_mm,
     f32_peer,
     nt},
    {"tensor_cpu_matmul_scenario_5", 2, 2, 2, 1, {{32, 4096, 4096}}, {1.4, 1.6}, tensor_mm, f32_peer, nt},
    {"tensor_cpu_matmul_scenario_5", 2, 2, 2, 1, vector, {2.0, 1.9}, tensor_mm, f32_peer, nt},
};

// Whole calls of many sizes, which show how the cost depends on the number of rows and on the inner dimension.
std::vector<Shape> many_sizes() {
  std::vector<Shape> shapes;
  for (const uint32_t n_row : {1, 2, 4, 8, 9, 12, 16, 17, 24, 31, 32, 33, 48, 64, 96, 128, 256, 512, 1024, 2048, 4096})
    shapes.push_back({n_row, 2048, 2048});
  for (uint32_t n_inner = 256; n_inner <= 16384; n_inner *= 2) shapes.push_back({128, 1024, n_inner});
  return shapes;
}
const TimedProduct products_of_many_sizes[] = {
    {"npu_mm_f32_rm_f32_rm_f16_wh", 4, 4, 2, 1, many_sizes(), {}, npu_mm_f32, no_peer},
    {"npu_mm_a8w8_f32_rm_f32_rm_i8f16_wh",
     4,
     4,
     1,
     1,
     many_sizes(),
     {},
     quantised_mm<tavik_npu_mm_a8w8_f32_rm_f32_rm_i8f16_wh>,
     no_peer},
    {"npu_mm_a8w4_f32_rm_f32_rm_i4f16_wh",
     4,
     4,
     0.5,
     1,
     many_sizes(),
     {},
     quantised_mm<tavik_npu_mm_a8w4_f32_rm_f32_rm_i4f16_wh>,
     no_peer},
};

Work prepare(const TimedProduct& product, const Shape& s, const std::shared_ptr<Npu>& npu) {
  const auto buffer = [&npu](uint32_t n_row, uint32_t n_col, double bytes_of_element) {
    return npu->filled_buffer(static_cast<uint64_t>(bytes_of_element * n_row * n_col));
  };
  const uint32_t n_col = product.n_weights * s.n_col;
  const Operands operands = {buffer(s.n_row, n_col, product.A_bytes), buffer(s.n_row, s.n_inner, product.X_bytes),
                             buffer(s.n_inner, n_col, product.W_bytes)};
  return {[npu, s, operands, multiply = product.multiply] { multiply(*npu, s, operands); },
          product.yardstick({s.n_row, n_col, s.n_inner}), product.peer({s.n_row, n_col, s.n_inner})};
}

// Times a product on two threads against the same product on one thread.
struct ProductOnThreads {
  const char* name;
  double A_bytes, X_bytes, W_bytes;
  Multiply multiply;
};
const ProductOnThreads products_on_threads[] = {
    {"npu_mm_f16_ah_f16_ah_f16_wh", 2, 2, 2, npu_mm_f16},
    {"veyra_mm_a8w8", 4, 1, 1, veyra_mm<tavik_veyra_mm_a8w8>},
    {"veyra_mm_a8w4", 4, 1, 0.5, veyra_mm<tavik_veyra_mm_a8w4>},
};
constexpr Shape shape_on_threads = {1024, 4096, 4096};

std::function<void()> operation(const ProductOnThreads& p, const Shape& shape, const std::shared_ptr<Npu>& npu) {
  return prepare({p.name, p.A_bytes, p.X_bytes, p.W_bytes, 1, {}, {}, p.multiply, no_peer}, shape, npu).operation;
}

Work prepare(const ProductOnThreads& p) {
  const auto on_one = operation(p, shape_on_threads, std::make_shared<Npu>());
  return {[on_one] { run_on_processors(2, on_one); }, {"1 thread", on_one}, {}, Clock::wall};
}

// Times the products of two threads, in one context or in two, against the same products one after the other.
constexpr Shape shape_in_threads = {1024, 1024, 4096};

Work prepare_in_two_threads(const ProductOnThreads& p, size_t n_context) {
  std::vector<std::shared_ptr<Npu>> npus;
  for (size_t i = 0; i < n_context; ++i) npus.push_back(std::make_shared<Npu>());
  const auto first = operation(p, shape_in_threads, npus.front());
  const auto second = operation(p, shape_in_threads, npus.back());
  return {[first, second] { run_in_two_threads(first, second); },
          {"in turn", [first, second] { first(), second(); }},
          {},
          Clock::wall};
}

template <size_t n_product>
std::vector<Row> rows_of(const TimedProduct (&timed)[n_product]) {
  std::vector<Row> rows;
  for (const TimedProduct& product : timed) {
    for (const Shape& shape : product.shapes) {
      rows.push_back({fmt::format("{}/{}x{}x{}", product.name, shape.n_row, shape.n_col, shape.n_inner),
                      wanted_here(product.wanted),
                      [&product, &shape] { return prepare(product, shape, std::make_shared<Npu>(shape.n_row)); }});
    }
  }
  return rows;
}

}  // namespace

std::vector<Row> size_rows() {
  return rows_of(products_of_many_sizes);
}

std::vector<Row> product_rows() {
  std::vector<Row> rows = rows_of(products);
  if (n_processors_given() < 2) return rows;
  for (const ProductOnThreads& product : products_on_threads) {
    rows.push_back(
        {fmt::format("{} on 2 threads/1024x4096x4096", product.name), 1.8, [&product] { return prepare(product); }});
    for (const size_t n_context : {1, 2})
      rows.push_back({fmt::format("{} in 2 threads of {}/1024x1024x4096", product.name,
                                  n_context == 1 ? "1 context" : "2 contexts"),
                      1.8, [&product, n_context] { return prepare_in_two_threads(product, n_context); }});
  }
  return rows;
}

}  // namespace bench

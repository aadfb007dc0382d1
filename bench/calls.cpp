// Whole calls of the application, and the library's own share of each call's time.
#include <fmt/format.h>

#include <memory>
#include <stdexcept>

#include "bench/memory.h"
#include "bench/npu.h"
#include "bench/row.h"
#include "include/morun.h"
#include "include/morun_state.h"
#include "include/morun_tensor.h"

namespace bench {
namespace {

struct Shape {
  int32_t n_row, n_col, n_inner;
};

// Memory for one call: activation and result in ordinary memory, and one weight matrix with its zero points, scales and
// sums in a shared buffer.
struct Operands {
  std::shared_ptr<std::byte> A, X;
  SharedBuffer W;
  uint64_t zero_points, scales, sums;  // byte offsets in the shared buffer
};

using Kernel = uint32_t (*)(tavik_context*, const Shape&, const Operands&);

uint32_t f16_kernel(tavik_context* npu, const Shape& s, const Operands& o) {
  return tavik_npu_mm_f32_rm_f32_rm_f16_wh(npu, s.n_row, s.n_col, s.n_inner, reinterpret_cast<float*>(o.A.get()),
                                           reinterpret_cast<const float*>(o.X.get()), o.W.fd, 0);
}
template <auto kernel>
uint32_t quantised_kernel(tavik_context* npu, const Shape& s, const Operands& o) {
  return kernel(npu, s.n_row, s.n_col, s.n_inner, reinterpret_cast<float*>(o.A.get()),
                reinterpret_cast<const float*>(o.X.get()), o.W.fd, 0, o.zero_points, o.scales, o.sums);
}

struct KernelCall {
  const char* name;
  double wanted_share;
  Shape shape;
  Kernel kernel;
};

constexpr Shape layer = {128, 2048, 2048};
const KernelCall kernel_calls[] = {
    {"npu_mm_f32_rm_f32_rm_f16_wh", 0.15, layer, f16_kernel},
    {"npu_mm_a8w8_f32_rm_f32_rm_i8f16_wh", 0.15, layer, quantised_kernel<tavik_npu_mm_a8w8_f32_rm_f32_rm_i8f16_wh>},
    {"npu_mm_a8w4_f32_rm_f32_rm_i4f16_wh", 0.15, layer, quantised_kernel<tavik_npu_mm_a8w4_f32_rm_f32_rm_i4f16_wh>},
};

std::function<void()> prepare(const KernelCall& call) {
  const auto npu = std::make_shared<Npu>();
  const Shape s = call.shape;
  const auto n_row = static_cast<uint64_t>(s.n_row), n_col = static_cast<uint64_t>(s.n_col),
             n_inner = static_cast<uint64_t>(s.n_inner);
  const uint64_t values = 2 * n_inner * n_col, vector = 4 * n_col;  // bytes; enough for every kind of weights
  const Operands operands = {filled_memory(4 * n_row * n_col),
                             filled_memory(4 * n_row * n_inner),
                             npu->filled_buffer(values + 3 * vector),
                             values,
                             values + vector,
                             values + 2 * vector};
  npu->handle(operands.W);  // locks the matrix unit; not every kernel locks it
  return [npu, s, operands, kernel = call.kernel] { require(kernel(npu->context(), s, operands)); };
}

// The upper interface while it is initialised. The destructor frees its buffers and finalises it.
class Upper {
 public:
  Upper() { require_upper(morun_npu_initialize(MORUN_DOMAIN_NPU0)); }
  ~Upper() {
    while (context->n_buffers > 0 && tavik_buffer_free(context, context->buffer_fd[0]) == TAVIK_SUCCESS) continue;
    morun_npu_finalize(MORUN_DOMAIN_NPU0);
  }
  Upper(const Upper&) = delete;
  Upper& operator=(const Upper&) = delete;

  void* buffer(uint64_t size) const {
    void* data = nullptr;
    require_upper(morun_npu_alloc(size, &data));
    fill(data, size);
    return data;
  }
  static void require_upper(int32_t status) {
    if (status != MORUN_SUCCESS) throw std::runtime_error(fmt::format("the upper interface returned {}", status));
  }
};

// Matrices of the smallest product. Each has a buffer that is large enough for every type.
struct Buffers {
  void *A, *X, *W;
};
constexpr int32_t n_row = 64, side = 32;  // tiles of bytes have 64 rows, tiles of halves have 32
constexpr uint64_t buffer_bytes = 4 * n_row * side;

template <auto multiply, class Result, class Activation, class Weight, int32_t rows = side>
int32_t product(const Buffers& b) {
  return multiply(MORUN_DOMAIN_NPU0, rows, side, side, static_cast<Result*>(b.A), static_cast<const Activation*>(b.X),
                  static_cast<const Weight*>(b.W));
}

template <uint64_t rows, auto left_type, auto left_layout, auto right_type, auto result_type, auto result_layout>
int32_t tensor_product(const Buffers& b) {
  const morun_tensor A = morun_tensor_matrix(rows, side, result_type, result_layout, b.A),
                     X = morun_tensor_matrix(rows, side, left_type, left_layout, b.X),
                     W = morun_tensor_matrix(side, side, right_type, MORUN_LAYOUT_2D_WH, b.W);
  return morun_mm_tensor(MORUN_PLATFORM_NPU0, &A, &X, &W);
}

struct UpperCall {
  const char* name;
  int32_t (*call)(const Buffers&);
};

constexpr auto rm = MORUN_LAYOUT_2D_RM, ah = MORUN_LAYOUT_2D_AH;
constexpr auto f16 = MORUN_DTYPE_F16, f32 = MORUN_DTYPE_F32;
const UpperCall upper_calls[] = {
    {"morun_npu_mm_f16/32x32x32", product<morun_npu_mm_f16, uint16_t, uint16_t, uint16_t>},
    {"morun_npu_mm_f16f16_f16/32x32x32", product<morun_npu_mm_f16f16_f16, uint16_t, uint16_t, uint16_t>},
    {"morun_npu_mm_f32f16_f32/32x32x32", product<morun_npu_mm_f32f16_f32, float, float, uint16_t>},
    {"morun_npu_mm_u8i8_i32/64x32x32", product<morun_npu_mm_u8i8_i32, int32_t, uint8_t, int8_t, n_row>},
    {"morun_npu_mm_u8i4_i32/64x32x32", product<morun_npu_mm_u8i4_i32, int32_t, uint8_t, uint8_t, n_row>},
    {"morun_mm_tensor f32xf16/32x32x32", tensor_product<side, f32, rm, f16, f32, rm>},
    {"morun_mm_tensor f16 ah/32x32x32", tensor_product<side, f16, ah, f16, f16, ah>},
    {"morun_mm_tensor f16 rm/32x32x32", tensor_product<side, f16, rm, f16, f16, rm>},
};

std::function<void()> prepare(const UpperCall& call) {
  const auto upper = std::make_shared<Upper>();
  const Buffers buffers = {upper->buffer(buffer_bytes), upper->buffer(buffer_bytes), upper->buffer(buffer_bytes)};
  return [upper, buffers, run = call.call] { Upper::require_upper(run(buffers)); };
}

}  // namespace

std::vector<CallRow> call_rows() {
  std::vector<CallRow> rows;
  for (const KernelCall& call : kernel_calls)
    rows.push_back({fmt::format("{}/{}x{}x{}", call.name, call.shape.n_row, call.shape.n_col, call.shape.n_inner),
                    call.wanted_share, [&call] { return prepare(call); }});
  rows.push_back({"init_cleanup/default_options", 0, [] { return [] { const Npu npu; }; }});
  for (const UpperCall& call : upper_calls) rows.push_back({call.name, 0, [&call] { return prepare(call); }});
  return rows;
}

}  // namespace bench

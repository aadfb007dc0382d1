// Query, key and value of an attention layer: three products of one activation in one call of the DSP, with weights
// quantised to 8 bits.
//
// Frameworks store weights with a row for each output feature. The library's quantiser takes the same order and gives
// each row a scale and a zero point. All three matrices go into one shared buffer. A buffer for each also works when
// one session maps all of them. Fused products of 8-bit weights in several sessions do not give all results (see
// tavik.h).

#include <tavik.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

// Grouped-query attention: four query heads share a head of keys and values. The number of tokens is arbitrary; the
// other numbers are multiples of 32.
constexpr uint64_t n_token = 40, n_inner = 512, n_col_q = 512, n_col_kv = 128;

void check(int64_t status, const char* what) {
  if (status != TAVIK_SUCCESS) throw std::runtime_error(what + (": " + std::string(tavik_error_get_last()->message)));
}

// Destructors report a failed release by a line, because they cannot throw.
bool released(int32_t status) {
  if (status != TAVIK_SUCCESS) tavik_error_print(tavik_error_get_last());
  return status == TAVIK_SUCCESS;
}

void close_context(tavik_context* context) {
  if (!released(tavik_cleanup(context))) tavik_context_free(context);
}
using Context = std::unique_ptr<tavik_context, void (*)(tavik_context*)>;

// The options state the sizes of the largest matrices to come, with the number of rows rounded up to whole tiles. The
// library allocates its buffers for activations and results by these sizes.
Context open_context() {
  constexpr uint64_t n_row = (n_token + 63) / 64 * 64;
  const tavik_options options{.output_matrix_size_max = n_row * n_col_q,
                              .n_row_max = n_row,
                              .input_matrix_size_max = n_row * n_inner,
                              .reserved = 0};
  tavik_context* context = nullptr;
  check(tavik_init(&options, &context), "tavik_init");
  return Context(context, close_context);
}

// Memory that the host and the DSP share. The memory must be released before its context.
struct BufferRelease {
  tavik_context* context;
  int32_t fd;
  void operator()(std::byte*) const { released(tavik_buffer_free(context, fd)); }
};
using Buffer = std::unique_ptr<std::byte, BufferRelease>;

Buffer allocate_buffer(tavik_context* context, uint64_t size) {
  void* data = nullptr;
  int32_t fd = -1;
  check(tavik_buffer_alloc(context, size, &data, &fd), "tavik_buffer_alloc");
  return Buffer(static_cast<std::byte*>(data), {context, fd});
}

std::vector<float> random_values(uint64_t n, std::mt19937& generator) {
  std::normal_distribution<float> distribution;
  std::vector<float> values(n);
  for (float& value : values) value = distribution(generator);
  return values;
}

struct Projection {
  const char* name;
  uint64_t n_col;
  std::vector<float> weights;  // n_col rows of n_inner
  std::vector<float> result;   // n_token x n_col
  // Where the four arrays of a quantised weight matrix stand: byte offsets in the shared buffer.
  uint32_t values;
  uint64_t zero_points, scales, sums;
};

// Takes the projection's four arrays from the next free bytes of the shared buffer.
Projection make_projection(const char* name, uint64_t n_col, uint64_t& n_used, std::mt19937& generator) {
  const auto take = [&](uint64_t n_byte) { return std::exchange(n_used, tavik_apply_padding(n_used + n_byte)); };
  return {.name = name,
          .n_col = n_col,
          .weights = random_values(n_col * n_inner, generator),
          .result = std::vector<float>(n_token * n_col),
          .values = static_cast<uint32_t>(take(n_inner * n_col)),
          .zero_points = take(n_col),
          .scales = take(n_col * sizeof(uint16_t)),
          .sums = take(n_col * sizeof(int32_t))};
}

void quantise_weights(const Projection& p, std::byte* buffer) {
  std::vector<uint16_t> halves(p.weights.size());
  tavik_f32_to_f16(halves.size(), p.weights.data(), halves.data());
  auto* const values = reinterpret_cast<int8_t*>(buffer + p.values);
  tavik_f16_rm_to_i8_rm(p.n_col, n_inner, halves.data(), values, reinterpret_cast<int8_t*>(buffer + p.zero_points),
                        reinterpret_cast<uint16_t*>(buffer + p.scales), reinterpret_cast<int32_t*>(buffer + p.sums));
  tavik_matrix_transpose_i8(p.n_col, n_inner, values);
  tavik_i8_rm_to_i8_wh_inplace(n_inner, p.n_col, values);
}

// Returns the relative deviation from the product in double precision: the root of the sum of squared differences,
// divided by the root of the sum of squared values.
double deviation(const Projection& p, const std::vector<float>& x) {
  double squared_differences = 0, squared_values = 0;
  for (size_t i = 0; i < p.result.size(); ++i) {
    const size_t row = i / p.n_col, column = i % p.n_col;
    double sum = 0;
    for (size_t k = 0; k < n_inner; ++k) sum += double{x[row * n_inner + k]} * double{p.weights[column * n_inner + k]};
    squared_differences += std::pow(double{p.result[i]} - sum, 2);
    squared_values += sum * sum;
  }
  return std::sqrt(squared_differences / squared_values);
}

}  // namespace

int main() try {
  std::mt19937 generator(1);
  uint64_t n_byte = 0;
  Projection q = make_projection("query", n_col_q, n_byte, generator);
  Projection k = make_projection("key", n_col_kv, n_byte, generator);
  Projection v = make_projection("value", n_col_kv, n_byte, generator);

  const Context context = open_context();
  const Buffer buffer = allocate_buffer(context.get(), n_byte);
  for (const Projection* const p : {&q, &k, &v}) quantise_weights(*p, buffer.get());

  const std::vector<float> x = random_values(n_token * n_inner, generator);
  const auto fd = static_cast<uint32_t>(buffer.get_deleter().fd);
  check(tavik_npu_3mm_a8w8_f32_rm_f32_rm_i8f16_wh(context.get(), n_token, n_col_q, n_col_kv, n_inner, q.result.data(),
                                                  k.result.data(), v.result.data(), x.data(), fd, fd, fd, q.values,
                                                  q.zero_points, q.scales, q.sums, k.values, k.zero_points, k.scales,
                                                  k.sums, v.values, v.zero_points, v.scales, v.sums),
        "tavik_npu_3mm_a8w8_f32_rm_f32_rm_i8f16_wh");

  // A step of a weight is 1/255 of its row's range. A step of an activation is 1/127 of its row's largest value.
  constexpr double bound = 0.02;
  bool passed = true;
  for (const Projection* const p : {&q, &k, &v}) {
    const double found = deviation(*p, x);
    std::printf("%-5s %lu x %lu: relative deviation %.4f, bound %.2f\n", p->name, n_token, p->n_col, found, bound);
    passed = passed && found < bound;
  }
  return passed ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}

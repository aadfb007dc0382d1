// A linear layer, y = x * W^T, on tensor records: first on the host, then on the NPU. The program compares the two
// results.
//
// Frameworks store the weights of a linear layer as out_features rows of in_features values. The host's product reads
// these rows as they are. The NPU takes an in_features x out_features matrix in weight tiles. A program transposes the
// weights once, lays them out once, and keeps them.

#include <morun_tensor.h>
#include <tavik.h>  // for conversions

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr uint64_t n_token = 96, in_features = 256, out_features = 384;  // multiples of 32 for the NPU

using Halves = std::vector<uint16_t>;  // f16 bit patterns

// The library has printed the reason already.
void check(int64_t status, const char* what) {
  if (status != MORUN_SUCCESS) throw std::runtime_error(what + (" failed with status " + std::to_string(status)));
}

struct Npu {
  Npu() { check(morun_npu_initialize(MORUN_DOMAIN_NPU0), "morun_npu_initialize"); }
  ~Npu() { morun_npu_finalize(MORUN_DOMAIN_NPU0); }
  Npu(const Npu&) = delete;
  Npu& operator=(const Npu&) = delete;
};

// Memory that the host and the DSP share. The memory must be released before the Npu.
struct BufferRelease {
  void operator()(uint16_t* buffer) const { morun_npu_free(buffer); }
};
using Buffer = std::unique_ptr<uint16_t[], BufferRelease>;

Buffer allocate_buffer(uint64_t n_half) {
  void* buffer = nullptr;
  check(morun_npu_alloc(n_half * sizeof(uint16_t), &buffer), "morun_npu_alloc");
  return Buffer(static_cast<uint16_t*>(buffer));
}

Halves random_halves(uint64_t n, float largest, std::mt19937& generator) {
  std::uniform_real_distribution<float> distribution(-largest, largest);
  std::vector<float> values(n);
  for (float& value : values) value = distribution(generator);
  Halves halves(n);
  tavik_f32_to_f16(n, values.data(), halves.data());
  return halves;
}

morun_tensor halves_record(uint64_t n_row, uint64_t n_col, morun_tensor_layout_e layout, uint16_t* data) {
  return morun_tensor_matrix(n_row, n_col, MORUN_DTYPE_F16, layout, data);
}

// The right operand of row-major halves is described as in_features x out_features, and is read as its transpose.
Halves linear_on_host(Halves& x, Halves& weights) {
  Halves y(n_token * out_features);
  const morun_tensor result = halves_record(n_token, out_features, MORUN_LAYOUT_2D_RM, y.data());
  const morun_tensor left = halves_record(n_token, in_features, MORUN_LAYOUT_2D_RM, x.data());
  const morun_tensor right = halves_record(in_features, out_features, MORUN_LAYOUT_2D_RM, weights.data());
  check(morun_mm_tensor(MORUN_PLATFORM_CPU, &result, &left, &right), "morun_mm_tensor on the host");
  return y;
}

Halves linear_on_npu(Halves& x, const Halves& weights) {
  const Buffer tiles = allocate_buffer(weights.size());
  std::copy(weights.begin(), weights.end(), tiles.get());
  tavik_matrix_transpose_f16(out_features, in_features, tiles.get());
  check(morun_cpu_rm_to_wh_f16_inplace(in_features, out_features, tiles.get()), "morun_cpu_rm_to_wh_f16_inplace");

  Halves y(n_token * out_features);
  const morun_tensor result = halves_record(n_token, out_features, MORUN_LAYOUT_2D_RM, y.data());
  const morun_tensor left = halves_record(n_token, in_features, MORUN_LAYOUT_2D_RM, x.data());
  const morun_tensor right = halves_record(in_features, out_features, MORUN_LAYOUT_2D_WH, tiles.get());
  check(morun_mm_tensor(MORUN_PLATFORM_NPU0, &result, &left, &right), "morun_mm_tensor on the NPU");
  return y;
}

// Returns the relative deviation: the root of the sum of squared differences, divided by the root of the sum of squared
// expected values.
double deviation(const Halves& expected, const Halves& actual) {
  std::vector<float> wanted(expected.size()), found(actual.size());
  tavik_f16_to_f32(expected.size(), expected.data(), wanted.data());
  tavik_f16_to_f32(actual.size(), actual.data(), found.data());
  double squared_differences = 0, squared_values = 0;
  for (size_t i = 0; i < wanted.size(); ++i) {
    squared_differences += std::pow(double{found[i]} - double{wanted[i]}, 2);
    squared_values += std::pow(double{wanted[i]}, 2);
  }
  return std::sqrt(squared_differences / squared_values);
}

}  // namespace

int main() try {
  const Npu npu;
  std::mt19937 generator(1);
  Halves x = random_halves(n_token * in_features, 1, generator);
  Halves weights = random_halves(out_features * in_features, 0.1f, generator);
  const double found = deviation(linear_on_host(x, weights), linear_on_npu(x, weights));
  constexpr double bound = 0.0005;  // both products add in f32, in different orders, and round to halves
  std::printf("linear layer of %lu to %lu features, %lu tokens\n", in_features, out_features, n_token);
  std::printf("relative deviation of the NPU from the host %.6f, bound %.4f\n", found, bound);
  return found < bound ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}

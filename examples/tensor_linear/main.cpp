// A linear layer, y = x * W^T, on tensor records: on the host, then on the NPU, and both compared.
//
// Frameworks store the weights of a linear layer as out_features rows of in_features values. The host's product reads
// them so, as they are. The NPU takes an in_features x out_features matrix in weight tiles: transpose once, lay out
// once, and keep it.

#include <morun.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <random>
#include <vector>

namespace {

using morun::or_throw;

constexpr uint64_t n_token = 96, in_features = 256, out_features = 384;  // multiples of 32 for the NPU

using Halves = std::vector<uint16_t>;  // f16, by their bits

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

// The right operand of row-major halves is told as in_features x out_features, and read as its transpose.
Halves linear_on_host(const morun::Npu& npu, Halves& x, Halves& weights) {
  Halves y(n_token * out_features);
  const morun_tensor result = halves_record(n_token, out_features, MORUN_LAYOUT_2D_RM, y.data());
  const morun_tensor left = halves_record(n_token, in_features, MORUN_LAYOUT_2D_RM, x.data());
  const morun_tensor right = halves_record(in_features, out_features, MORUN_LAYOUT_2D_RM, weights.data());
  or_throw(npu.multiply(MORUN_PLATFORM_CPU, result, left, right));
  return y;
}

Halves linear_on_npu(const morun::Npu& npu, Halves& x, const Halves& weights) {
  const morun::NpuBuffer buffer = or_throw(npu.allocate(weights.size() * sizeof(uint16_t)));
  auto* const tiles = buffer.as<uint16_t>();
  std::copy(weights.begin(), weights.end(), tiles);
  tavik_matrix_transpose_f16(out_features, in_features, tiles);
  tavik_f16_rm_to_f16_wh_inplace(in_features, out_features, tiles);

  Halves y(n_token * out_features);
  const morun_tensor result = halves_record(n_token, out_features, MORUN_LAYOUT_2D_RM, y.data());
  const morun_tensor left = halves_record(n_token, in_features, MORUN_LAYOUT_2D_RM, x.data());
  const morun_tensor right = halves_record(in_features, out_features, MORUN_LAYOUT_2D_WH, tiles);
  or_throw(npu.multiply(MORUN_PLATFORM_NPU0, result, left, right));
  return y;
}

// Root of the sum of squared differences, relative to that of the values expected.
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
  const morun::Npu npu = or_throw(morun::Npu::open());
  std::mt19937 generator(1);
  Halves x = random_halves(n_token * in_features, 1, generator);
  Halves weights = random_halves(out_features * in_features, 0.1f, generator);
  const double found = deviation(linear_on_host(npu, x, weights), linear_on_npu(npu, x, weights));
  constexpr double bound = 0.0005;  // both add in f32, in different orders, and round to halves
  std::printf("linear layer of %lu to %lu features, %lu tokens\n", in_features, out_features, n_token);
  std::printf("relative deviation of the NPU from the host %.6f, bound %.4f\n", found, bound);
  return found < bound ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}

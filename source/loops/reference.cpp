#include "source/loops.h"

#include <algorithm>
#include <bit>

#include "simd/simd.h"

namespace tavik::inline MORUN_BACKEND {
namespace {

namespace simd = morun::simd;

constexpr uint64_t side = 4;         // rows and columns of an output block
constexpr uint64_t group = 8;        // inner indices of one weight column that stand together
constexpr uint64_t super_block = 4;  // blocks along each side of the part of the result that stays in the caches
constexpr uint64_t blocks_at_once = simd::half8x4_at_once / side;
constexpr uint64_t group_elements = 32;  // weights of one group: 8 inner indices of a block's 4 columns

// The backends produce different NaNs. Stored results hold this one.
float settled(float sum) {
  return sum == sum ? sum : std::bit_cast<float>(0x7fc00000u);
}
float sum_of_fours(const float lane[4]) {
  return settled((lane[0] + lane[1]) + (lane[2] + lane[3]));
}
float sum_of_eights(const float lane[8]) {
  return settled(((lane[0] + lane[4]) + (lane[1] + lane[5])) + ((lane[2] + lane[6]) + (lane[3] + lane[7])));
}

// Computes the sums of four rows times n_block blocks of four columns. Lane l of a sum takes the inner indices l, l + 8,
// l + 16 and so on.
template <size_t n_block>
void multiply_blocks(uint64_t n_inner, const uint16_t* Wb, const uint16_t* Ab, float (*sums)[side][side][group]) {
  simd::half8x4_sum sum[n_block][side] = {};
  for (uint64_t g = 0; g < n_inner / group; ++g) {
    simd::half8x4 w[n_block];
#pragma GCC unroll 4
    for (size_t b = 0; b < n_block; ++b) w[b] = simd::load_half8x4(Wb + b * side * n_inner + g * group_elements);
#pragma GCC unroll 4
    for (uint64_t i = 0; i < side; ++i) {
      const simd::half8x4 a = simd::broadcast_half8x4(Ab + i * n_inner + g * group);
#pragma GCC unroll 4
      for (size_t b = 0; b < n_block; ++b) simd::accumulate(sum[b][i], a, w[b]);
    }
  }
  // The unrolling lets the compiler keep the sums in registers. With a variable index here, the sums would stay in
  // memory in the loop above as well.
#pragma GCC unroll 4
  for (size_t b = 0; b < n_block; ++b)
#pragma GCC unroll 4
    for (uint64_t i = 0; i < side; ++i) simd::store(sums[b][i][0], sum[b][i]);
}

template <size_t n_block>
void multiply_and_store(uint64_t ldc, uint64_t n_inner, float* C, const uint16_t* Wb, const uint16_t* Ab) {
  float sums[n_block][side][side][group];
  simd::in_half_arithmetic([&] { multiply_blocks<n_block>(n_inner, Wb, Ab, sums); });
  for (size_t b = 0; b < n_block; ++b)
    for (uint64_t i = 0; i < side; ++i)
      for (uint64_t j = 0; j < side; ++j) C[i * ldc + b * side + j] = sum_of_eights(sums[b][i][j]);
}

// Adds even groups to sums[0] and odd groups to sums[1].
void multiply_row(uint64_t n_inner, const uint16_t* Wb, const uint16_t* Arow, uint16_t (*sums)[side][group]) {
  simd::half8x4_sum sum[2] = {};
  for (uint64_t g = 0; g < n_inner / (2 * group) * 2; g += 2)
    for (uint64_t odd = 0; odd < 2; ++odd)
      simd::accumulate(sum[odd], simd::broadcast_half8x4(Arow + (g + odd) * group),
                       simd::load_half8x4(Wb + (g + odd) * group_elements));
  for (uint64_t odd = 0; odd < 2; ++odd) simd::store(sums[odd][0], sum[odd]);
}

// Kept: the function reads n_inner consecutive weights, although a whole block stores its four columns interleaved.
float multiply_column(uint64_t n_inner, const uint16_t* column, const uint16_t* Arow) {
  float sum = 0;
  for (uint64_t k = 0; k < n_inner; ++k)
    sum += simd::widen_bits(simd::narrow_bits(simd::widen_bits(Arow[k]) * simd::widen_bits(column[k])));
  return settled(sum);
}

uint64_t count_blocks(uint64_t extent) {
  return extent / side + (extent % side != 0);
}
// Returns the number of rows or columns that block `index` covers: four, fewer at the edge, and 0 past the edge.
uint64_t covered(uint64_t extent, uint64_t index) {
  return index < count_blocks(extent) ? std::min(side, extent - index * side) : 0;
}

}  // namespace

void qmmbp_HxD(uint64_t ldc, uint64_t n_inner, float* C, const uint16_t* Wb, const uint16_t* Ab) {
  multiply_and_store<1>(ldc, n_inner, C, Wb, Ab);
}

// Two columns share a vector of eight lanes; each column has four lanes.
void qmmbp_HxD_(uint64_t ldc, uint64_t n_inner, float* C, const uint16_t* Wb, const uint16_t* Ab) {
  simd::f32x8 sum[side][2];
  for (auto& pairs : sum) pairs[0] = pairs[1] = simd::broadcast(0);
  for (uint64_t g = 0; g < n_inner / group; ++g) {
    simd::f32x8 first[2], second[2];
    for (uint64_t pair = 0; pair < 2; ++pair) {
      const uint16_t* const columns = Wb + g * group_elements + pair * 2 * group;
      const simd::f16x8 even = simd::load(columns), odd = simd::load(columns + group);
      first[pair] = simd::widen(simd::lower_fours(even, odd));
      second[pair] = simd::widen(simd::upper_fours(even, odd));
    }
    for (uint64_t i = 0; i < side; ++i) {
      const simd::f16x8 a = simd::load(Ab + i * n_inner + g * group);
      const simd::f32x8 lower = simd::widen(simd::lower_fours(a, a)), upper = simd::widen(simd::upper_fours(a, a));
      for (uint64_t pair = 0; pair < 2; ++pair) {
        sum[i][pair] = simd::multiply_add(lower, first[pair], sum[i][pair]);
        sum[i][pair] = simd::multiply_add(upper, second[pair], sum[i][pair]);
      }
    }
  }
  for (uint64_t i = 0; i < side; ++i)
    for (uint64_t pair = 0; pair < 2; ++pair) {
      float lanes[8];
      simd::store(lanes, sum[i][pair]);
      C[i * ldc + 2 * pair] = sum_of_fours(lanes);
      C[i * ldc + 2 * pair + 1] = sum_of_fours(lanes + 4);
    }
}

// Kept: the sums are added up in f16, and a row can therefore differ in its last bits from the same row of qmmbp_HxD.
void qdotxH(uint64_t n_inner, float* Crow, const uint16_t* Wb, const uint16_t* Arow) {
  uint16_t sums[2][side][group];
  simd::in_half_arithmetic([&] { multiply_row(n_inner, Wb, Arow, sums); });
  simd::f16x8 column[side];  // eight partial sums of each column
  for (uint64_t j = 0; j < side; ++j) column[j] = simd::add(simd::load(sums[0][j]), simd::load(sums[1][j]));
  const auto fold = [](simd::f16x8 a, simd::f16x8 b) {
    return simd::add(simd::lower_fours(a, b), simd::upper_fours(a, b));
  };
  const auto add_neighbours = [](simd::f16x8 a, simd::f16x8 b) {
    return simd::add(simd::unzip_even(a, b), simd::unzip_odd(a, b));
  };
  const simd::f16x8 two_each = add_neighbours(fold(column[0], column[1]), fold(column[2], column[3]));
  float totals[8];
  simd::store(totals, simd::widen(add_neighbours(two_each, two_each)));
  for (uint64_t j = 0; j < side; ++j) Crow[j] = settled(totals[j]);
}

void dravin_math_matmul_pq(uint64_t n_row, uint64_t n_col, uint64_t n_inner, uint64_t p, uint64_t q, float* C,
                           const uint16_t* A, const uint16_t* W) {
  const uint64_t rows = covered(n_row, p), columns = covered(n_col, q);
  if (rows == 0 || columns == 0) return;
  float* const block = C + p * side * n_col + q * side;
  const uint16_t* const Ab = A + p * side * n_inner;
  const uint16_t* const Wb = W + q * side * n_inner;
  if (rows == side && columns == side) return qmmbp_HxD(n_col, n_inner, block, Wb, Ab);
  for (uint64_t i = 0; i < rows; ++i) {
    float* const Crow = block + i * n_col;
    const uint16_t* const Arow = Ab + i * n_inner;
    if (columns == side) {
      qdotxH(n_inner, Crow, Wb, Arow);
      continue;
    }
    for (uint64_t j = 0; j < columns; ++j) Crow[j] = multiply_column(n_inner, Wb + j * n_inner, Arow);
  }
}

namespace {

struct Product {
  uint64_t n_row, n_col, n_inner;
  float* C;
  const uint16_t* A;
  const uint16_t* W;
};

// Computes blocks_at_once blocks of a row of blocks, from block q on.
void multiply_blocks_at_once(const Product& product, uint64_t p, uint64_t q) {
  const auto& [n_row, n_col, n_inner, C, A, W] = product;
  if (covered(n_row, p) == side && (q + blocks_at_once) * side <= n_col)
    return multiply_and_store<blocks_at_once>(n_col, n_inner, C + p * side * n_col + q * side, W + q * side * n_inner,
                                              A + p * side * n_inner);
  for (uint64_t i = 0; i < blocks_at_once; ++i) dravin_math_matmul_pq(n_row, n_col, n_inner, p, q + i, C, A, W);
}

}  // namespace

void cpu_mm(uint64_t n_row, uint64_t n_col, uint64_t n_inner, float* C, const uint16_t* A, const uint16_t* W) {
  const uint64_t P = count_blocks(n_row), Q = count_blocks(n_col);
  for (uint64_t p0 = 0; p0 < P; p0 += super_block)
    for (uint64_t q0 = 0; q0 < Q; q0 += super_block)
      for (uint64_t p = p0; p < std::min(p0 + super_block, P); ++p)
        for (uint64_t q = q0; q < std::min(q0 + super_block, Q); q += blocks_at_once)
          multiply_blocks_at_once({n_row, n_col, n_inner, C, A, W}, p, q);
}

}  // namespace tavik::inline MORUN_BACKEND

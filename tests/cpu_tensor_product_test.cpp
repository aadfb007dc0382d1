// The tensor product on the host against its definition, to the last bit, with scratch memory and without.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "include/morun_tensor.h"
#include "simd/scalar.h"
#include "tests/data.h"

static bool memory_is_short = false;
static size_t largest_allocation = 0;

// Stands before the C library's for this program and the libraries it loads.
extern "C" void* aligned_alloc(size_t alignment, size_t size) {
  largest_allocation = std::max(largest_allocation, size);
  void* block = nullptr;
  if (memory_is_short || posix_memalign(&block, alignment, size) != 0) return nullptr;
  return block;
}

namespace {

using test::Vector;

using morun::simd::narrow_bits, morun::simd::widen_bits;
using Halves = Vector<uint16_t>;

uint16_t defined_element(size_t n_inner, const uint16_t* x, const uint16_t* w) {
  float lane[4] = {};
  size_t k = 0;
  for (; k < n_inner / 4 * 4; ++k) lane[k % 4] = std::fma(widen_bits(x[k]), widen_bits(w[k]), lane[k % 4]);
  float sum = (lane[0] + lane[1]) + (lane[2] + lane[3]);
  for (; k < n_inner; ++k) sum = std::fma(widen_bits(x[k]), widen_bits(w[k]), sum);
  return sum == sum ? narrow_bits(sum) : 0x7e00;
}

enum Magnitudes { cancelling, any, subnormal, huge, n_kind };

// Returns the rows behind one unused value, so that no row begins at the boundary of a vector and the last row ends
// with the allocation. A cancelling row mirrors its first half, in W with the sign changed. The exact sum is then 0,
// and the computed sum shows in which order the roundings were made.
Halves rows(test::Random& random, Magnitudes kind, size_t n_row, size_t n_inner, uint16_t sign_of_mirrored) {
  constexpr uint64_t lowest[] = {15, 0, 0, 24}, n_exponent[] = {8, 31, 8, 7};
  Halves values(1 + n_row * n_inner);
  for (size_t i = 0; i < n_row * n_inner; ++i) {
    const uint64_t bits = random.bits(), more = bits >> 40, k = i % n_inner, mirrored = n_inner - 1 - k;
    const uint64_t exponent = kind == any && more % 512 == 0 ? 31 : lowest[kind] + more % n_exponent[kind];
    values[1 + i] = static_cast<uint16_t>((bits & 0x83ff) | exponent << 10);
    if (kind == cancelling && k == mirrored) values[1 + i] = 0;
    if (kind == cancelling && k > mirrored) values[1 + i] = values[1 + i - k + mirrored] ^ sign_of_mirrored;
  }
  return values;
}

uint64_t check(test::Random& random, Magnitudes kind, size_t n_row, size_t n_col, size_t n_inner, uint64_t hash) {
  SCOPED_TRACE(testing::Message() << n_row << " x " << n_col << " x " << n_inner << ", kind " << kind);
  const Halves x = rows(random, kind, n_row, n_inner, 0), w = rows(random, kind, n_col, n_inner, 0x8000);
  const uint16_t *const X = x.data() + 1, *const W = w.data() + 1;
  const Halves untouched(n_row * n_col, 0x1234);
  Halves expected = untouched;
  for (size_t i = 0; i < n_row * n_col; ++i)
    expected[i] = defined_element(n_inner, X + i / n_col * n_inner, W + i % n_col * n_inner);
  for (const bool is_short : {false, true}) {
    Halves A = untouched;
    memory_is_short = is_short;
    EXPECT_EQ(morun_tensor_cpu_matmul_scenario_5(n_row, n_col, n_inner, A.data(), X, W), n_row);
    memory_is_short = false;
    EXPECT_TRUE(A == expected) << (is_short ? "without scratch" : "with scratch");
    hash = test::digest(A, hash);
  }
  return hash;
}

TEST(CpuTensorProduct, FollowsItsDefinitionToTheLastBitEverywhere) {
  test::Random random(1);
  uint64_t hash = 0xcbf29ce484222325u, count = 0;
  for (size_t n_inner : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 31, 255, 256, 257, 258, 259, 260, 513})
    for (size_t n_row : {0, 1, 2, 3, 4, 5, 6, 7, 13})
      for (size_t n_col : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 33})
        hash = check(random, Magnitudes(count++ % n_kind), n_row, n_col, n_inner, hash);
  const size_t past_a_block[][3] = {{262, 260, 12}, {8, 261, 21}, {7, 9, 1031}, {5, 10, 1030}, {2, 9, 4103}};
  for (const auto& [n_row, n_col, n_inner] : past_a_block)
    for (int kind = 0; kind < n_kind; ++kind) hash = check(random, Magnitudes(kind), n_row, n_col, n_inner, hash);
  EXPECT_LT(largest_allocation, size_t{1} << 20);
  printf("digest %llu\n", static_cast<unsigned long long>(hash));
  EXPECT_EQ(hash, 4458099809456135733u);
}

// Rows are taken in groups, of as many as the registers hold.
TEST(CpuTensorProduct, GroupsAnyNumberOfRows) {
  test::Random random(2);
  for (size_t n_row = 8; n_row <= 26; ++n_row) check(random, any, n_row, 9, 15, 0);
}

}  // namespace

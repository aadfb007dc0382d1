// The numeric loops of the library. The folder loops/ is compiled once for each vector backend of the build, in a
// namespace of the backend's name. The rest of the library is compiled for the baseline of the architecture and calls
// the loops of the backend that loops() has chosen.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace tavik {

// All wh layouts have the same form: in each band of 32 rows, each column of 32-bit words becomes 128 contiguous bytes.
// A word holds two columns of f16, four columns of i8 or eight columns of i4. WordMap::zip_nibbles reorders the nibbles
// of each i4 word.
enum class WordMap { keep, zip_nibbles };

// X(result, name, parameters) for each loop. Where a function of a public header has the same name, with or without a
// prefix, its comment describes the loop.
//
// In any layout of blocks, without scratch memory where none can be had (loops/blocks.cpp):
//   transpose_units      transposes a row-major n_row x n_col matrix of units of `unit` bytes, in place
//   block_linearize, block_unlinearize  convert row-major elements of `width` bytes to blocks of block_rows x block_cols
//                        and back, in place
// Whole bands of 32 rows in place (loops/bands.cpp):
//   f16_rows_to_ah, f16_ah_to_rows  n_row and n_col are multiples of 32
//   rows_to_word_columns  converts n_bands bands of row-major words to the wh layouts
// Operands and results of the integer products (loops/int_tiles.cpp, loops/dequantise.cpp):
//   byte_rows_to_tiles   copies bytes to 64 x 32 tiles that are row-major inside; n_row is a multiple of 64 and n_col of
//                        32
//   nibble_rows_to_tiles  takes one i4 in the low nibble of each byte and writes the wh layout: whole 32 x 32 tiles of
//                        512 bytes, padded with zero
//   i32_tiles_to_rows    converts i32 from 64 x 32 tiles to row-major; columns past the last whole tile are not written
#define TAVIK_LOOPS(X)                                                                                                \
  X(void, transpose_units, (uint64_t n_row, uint64_t n_col, size_t unit, std::byte * data))                           \
  X(void, block_linearize,                                                                                            \
    (uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols, size_t width, std::byte * data))       \
  X(void, block_unlinearize,                                                                                          \
    (uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols, size_t width, std::byte * data))       \
  X(void, f16_rows_to_ah, (uint64_t n_row, uint64_t n_col, uint16_t * data))                                          \
  X(void, f16_ah_to_rows, (uint64_t n_row, uint64_t n_col, uint16_t * data))                                          \
  X(void, rows_to_word_columns, (uint64_t n_bands, uint64_t words_per_row, WordMap map, std::byte * data))            \
  X(void, byte_rows_to_tiles, (uint64_t n_row, uint64_t n_col, const uint8_t* src, uint8_t* dst))                     \
  X(void, nibble_rows_to_tiles, (uint64_t n_row, uint64_t n_col, const uint8_t* src, uint8_t* dst))                   \
  X(void, i32_tiles_to_rows, (uint64_t n_row, uint64_t n_col, const int32_t* src, int32_t* dst))                      \
  X(void, w4_flat_to_weight, (uint8_t * dst, const uint8_t* src, uint64_t n_row, uint64_t n_col))                     \
  X(void, f32_to_f16, (uint64_t count, const float* src, uint16_t* dst))                                              \
  X(void, f16_to_f32, (uint64_t count, const uint16_t* src, float* dst))                                              \
  X(void, f32_rm_to_f16_ah, (uint64_t n_row, uint64_t n_col, const float* src, uint16_t* dst))                        \
  X(void, f16_ah_to_f32_rm, (uint64_t n_row, uint64_t n_col, const uint16_t* src, float* dst))                        \
  X(void, f32_rm_to_u8_rm,                                                                                            \
    (uint64_t n_row, uint64_t n_col, const float* src, uint8_t* dst, float* scales, uint32_t* sums))                  \
  X(void, f32_rm_to_u8_ah,                                                                                            \
    (uint64_t n_row, uint64_t n_col, const float* src, uint8_t* dst, float* scales, uint32_t* sums))                  \
  X(void, f32_rm_to_u16_rm,                                                                                           \
    (uint64_t n_row, uint64_t n_col, const float* src, uint8_t* high, uint8_t* low, float* scales, uint32_t* sums))   \
  X(void, f16_rm_to_i8_rm,                                                                                            \
    (uint64_t n_row, uint64_t n_col, const uint16_t* src, int8_t* dst, int8_t* zero_points, uint16_t* scales,         \
     int32_t* sums))                                                                                                  \
  X(void, f16_rm_to_i4_rm,                                                                                            \
    (uint64_t n_row, uint64_t n_col, const uint16_t* src, uint32_t* dst, uint32_t* zero_points, uint16_t* scales,     \
     int32_t* sums))                                                                                                  \
  X(void, a8w8_output_to_f32_rm,                                                                                      \
    (int32_t n_row, int32_t n_col, int32_t n_inner, float* dst, const int32_t* acc, const float* activation_scales,   \
     const int32_t* activation_sums, const int8_t* zero_points, const uint16_t* weight_scales,                        \
     const int32_t* weight_sums))                                                                                     \
  X(void, a8w4_output_to_f32_rm,                                                                                      \
    (int32_t n_row, int32_t n_col, int32_t n_inner, float* dst, const int32_t* acc, const float* activation_scales,   \
     const int32_t* activation_sums, const uint32_t* zero_points, const uint16_t* weight_scales,                      \
     const int32_t* weight_sums))                                                                                     \
  X(void, qmmbp_HxD, (uint64_t ldc, uint64_t n_inner, float* C, const uint16_t* Wb, const uint16_t* Ab))              \
  X(void, qmmbp_HxD_, (uint64_t ldc, uint64_t n_inner, float* C, const uint16_t* Wb, const uint16_t* Ab))             \
  X(void, qdotxH, (uint64_t n_inner, float* Crow, const uint16_t* Wb, const uint16_t* Arow))                          \
  X(void, dravin_math_matmul_pq,                                                                                      \
    (uint64_t n_row, uint64_t n_col, uint64_t n_inner, uint64_t p, uint64_t q, float* C, const uint16_t* A,           \
     const uint16_t* W))                                                                                              \
  X(void, cpu_mm, (uint64_t n_row, uint64_t n_col, uint64_t n_inner, float* C, const uint16_t* A, const uint16_t* W)) \
  X(void, tensor_product,                                                                                             \
    (uint64_t n_row, uint64_t n_col, uint64_t n_inner, uint16_t * A, const uint16_t* X, const uint16_t* W))

// The loops of one backend.
struct Loops {
  const char* backend;  // its name
#define TAVIK_MEMBER(result, name, parameters) result(*name) parameters;
  TAVIK_LOOPS(TAVIK_MEMBER)
#undef TAVIK_MEMBER
};

// Chooses the backend at the first call. Any number of threads may make the first call.
const Loops& choose_loops();
extern std::atomic<const Loops*> chosen_loops;

inline const Loops& loops() {
  const Loops* const chosen = chosen_loops.load(std::memory_order_acquire);
  return chosen ? *chosen : choose_loops();
}

#if defined(MORUN_BACKEND)
inline namespace MORUN_BACKEND {
#  define TAVIK_DECLARATION(result, name, parameters) result name parameters;
TAVIK_LOOPS(TAVIK_DECLARATION)
#  undef TAVIK_DECLARATION
}  // namespace MORUN_BACKEND
#endif

}  // namespace tavik

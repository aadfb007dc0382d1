#include "source/host/error.h"
#include "source/host/kernels/size_check.h"

namespace {

constexpr char reporting_file[] = "source/host/kernels";

// Returns the number of bytes from the first to the last element of n_row rows that stand in 64 x 32 tiles. An element
// takes `width` bytes.
uint64_t bytes_in_tall_tiles(int32_t n_row, int32_t n_col, uint64_t width) {
  if (n_row == 0 || n_col == 0) return 0;
  const uint64_t last_row = tavik::widen_dimension(n_row) - 1,
                 tiles_per_band = tavik::widen_dimension(n_col) / tavik::tile_side;
  const uint64_t last_tile = last_row / tavik::tall_tile_rows * tiles_per_band + tiles_per_band - 1;
  return (last_tile * tavik::tall_tile_rows + last_row % tavik::tall_tile_rows + 1) * tavik::tile_side * width;
}

// The DSP reads X and writes A0 without padding them, so all n_row rows must lie inside these buffers.
int32_t check(const tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner) {
  TAVIK_TRY(tavik::mm_size_check(context, tavik::widen_dimension(n_row), tavik::widen_dimension(n_col),
                                 tavik::widen_dimension(n_inner)));
  return tavik::cross_session_size_check(context, bytes_in_tall_tiles(n_row, n_inner, sizeof(uint8_t)),
                                         bytes_in_tall_tiles(n_row, n_col, sizeof(int32_t)));
}

}  // namespace

uint32_t tavik_veyra_1mm_ui8i8_i32_tessel(tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner,
                                          uint32_t, uint32_t, uint32_t W_fd, uint32_t, uint32_t, uint32_t W_offset) {
  TAVIK_TRY(check(context, n_row, n_col, n_inner));
  uint64_t handle;
  TAVIK_TRY(tavik::find_handle(context, W_fd, &handle));
  return TAVIK_REMOTE(__LINE__, tavik_veyra_1mm_a8w8(handle, n_row, n_col, n_inner, W_fd, W_offset));
}

uint32_t tavik_veyra_1mm_ui8i4_i32_tessel(tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner,
                                          uint32_t, uint32_t, uint32_t W_fd, uint32_t, uint32_t, uint32_t W_offset) {
  TAVIK_TRY(check(context, n_row, n_col, n_inner));
  uint64_t handle;
  TAVIK_TRY(tavik::find_handle(context, W_fd, &handle));
  return TAVIK_REMOTE(__LINE__, tavik_veyra_1mm_a8w4(handle, n_row, n_col, n_inner, W_fd, W_offset));
}

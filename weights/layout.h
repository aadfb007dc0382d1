// Forms of packed matrices, and where their parts stand.
#pragma once

#include <cstdint>
#include <string_view>

#include "include/morun_weights.h"

namespace weights {

constexpr uint64_t tile = 32;
constexpr uint64_t part_alignment = 2048;
constexpr uint64_t data_alignment = 4096;                                  // of the data in the file
constexpr uint64_t largest_matrix = (uint64_t{1} << 32) - part_alignment;  // bytes

constexpr uint64_t round_up(uint64_t value, uint64_t multiple) {
  return (value + multiple - 1) / multiple * multiple;
}

constexpr bool is_packed(int32_t form) {
  return form == MORUN_WEIGHTS_F16 || form == MORUN_WEIGHTS_A8W8 || form == MORUN_WEIGHTS_A8W4;
}
constexpr bool is_quantised(int32_t form) {
  return form == MORUN_WEIGHTS_A8W8 || form == MORUN_WEIGHTS_A8W4;
}
constexpr uint64_t bits_per_value(int32_t form) {
  return form == MORUN_WEIGHTS_F16 ? 16 : form == MORUN_WEIGHTS_A8W8 ? 8 : 4;
}

// The signed 4-bit value number `index` of a word, counted from its least significant bits. int4_to_int8 of the library
// has a name that a program may have for something else, so the companion does not call it.
constexpr int8_t nibble(uint32_t word, uint64_t index) {
  return static_cast<int8_t>(((word >> 4 * index & 15) ^ 8) - 8);
}

// Throws EXTENTS. `form` is a packed one.
morun_weights_layout layout_of(int32_t form, uint64_t n_inner, uint64_t n_col);

// The names that stand in files and on command lines; NULL and -1 for what is none.
const char* form_name(int32_t form);
int32_t form_by_name(std::string_view name);
const char* quantiser_name(int32_t quantiser);
int32_t quantiser_by_name(std::string_view name);

}  // namespace weights

// The remote interface of the DSP module: one table, from which the stub functions, the interface description and the
// dispatcher on the other side are made.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/parlo.h"

// The methods that take 32-bit scalars only: METHOD(number, name, scalars in order). Methods 0 (open), 1 (close) and 22
// (version) have shapes of their own and stand below. "ressource" is the interface's own spelling.
#define TAVIK_SCALAR_METHODS(METHOD)                      \
  METHOD(2, veyra_clear_cache)                            \
  METHOD(3, veyra_mmap_get_AX, A0_fd, A1_fd, A2_fd, X_fd) \
  METHOD(4, veyra_mmap_put_AX)                            \
  METHOD(5, veyra_ressource_acquire)                      \
  METHOD(6, veyra_ressource_release)                      \
  METHOD(7, veyra_lock_tessel)                            \
  METHOD(8, veyra_unlock_tessel)                          \
  METHOD(9, veyra_mm_f16, TAVIK_SCALARS_MM)               \
  METHOD(10, veyra_1mm_f16, TAVIK_SCALARS_1MM)            \
  METHOD(11, veyra_2mm_f16, TAVIK_SCALARS_2MM)            \
  METHOD(12, veyra_3mm_f16, TAVIK_SCALARS_3MM)            \
  METHOD(13, veyra_test, size, v_fd)                      \
  METHOD(14, veyra_mm_a8w8, TAVIK_SCALARS_MM)             \
  METHOD(15, veyra_1mm_a8w8, TAVIK_SCALARS_1MM)           \
  METHOD(16, veyra_2mm_a8w8, TAVIK_SCALARS_2MM)           \
  METHOD(17, veyra_3mm_a8w8, TAVIK_SCALARS_3MM)           \
  METHOD(18, veyra_mm_a8w4, TAVIK_SCALARS_MM)             \
  METHOD(19, veyra_1mm_a8w4, TAVIK_SCALARS_1MM)           \
  METHOD(20, veyra_2mm_a8w4, TAVIK_SCALARS_2MM)           \
  METHOD(21, veyra_3mm_a8w4, TAVIK_SCALARS_3MM)

#define TAVIK_SCALARS_MM n_row, n_col, n_inner, A_fd, X_fd, W_fd, A_offset, X_offset, W_offset
#define TAVIK_SCALARS_1MM n_row, n_col, n_inner, W_fd, W_offset
#define TAVIK_SCALARS_2MM n_row, n_col, n_inner, UW_fd, FW_fd, UW_offset, FW_offset
#define TAVIK_SCALARS_3MM n_row, n_col_q, n_col_kv, n_inner, QW_fd, KW_fd, VW_fd, QW_offset, KW_offset, VW_offset

// TAVIK_FOR_EACH(APPLY, a, b, ...) is APPLY(a) APPLY(b) ..., for up to 64 of them.
#define TAVIK_FOR_EACH(APPLY, ...) __VA_OPT__(TAVIK_RESCAN(TAVIK_STEP(APPLY, __VA_ARGS__)))
#define TAVIK_STEP(APPLY, first, ...) APPLY(first) __VA_OPT__(TAVIK_STEP_AGAIN TAVIK_PARENTHESES(APPLY, __VA_ARGS__))
#define TAVIK_STEP_AGAIN() TAVIK_STEP
#define TAVIK_PARENTHESES ()
#define TAVIK_RESCAN(...) TAVIK_RESCAN_16(TAVIK_RESCAN_16(TAVIK_RESCAN_16(TAVIK_RESCAN_16(__VA_ARGS__))))
#define TAVIK_RESCAN_16(...) TAVIK_RESCAN_4(TAVIK_RESCAN_4(TAVIK_RESCAN_4(TAVIK_RESCAN_4(__VA_ARGS__))))
#define TAVIK_RESCAN_4(...) TAVIK_RESCAN_1(TAVIK_RESCAN_1(TAVIK_RESCAN_1(TAVIK_RESCAN_1(__VA_ARGS__))))
#define TAVIK_RESCAN_1(...) __VA_ARGS__

namespace tavik::remote {

enum class Kind : uint8_t { none, uri, handle_out, handle_in, scalar_in, scalar_out, text_out };

struct Parameter {
  const char* name = nullptr;
  Kind kind = Kind::none;
};

struct Method {
  uint32_t number;
  const char* name;
  std::array<Parameter, 10> parameters;

  constexpr uint32_t count(Kind kind) const {
    uint32_t n = 0;
    for (const Parameter& parameter : parameters) n += parameter.kind == kind;
    return n;
  }
  constexpr uint32_t n_parameters() const { return static_cast<uint32_t>(parameters.size()) - count(Kind::none); }

  // A string or text sends its length along in the primitive input buffer.
  constexpr uint32_t primitive_in_bytes() const {
    return 4 * (count(Kind::scalar_in) + count(Kind::uri) + count(Kind::text_out));
  }
  constexpr uint32_t primitive_out_bytes() const { return 4 * count(Kind::scalar_out); }

  // The scalars word without the method number: the counts of buffers and handles.
  constexpr uint32_t buffer_counts() const {
    const uint32_t n_in = (primitive_in_bytes() != 0) + count(Kind::uri);
    const uint32_t n_out = (primitive_out_bytes() != 0) + count(Kind::text_out);
    return PARLO_SCALARS(0, n_in, n_out) | count(Kind::handle_in) << 4 | count(Kind::handle_out);
  }
  constexpr uint32_t scalars() const { return number << 24 | buffer_counts(); }
};

#define TAVIK_SCALAR_PARAMETER(name) Parameter{#name, Kind::scalar_in},
#define TAVIK_METHOD_ROW(number, name, ...) \
  Method{number, #name, {TAVIK_FOR_EACH(TAVIK_SCALAR_PARAMETER, __VA_ARGS__)}},

// In order of their numbers.
inline constexpr std::array<Method, 23> methods = {{
    Method{0, "open", {Parameter{"uri", Kind::uri}, Parameter{"h", Kind::handle_out}}},
    Method{1, "close", {Parameter{"h", Kind::handle_in}}},
    TAVIK_SCALAR_METHODS(TAVIK_METHOD_ROW)
        Method{22,
               "veyra_get_version",
               {Parameter{"major", Kind::scalar_out}, Parameter{"minor", Kind::scalar_out},
                Parameter{"patch", Kind::scalar_out}, Parameter{"version_prerel", Kind::text_out},
                Parameter{"veyra_version", Kind::scalar_out}}},
}};

#undef TAVIK_METHOD_ROW
#undef TAVIK_SCALAR_PARAMETER

// The arguments of each scalar method as a record, field by field the primitive input buffer.
#define TAVIK_SCALAR_FIELD(name) uint32_t name;
#define TAVIK_ARGUMENTS_RECORD(number, name, ...)   \
  struct name##_arguments {                         \
    static constexpr uint32_t method = number;      \
    TAVIK_FOR_EACH(TAVIK_SCALAR_FIELD, __VA_ARGS__) \
  };
TAVIK_SCALAR_METHODS(TAVIK_ARGUMENTS_RECORD)
#undef TAVIK_ARGUMENTS_RECORD
#undef TAVIK_SCALAR_FIELD

// The published words.
static_assert([] {
  for (uint32_t number = 0; number < methods.size(); ++number)
    if (methods[number].number != number) return false;
  return true;
}());
static_assert(methods[0].buffer_counts() == 0x20001 && methods[1].buffer_counts() == 0x10);
static_assert(methods[2].scalars() == 0x02000000 && methods[8].scalars() == 0x08000000);
static_assert(methods[3].scalars() == 0x03010000 && methods[3].primitive_in_bytes() == 16);
static_assert(methods[9].scalars() == 0x09010000 && methods[9].primitive_in_bytes() == 36);
static_assert(methods[15].scalars() == 0x0f010000 && methods[15].primitive_in_bytes() == 20);
static_assert(methods[20].scalars() == 0x14010000 && methods[20].primitive_in_bytes() == 28);
static_assert(methods[21].scalars() == 0x15010000 && methods[21].primitive_in_bytes() == 40);
static_assert(methods[13].scalars() == 0x0d010000 && methods[13].primitive_in_bytes() == 8);
static_assert(methods[22].scalars() == 0x16010200 && methods[22].primitive_in_bytes() == 4 &&
              methods[22].primitive_out_bytes() == 16);

}  // namespace tavik::remote

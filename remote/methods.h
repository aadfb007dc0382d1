// The remote interface of the DSP module, as one table. The stub functions, the interface description and the
// dispatcher of the emulated DSP are made from it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/parlo.h"

// The methods whose parameters are 32-bit scalars only: METHOD(number, host function, scalars in order). A method's
// published name is the name of its host function without "tavik_". Methods 0 (open), 1 (close) and 22 (version) have
// other parameters and stand below. The spelling "ressource" is part of the interface.
#define TAVIK_SCALAR_METHODS(METHOD)                            \
  METHOD(2, tavik_veyra_clear_cache)                            \
  METHOD(3, tavik_veyra_mmap_get_AX, A0_fd, A1_fd, A2_fd, X_fd) \
  METHOD(4, tavik_veyra_mmap_put_AX)                            \
  METHOD(5, tavik_veyra_ressource_acquire)                      \
  METHOD(6, tavik_veyra_ressource_release)                      \
  METHOD(7, tavik_veyra_lock_tessel)                            \
  METHOD(8, tavik_veyra_unlock_tessel)                          \
  METHOD(9, tavik_veyra_mm_f16, TAVIK_SCALARS_MM)               \
  METHOD(10, tavik_veyra_1mm_f16, TAVIK_SCALARS_1MM)            \
  METHOD(11, tavik_veyra_2mm_f16, TAVIK_SCALARS_2MM)            \
  METHOD(12, tavik_veyra_3mm_f16, TAVIK_SCALARS_3MM)            \
  METHOD(13, tavik_veyra_test, size, v_fd)                      \
  METHOD(14, tavik_veyra_mm_a8w8, TAVIK_SCALARS_MM)             \
  METHOD(15, tavik_veyra_1mm_a8w8, TAVIK_SCALARS_1MM)           \
  METHOD(16, tavik_veyra_2mm_a8w8, TAVIK_SCALARS_2MM)           \
  METHOD(17, tavik_veyra_3mm_a8w8, TAVIK_SCALARS_3MM)           \
  METHOD(18, tavik_veyra_mm_a8w4, TAVIK_SCALARS_MM)             \
  METHOD(19, tavik_veyra_1mm_a8w4, TAVIK_SCALARS_1MM)           \
  METHOD(20, tavik_veyra_2mm_a8w4, TAVIK_SCALARS_2MM)           \
  METHOD(21, tavik_veyra_3mm_a8w4, TAVIK_SCALARS_3MM)

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

enum class ParameterKind : uint8_t { none, uri, handle_out, handle_in, scalar_in, scalar_out, text_out };

struct Parameter {
  const char* name = nullptr;
  ParameterKind kind = ParameterKind::none;
};

struct Method {
  uint32_t number = 0;
  const char* name = nullptr;
  std::array<Parameter, 10> parameters;

  constexpr uint32_t count(ParameterKind kind) const {
    uint32_t n = 0;
    for (const Parameter& parameter : parameters) n += parameter.kind == kind;
    return n;
  }
  constexpr uint32_t n_parameters() const {
    return static_cast<uint32_t>(parameters.size()) - count(ParameterKind::none);
  }

  // A method with a uri or a text also passes its length, as a word of the primitive input buffer.
  constexpr uint32_t primitive_in_bytes() const {
    return 4 * (count(ParameterKind::scalar_in) + count(ParameterKind::uri) + count(ParameterKind::text_out));
  }
  constexpr uint32_t primitive_out_bytes() const { return 4 * count(ParameterKind::scalar_out); }

  // The scalars word without the method number: the numbers of buffers and handles.
  constexpr uint32_t buffer_counts() const {
    const uint32_t n_in = (primitive_in_bytes() != 0) + count(ParameterKind::uri);
    const uint32_t n_out = (primitive_out_bytes() != 0) + count(ParameterKind::text_out);
    return PARLO_SCALARS(0, n_in, n_out) | count(ParameterKind::handle_in) << 4 | count(ParameterKind::handle_out);
  }
  constexpr uint32_t scalars() const { return number << 24 | buffer_counts(); }
};

inline constexpr uint32_t open_method = 0, close_method = 1, get_version_method = 22;

#define TAVIK_COUNT_METHOD(...) +1
inline constexpr size_t n_methods = 3 TAVIK_SCALAR_METHODS(TAVIK_COUNT_METHOD);
#undef TAVIK_COUNT_METHOD

// Returns "" for a function whose name does not begin with tavik_.
constexpr const char* published_name(std::string_view function) {
  constexpr std::string_view prefix = "tavik_";
  return function.starts_with(prefix) ? function.data() + prefix.size() : "";
}

// methods[n] is the method with number n.
inline constexpr std::array<Method, n_methods> methods = [] {
  using enum ParameterKind;
  std::array<Method, n_methods> table;
  const auto add = [&table](const Method& method) {
    if (method.number < n_methods) table[method.number] = method;
  };
  add({open_method, "open", {Parameter{"uri", uri}, Parameter{"h", handle_out}}});
  add({close_method, "close", {Parameter{"h", handle_in}}});
  add({get_version_method,
       "veyra_get_version",
       {Parameter{"major", scalar_out}, Parameter{"minor", scalar_out}, Parameter{"patch", scalar_out},
        Parameter{"version_prerel", text_out}, Parameter{"veyra_version", scalar_out}}});
#define TAVIK_SCALAR_PARAMETER(name) Parameter{#name, scalar_in},
#define TAVIK_ADD_METHOD(number, function, ...) \
  add({number, published_name(#function), {TAVIK_FOR_EACH(TAVIK_SCALAR_PARAMETER, __VA_ARGS__)}});
  TAVIK_SCALAR_METHODS(TAVIK_ADD_METHOD)
#undef TAVIK_ADD_METHOD
#undef TAVIK_SCALAR_PARAMETER
  return table;
}();

// The arguments of each scalar method as a record, which is the primitive input buffer field by field.
#define TAVIK_SCALAR_FIELD(name) uint32_t name;
#define TAVIK_ARGUMENTS_RECORD(number, function, ...) \
  struct function##_arguments {                       \
    static constexpr uint32_t method = number;        \
    TAVIK_FOR_EACH(TAVIK_SCALAR_FIELD, __VA_ARGS__)   \
  };
TAVIK_SCALAR_METHODS(TAVIK_ARGUMENTS_RECORD)
#undef TAVIK_ARGUMENTS_RECORD
#undef TAVIK_SCALAR_FIELD

constexpr bool are_all_methods(bool (*condition)(const Method&)) {
  for (const Method& method : methods)
    if (!condition(method)) return false;
  return true;
}
static_assert(are_all_methods([](const Method& method) { return method.name != nullptr; }),
              "two methods have the same number, or a number is left out: numbers go from 0 up, one each");
static_assert(are_all_methods([](const Method& method) { return *method.name != '\0'; }),
              "the functions of methods begin with tavik_");
static_assert(n_methods <= 32, "the scalars word has five bits for the number of a method");

// The published scalars words and buffer sizes.
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

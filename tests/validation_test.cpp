// What the functions say that refuse before they compute, and what the vector aids print: calls against expected texts.
#include <cmath>
#include <thread>

#include "include/morun.h"
#include "include/morun_tensor.h"
#include "include/tavik.h"
#include "tests/transcript.h"
#include "tests/upper.h"

namespace {

class Validation : public test::Transcript {
 protected:
  tavik_context* c = nullptr;
};

// ---- Tensors

using Tensor = morun_tensor;
using test::make_view;

uint64_t memory[1];

Tensor matrix(uint64_t n_row, uint64_t n_col) {
  return morun_tensor_matrix(n_row, n_col, MORUN_DTYPE_F16, MORUN_LAYOUT_2D_RM, memory);
}
Tensor vector(uint64_t length) {
  Tensor t = morun_tensor_matrix(length, 1, MORUN_DTYPE_F16, MORUN_LAYOUT_1D_LINEAR, memory);
  t.ndims = 1;
  t.dims[1] = t.strides[1] = 0;  // not read
  return t;
}
TEST_F(Validation, TensorRecords) {
#define CHANGED(tensor, ...)               \
  play(#tensor " with " #__VA_ARGS__, [] { \
    Tensor t = tensor;                     \
    __VA_ARGS__;                           \
    return morun_tensor_validate(&t);      \
  })
  PLAY(morun_tensor_validate(nullptr));
  CHANGED(matrix(4, 8), t.data = nullptr, t.ndims = 0);
  CHANGED(matrix(4, 8), t.ndims = 0);
  CHANGED(matrix(4, 8), t.dims[0] = t.strides[0] = 0);
  CHANGED(matrix(4, 8), t.strides[0] = t.dims[1] = 0);
  CHANGED(matrix(4, 8), t.dims[1] = t.strides[1] = 0);
  CHANGED(matrix(4, 8), t.strides[1] = t.num_elements = 0);
  CHANGED(matrix(4, 8), t.num_elements = 0);
  CHANGED(matrix(4, 8), t.data_offset = 32);
  CHANGED(matrix(4, 8), t.data_offset = 1, t.layout = 0);
  CHANGED(matrix(4, 8), t.layout = 0, t.strides[0] = 9);
  CHANGED(matrix(4, 8), t.layout = 7);
  CHANGED(matrix(4, 8), t.strides[0] = 9);
  CHANGED(matrix(4, 8), t.strides[1] = 2, t.data_dtype = 6);
  CHANGED(matrix(4, 8), t.layout = 6, t.is_contiguous = 2);
  CHANGED(matrix(4, 8), t.data_dtype = 6);
  CHANGED(matrix(4, 8), t.quantization = 1);
  CHANGED(matrix(4, 8), make_view(t, 10, 2, 45), t.layout = 7);
  CHANGED(matrix(4, 8), make_view(t, 10, 2, 45), t.layout = 0);
  CHANGED(matrix(4, 8), make_view(t, 10, 2, 44));
  CHANGED(matrix(4, 8), t.dims[0] = uint64_t{1} << 61);  // times 8 columns: nothing at all, in 64 bits
  CHANGED(vector(5), t.layout = 1, t.strides[0] = 2);
  CHANGED(vector(5), t.strides[0] = 2);
  CHANGED(vector(5), make_view(t, 2, 0, 15), t.data_offset = 3);
  CHANGED(vector(5), make_view(t, 2, 0, 14), t.data_offset = 3);
#undef CHANGED
}

TEST_F(Validation, TensorProducts) {
  const Tensor a4x5 = matrix(4, 5), x4x8 = matrix(4, 8), w8x5 = matrix(8, 5), column1 = matrix(1, 1),
               column5 = matrix(5, 1), v1 = vector(1), v4 = vector(4), v5 = vector(5), v8 = vector(8);
  Tensor rank_0 = a4x5, rank_1 = a4x5, rank_3 = a4x5, quantised = x4x8;
  rank_0.ndims = 0, rank_1.ndims = 1, rank_3.ndims = 3, quantised.quantization = 1;
#define VALIDATE(result, left, right) \
  play(#result " = " #left " * " #right, [&] { return morun_mm_tensor_validate(&result, &left, &right); })
  VALIDATE(v1, v8, v8);
  VALIDATE(v5, v8, w8x5);
  VALIDATE(v4, x4x8, v8);
  VALIDATE(a4x5, rank_0, rank_3);
  VALIDATE(a4x5, quantised, a4x5);
  VALIDATE(v8, v8, v4);
  VALIDATE(v4, v8, v8);
  VALIDATE(column1, v8, v8);
  VALIDATE(v4, x4x8, a4x5);
  VALIDATE(x4x8, x4x8, w8x5);
  VALIDATE(w8x5, x4x8, w8x5);
  VALIDATE(rank_1, x4x8, w8x5);
  VALIDATE(v4, v4, w8x5);
  VALIDATE(v8, v8, w8x5);
  VALIDATE(column5, v8, w8x5);
  VALIDATE(v8, x4x8, v4);
  VALIDATE(v8, x4x8, v8);
  VALIDATE(a4x5, x4x8, v8);
#undef VALIDATE
  const auto of_layouts = [&](uint32_t result, uint32_t left, uint32_t right) {
    Tensor t[] = {a4x5, x4x8, w8x5};
    t[0].layout = result, t[1].layout = left, t[2].layout = right;
    play("layouts " + std::to_string(result) + " = " + std::to_string(left) + " * " + std::to_string(right),
         [&] { return morun_mm_tensor_validate(&t[0], &t[1], &t[2]); });
  };
  of_layouts(3, 3, 4);
  of_layouts(3, 1, 4);
  for (uint32_t layout = 0; layout < 9; ++layout) {
    of_layouts(layout, 1, 1);
    of_layouts(1, layout, 1);
    of_layouts(1, 1, layout);
  }
  PLAY(morun_mm_tensor_validate(nullptr, &rank_0, &rank_0));
  PLAY(morun_mm_tensor_validate(&rank_0, nullptr, &rank_0));
  PLAY(morun_mm_tensor_validate(&rank_0, &rank_0, nullptr));
}

// ---- Layouts

TEST_F(Validation, CheckedLayouts) {
  constexpr uint64_t past_32_bits = (uint64_t{1} << 32) + 33;
  std::vector<uint16_t> data(64 * 64, 7);
  const std::vector<uint16_t> before = data;
  auto* const bytes = reinterpret_cast<uint8_t*>(data.data());
  auto* const i32 = reinterpret_cast<int32_t*>(data.data());
  const auto play_in_place = [&]<class T>(const std::string& name, uint32_t (*convert)(uint64_t, uint64_t, T*)) {
    auto* const values = reinterpret_cast<T*>(bytes);
    play(name + " of NULL", [&] { return convert(48, 40, nullptr); });
    for (const auto& [n_row, n_col] : {std::pair{uint64_t{48}, uint64_t{40}}, {past_32_bits, 32}, {64, 40}, {0, ~0u}})
      play(name + " of " + std::to_string(n_row) + " x " + std::to_string(n_col),
           [&, n_row = n_row, n_col = n_col] { return convert(n_row, n_col, values); });
  };
  play_in_place("morun_cpu_rm_to_ah_f16_inplace", morun_cpu_rm_to_ah_f16_inplace);
  play_in_place("morun_cpu_ah_to_rm_f16_inplace", morun_cpu_ah_to_rm_f16_inplace);
  play_in_place("morun_cpu_rm_to_wh_f16_inplace", morun_cpu_rm_to_wh_f16_inplace);
  play_in_place("morun_cpu_rm_to_wh_i8_inplace", morun_cpu_rm_to_wh_i8_inplace);
  PLAY(morun_cpu_rm_to_wh_i8(48, 32, nullptr, bytes));
  PLAY(morun_cpu_rm_to_wh_i8(48, 32, bytes, nullptr));
  PLAY(morun_cpu_rm_to_wh_i8(32, 32, bytes, bytes + 4096));
  PLAY(morun_cpu_rm_to_wh_i8(48, past_32_bits, bytes, bytes + 4096));
  PLAY(morun_cpu_rm_to_wh_i8(48, 64, bytes, bytes + 4096));
  PLAY(morun_cpu_rm_to_wh_i4(nullptr, bytes, 1, 1));
  PLAY(morun_cpu_rm_to_wh_i4(bytes, nullptr, 1, 1));
  PLAY(morun_cpu_ui8i4_ah_to_i32_rm(1, 32, nullptr, i32));
  PLAY(morun_cpu_ui8i4_ah_to_i32_rm(1, 32, i32, nullptr));
  PLAY(morun_cpu_ui8i8_ah_to_i32_rm(1, 32, nullptr, i32));
  PLAY(morun_cpu_ui8i8_ah_to_i32_rm(1, 32, i32, nullptr));
  EXPECT_EQ(data, before);
}

// ---- Reference products

TEST_F(Validation, ReferenceProducts) {
  constexpr tavik_options limits = {1 << 16, 256, 1 << 16, 0};
  prepare([&] { tavik_init(&limits, &c), watch(c); });
  const auto play_both = [&](uint64_t n_row, uint64_t n_col, uint64_t n_inner) {
    const std::string shape =
        std::to_string(n_row) + " x " + std::to_string(n_col) + ", inner " + std::to_string(n_inner);
    play("of halves, " + shape,
         [&] { return tavik_cpu_mm_fp32_rm_fp16_rm_fp16_zb(c, n_row, n_col, n_inner, nullptr, nullptr, nullptr); });
    play("of floats, " + shape,
         [&] { return tavik_cpu_mm_fp32_rm_fp32_rm_fp16_zb(c, n_row, n_col, n_inner, nullptr, nullptr, nullptr); });
  };
  constexpr uint64_t wraps = uint64_t{1} << 60;
  play_both(999, 48, 33);
  play_both(999, 32, 40);
  play_both(257, 32, 32);
  play_both(64, 1056, 32);
  play_both(64, 32, 1056);
  play_both(16, wraps, 32);
  play_both(16, 32, wraps);
  play_both(~uint64_t{0}, 0, 0);
  play_both(0, 32, 32);
  say("--- what limits of its own allow, and the buffer cannot hold");
  c->n_row_max = c->input_matrix_size_max = c->output_matrix_size_max = ~uint64_t{0};
  const uint64_t n_row = c->X_size / (2 * 32);
  std::vector<float> a((n_row + 1) * 32), result(a.size());
  const std::vector<uint16_t> w(32 * 32);
  for (const uint64_t n : {n_row, n_row + 1})
    play("of floats, " + std::to_string(n) + " rows",
         [&] { return tavik_cpu_mm_fp32_rm_fp32_rm_fp16_zb(c, n, 32, 32, result.data(), a.data(), w.data()); });
}

// ---- Error records

TEST_F(Validation, ErrorRecords) {
  const std::string text(200, 'x');
  PLAY((tavik_set_error(3, text.c_str(), text.c_str(), 7, "%s", text.c_str()),
        tavik_error_print(tavik_error_get_last()), 0));
  play("tavik_malloc of nothing, after that, and another thread's error", [&] {
    void* pointer = nullptr;
    tavik_set_error(1, "here", "file", 1, "message");
    std::thread([] {
      tavik_error_print(tavik_error_get_last());
      tavik_set_error(2, "there", "file", 1, "message");
    }).join();
    return tavik_malloc(&pointer, 0);
  });
}

// ---- Aids for vectors

TEST_F(Validation, VectorAids) {
  const std::vector<int8_t> weights = {-3, 1, 2, 3, 4, 5, 6, 7, 8, 17};
  const std::vector<float> five = {1, 2, 3, 4, 5}, thousand(1000, 16777217.0f / 10);
  say("--- the edges, and the statistics of all");
  PLAY(tavik_vector_print_i8(stdout, 10, weights.data(), "weights", 3));
  for (const auto& [count, edge] : {std::pair{5ull, 3ull}, {5, UINT64_MAX / 2 + 1}, {4, 2}, {5, 0}, {0, 1}})
    play(std::to_string(count) + " values, an edge of " + std::to_string(edge),
         [&, n = count, n_edge = edge] { return tavik_vector_print_f32(stdout, n, five.data(), "x", n_edge); });
  PLAY(tavik_vector_print_f32(stdout, 1000, thousand.data(), "x", 0));  // sums in double precision
  say("--- each type by a value that another type's reading would get wrong");
  const uint8_t u8 = 200;
  const int8_t i8 = -56;
  const uint16_t f16 = 0xc100;
  const int32_t i32 = -2147483647, beyond_f32 = -16777217;
  const uint32_t u32 = 4294967295u;
  const float f32 = 0.1f;
  PLAY(tavik_vector_print_u8(stdout, 1, &u8, "x", 1));
  PLAY(tavik_vector_print_i8(stdout, 1, &i8, "x", 1));
  PLAY(tavik_vector_print_f16(stdout, 1, &f16, "x", 1));
  PLAY(tavik_vector_print_i32(stdout, 1, &i32, "x", 1));
  PLAY(tavik_vector_print_u32(stdout, 1, &u32, "x", 1));
  PLAY(tavik_vector_print_f32(stdout, 1, &f32, "x", 1));
  say("--- comparison, which fails beyond its tolerance only");
  const std::pair<std::vector<float>, std::vector<float>> checks[] = {
      {{}, {}}, {{1, 2000, -1}, {1.5f, 0, -1}}, {{1, -2000.5f}, {1, 0}}, {{NAN, 1, 5}, {0, NAN, 2}}, {{INFINITY}, {0}}};
  for (const auto& [reference, data] : checks)
    play("of " + std::to_string(data.size()) + " values", [&reference = reference, &data = data] {
      return tavik_vector_check_f32(stdout, data.size(), reference.data(), data.data(), "x");
    });
  const float references[] = {199, -58, -3, -16777216, 4294967296.0f, 1};
  PLAY(tavik_vector_check_u8(stdout, 1, &references[0], &u8, "x"));
  PLAY(tavik_vector_check_i8(stdout, 1, &references[1], &i8, "x"));
  PLAY(tavik_vector_check_f16(stdout, 1, &references[2], &f16, "x"));
  PLAY(tavik_vector_check_i32(stdout, 1, &references[3], &beyond_f32, "x"));
  PLAY(tavik_vector_check_u32(stdout, 1, &references[4], &u32, "x"));
  PLAY(tavik_vector_check_f32(stdout, 1, &references[5], &f32, "x"));
}

}  // namespace

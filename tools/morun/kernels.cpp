#include "tools/morun/kernels.h"

#include <algorithm>

#include "tools/morun/error.h"

namespace tool {
namespace {

// ---- Single kernels ------------------------------------------------------------------------------------------------

uint32_t run_on_own_buffers(const Call& c) {
  const auto& [n_col, w, host_weights, result] = c.products[0];
  return tavik_npu_mm_f16_ah_f16_ah_f16_wh(c.context, c.n_row, n_col, c.n_inner, w.fd, w.fd, w.fd, c.a_offset,
                                           c.x_offset, w.values);
}

// The kernel ignores the descriptors of A and X.
template <auto kernel>
uint32_t run_on_cross_session_buffers(const Call& c) {
  const auto& [n_col, w, host_weights, result] = c.products[0];
  return kernel(c.context, c.n_row, n_col, c.n_inner, ~0u, ~0u, w.fd, 0, 0, w.values);
}

template <auto kernel, typename Element>
uint32_t run_on_host(const Call& c) {
  const auto& [n_col, w, host_weights, result] = c.products[0];
  return kernel(c.context, static_cast<uint64_t>(c.n_row), static_cast<uint64_t>(n_col),
                static_cast<uint64_t>(c.n_inner), result, static_cast<const Element*>(c.x), host_weights);
}

uint32_t run_test(const Call& c) {
  return tavik_npu_test(c.context, c.n_row, c.products[0].weights.fd);
}

// ---- One to three products of a converted activation ---------------------------------------------------------------

const float* activation(const Call& c) {
  return static_cast<const float*>(c.x);
}

uint32_t run_f16_1(const Call& c) {
  const Product& p = c.products[0];
  return tavik_npu_mm_f32_rm_f32_rm_f16_wh(c.context, c.n_row, p.n_col, c.n_inner, p.result, activation(c),
                                           p.weights.fd, p.weights.values);
}

uint32_t run_f16_2(const Call& c) {
  const auto& [p, q, unused] = c.products;
  return tavik_npu_2mm_f32_rm_f32_rm_f16_wh(c.context, c.n_row, p.n_col, c.n_inner, p.result, q.result, activation(c),
                                            p.weights.fd, q.weights.fd, p.weights.values, q.weights.values);
}

uint32_t run_f16_3(const Call& c) {
  const auto& [p, q, r] = c.products;
  return tavik_npu_3mm_f32_rm_f32_rm_f16_wh(c.context, c.n_row, p.n_col, q.n_col, c.n_inner, p.result, q.result,
                                            r.result, activation(c), p.weights.fd, q.weights.fd, r.weights.fd,
                                            p.weights.values, q.weights.values, r.weights.values);
}

template <auto kernel>
uint32_t run_quantised_1(const Call& c) {
  const auto& p = c.products[0];
  const WeightArrays& w = p.weights;
  return kernel(c.context, c.n_row, p.n_col, c.n_inner, p.result, activation(c), w.fd, w.values, w.zero_points,
                w.scales, w.sums);
}

template <auto kernel>
uint32_t run_quantised_2(const Call& c) {
  const auto& [p, q, unused] = c.products;
  const WeightArrays &u = p.weights, &f = q.weights;
  return kernel(c.context, c.n_row, p.n_col, c.n_inner, p.result, q.result, activation(c), u.fd, f.fd, u.values,
                u.zero_points, u.scales, u.sums, f.values, f.zero_points, f.scales, f.sums);
}

template <auto kernel>
uint32_t run_quantised_3(const Call& c) {
  const auto& [p, q, r] = c.products;
  const WeightArrays &a = p.weights, &k = q.weights, &v = r.weights;
  return kernel(c.context, c.n_row, p.n_col, q.n_col, c.n_inner, p.result, q.result, r.result, activation(c), a.fd,
                k.fd, v.fd, a.values, a.zero_points, a.scales, a.sums, k.values, k.zero_points, k.scales, k.sums,
                v.values, v.zero_points, v.scales, v.sums);
}

// ---- Remote methods ------------------------------------------------------------------------------------------------

// The number of rows that a method takes, in tiles of `tile_rows`.
template <uint32_t tile_rows>
uint32_t rows(const Call& c) {
  return (static_cast<uint32_t>(c.n_row) + tile_rows - 1) / tile_rows * tile_rows;
}
uint32_t columns(const Product& product) {
  return static_cast<uint32_t>(product.n_col);
}
uint32_t inner(const Call& c) {
  return static_cast<uint32_t>(c.n_inner);
}

int remote_on_own_buffers(uint64_t handle, const Call& c) {
  const Product& p = c.products[0];
  const WeightArrays& w = p.weights;
  return tavik_veyra_mm_f16(handle, rows<32>(c), columns(p), inner(c), w.fd, w.fd, w.fd, c.a_offset, c.x_offset,
                            w.values);
}

template <auto method, uint32_t tile_rows>
int remote_1(uint64_t handle, const Call& c) {
  const Product& p = c.products[0];
  return method(handle, rows<tile_rows>(c), columns(p), inner(c), p.weights.fd, p.weights.values);
}

template <auto method, uint32_t tile_rows>
int remote_2(uint64_t handle, const Call& c) {
  const auto& [p, q, unused] = c.products;
  return method(handle, rows<tile_rows>(c), columns(p), inner(c), p.weights.fd, q.weights.fd, p.weights.values,
                q.weights.values);
}

template <auto method, uint32_t tile_rows>
int remote_3(uint64_t handle, const Call& c) {
  const auto& [p, q, r] = c.products;
  return method(handle, rows<tile_rows>(c), columns(p), columns(q), inner(c), p.weights.fd, q.weights.fd, r.weights.fd,
                p.weights.values, q.weights.values, r.weights.values);
}

// ---- Upper interface -----------------------------------------------------------------------------------------------

template <typename A, typename X, typename W>
int32_t call_upper(int32_t (*function)(int32_t, int32_t, int32_t, int32_t, A*, const X*, const W*), const Call& c) {
  const auto& [a, x, w] = c.tensors;
  return function(MORUN_DOMAIN_NPU0, c.n_row, c.products[0].n_col, c.n_inner, static_cast<A*>(a.data),
                  static_cast<const X*>(x.data), static_cast<const W*>(w.data));
}

template <auto function>
uint32_t run_upper(const Call& c) {
  return static_cast<uint32_t>(call_upper(function, c));
}

template <uint32_t platform>
uint32_t run_tensors(const Call& c) {
  const auto& [a, x, w] = c.tensors;
  return static_cast<uint32_t>(morun_mm_tensor(platform, &a, &x, &w));
}

// ---- Table ---------------------------------------------------------------------------------------------------------

using enum Operands;
using enum WeightKind;

constexpr UpperForm tensors(morun_tensor_dtype_e x, morun_tensor_layout_e x_layout, morun_tensor_layout_e w_layout,
                            const char* shared, size_t row_multiple, bool packs_rows = false) {
  return {x, x_layout, w_layout, shared, row_multiple, true, packs_rows};
}
constexpr auto run_on_npu = run_tensors<MORUN_PLATFORM_NPU0>;
constexpr auto run_on_cpu = run_tensors<MORUN_PLATFORM_CPU>;
constexpr auto rm = MORUN_LAYOUT_2D_RM, ah = MORUN_LAYOUT_2D_AH, wh = MORUN_LAYOUT_2D_WH;
constexpr auto u8 = MORUN_DTYPE_U8, half = MORUN_DTYPE_F16, f32 = MORUN_DTYPE_F32;

// The integer products of the upper interface end the process when the DSP refuses them, so they come last.
constexpr Kernel table[] = {
    {"tavik_npu_test", bytes, f16, 1, run_test, nullptr},
    {"tavik_npu_mm_f16_ah_f16_ah_f16_wh", own_buffers, f16, 1, run_on_own_buffers, remote_on_own_buffers},
    {"tavik_npu_mm_f32_rm_f32_rm_f16_wh", converted, f16, 1, run_f16_1, remote_1<tavik_veyra_1mm_f16, 32>},
    {"tavik_npu_2mm_f32_rm_f32_rm_f16_wh", converted, f16, 2, run_f16_2, remote_2<tavik_veyra_2mm_f16, 32>},
    {"tavik_npu_3mm_f32_rm_f32_rm_f16_wh", converted, f16, 3, run_f16_3, remote_3<tavik_veyra_3mm_f16, 32>},
    {"tavik_npu_mm_a8w8_f32_rm_f32_rm_i8f16_wh", converted, a8w8, 1,
     run_quantised_1<tavik_npu_mm_a8w8_f32_rm_f32_rm_i8f16_wh>, remote_1<tavik_veyra_1mm_a8w8, 64>},
    {"tavik_npu_2mm_a8w8_f32_rm_f32_rm_i8f16_wh", converted, a8w8, 2,
     run_quantised_2<tavik_npu_2mm_a8w8_f32_rm_f32_rm_i8f16_wh>, remote_2<tavik_veyra_2mm_a8w8, 64>},
    {"tavik_npu_3mm_a8w8_f32_rm_f32_rm_i8f16_wh", converted, a8w8, 3,
     run_quantised_3<tavik_npu_3mm_a8w8_f32_rm_f32_rm_i8f16_wh>, remote_3<tavik_veyra_3mm_a8w8, 64>},
    {"tavik_npu_mm_a8w4_f32_rm_f32_rm_i4f16_wh", converted, a8w4, 1,
     run_quantised_1<tavik_npu_mm_a8w4_f32_rm_f32_rm_i4f16_wh>, remote_1<tavik_veyra_1mm_a8w4, 64>},
    {"tavik_npu_2mm_a8w4_f32_rm_f32_rm_i4f16_wh", converted, a8w4, 2,
     run_quantised_2<tavik_npu_2mm_a8w4_f32_rm_f32_rm_i4f16_wh>, remote_2<tavik_veyra_2mm_a8w4, 64>},
    {"tavik_npu_3mm_a8w4_f32_rm_f32_rm_i4f16_wh", converted, a8w4, 3,
     run_quantised_3<tavik_npu_3mm_a8w4_f32_rm_f32_rm_i4f16_wh>, remote_3<tavik_veyra_3mm_a8w4, 64>},
    {"tavik_veyra_1mm_ui8i8_i32_tessel", cross_session, a8w8, 1,
     run_on_cross_session_buffers<tavik_veyra_1mm_ui8i8_i32_tessel>, remote_1<tavik_veyra_1mm_a8w8, 1>},
    {"tavik_veyra_1mm_ui8i4_i32_tessel", cross_session, a8w4, 1,
     run_on_cross_session_buffers<tavik_veyra_1mm_ui8i4_i32_tessel>, remote_1<tavik_veyra_1mm_a8w4, 1>},
    {"tavik_cpu_mm_fp32_rm_fp16_rm_fp16_zb", host_f16, f16, 1,
     run_on_host<tavik_cpu_mm_fp32_rm_fp16_rm_fp16_zb, uint16_t>, nullptr},
    {"tavik_cpu_mm_fp32_rm_fp32_rm_fp16_zb", host_f32, f16, 1, run_on_host<tavik_cpu_mm_fp32_rm_fp32_rm_fp16_zb, float>,
     nullptr},
    {"morun_npu_mm_f16", upper, f16, 1, run_upper<morun_npu_mm_f16>, nullptr, {half, ah, wh, "AXW", 32}},
    {"morun_npu_mm_f16f16_f16", upper, f16, 1, run_upper<morun_npu_mm_f16f16_f16>, nullptr, {half, rm, wh, "AW", 32}},
    {"morun_npu_mm_f32f16_f32", upper, f16, 1, run_upper<morun_npu_mm_f32f16_f32>, nullptr, {f32, rm, wh, "W", 32}},
    {"morun_mm_tensor P1", upper, f16, 1, run_on_npu, nullptr, tensors(f32, rm, wh, "W", 1)},
    {"morun_mm_tensor P2", upper, f16, 1, run_on_npu, nullptr, tensors(half, ah, wh, "", 32, true)},
    {"morun_mm_tensor P3", upper, f16, 1, run_on_npu, nullptr, tensors(half, rm, wh, "W", 32)},
    {"morun_mm_tensor P5 NPU", upper, f16, 1, run_on_npu, nullptr, tensors(half, rm, rm, "", 32, true)},
    {"morun_mm_tensor P5 CPU", upper_on_host, f16, 1, run_on_cpu, nullptr, tensors(half, rm, rm, "", 1, true)},
    {"morun_npu_mm_u8i8_i32", upper, a8w8, 1, run_upper<morun_npu_mm_u8i8_i32>, nullptr, {u8, rm, wh, "", 64}},
    {"morun_npu_mm_u8i4_i32", upper, a8w4, 1, run_upper<morun_npu_mm_u8i4_i32>, nullptr, {u8, rm, wh, "W", 64}},
    {"morun_mm_tensor P4", upper, a8w4, 1, run_on_npu, nullptr, tensors(u8, rm, wh, "W", 64)},
    {"morun_mm_tensor P6", upper, a8w8, 1, run_on_npu, nullptr, tensors(u8, rm, wh, "W", 64)},
};

}  // namespace

std::span<const Kernel> kernels() {
  return table;
}

const Kernel& kernel_for(WeightKind weights, size_t n_weights) {
  return *std::find_if(std::begin(table), std::end(table), [&](const Kernel& kernel) {
    return kernel.operands == converted && kernel.weights == weights && kernel.n_weights == n_weights;
  });
}

std::vector<const Kernel*> kernels_named(std::string_view part) {
  std::vector<const Kernel*> found;
  for (const Kernel& kernel : table) {
    if (std::string_view(kernel.name).find(part) != std::string_view::npos) found.push_back(&kernel);
  }
  if (found.empty()) throw Misuse("no kernel has {} in its name; the --help lists them", part);
  return found;
}

}  // namespace tool

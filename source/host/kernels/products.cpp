#include "source/host/kernels/products.h"

#include <cstddef>

#include "source/host/context.h"
#include "source/host/kernels/size_check.h"
#include "source/host/staging.h"

namespace tavik {
namespace {

constexpr char reporting_file[] = "source/host/kernels";

// Where a quantised activation stands in X: first the bytes in 64 x 32 tiles, then one scale and one sum for each row.
struct QuantisedStaging {
  QuantisedStaging(const Activation& activation)
      : scales(tavik_align_offset(widen_dimension(activation.n_inner) * round_up_to_64(activation.n_row), 2048)),
        sums(scales + tavik_align_offset(uint64_t{4} * round_up_to_64(activation.n_row), 2048)),
        end(sums + 4 * widen_dimension(activation.n_row)) {}
  uint64_t scales;  // this and the next two: byte offsets from X
  uint64_t sums;
  uint64_t end;
};

void* result_buffer(const tavik_context* context, int index) {
  void* const buffers[] = {context->A0, context->A1, context->A2};
  return buffers[index];
}

template <class T>
T* at(void* base, uint64_t offset) {
  return reinterpret_cast<T*>(static_cast<std::byte*>(base) + offset);
}

uint64_t f16_activation_bytes(const Activation& activation) {
  return 2 * widen_dimension(activation.n_inner) * round_up_to_32(activation.n_row);
}
uint64_t f16_result_bytes(int32_t n_row, int32_t n_col) {
  return 2 * widen_dimension(n_col) * round_up_to_32(n_row);
}

void stage_f16(tavik_context* context, const Activation& activation) {
  const uint64_t n_row = widen_dimension(activation.n_row), n_inner = widen_dimension(activation.n_inner);
  tavik_f32_rm_to_f16_ah(n_row, n_inner, activation.X, static_cast<uint16_t*>(context->X));
  clear_stale_rows(context, staged_halves(n_row, n_inner));
}
int32_t bring_back_f16(tavik_context* context, const Activation& activation, const Weights& weights, int buffer) {
  tavik_f16_ah_to_f32_rm(widen_dimension(activation.n_row), widen_dimension(weights.n_col),
                         static_cast<const uint16_t*>(result_buffer(context, buffer)), weights.result);
  return TAVIK_SUCCESS;
}

uint64_t quantised_activation_bytes(const Activation& activation) {
  return QuantisedStaging(activation).end;
}
uint64_t quantised_result_bytes(int32_t n_row, int32_t n_col) {
  return 4 * widen_dimension(n_col) * round_up_to_64(n_row);
}

void stage_quantised(tavik_context* context, const Activation& activation) {
  const uint64_t n_row = widen_dimension(activation.n_row), n_inner = widen_dimension(activation.n_inner);
  const QuantisedStaging staging(activation);
  tavik_f32_rm_to_u8_ah(n_row, n_inner, activation.X, static_cast<uint8_t*>(context->X),
                        at<float>(context->X, staging.scales), at<uint32_t>(context->X, staging.sums));
  clear_stale_rows(context, staged_bytes(n_row, n_inner, staging.end));
}

// Stores the address of the weight buffer in *base. Fails when zero points, scales or sums reach past the buffer's end.
int32_t find_side_data(tavik_context* context, const Weights& weights, uint64_t zero_point_bytes, void** base) {
  const auto fd = static_cast<int32_t>(weights.fd);
  *base = nullptr;
  TAVIK_TRY(tavik_context_get_pointer_from_fd(context, fd, base));
  const uint64_t size = context->buffer_size[find_buffer(context, fd)], n_col = widen_dimension(weights.n_col);
  const auto fits = [size](uint64_t offset, uint64_t bytes) { return offset <= size && bytes <= size - offset; };
  if (fits(weights.side.zero_points, zero_point_bytes) && fits(weights.side.scales, 2 * n_col) &&
      fits(weights.side.sums, 4 * n_col))
    return TAVIK_SUCCESS;
  return TAVIK_FAIL(TAVIK_ERROR_FAILURE, __LINE__,
                    "quantisation data reach past the end of the buffer with descriptor %d", fd);
}

// `n_bit` is the number of bits of a zero point. `output_to_f32` takes the zero points as an array of ZeroPoints.
template <class ZeroPoints, uint64_t n_bit, auto output_to_f32>
int32_t bring_back_quantised(tavik_context* context, const Activation& activation, const Weights& weights, int buffer) {
  void* base;
  TAVIK_TRY(find_side_data(context, weights, widen_dimension(weights.n_col) * n_bit / 8, &base));
  const QuantisedStaging staging(activation);
  output_to_f32(activation.n_row, weights.n_col, activation.n_inner, weights.result,
                static_cast<const int32_t*>(result_buffer(context, buffer)), at<float>(context->X, staging.scales),
                at<int32_t>(context->X, staging.sums), at<ZeroPoints>(base, weights.side.zero_points),
                at<uint16_t>(base, weights.side.scales), at<int32_t>(base, weights.side.sums));
  return TAVIK_SUCCESS;
}
constexpr auto bring_back_a8w8 = bring_back_quantised<int8_t, 8, tavik_a8w8_output_to_f32_rm>;
constexpr auto bring_back_a8w4 = bring_back_quantised<uint32_t, 4, tavik_a8w4_output_to_f32_rm>;

}  // namespace

// The functions that stage activations and bring back results for one weight format, and the deliberate differences
// between the formats.
struct Family {
  uint64_t (*activation_bytes)(const Activation&);
  uint64_t (*result_bytes)(int32_t n_row, int32_t n_col);
  void (*stage)(tavik_context*, const Activation&);
  int32_t (*bring_back)(tavik_context*, const Activation&, const Weights&, int buffer);

  // The fields below apply when several products run one after the other. Each product leaves its result in A0.
  // buffer_read[n] is the number of the result buffer (A0, A1, A2) from which the nth result is brought back.
  int buffer_read[3];
  // The nth product runs in the session that holds weight matrix handle_source[n].
  int handle_source[3];
  // When true, a single product runs on session 0, whichever session holds its weights, and session 0 is not made
  // active.
  bool single_on_session_0;
};

// Kept, in all families: the value product runs in the session of the key weights. Kept, in a8w8: the second and third
// result are read from A1 and A2, although products made one after the other leave nothing there. Kept, in a8w4: the
// single product does not look up the session of its weights.
constinit const Family f16_family = {
    f16_activation_bytes, f16_result_bytes, stage_f16, bring_back_f16, {0, 0, 0}, {0, 1, 1}, false};
constinit const Family a8w8_family = {
    quantised_activation_bytes, quantised_result_bytes, stage_quantised, bring_back_a8w8, {0, 1, 2}, {0, 1, 1}, false};
constinit const Family a8w4_family = {
    quantised_activation_bytes, quantised_result_bytes, stage_quantised, bring_back_a8w4, {0, 0, 0}, {0, 1, 1}, true};

namespace {

using WeightsList = std::initializer_list<Weights>;

int32_t check_sizes(const tavik_context* context, const Family& family, const Activation& activation,
                    WeightsList list) {
  for (const Weights& weights : list)
    TAVIK_TRY(mm_size_check(context, widen_dimension(activation.n_row), widen_dimension(weights.n_col),
                            widen_dimension(activation.n_inner)));
  for (const Weights& weights : list)
    TAVIK_TRY(cross_session_size_check(context, family.activation_bytes(activation),
                                       family.result_bytes(activation.n_row, weights.n_col)));
  return TAVIK_SUCCESS;
}

int32_t first_handle(tavik_context* context, const Family& family, WeightsList list, uint64_t* handle) {
  if (list.size() > 1 || !family.single_on_session_0) return find_handle(context, list.begin()->fd, handle);
  if (!has_active_session(context)) return TAVIK_FAIL(TAVIK_ERROR_FAILURE, __LINE__, not_initialised);
  *handle = context->session_handle[0];
  return TAVIK_SUCCESS;
}

bool are_in_one_session(const tavik_context* context, WeightsList list) {
  if (list.size() == 1) return true;
  for (const Weights& weights : list) {
    if (!is_in_descriptor_table(static_cast<int32_t>(weights.fd))) return false;
    if (context->fd_to_session[weights.fd] != context->fd_to_session[list.begin()->fd]) return false;
  }
  return true;
}

}  // namespace

int32_t run_products(tavik_context* context, const Family& family, const Activation& activation, WeightsList list,
                     const RemoteCall& together, const char* function) {
  TAVIK_TRY(check_sizes(context, family, activation, list));
  uint64_t handle;
  TAVIK_TRY(first_handle(context, family, list, &handle));
  family.stage(context, activation);

  const Weights* const weights = list.begin();
  const int n_weights = static_cast<int>(list.size());
  if (are_in_one_session(context, list)) {
    TAVIK_TRY(together(handle, function));
    for (int i = 0; i < n_weights; ++i) TAVIK_TRY(family.bring_back(context, activation, weights[i], i));
    return TAVIK_SUCCESS;
  }
  for (int i = 0; i < n_weights; ++i) {
    if (i > 0) TAVIK_TRY(find_handle(context, weights[family.handle_source[i]].fd, &handle));
    TAVIK_TRY(weights[i].alone(handle, function));
    TAVIK_TRY(family.bring_back(context, activation, weights[i], family.buffer_read[i]));
  }
  return TAVIK_SUCCESS;
}

}  // namespace tavik

#include "platform/emulator/dsp/methods.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "platform/emulator/dsp/matrix_unit.h"
#include "platform/emulator/dsp/products.h"
#include "platform/emulator/parlo_emulator.h"
#include "remote/methods.h"

namespace parlo::dsp {
namespace {

namespace remote = tavik::remote;

// ---- Methods, each by the record of its arguments -----------------------------------------------------------------

// The invocation that a method carries out.
struct Job {
  Session& session;
  const Call& call;
  Reply& reply;
};

ViewPointer view(const Job& job, uint32_t descriptor) {
  return job.session.view(static_cast<int32_t>(descriptor));
}

// Flips as many bits as the call's fault asks for, evenly spread over the first rows that have as many. at(row, byte)
// is a byte of the result.
void flip_bits(const Job& job, uint64_t n_row, uint64_t row_bytes, auto at) {
  const uint64_t row_bits = 8 * row_bytes, n = std::min<uint64_t>(job.call.n_flipped_bit, n_row * row_bits);
  for (uint64_t i = 0; i < n; ++i) {
    const uint64_t step = (n + row_bits - 1) / row_bits * row_bits / n, bit = step * i + step / 2;
    at(bit / row_bits, bit % row_bits / 8) ^= std::byte(1u << bit % 8);
  }
}

void flip_bits(const Job& job, std::byte* result, uint64_t n_byte) {
  flip_bits(job, 1, n_byte, [result](uint64_t, uint64_t byte) -> std::byte& { return result[byte]; });
}

// Host and DSP share coherent memory here, so there is no cache to clear.
int32_t run(const Job&, const remote::tavik_veyra_clear_cache_arguments&) {
  return KESO_SUCCESS;
}

int32_t run(const Job& job, const remote::tavik_veyra_mmap_get_AX_arguments& a) {
  return job.session.get_AX({static_cast<int32_t>(a.A0_fd), static_cast<int32_t>(a.A1_fd),
                             static_cast<int32_t>(a.A2_fd), static_cast<int32_t>(a.X_fd)});
}

int32_t run(const Job& job, const remote::tavik_veyra_mmap_put_AX_arguments&) {
  return job.session.put_AX();
}

int32_t run(const Job& job, const remote::tavik_veyra_ressource_acquire_arguments&) {
  return job.session.acquire_resources();
}

int32_t run(const Job& job, const remote::tavik_veyra_ressource_release_arguments&) {
  return job.session.release_resources();
}

int32_t run(const Job& job, const remote::tavik_veyra_lock_tessel_arguments&) {
  return job.session.lock_matrix_unit();
}

int32_t run(const Job& job, const remote::tavik_veyra_unlock_tessel_arguments&) {
  return job.session.unlock_matrix_unit();
}

// The self-test adds one to every byte.
int32_t run(const Job& job, const remote::tavik_veyra_test_arguments& a) {
  const ViewPointer v = view(job, a.v_fd);
  if (!v) return PARLO_EMULATOR_DSP_NOT_MAPPED;
  if (a.size > v->length()) return PARLO_EMULATOR_DSP_OUT_OF_RANGE;
  std::transform(v->bytes(), v->bytes() + a.size, v->bytes(),
                 [](std::byte b) { return static_cast<std::byte>(std::to_integer<unsigned>(b) + 1); });
  flip_bits(job, v->bytes(), a.size);
  job.reply.n_byte = 2 * uint64_t{a.size};
  return KESO_SUCCESS;
}

// ---- Products ----------------------------------------------------------------------------------------------------

// Computes the products, counts the bytes of their operands, and flips bits of the first result.
int32_t compute_products(const Job& job, const ProductKind& kind, std::initializer_list<Operands> products) {
  if (const int32_t status = multiply(kind, products); status != KESO_SUCCESS) return status;
  for (const Operands& p : products) {
    const uint64_t n_row = p.n_row, n_col = p.n_col, n_inner = p.n_inner;
    job.reply.n_byte += n_row * n_inner * kind.activation_bytes + n_inner * n_col * kind.weight_bits / 8 +
                        n_row * n_col * kind.result_bytes;
  }
  const Operands& first = *products.begin();
  const uint64_t n_col = first.n_col, alternating_rows = kind.result_bytes == 2 ? 2 : 1;  // see ProductKinds
  flip_bits(job, first.n_row, n_col * kind.result_bytes, [&](uint64_t row, uint64_t byte) -> std::byte& {
    const uint64_t column = byte / kind.result_bytes, in_band = row % kind.tile_rows;
    const uint64_t in_tile =
        (in_band - row % alternating_rows) * tile_size + column % tile_size * alternating_rows + row % alternating_rows;
    const uint64_t tile = (row - in_band) * n_col + column / tile_size * kind.tile_rows * tile_size;
    return first.A.view->bytes()[first.A.offset + (tile + in_tile) * kind.result_bytes + byte % kind.result_bytes];
  });
  return KESO_SUCCESS;
}

// Calls compute(A0, A1, A2, X) with the operands of products whose activation is in X.
template <class Compute>
int32_t run_with_AX(const Job& job, Compute compute) {
  if (const int32_t status = job.session.may_multiply(); status != KESO_SUCCESS) return status;
  std::array<ViewPointer, 4> AX;
  if (const int32_t status = job.session.find_AX(AX); status != KESO_SUCCESS) return status;
  return compute(MatrixPlace{AX[0]}, MatrixPlace{AX[1]}, MatrixPlace{AX[2]}, MatrixPlace{AX[3]});
}

template <class Arguments>
int32_t multiply_1_on_own_buffers(const Job& job, const ProductKind& kind, const Arguments& a) {
  if (const int32_t status = job.session.may_multiply(); status != KESO_SUCCESS) return status;
  return compute_products(job, kind,
                          {{a.n_row,
                            a.n_col,
                            a.n_inner,
                            {view(job, a.A_fd), a.A_offset},
                            {view(job, a.X_fd), a.X_offset},
                            {view(job, a.W_fd), a.W_offset}}});
}

template <class Arguments>
int32_t multiply_1(const Job& job, const ProductKind& kind, const Arguments& a) {
  const MatrixPlace W{view(job, a.W_fd), a.W_offset};
  return run_with_AX(job, [&](const MatrixPlace& A0, const MatrixPlace&, const MatrixPlace&, const MatrixPlace& X) {
    return compute_products(job, kind, {{a.n_row, a.n_col, a.n_inner, A0, X, W}});
  });
}

template <class Arguments>
int32_t multiply_2(const Job& job, const ProductKind& kind, const Arguments& a) {
  const MatrixPlace UW{view(job, a.UW_fd), a.UW_offset}, FW{view(job, a.FW_fd), a.FW_offset};
  return run_with_AX(job, [&](const MatrixPlace& A0, const MatrixPlace& A1, const MatrixPlace&, const MatrixPlace& X) {
    return compute_products(job, kind,
                            {{a.n_row, a.n_col, a.n_inner, A0, X, UW}, {a.n_row, a.n_col, a.n_inner, A1, X, FW}});
  });
}

template <class Arguments>
int32_t multiply_3(const Job& job, const ProductKind& kind, const Arguments& a) {
  const MatrixPlace QW{view(job, a.QW_fd), a.QW_offset}, KW{view(job, a.KW_fd), a.KW_offset},
      VW{view(job, a.VW_fd), a.VW_offset};
  return run_with_AX(job,
                     [&](const MatrixPlace& A0, const MatrixPlace& A1, const MatrixPlace& A2, const MatrixPlace& X) {
                       return compute_products(job, kind,
                                               {{a.n_row, a.n_col_q, a.n_inner, A0, X, QW},
                                                {a.n_row, a.n_col_kv, a.n_inner, A1, X, KW},
                                                {a.n_row, a.n_col_kv, a.n_inner, A2, X, VW}});
                     });
}

#define PARLO_PRODUCT(method, multiply, kind)                                \
  int32_t run(const Job& job, const remote::method##_arguments& arguments) { \
    return multiply(job, matrix_unit().kind, arguments);                     \
  }
PARLO_PRODUCT(tavik_veyra_mm_f16, multiply_1_on_own_buffers, f16)
PARLO_PRODUCT(tavik_veyra_1mm_f16, multiply_1, f16)
PARLO_PRODUCT(tavik_veyra_2mm_f16, multiply_2, f16)
PARLO_PRODUCT(tavik_veyra_3mm_f16, multiply_3, f16)
PARLO_PRODUCT(tavik_veyra_mm_a8w8, multiply_1_on_own_buffers, a8w8)
PARLO_PRODUCT(tavik_veyra_1mm_a8w8, multiply_1, a8w8)
PARLO_PRODUCT(tavik_veyra_2mm_a8w8, multiply_2, a8w8)
PARLO_PRODUCT(tavik_veyra_3mm_a8w8, multiply_3, a8w8)
PARLO_PRODUCT(tavik_veyra_mm_a8w4, multiply_1_on_own_buffers, a8w4)
PARLO_PRODUCT(tavik_veyra_1mm_a8w4, multiply_1, a8w4)
PARLO_PRODUCT(tavik_veyra_2mm_a8w4, multiply_2, a8w4)
PARLO_PRODUCT(tavik_veyra_3mm_a8w4, multiply_3, a8w4)
#undef PARLO_PRODUCT

int32_t run_get_version(const Job& job) {
  const Module& module = job.session.module();
  const uint32_t words[] = {module.major, module.minor, module.patch, module.architecture};
  std::copy(std::begin(words), std::end(words), job.reply.words);
  std::copy(std::begin(module.label), std::end(module.label), job.reply.text);
  flip_bits(job, reinterpret_cast<std::byte*>(job.reply.words), sizeof words);
  return KESO_SUCCESS;
}
static_assert(sizeof Module::label == sizeof Reply::text);

// ---- Dispatch ----------------------------------------------------------------------------------------------------

template <class Arguments>
Arguments arguments_of(const Call& call) {
  Arguments record{};
  constexpr uint32_t n_byte = remote::methods[Arguments::method].primitive_in_bytes();
  if constexpr (n_byte != 0) std::memcpy(&record, call.words, n_byte);
  return record;
}

template <class Arguments>
concept Runnable = requires(const Job& job, const Arguments& arguments) {
  run(job, arguments);
};

#define PARLO_DISPATCH(number, method, ...)                                       \
  case number:                                                                    \
    static_assert(Runnable<remote::method##_arguments>,                           \
                  "give " #method " a run() above, or a row among the products"); \
    return run(job, arguments_of<remote::method##_arguments>(call));

static_assert(2 + remote::methods[0].parameters.size() <= PARLO_EMULATOR_MAX_ARGUMENTS,
              "a call's record holds the handle, the scalars word and every scalar");

}  // namespace

int32_t run_method(Session& session, const Call& call, Reply& reply) {
  const remote::Method* const method = method_of(call.scalars);
  if (!method) return PARLO_EMULATOR_BAD_SCALARS;
  const Job job{session, call, reply};
  switch (method->number) {
    TAVIK_SCALAR_METHODS(PARLO_DISPATCH)
    case remote::get_version_method:
      return run_get_version(job);
  }
  return PARLO_EMULATOR_BAD_SCALARS;
}

}  // namespace parlo::dsp

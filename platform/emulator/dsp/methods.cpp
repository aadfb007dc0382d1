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

ViewPointer view(Session& session, uint32_t descriptor) {
  return session.view(static_cast<int32_t>(descriptor));
}

// Host and DSP share coherent memory here, so there is no cache to clear.
int32_t run(Session&, const remote::tavik_veyra_clear_cache_arguments&) {
  return KESO_SUCCESS;
}

int32_t run(Session& session, const remote::tavik_veyra_mmap_get_AX_arguments& a) {
  return session.get_AX({static_cast<int32_t>(a.A0_fd), static_cast<int32_t>(a.A1_fd), static_cast<int32_t>(a.A2_fd),
                         static_cast<int32_t>(a.X_fd)});
}

int32_t run(Session& session, const remote::tavik_veyra_mmap_put_AX_arguments&) {
  return session.put_AX();
}

int32_t run(Session& session, const remote::tavik_veyra_ressource_acquire_arguments&) {
  return session.acquire_resources();
}

int32_t run(Session& session, const remote::tavik_veyra_ressource_release_arguments&) {
  return session.release_resources();
}

int32_t run(Session& session, const remote::tavik_veyra_lock_tessel_arguments&) {
  return session.lock_matrix_unit();
}

int32_t run(Session& session, const remote::tavik_veyra_unlock_tessel_arguments&) {
  return session.unlock_matrix_unit();
}

// The self-test adds one to every byte.
int32_t run(Session& session, const remote::tavik_veyra_test_arguments& a) {
  const ViewPointer v = view(session, a.v_fd);
  if (!v) return PARLO_EMULATOR_DSP_NOT_MAPPED;
  if (a.size > v->length()) return PARLO_EMULATOR_DSP_OUT_OF_RANGE;
  std::transform(v->bytes(), v->bytes() + a.size, v->bytes(),
                 [](std::byte b) { return static_cast<std::byte>(std::to_integer<unsigned>(b) + 1); });
  return KESO_SUCCESS;
}

// ---- Products ----------------------------------------------------------------------------------------------------

// Calls compute(A0, A1, A2, X) with the operands of products whose activation is in X.
template <class Compute>
int32_t run_with_AX(Session& session, Compute compute) {
  if (const int32_t status = session.may_multiply(); status != KESO_SUCCESS) return status;
  std::array<ViewPointer, 4> AX;
  if (const int32_t status = session.find_AX(AX); status != KESO_SUCCESS) return status;
  return compute(MatrixPlace{AX[0]}, MatrixPlace{AX[1]}, MatrixPlace{AX[2]}, MatrixPlace{AX[3]});
}

template <class Arguments>
int32_t multiply_1_on_own_buffers(Session& session, const ProductKind& kind, const Arguments& a) {
  if (const int32_t status = session.may_multiply(); status != KESO_SUCCESS) return status;
  return multiply(kind, {{a.n_row,
                          a.n_col,
                          a.n_inner,
                          {view(session, a.A_fd), a.A_offset},
                          {view(session, a.X_fd), a.X_offset},
                          {view(session, a.W_fd), a.W_offset}}});
}

template <class Arguments>
int32_t multiply_1(Session& session, const ProductKind& kind, const Arguments& a) {
  const MatrixPlace W{view(session, a.W_fd), a.W_offset};
  return run_with_AX(session, [&](const MatrixPlace& A0, const MatrixPlace&, const MatrixPlace&, const MatrixPlace& X) {
    return multiply(kind, {{a.n_row, a.n_col, a.n_inner, A0, X, W}});
  });
}

template <class Arguments>
int32_t multiply_2(Session& session, const ProductKind& kind, const Arguments& a) {
  const MatrixPlace UW{view(session, a.UW_fd), a.UW_offset}, FW{view(session, a.FW_fd), a.FW_offset};
  return run_with_AX(
      session, [&](const MatrixPlace& A0, const MatrixPlace& A1, const MatrixPlace&, const MatrixPlace& X) {
        return multiply(kind, {{a.n_row, a.n_col, a.n_inner, A0, X, UW}, {a.n_row, a.n_col, a.n_inner, A1, X, FW}});
      });
}

template <class Arguments>
int32_t multiply_3(Session& session, const ProductKind& kind, const Arguments& a) {
  const MatrixPlace QW{view(session, a.QW_fd), a.QW_offset}, KW{view(session, a.KW_fd), a.KW_offset},
      VW{view(session, a.VW_fd), a.VW_offset};
  return run_with_AX(session,
                     [&](const MatrixPlace& A0, const MatrixPlace& A1, const MatrixPlace& A2, const MatrixPlace& X) {
                       return multiply(kind, {{a.n_row, a.n_col_q, a.n_inner, A0, X, QW},
                                              {a.n_row, a.n_col_kv, a.n_inner, A1, X, KW},
                                              {a.n_row, a.n_col_kv, a.n_inner, A2, X, VW}});
                     });
}

#define PARLO_PRODUCT(method, multiply, kind)                                  \
  int32_t run(Session& session, const remote::method##_arguments& arguments) { \
    return multiply(session, matrix_unit().kind, arguments);                   \
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

int32_t run_get_version(const Module& module, const parlo_argument* arguments) {
  const uint32_t words[] = {module.major, module.minor, module.patch, module.architecture};
  std::memcpy(arguments[1].data, words, sizeof words);
  const parlo_argument& label = arguments[2];
  if (label.length != 0) std::strncpy(static_cast<char*>(label.data), module.label, label.length);
  return KESO_SUCCESS;
}

// ---- Dispatch ----------------------------------------------------------------------------------------------------

bool has_length(const parlo_argument& argument, uint64_t length) {
  return argument.length == length && (argument.data || length == 0);
}

// Checks the buffers of a method that may be invoked: a primitive input, a primitive output, a text.
bool buffers_match(const remote::Method& method, const parlo_argument* arguments) {
  uint32_t text_length = 0;
  if (method.primitive_in_bytes() != 0) {
    if (!has_length(*arguments, method.primitive_in_bytes())) return false;
    std::memcpy(&text_length, arguments->data, sizeof text_length);  // a method with a text has no other input
    ++arguments;
  }
  if (method.primitive_out_bytes() != 0 && !has_length(*arguments++, method.primitive_out_bytes())) return false;
  return method.count(remote::ParameterKind::text_out) == 0 || has_length(*arguments, text_length);
}

template <class Arguments>
Arguments unpack(const parlo_argument* arguments) {
  Arguments record{};
  constexpr uint32_t n_byte = remote::methods[Arguments::method].primitive_in_bytes();
  if constexpr (n_byte != 0) std::memcpy(&record, arguments->data, n_byte);
  return record;
}

template <class Arguments>
concept Runnable = requires(Session& session, const Arguments& arguments) {
  run(session, arguments);
};

#define PARLO_DISPATCH(number, method, ...)                                       \
  case number:                                                                    \
    static_assert(Runnable<remote::method##_arguments>,                           \
                  "give " #method " a run() above, or a row among the products"); \
    return run(session, unpack<remote::method##_arguments>(arguments));

static_assert(2 + remote::methods[0].parameters.size() <= PARLO_EMULATOR_MAX_ARGUMENTS,
              "a call's record holds the handle, the scalars word and every scalar");

}  // namespace

int32_t run_method(Session& session, uint32_t scalars, const parlo_argument* arguments) {
  const uint32_t number = PARLO_SCALARS_METHOD(scalars);
  if (number >= remote::methods.size() || number == remote::open_method || number == remote::close_method)
    return PARLO_EMULATOR_BAD_SCALARS;
  const remote::Method& method = remote::methods[number];
  if (scalars != method.scalars()) return PARLO_EMULATOR_BAD_SCALARS;
  if (!arguments && PARLO_SCALARS_N_IN(scalars) + PARLO_SCALARS_N_OUT(scalars) != 0) return PARLO_EMULATOR_BAD_ARGUMENT;
  if (!buffers_match(method, arguments)) return PARLO_EMULATOR_BAD_SCALARS;
  switch (number) {
    TAVIK_SCALAR_METHODS(PARLO_DISPATCH)
    case remote::get_version_method:
      return run_get_version(session.module(), arguments);
  }
  return PARLO_EMULATOR_BAD_SCALARS;
}

}  // namespace parlo::dsp

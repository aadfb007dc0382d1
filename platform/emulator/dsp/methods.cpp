#include "platform/emulator/dsp/methods.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "build/tavik_methods.h"
#include "platform/emulator/dsp/matrix_unit.h"
#include "platform/emulator/parlo_emulator.h"

namespace parlo::dsp {
namespace {

namespace remote = tavik::remote;

// ---- Operands in shared memory -----------------------------------------------------------------------------------

// A matrix of halves somewhere in a view; the view stays as long as the operand does.
struct Operand {
  ViewPointer view;
  uint64_t offset;  // bytes
  uint64_t n_element;

  uint16_t* elements() const { return reinterpret_cast<uint16_t*>(view->bytes() + offset); }
  uint64_t end() const { return offset + n_element * sizeof(uint16_t); }

  int32_t check() const {
    if (!view) return PARLO_EMULATOR_DSP_NOT_MAPPED;
    if (offset % sizeof(uint16_t) != 0) return PARLO_EMULATOR_DSP_MISALIGNED;
    const bool fits = offset <= view->length() && n_element <= (view->length() - offset) / sizeof(uint16_t);
    return fits ? KESO_SUCCESS : PARLO_EMULATOR_DSP_OUT_OF_RANGE;
  }
  bool overlaps(const Operand& other) const {
    return view == other.view && offset < other.end() && other.offset < end();
  }
};

struct Shape {
  uint64_t n_row, n_col, n_inner;  // each below 2^32, so that products of two fit

  bool in_tiles() const { return (n_row | n_col | n_inner) % tile_size == 0; }
};

struct Place {
  ViewPointer view;
  uint64_t offset;
};

// Nothing is written unless every check passes. A result that overlaps an operand is computed aside first.
int32_t multiply(const Shape& shape, Place A_place, Place X_place, Place W_place) {
  if (!shape.in_tiles()) return PARLO_EMULATOR_DSP_BAD_DIMENSION;
  const Operand A{std::move(A_place.view), A_place.offset, shape.n_row * shape.n_col};
  const Operand X{std::move(X_place.view), X_place.offset, shape.n_row * shape.n_inner};
  const Operand W{std::move(W_place.view), W_place.offset, shape.n_inner * shape.n_col};
  for (const Operand* operand : {&A, &X, &W})
    if (const int32_t status = operand->check(); status != KESO_SUCCESS) return status;

  if (!A.overlaps(X) && !A.overlaps(W)) {
    multiply_f16(shape.n_row, shape.n_col, shape.n_inner, X.elements(), W.elements(), A.elements());
    return KESO_SUCCESS;
  }
  const auto result = std::make_unique_for_overwrite<uint16_t[]>(A.n_element);
  multiply_f16(shape.n_row, shape.n_col, shape.n_inner, X.elements(), W.elements(), result.get());
  std::copy_n(result.get(), A.n_element, A.elements());
  return KESO_SUCCESS;
}

// ---- Methods, each by its arguments ------------------------------------------------------------------------------

ViewPointer view(Session& session, uint32_t descriptor) {
  return session.view(static_cast<int32_t>(descriptor));
}

// Methods that are not computed yet.
template <class Arguments>
int32_t run(Session&, const Arguments&) {
  return PARLO_EMULATOR_NOT_IMPLEMENTED;
}

// Host and DSP share coherent memory here.
int32_t run(Session&, const remote::veyra_clear_cache_arguments&) {
  return KESO_SUCCESS;
}

int32_t run(Session& session, const remote::veyra_mmap_get_AX_arguments& a) {
  return session.get_AX({static_cast<int32_t>(a.A0_fd), static_cast<int32_t>(a.A1_fd), static_cast<int32_t>(a.A2_fd),
                         static_cast<int32_t>(a.X_fd)});
}

int32_t run(Session& session, const remote::veyra_mmap_put_AX_arguments&) {
  return session.put_AX();
}

int32_t run(Session& session, const remote::veyra_ressource_acquire_arguments&) {
  return session.acquire_resources();
}

int32_t run(Session& session, const remote::veyra_ressource_release_arguments&) {
  return session.release_resources();
}

int32_t run(Session& session, const remote::veyra_lock_tessel_arguments&) {
  return session.lock_matrix_unit();
}

int32_t run(Session& session, const remote::veyra_unlock_tessel_arguments&) {
  return session.unlock_matrix_unit();
}

int32_t run(Session& session, const remote::veyra_mm_f16_arguments& a) {
  if (const int32_t status = session.may_multiply(); status != KESO_SUCCESS) return status;
  return multiply({a.n_row, a.n_col, a.n_inner}, {view(session, a.A_fd), a.A_offset},
                  {view(session, a.X_fd), a.X_offset}, {view(session, a.W_fd), a.W_offset});
}

int32_t run(Session& session, const remote::veyra_1mm_f16_arguments& a) {
  if (const int32_t status = session.may_multiply(); status != KESO_SUCCESS) return status;
  ViewPointer A0, X;
  if (const int32_t status = session.find_AX(A0, X); status != KESO_SUCCESS) return status;
  return multiply({a.n_row, a.n_col, a.n_inner}, {A0, 0}, {X, 0}, {view(session, a.W_fd), a.W_offset});
}

// The self-test adds one to every byte.
int32_t run(Session& session, const remote::veyra_test_arguments& a) {
  const ViewPointer v = view(session, a.v_fd);
  if (!v) return PARLO_EMULATOR_DSP_NOT_MAPPED;
  if (a.size > v->length()) return PARLO_EMULATOR_DSP_OUT_OF_RANGE;
  std::transform(v->bytes(), v->bytes() + a.size, v->bytes(),
                 [](std::byte b) { return static_cast<std::byte>(std::to_integer<unsigned>(b) + 1); });
  return KESO_SUCCESS;
}

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

// The buffers of a method that may be invoked: a primitive input, a primitive output, a text.
bool buffers_match(const remote::Method& method, const parlo_argument* arguments) {
  uint32_t text_length = 0;
  if (method.primitive_in_bytes() != 0) {
    if (!has_length(*arguments, method.primitive_in_bytes())) return false;
    std::memcpy(&text_length, arguments->data, sizeof text_length);  // where the method has a text, its only input
    ++arguments;
  }
  if (method.primitive_out_bytes() != 0 && !has_length(*arguments++, method.primitive_out_bytes())) return false;
  return method.count(remote::Kind::text_out) == 0 || has_length(*arguments, text_length);
}

template <class Arguments>
Arguments unpack(const parlo_argument* arguments) {
  Arguments record{};
  constexpr uint32_t n_byte = remote::methods[Arguments::method].primitive_in_bytes();
  if constexpr (n_byte != 0) std::memcpy(&record, arguments->data, n_byte);
  return record;
}

#define TAVIK_RUN(number, name, ...) \
  case number:                       \
    return run(session, unpack<remote::name##_arguments>(arguments));

}  // namespace

int32_t run_method(Session& session, uint32_t scalars, const parlo_argument* arguments) {
  const uint32_t number = PARLO_SCALARS_METHOD(scalars);
  if (number < 2 || number >= remote::methods.size()) return PARLO_EMULATOR_BAD_SCALARS;
  const remote::Method& method = remote::methods[number];
  if (scalars != method.scalars()) return PARLO_EMULATOR_BAD_SCALARS;
  if (!arguments && PARLO_SCALARS_N_IN(scalars) + PARLO_SCALARS_N_OUT(scalars) != 0) return PARLO_EMULATOR_BAD_ARGUMENT;
  if (!buffers_match(method, arguments)) return PARLO_EMULATOR_BAD_SCALARS;
  switch (number) {
    TAVIK_SCALAR_METHODS(TAVIK_RUN)
    default:
      return run_get_version(session.module(), arguments);
  }
}

}  // namespace parlo::dsp

#include <morun_built_backends.h>
#include "platform/emulator/dsp/matrix_unit.h"
#include "simd/backends.h"

extern "C" {
#define PARLO_UNIT(backend) extern const parlo::dsp::ProductKinds parlo_matrix_unit_##backend;
MORUN_BUILT_BACKENDS(PARLO_UNIT)
#undef PARLO_UNIT
}

namespace parlo::dsp {

const ProductKinds& matrix_unit() {
  static constexpr const ProductKinds* units[] = {
#define PARLO_UNIT(backend) &parlo_matrix_unit_##backend,
      MORUN_BUILT_BACKENDS(PARLO_UNIT)
#undef PARLO_UNIT
  };
  static const size_t chosen = morun::simd::choose_backend().index;
  return *units[chosen];
}

}  // namespace parlo::dsp

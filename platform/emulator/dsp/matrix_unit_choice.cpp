#include <morun_built_backends.h>
#include "platform/emulator/dsp/matrix_unit.h"
#include "simd/backends.h"

namespace parlo::dsp {

MORUN_TABLES_OF_BACKENDS(ProductKinds, parlo_matrix_unit, units)

const ProductKinds& matrix_unit() {
  static const size_t chosen = morun::simd::choose_backend().index;
  return *units[chosen];
}

}  // namespace parlo::dsp

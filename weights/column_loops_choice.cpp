#include <morun_built_backends.h>
#include "simd/backends.h"
#include "weights/column_loops.h"

extern "C" {
#define WEIGHTS_LOOPS(backend) extern const weights::ColumnLoops morun_column_loops_##backend;
MORUN_BUILT_BACKENDS(WEIGHTS_LOOPS)
#undef WEIGHTS_LOOPS
}

namespace weights {

const ColumnLoops& column_loops() {
  static constexpr const ColumnLoops* loops[] = {
#define WEIGHTS_LOOPS(backend) &morun_column_loops_##backend,
      MORUN_BUILT_BACKENDS(WEIGHTS_LOOPS)
#undef WEIGHTS_LOOPS
  };
  static const size_t chosen = morun::simd::choose_backend().index;
  return *loops[chosen];
}

}  // namespace weights

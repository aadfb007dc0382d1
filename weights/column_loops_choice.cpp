#include <morun_built_backends.h>
#include "simd/backends.h"
#include "weights/column_loops.h"

namespace weights {

MORUN_TABLES_OF_BACKENDS(ColumnLoops, morun_column_loops, loops)

const ColumnLoops& column_loops() {
  static const size_t chosen = morun::simd::choose_backend().index;
  return *loops[chosen];
}

}  // namespace weights

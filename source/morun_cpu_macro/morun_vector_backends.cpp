#include <cstdio>
#include <cstring>

#include "include/morun.h"
#include "simd/backends.h"
#include "source/loops.h"

namespace {

bool is_meant(int32_t which, size_t index) {
  switch (which) {
    case MORUN_BACKENDS_BUILT:
      return true;
    case MORUN_BACKENDS_SUPPORTED:
      return morun::simd::processor_runs(index);
    case MORUN_BACKENDS_IN_USE:
      return strcmp(tavik::loops().backend, morun::simd::backend_name(index)) == 0;
    default:
      return false;
  }
}

}  // namespace

uint64_t morun_vector_backends(int32_t which, char* text, uint64_t size) {
  if (size > 0) text[0] = '\0';
  uint64_t length = 0;
  for (size_t i = 0; i < morun::simd::n_built_backends(); ++i) {
    if (!is_meant(which, i)) continue;
    const bool fits = length < size;
    length += static_cast<uint64_t>(snprintf(fits ? text + length : nullptr, fits ? size - length : 0, "%s%s",
                                             length > 0 ? " " : "", morun::simd::backend_name(i)));
  }
  return length;
}

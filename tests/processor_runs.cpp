// Tells by its status whether this processor runs a vector backend of the build. Argument: the backend.
#include <cstring>

#include "simd/backends.h"

int main(int, char** argument) {
  for (size_t i = 0; i < morun::simd::n_built_backends(); ++i)
    if (strcmp(argument[1], morun::simd::backend_name(i)) == 0) return morun::simd::processor_runs(i) ? 0 : 1;
  return 1;
}

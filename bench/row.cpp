#include "bench/row.h"

#include "include/morun.h"

namespace bench {

std::string backend_in_use() {
  char text[64];
  morun_vector_backends(MORUN_BACKENDS_IN_USE, text, sizeof text);
  return text;
}

double wanted_here(const Wanted& wanted) {
  const std::string backend = backend_in_use();
  if (backend == "avx2") return wanted.avx2;
  if (backend == "avx512_fp16") return wanted.avx512_fp16;
  return backend.starts_with("avx512") ? wanted.avx512 : 0;
}

}  // namespace bench

#include "tools/morun/version.h"

#include <morun.h>

#include <nlohmann/json.hpp>
#include <string>

namespace tool {

const char* vector_backend() {
#if defined(MORUN_SIMD_NEON)
  return "neon";
#elif defined(MORUN_SIMD_AVX2)
  return "avx2";
#elif defined(MORUN_SIMD_PORTABLE)
  return "portable";
#endif
}

std::string version_text(bool as_json) {
  if (!as_json) return MORUN_VERSION;
  std::string version = MORUN_VERSION;
  if (const std::string label = MORUN_VERSION_PRERELEASE; !label.empty()) version += "-" + label;
  const nlohmann::ordered_json whole = {{"version", version},
                                        {"backends", {vector_backend()}},
                                        {"build_type", MORUN_BUILD_TYPE},
                                        {"compiler", MORUN_COMPILER},
                                        {"commit", std::string(commit)}};
  return whole.dump(2);
}

}  // namespace tool

#include "tools/morun/version.h"

#include <morun.h>

#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

namespace tool {

std::string vector_backends(int32_t which) {
  char text[256];
  morun_vector_backends(which, text, sizeof text);
  return text;
}

namespace {

std::vector<std::string> names(const std::string& list) {
  std::istringstream stream(list);
  return {std::istream_iterator<std::string>(stream), {}};
}

}  // namespace

std::string version_text(bool as_json) {
  if (!as_json) return MORUN_VERSION;
  std::string version = MORUN_VERSION;
  if (const std::string label = MORUN_VERSION_PRERELEASE; !label.empty()) version += "-" + label;
  const nlohmann::ordered_json whole = {{"version", version},
                                        {"backends", names(vector_backends(MORUN_BACKENDS_BUILT))},
                                        {"build_type", std::string(build_type)},
                                        {"compiler", std::string(compiler)},
                                        {"commit", std::string(commit)}};
  return whole.dump(2);
}

}  // namespace tool

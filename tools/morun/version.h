// What the command `morun --version` prints.
#pragma once

#include <cstdint>
#include <string>

namespace tool {

// Names of vector backends, with one space between two names; `which` is one of MORUN_BACKENDS_...
std::string vector_backends(int32_t which);

// The commit of the sources, or "unknown"; the type of the build; and the compiler. The build makes the file that defines
// these texts.
extern const char commit[], build_type[], compiler[];

// The version; as JSON with the release's label, the vector backends, and how and from what commit the tool was built.
std::string version_text(bool as_json);

}  // namespace tool

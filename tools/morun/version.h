// What the command `morun --version` prints.
#pragma once

#include <string>

namespace tool {

// The backend of simd/ that the library was compiled for.
const char* vector_backend();

// The commit of the sources, or "unknown". The build makes the file that defines this text.
extern const char commit[];

// The version; as JSON with the release's label, the vector backends, and how and from what commit the tool was built.
std::string version_text(bool as_json);

}  // namespace tool

// The index of a checkpoint in several files: NAME.safetensors.index.json.
#pragma once

#include <map>
#include <set>
#include <string>

namespace weights {

// The tensors that an index names, by their files, which are beside it. Throws OPEN, READ, SHRUNK, INDEX.
std::map<std::string, std::set<std::string>> tensors_by_file(const std::string& path);

}  // namespace weights

// Suggestions for a mistyped word.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tool {

// Returns the candidate that takes the fewest single-character changes from `word`. Returns an empty string when even
// that candidate differs in more than half of its characters.
std::string nearest(std::string_view word, const std::vector<std::string>& candidates);

}  // namespace tool

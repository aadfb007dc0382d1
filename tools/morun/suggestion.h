// The word that somebody may have meant.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tool {

// The candidate that takes the fewest single-character changes from `word`; empty where even that one differs in more than
// half of the characters.
std::string nearest(std::string_view word, const std::vector<std::string>& candidates);

}  // namespace tool

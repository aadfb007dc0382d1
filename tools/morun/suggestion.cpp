#include "tools/morun/suggestion.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace tool {
namespace {

// Returns the smallest number of characters to insert, delete or replace.
size_t distance(std::string_view from, std::string_view to) {
  std::vector<size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < from.size(); ++i) {
    size_t diagonal = std::exchange(row[0], i + 1);
    for (size_t j = 0; j < to.size(); ++j) {
      const size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

}  // namespace

std::string nearest(std::string_view word, const std::vector<std::string>& candidates) {
  const auto from_word = [&](const std::string& candidate) { return distance(word, candidate); };
  const auto found = std::ranges::min_element(candidates, {}, from_word);
  if (found == candidates.end() || 2 * from_word(*found) > std::max(word.size(), found->size())) return "";
  return *found;
}

}  // namespace tool

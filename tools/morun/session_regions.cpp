#include "tools/morun/session_regions.h"

#include <algorithm>

#include "tools/morun/error.h"

namespace tool {
namespace {

constexpr uint64_t largest_buffer = (uint64_t{1} << 31) - 2048;
constexpr uint64_t smallest_filler = uint64_t{1} << 26;

}  // namespace

SessionRegions::SessionRegions(tavik_context* context, uint64_t size, size_t n_wanted)
    : first_{Region(context, size), Region(context, size), Region(context, size)} {
  uint64_t large_size = largest_buffer;
  try {
    while (n_session() < n_wanted) add_session(context, size, large_size);
  } catch (const Error& error) {
    shortage_ = error.what();
  }
}

// When a large buffer cannot be allocated, one of half the size may succeed.
void SessionRegions::add_session(tavik_context* context, uint64_t size, uint64_t& large_size) {
  while (true) {
    try {
      buffers_.emplace_back(context, large_size);
      break;
    } catch (const Error&) {
      if (large_size / 2 < std::max(size, smallest_filler)) throw;
      large_size = tavik_apply_padding(large_size / 2);
    }
  }
  Region& buffer = buffers_.back();
  if (static_cast<size_t>(context->fd_to_session[buffer.fd()]) == n_session()) further_.push_back(&buffer);
}

}  // namespace tool

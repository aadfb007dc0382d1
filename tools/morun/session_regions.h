// Shared buffers in several sessions.
#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <string>
#include <vector>

#include "tools/morun/operands.h"

namespace tool {

// Session 0 gets a region for each of three weight matrices; every further session gets one region for all of them. The
// platform chooses the session that maps a buffer. Large buffers, which are never touched, therefore fill the sessions
// until the library opens the next session.
class SessionRegions {
 public:
  SessionRegions(tavik_context* context, uint64_t size, size_t n_wanted);

  size_t n_session() const { return further_.size() + 1; }
  // Returns the reason why there are fewer sessions than wanted; empty when there are enough.
  const std::string& shortage() const { return shortage_; }

  Region& region(size_t session, size_t weights) { return session == 0 ? first_[weights] : *further_[session - 1]; }

 private:
  void add_session(tavik_context* context, uint64_t size, uint64_t& large_size);

  std::array<Region, 3> first_;
  std::deque<Region> buffers_;  // buffers in further sessions, and buffers that fill sessions
  std::vector<Region*> further_;
  std::string shortage_;
};

}  // namespace tool

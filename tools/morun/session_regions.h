// Shared buffers in several sessions.
#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <string>
#include <vector>

#include "tools/morun/operands.h"

namespace tool {

// Session 0 gets a region for each of three weight matrices, every further session one for all of them. Which session
// maps a buffer is the platform's choice: large buffers, which are not touched, fill sessions up until one is opened
// for the next.
class SessionRegions {
 public:
  SessionRegions(tavik_context* context, uint64_t size, size_t n_wanted);

  size_t n_session() const { return further_.size() + 1; }
  // Why there are not as many sessions as wanted; empty when there are.
  const std::string& shortage() const { return shortage_; }

  Region& region(size_t session, size_t weights) { return session == 0 ? first_[weights] : *further_[session - 1]; }

 private:
  void add_session(tavik_context* context, uint64_t size, uint64_t& large_size);

  std::array<Region, 3> first_;
  std::deque<Region> buffers_;  // in further sessions, and fillers
  std::vector<Region*> further_;
  std::string shortage_;
};

}  // namespace tool

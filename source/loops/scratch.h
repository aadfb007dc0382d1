// Working memory for one call of a conversion. A conversion has no status to return, so it tests whether the allocation
// succeeded and otherwise works without the memory.
#pragma once

#include <cstddef>
#include <cstdlib>

#include "simd/simd.h"
#include "source/tiles.h"

namespace tavik::inline MORUN_BACKEND {

class Scratch {
 public:
  explicit Scratch(size_t size)
      : bytes_(
            static_cast<std::byte*>(aligned_alloc(morun::simd::cache_line, round_up(size, morun::simd::cache_line)))) {}
  ~Scratch() { free(bytes_); }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  std::byte* bytes() const { return bytes_; }
  explicit operator bool() const { return bytes_ != nullptr; }

 private:
  std::byte* bytes_;
};

}  // namespace tavik::inline MORUN_BACKEND

// Prefetching beside a computation.
#pragma once

#include <cstddef>
#include <cstdint>

#include "simd/simd.h"

namespace morun::simd::inline MORUN_BACKEND {

// Fetches memory that will be read soon into the second-level cache, a share at a time. A burst of prefetches waits for
// memory as long as the reads would. A few prefetches between multiplications wait for nothing. The memory consists of
// pieces that stand `pitch` bytes apart.
class Fetcher {
 public:
  Fetcher(const void* first, size_t piece_bytes, size_t pitch, size_t n_piece, size_t n_share)
      : at_(reinterpret_cast<uintptr_t>(first)),
        piece_bytes_(piece_bytes),
        pitch_(pitch),
        n_piece_(n_piece),
        share_((lines_of(piece_bytes) * n_piece + n_share - 1) / n_share) {}

  void fetch_share() {
    for (size_t i = 0; i < share_ && n_piece_ > 0; ++i) {
      prefetch_outer(reinterpret_cast<const void*>(at_ + offset_));
      offset_ += cache_line;
      if (offset_ < piece_bytes_) continue;
      offset_ = 0;
      at_ += pitch_;
      --n_piece_;
    }
  }

 private:
  static size_t lines_of(size_t n_byte) { return (n_byte + cache_line - 1) / cache_line; }

  uintptr_t at_;       // the first of the pieces that are left
  size_t offset_ = 0;  // in that piece
  size_t piece_bytes_, pitch_, n_piece_;
  size_t share_;  // cache lines
};

}  // namespace morun::simd::inline MORUN_BACKEND

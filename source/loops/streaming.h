// Streaming stores, which write to memory past the caches.
#pragma once

#include <cstddef>
#include <cstdint>

#include "simd/simd.h"

namespace tavik::inline MORUN_BACKEND {

// Tells whether streaming stores are worth using. They are slower while source and destination, `bytes` together, fit
// the caches. Rows of the destination must have the same alignment as `dst`.
inline bool should_stream(uint64_t bytes, const void* dst) {
  constexpr uint64_t least = 4u << 20;
  return bytes >= least && reinterpret_cast<uintptr_t>(dst) % 32 == 0;
}

template <bool streaming, class T, class Vector>
void put(T* p, Vector v) {
  if constexpr (streaming) return morun::simd::store_streaming(p, v);
  morun::simd::store(p, v);
}

// Prefetches the `count` elements that begin `distance` elements behind `p` and are written later, unless streaming
// stores will write them.
template <bool streaming, class T>
void fetch_for_put(const T* p, size_t distance, size_t count) {
  constexpr size_t line_elements = 64 / sizeof(T);
  for (size_t i = 0; !streaming && i < count; i += line_elements) morun::simd::prefetch_ahead(p, distance + i);
}

}  // namespace tavik::inline MORUN_BACKEND

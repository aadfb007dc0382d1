// Streaming stores, which write to memory past the caches.
#pragma once

#include <cstddef>
#include <cstdint>

#include "simd/simd.h"

namespace tavik::inline MORUN_BACKEND {

template <class T>
constexpr size_t line_elements = 64 / sizeof(T);  // of a cache line

constexpr size_t tiles_ahead = 2;  // number of tiles by which prefetches run ahead of the writes

// Tells whether streaming stores are worth using. They are slower while source and destination, `bytes` together, fit
// the caches.
inline bool exceeds_caches(uint64_t bytes) {
  return bytes >= 4u << 20;
}

// Tells the same of stores to rows of a destination that begins at `dst`. The rows must have the same alignment as
// `dst`.
inline bool should_stream(uint64_t bytes, const void* dst) {
  return exceeds_caches(bytes) && reinterpret_cast<uintptr_t>(dst) % 32 == 0;
}

// Returns the number of elements between `p`, which is a multiple of their size, and the next cache line's start.
template <class T>
size_t elements_before_line(const T* p) {
  return -reinterpret_cast<uintptr_t>(p) % 64 / sizeof(T);
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
  for (size_t i = 0; !streaming && i < count; i += line_elements<T>) morun::simd::prefetch_ahead(p, distance + i);
}

}  // namespace tavik::inline MORUN_BACKEND

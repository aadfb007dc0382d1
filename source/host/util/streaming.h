// Writing past the caches.
#pragma once

#include <cstddef>
#include <cstdint>

#include "simd/simd.h"

namespace tavik {

// It pays once source and destination, `bytes` together, no longer fit the caches, and costs before. Rows of the
// destination must be aligned as `dst` is.
inline bool should_stream(uint64_t bytes, const void* dst) {
  constexpr uint64_t least = 4u << 20;
  return bytes >= least && reinterpret_cast<uintptr_t>(dst) % 32 == 0;
}

template <bool streaming, class T, class Vector>
void put(T* p, Vector v) {
  if constexpr (streaming) return morun::simd::store_streaming(p, v);
  morun::simd::store(p, v);
}

// Fetches `count` elements that are put later, unless they are put past the caches.
template <bool streaming, class T>
void fetch_for_put(const T* p, size_t count) {
  constexpr size_t line_elements = 64 / sizeof(T);
  for (size_t i = 0; !streaming && i < count; i += line_elements) morun::simd::prefetch(p + i);
}

}  // namespace tavik

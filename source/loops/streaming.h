// Writing to memory past the caches.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "simd/simd.h"

namespace tavik::inline MORUN_BACKEND {

template <class T>
constexpr size_t line_elements = morun::simd::cache_line / sizeof(T);

constexpr size_t tiles_ahead = 2;  // number of tiles by which prefetches run ahead of the writes

// Tells whether writing to dst past the caches is possible and worth it. Streaming is slower while source and destination,
// `bytes` together, fit the caches. dst must be a multiple of the element size.
template <class T>
bool should_stream(uint64_t bytes, const T* dst) {
  return morun::simd::has_streaming_stores && bytes >= 4u << 20 && reinterpret_cast<uintptr_t>(dst) % sizeof(T) == 0;
}

// Returns the number of elements between `p`, which is a multiple of their size, and the next cache line's start.
template <class T>
size_t elements_before_line(const T* p) {
  return -reinterpret_cast<uintptr_t>(p) % morun::simd::cache_line / sizeof(T);
}

// Prefetches the `count` elements that begin `distance` elements behind `p`. If they begin within a cache line, the last
// few may be left out. On Arm, which has no streaming stores, the function does nothing: the processor recognises by itself that
// whole lines are written.
template <class T>
void fetch_ahead(const T* p, size_t distance, size_t count) {
  for (size_t i = 0; morun::simd::has_streaming_stores && i < count; i += line_elements<T>)
    morun::simd::prefetch_ahead(p, distance + i);
}

// Copies a cache line past the caches.
inline void stream_line(void* to, const void* from) {
  const auto* const source = static_cast<const uint8_t*>(from);
  const morun::simd::u8x32 lower = morun::simd::load(source), upper = morun::simd::load(source + 32);
  morun::simd::store_streaming(static_cast<uint8_t*>(to), lower);
  morun::simd::store_streaming(static_cast<uint8_t*>(to) + 32, upper);
}

// Writes consecutive elements past the caches, in whole cache lines. The first element may lie anywhere in a line: large
// blocks of the C library begin 16 bytes past a page. The caller calls fence_streaming() after the last end().
//
// The lines that a writer fills in part are written as usual. Stores take effect in order, so a store that waits for its
// line holds up all that follow. fetch_ends() prefetches these lines.
template <class T, size_t n_room>
class StreamWriter {
 public:
  // Prefetches the first and the last line of `count` elements, `distance` elements behind p, that are written later.
  static void fetch_ends(const T* p, size_t distance, size_t count) {
    morun::simd::prefetch_ahead(p, distance);
    morun::simd::prefetch_ahead(p, distance + count - 1);
  }

  void begin(T* to) {
    const auto address = reinterpret_cast<uintptr_t>(to);
    line_ = address / line * line;
    n_before_ = n_held_ = (address - line_) / sizeof(T);
  }
  // Returns where the next elements go, at most n_room, which commit() counts. Elements committed earlier are written to
  // memory only now: a load from where a processor has just stored other pieces would have to wait.
  T* room() {
    write_lines();
    return held_ + n_held_;
  }
  void commit(size_t count) { n_held_ += count; }
  void end() {
    write_lines();
    if (n_held_ > n_before_) write_part(n_held_);
  }

 private:
  static constexpr size_t line = morun::simd::cache_line, n_line = line_elements<T>;

  void write_lines() {
    size_t i = 0;
    for (; i + n_line <= n_held_; i += n_line, line_ += line) {
      if (n_before_ == 0)
        stream_line(reinterpret_cast<void*>(line_), held_ + i);
      else
        write_part(n_line);
    }
    if (i > 0) memcpy(held_, held_ + i, line);
    n_held_ -= i;
  }
  // Writes the line's elements from n_before_ to `end`.
  void write_part(size_t end) {
    memcpy(reinterpret_cast<T*>(line_) + n_before_, held_ + n_before_, (end - n_before_) * sizeof(T));
    n_before_ = 0;
  }

  // Begins where line_ begins. room() leaves less than a line, and at most n_room elements follow. write_lines() writes the
  // whole lines among them, and copies one more line, from behind these, to the front.
  alignas(line) T held_[(n_room + n_line - 1) / n_line * n_line + n_line];
  uintptr_t line_;
  size_t n_held_, n_before_;  // elements in held_, and those of them that belong to the memory before the first one
};

// Copies elements past the caches.
template <class T>
void copy_streaming(T* to, const T* from, size_t count) {
  constexpr size_t n_line = line_elements<T>;
  size_t i = std::min(elements_before_line(to), count);
  memcpy(to, from, i * sizeof(T));
  for (; i + n_line <= count; i += n_line) stream_line(to + i, from + i);
  memcpy(to + i, from + i, (count - i) * sizeof(T));
}

}  // namespace tavik::inline MORUN_BACKEND

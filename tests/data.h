// Reproducible data and digests, the same on every platform.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

namespace test {

class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}
  uint64_t bits() {
    uint64_t z = state_ += 0x9e3779b97f4a7c15u;
    z = (z ^ z >> 30) * 0xbf58476d1ce4e5b9u;
    z = (z ^ z >> 27) * 0x94d049bb133111ebu;
    return z ^ z >> 31;
  }
  // In [-1, 1), 24 significant bits.
  float value() { return static_cast<float>(static_cast<int64_t>(bits() >> 40) - (1 << 23)) * 0x1p-23f; }

  template <class T>
  std::vector<T> any(size_t count) {
    std::vector<T> values(count);
    for (T& v : values) {
      const uint64_t pattern = bits();
      memcpy(&v, &pattern, sizeof v);
    }
    return values;
  }
  std::vector<float> values(size_t count) {
    std::vector<float> values(count);
    for (float& v : values) v = value();
    return values;
  }

 private:
  uint64_t state_;
};

// Starts on a cache line, as outputs do that are written past the caches.
template <class T>
struct LineAllocator {
  using value_type = T;
  LineAllocator() = default;
  template <class U>
  LineAllocator(const LineAllocator<U>&) {}
  T* allocate(size_t n) { return static_cast<T*>(::operator new (n * sizeof(T), std::align_val_t{64})); }
  void deallocate(T* p, size_t) { ::operator delete (p, std::align_val_t{64}); }
  bool operator==(const LineAllocator&) const = default;
};
template <class T>
using Output = std::vector<T, LineAllocator<T>>;

template <class T, class A, class B>
bool same_bits(const std::vector<T, A>& a, const std::vector<T, B>& b) {
  return a.size() == b.size() && (a.empty() || memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0);
}

// FNV-1a.
template <class T, class Allocator>
uint64_t digest(const std::vector<T, Allocator>& values, uint64_t hash = 0xcbf29ce484222325u) {
  const auto* const bytes = reinterpret_cast<const uint8_t*>(values.data());
  for (size_t i = 0; i < values.size() * sizeof(T); ++i) hash = (hash ^ bytes[i]) * 0x100000001b3u;
  return hash;
}

}  // namespace test

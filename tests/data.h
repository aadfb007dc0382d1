// Reproducible data in guarded memory, and digests; the same on every platform.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

namespace test {

// Whether the elements of a Vector end where memory that no one may touch begins, or begin where such memory ends.
// Tests that are linked with guarded_main run once each way.
inline bool ends_at_guard = true;

template <class T>
struct GuardedAllocator {
  using value_type = T;
  GuardedAllocator() = default;
  template <class U>
  GuardedAllocator(const GuardedAllocator<U>&) {}
  T* allocate(size_t n) {
    const size_t page = page_size(), length = pages_for(n) + 2 * page;
    void* const whole = mmap(nullptr, length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    auto* const start = static_cast<std::byte*>(whole) + page;
    if (whole == MAP_FAILED || mprotect(start, length - 2 * page, PROT_READ | PROT_WRITE) != 0) throw std::bad_alloc();
    return reinterpret_cast<T*>(ends_at_guard ? start + pages_for(n) - n * sizeof(T) : start);
  }
  void deallocate(T* p, size_t n) {
    const auto start = reinterpret_cast<uintptr_t>(p) / page_size() * page_size();
    munmap(reinterpret_cast<void*>(start - page_size()), pages_for(n) + 2 * page_size());
  }
  bool operator==(const GuardedAllocator&) const = default;

 private:
  static size_t page_size() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }
  static size_t pages_for(size_t n) { return (n * sizeof(T) + page_size() - 1) / page_size() * page_size(); }
};
template <class T>
using Vector = std::vector<T, GuardedAllocator<T>>;

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
  Vector<T> any(size_t count) {
    Vector<T> values(count);
    for (T& v : values) {
      const uint64_t pattern = bits();
      memcpy(&v, &pattern, sizeof v);
    }
    return values;
  }
  Vector<float> values(size_t count) {
    Vector<float> values(count);
    for (float& v : values) v = value();
    return values;
  }

 private:
  uint64_t state_;
};

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

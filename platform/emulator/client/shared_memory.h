// Shared memory of the process: each buffer is an anonymous file, known by its descriptor and by its address.
#pragma once

#include <cstdint>
#include <map>

namespace parlo::client {

struct Allocation {
  uint64_t id;  // never given twice
  void* address;
  uint64_t size;  // bytes
  int descriptor;
};

class SharedMemory {
 public:
  // `limit` is in bytes and for all buffers together; the descriptor is the lowest free one from `lowest_descriptor`.
  // Pages come to be when they are touched. nullptr with errno set on failure.
  const Allocation* allocate(uint64_t size, uint64_t limit, int lowest_descriptor);

  // An address that is no buffer's is ignored.
  void release(const void* address);
  void release_all();

  // The buffer that starts at `address`, or nullptr.
  const Allocation* at(const void* address) const;

  uint64_t n_allocations() const { return by_address_.size(); }
  uint64_t n_bytes() const { return n_bytes_; }

 private:
  std::map<const void*, Allocation> by_address_;
  uint64_t n_bytes_ = 0;
  uint64_t last_id_ = 0;
};

}  // namespace parlo::client

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
  bool is_inherited = false;  // a private copy of the parent's memory, in a forked child
};

class SharedMemory {
 public:
  // `limit` is in bytes and for all buffers together; the descriptor is the lowest free one from `lowest_descriptor`.
  // Pages come to be when they are touched. nullptr with errno set on failure; throws where there is no memory for the
  // books.
  const Allocation* allocate(uint64_t size, uint64_t limit, int lowest_descriptor);

  // Returns a status: an address where no buffer starts is refused and counted.
  int32_t release(const void* address);
  void release_all();

  // In a forked child: gives every buffer pages of its own, which the parent does not see.
  void inherit();
  // Gives every such buffer the parent's pages back.
  void take_over();

  // The buffer that starts at `address`, or nullptr.
  const Allocation* at(const void* address) const;

  uint64_t n_allocations() const { return by_address_.size(); }
  uint64_t n_bytes() const { return n_bytes_; }
  uint64_t n_double_frees() const { return n_double_frees_; }
  uint64_t n_foreign_frees() const { return n_foreign_frees_; }

 private:
  using Books = std::map<const void*, Allocation>;

  void free(Books::node_type released);

  Books by_address_;
  Books freed_;  // by the address where each started
  uint64_t n_double_frees_ = 0, n_foreign_frees_ = 0;
  uint64_t n_bytes_ = 0;
  uint64_t last_id_ = 0;
};

}  // namespace parlo::client

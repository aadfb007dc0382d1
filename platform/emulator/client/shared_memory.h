// Shared memory of the process. Each buffer is an anonymous file that has a descriptor and an address.
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
  // `limit` is in bytes and applies to all buffers together. The descriptor is the lowest free one from
  // `lowest_descriptor` on. Pages take memory when they are first used. Returns nullptr with errno set on failure.
  // Throws std::bad_alloc when the books cannot grow.
  const Allocation* allocate(uint64_t size, uint64_t limit, int lowest_descriptor);

  // Returns a status, and stores the number of the memory that is gone. An address at which no buffer starts is refused
  // and counted.
  int32_t release(const void* address, uint64_t& memory);
  void release_all();

  // Runs in a forked child: gives every buffer pages of its own, which the parent does not see.
  void inherit();
  // Gives every inherited buffer the parent's pages back.
  void take_over();

  // Returns the buffer that starts at `address`, or nullptr.
  const Allocation* at(const void* address) const;

  uint64_t n_allocations() const { return by_address_.size(); }
  uint64_t n_bytes() const { return n_bytes_; }
  uint64_t n_double_frees() const { return n_double_frees_; }
  uint64_t n_foreign_frees() const { return n_foreign_frees_; }

 private:
  using Books = std::map<const void*, Allocation>;

  void free(Books::node_type released);

  Books by_address_;
  Books freed_;  // freed buffers by their start addresses
  uint64_t n_double_frees_ = 0, n_foreign_frees_ = 0;
  uint64_t n_bytes_ = 0;
  uint64_t last_id_ = 0;
};

}  // namespace parlo::client

// A context with default options on the emulated platform, and shared buffers of this context.
#pragma once

#include <cstdint>

#include "include/tavik.h"

namespace bench {

// Throws an exception with the library's last message when `status` reports a failure.
void require(uint32_t status);
// Throws an exception with the status itself. A remote call leaves no message.
void require_remote(int status);

struct SharedBuffer {
  uint32_t fd;
  void* data;  // what the host computes with; the matrix unit takes the buffer from its first byte on, a page's start
};

class Npu {
 public:
  // Products may have least_n_row_max rows; a higher default stays.
  explicit Npu(uint64_t least_n_row_max = 0);
  ~Npu();
  Npu(const Npu&) = delete;
  Npu& operator=(const Npu&) = delete;

  tavik_context* context() const { return context_; }
  // Returns a new, filled shared buffer, which lives as long as the Npu. `data` stands where filled_memory() would.
  SharedBuffer filled_buffer(uint64_t n_byte);
  // Returns the handle of the session that maps the buffer, after locking the matrix unit for that session.
  uint64_t handle(const SharedBuffer& buffer) const;

 private:
  tavik_context* context_ = nullptr;
};

}  // namespace bench

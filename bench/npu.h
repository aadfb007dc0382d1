// A context with default options on the emulated platform, and shared buffers in it.
#pragma once

#include <cstdint>

#include "include/tavik.h"

namespace bench {

// Throws with the library's last message where `status` tells of a failure.
void require(uint32_t status);
// Throws with the status itself, which is all that a remote call leaves.
void require_remote(int status);

struct SharedBuffer {
  uint32_t fd;
  void* data;
};

class Npu {
 public:
  Npu();
  ~Npu();
  Npu(const Npu&) = delete;
  Npu& operator=(const Npu&) = delete;

  tavik_context* context() const { return context_; }
  // A new shared buffer, filled; it lives as long as this.
  SharedBuffer filled_buffer(uint64_t n_byte);
  // The handle of the session that maps the buffer, ready to multiply.
  uint64_t handle(const SharedBuffer& buffer) const;

 private:
  tavik_context* context_ = nullptr;
};

}  // namespace bench

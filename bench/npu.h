// A context with default options on the emulated platform, and shared buffers in it.
#pragma once

#include <cstdint>

#include "include/tavik.h"

namespace bench {

// Throws with the library's last message where `status` tells of a failure.
void require(uint32_t status);

class Npu {
 public:
  Npu();
  ~Npu();
  Npu(const Npu&) = delete;
  Npu& operator=(const Npu&) = delete;

  tavik_context* context() const { return context_; }
  // The descriptor of a new shared buffer, filled; it lives as long as this.
  uint32_t filled_buffer(uint64_t n_byte);

 private:
  tavik_context* context_ = nullptr;
};

}  // namespace bench

// The checksum of a tensor's bytes: XXH3 of 64 bits, seed 0, over pieces of any size.
#pragma once

#include <xxhash.h>

#include <cstdint>

namespace weights {

class Checksum {
 public:
  Checksum() { XXH3_64bits_reset(&state_); }
  void add(const void* bytes, uint64_t n_byte) { XXH3_64bits_update(&state_, bytes, n_byte); }
  uint64_t value() const { return XXH3_64bits_digest(&state_); }

 private:
  XXH3_state_t state_;
};

}  // namespace weights

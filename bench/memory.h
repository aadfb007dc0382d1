// Ordinary memory with contents that no arithmetic stumbles over.
#pragma once

#include <cstddef>
#include <memory>

namespace bench {

// Halves of either sign whose size is from 1 to 2. Read as f32 they are finite and normal, and stay so as f16.
void fill(void* data, size_t n_byte);

// Page-aligned and filled.
std::shared_ptr<std::byte> filled_memory(size_t n_byte);

}  // namespace bench

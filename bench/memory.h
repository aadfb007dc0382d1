// Ordinary memory with contents on which arithmetic runs at its usual speed: no subnormals, infinities or NaN.
#pragma once

#include <cstddef>
#include <memory>

namespace bench {

// Halves of either sign with magnitudes from 1 to 2. Read as f32 they are finite and normal, and still are after
// conversion to f16.
void fill(void* data, size_t n_byte);

// Returns page-aligned memory that fill() has filled.
std::shared_ptr<std::byte> filled_memory(size_t n_byte);

}  // namespace bench

// Ordinary memory with contents on which arithmetic runs at its usual speed: no subnormals, infinities or NaN.
#pragma once

#include <cstddef>
#include <memory>

namespace bench {

// Halves of either sign with magnitudes from 1 to 2. Read as f32 they are finite and normal, and still are after
// conversion to f16.
void fill(void* data, size_t n_byte);

// Where memory that is allocated next begins: this many bytes past the start of a page, a multiple of 16. Blocks of the
// C library's allocator, and with them std::vector and NumPy, begin 16 bytes past a page when they are large.
constexpr size_t bytes_past_page[] = {16, 0};
void place_memory(size_t past_page);
size_t memory_past_page();

// Returns memory at the present place that fill() has filled.
std::shared_ptr<std::byte> filled_memory(size_t n_byte);

}  // namespace bench

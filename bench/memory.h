// Ordinary memory with contents on which arithmetic runs at its usual speed: no subnormals, infinities or NaN.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

namespace bench {

// Halves of either sign with magnitudes from 1 to 2. Read as f32 they are finite and normal, and still are after
// conversion to f16.
void fill(void* data, size_t n_byte);

// The places at which each row is measured, in bytes past the start of a page. They are 16 and 0 unless others are
// chosen. Blocks of the C library's allocator, and with them std::vector and NumPy, begin 16 bytes past a page when they
// are large.
const std::vector<size_t>& places();
void choose_places(std::vector<size_t> bytes_past_page);

// Places the memory that is allocated next.
void place_memory(size_t past_page);
size_t memory_past_page();

// Returns memory at the present place that fill() has filled.
std::shared_ptr<std::byte> filled_memory(size_t n_byte);

}  // namespace bench

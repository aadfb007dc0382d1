// The platform's own identifiers for shared memory that the DSP can map. The library passes them on unchanged.
#pragma once

#include <cstdint>

namespace tavik {

inline constexpr int heap_id = 25;
inline constexpr uint32_t allocation_flags = 1;
inline constexpr uint32_t buffer_allocation_flags = 0x40000001;
inline constexpr int map_flags = 2;

}  // namespace tavik

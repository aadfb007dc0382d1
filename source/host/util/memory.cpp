#include <cstdlib>
#include <cstring>

#include "source/host/error.h"
#include "source/host/shared_memory.h"

namespace {

constexpr char reporting_file[] = "source/host/util";

// The line numbers that failures report. They are published interface (see include/tavik.h) and name no place in this
// file.
namespace reported_line {
enum : int32_t {
  malloc_without_output = 26,
  malloc_memory = 35,
  malloc_zero_without_output = 46,
  malloc_zero_memory = 55,
  rpcmem_alloc_without_output = 66,
  rpcmem_alloc_memory = 75,
  rpcmem_alloc_zero_without_output = 86,
  rpcmem_alloc_zero_memory = 98,
  realloc_memory = 116,
  to_fd_without_output = 124,
  to_fd_descriptor = 128,
  mmap_mapping = 136,
  munmap_unmapping = 144,
};
}  // namespace reported_line
constexpr int compute_dsp = 3;

// Kept: the platform takes a size of 32 bits, and larger sizes are cut to 32 bits.
void* allocate_shared(uint64_t size) {
  return parlo_mem_alloc(tavik::heap_id, tavik::allocation_flags, static_cast<int32_t>(size));
}

}  // namespace

int32_t tavik_malloc(void** pointer, uint64_t size) {
  if (pointer == nullptr)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::malloc_without_output, tavik::null_location);
  void* const block = size == 0 ? nullptr : malloc(size);
  if (block == nullptr && size != 0)
    return TAVIK_FAIL(TAVIK_ERROR_MEMORY, reported_line::malloc_memory, "failed to allocate %zu bytes", size);
  *pointer = block;
  return TAVIK_SUCCESS;
}

int32_t tavik_malloc_zero(void** pointer, uint64_t size) {
  if (pointer == nullptr)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::malloc_zero_without_output, tavik::null_location);
  void* const block = size == 0 ? nullptr : calloc(1, size);
  if (block == nullptr && size != 0)
    return TAVIK_FAIL(TAVIK_ERROR_MEMORY, reported_line::malloc_zero_memory, "failed to allocate %zu bytes", size);
  *pointer = block;
  return TAVIK_SUCCESS;
}

int32_t tavik_rpcmem_alloc(void** pointer, uint64_t size) {
  if (pointer == nullptr)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::rpcmem_alloc_without_output, tavik::null_location);
  void* const block = size == 0 ? nullptr : allocate_shared(size);
  if (block == nullptr && size != 0)
    return TAVIK_FAIL(TAVIK_ERROR_MEMORY, reported_line::rpcmem_alloc_memory, "failed to alloc shared %zu bytes", size);
  *pointer = block;
  return TAVIK_SUCCESS;
}

int32_t tavik_rpcmem_alloc_zero(void** pointer, uint64_t size) {
  if (pointer == nullptr)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::rpcmem_alloc_zero_without_output, tavik::null_location);
  void* const block = size == 0 ? nullptr : allocate_shared(size);
  if (block == nullptr && size != 0)
    return TAVIK_FAIL(TAVIK_ERROR_MEMORY, reported_line::rpcmem_alloc_zero_memory, "failed to alloc shared %zu bytes",
                      size);
  // Kept: the function clears all of `size`, even when the platform's allocation was cut to 32 bits.
  if (block != nullptr) memset(block, 0, size);
  *pointer = block;
  return TAVIK_SUCCESS;
}

int32_t tavik_realloc(void** pointer, uint64_t size) {
  if (size == 0) {
    free(*pointer);
    *pointer = nullptr;
    return TAVIK_SUCCESS;
  }
  void* const block = realloc(*pointer, size);
  if (block == nullptr) {
    free(*pointer);  // kept: *pointer still holds the freed address afterwards
    return TAVIK_FAIL(TAVIK_ERROR_MEMORY, reported_line::realloc_memory, "failed to allocate %zu bytes", size);
  }
  *pointer = block;
  return TAVIK_SUCCESS;
}

int32_t tavik_rpcmem_to_fd(int32_t* fd, const void* pointer) {
  if (fd == nullptr) return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::to_fd_without_output, tavik::null_location);
  *fd = parlo_mem_to_fd(pointer);
  if (*fd == -1)
    return TAVIK_FAIL(TAVIK_ERROR_MEMORY, reported_line::to_fd_descriptor, "failed to get rpcmem file descriptor");
  return TAVIK_SUCCESS;
}

int32_t tavik_rpcmem_mmap(int32_t fd, void* pointer, uint64_t size) {
  if (parlo_mmap(compute_dsp, fd, pointer, 0, size, tavik::map_flags) != KESO_SUCCESS)
    return TAVIK_FAIL(TAVIK_ERROR_MEMORY, reported_line::mmap_mapping, "failed to parlo_mmap");
  return TAVIK_SUCCESS;
}

int32_t tavik_rpcmem_munmap(int32_t fd, void* pointer, uint64_t size) {
  if (parlo_munmap(compute_dsp, fd, pointer, size) != KESO_SUCCESS)
    return TAVIK_FAIL(TAVIK_ERROR_MEMORY, reported_line::munmap_unmapping, "failed to parlo_unmmap");
  return TAVIK_SUCCESS;
}

void tavik_rpcmem_free(void* pointer) {
  if (pointer != nullptr) parlo_mem_free(pointer);
}

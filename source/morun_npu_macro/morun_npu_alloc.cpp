#include <sys/mman.h>

#include "source/host/context.h"
#include "source/morun_npu_macro/npu_checks.h"

namespace {

constexpr char reporting_file[] = "source/morun_npu_macro/morun_npu_alloc";

uint64_t address_of(const void* pointer) {
  return reinterpret_cast<uintptr_t>(pointer);
}

// The registry entry of a freed buffer keeps the buffer's address. The library can reserve that address range, so that
// neither the program nor the platform gets memory there. An entry has at most one reserved range.
struct Range {
  void* address;
  uint64_t size;
};
Range kept_ranges[TAVIK_MAX_DESCRIPTOR + 1] = {};

// Another allocation may have taken the range since the buffer was freed. Then the system maps memory elsewhere, and
// the function unmaps it again.
void keep_range(int32_t entry, void* address, uint64_t size) {
  void* const kept = mmap(address, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (kept == address) kept_ranges[entry] = {address, size};
  if (kept != address && kept != MAP_FAILED) munmap(kept, size);
}

void let_range_go(int32_t entry) {
  if (kept_ranges[entry].size != 0) munmap(kept_ranges[entry].address, kept_ranges[entry].size);
  kept_ranges[entry] = {};
}

// Tells whether the older `entry` with the same address would be found instead of a newer buffer at `fd`.
bool hides(int32_t entry, int32_t fd) {
  return entry != -1 && entry < fd;
}

}  // namespace

int32_t morun_npu_alloc(uint64_t size, void** out_ptr) {
  if (out_ptr == nullptr) return MORUN_FAIL(MORUN_ERROR_NULL_POINTER, "NULL ptr provided\n");
  MORUN_TRY(morun::check_initialized(MORUN_HERE));
  // A new buffer may have the address that an older registry entry keeps. Then the call frees the buffer, reserves the
  // address range and allocates again. There are at most as many attempts as registry entries.
  for (int32_t attempt = 0; attempt <= TAVIK_MAX_DESCRIPTOR; ++attempt) {
    int32_t fd = -1;
    MORUN_TRY_LOWER(tavik_buffer_alloc(own::context, size, out_ptr, &fd));
    void* const address = *out_ptr;
    const int32_t older = morun_parlo_find_fd(address);
    if (!hides(older, fd)) {
      own::morun_map_db[fd] = {address_of(address), static_cast<uint32_t>(size)};
      let_range_go(fd);
      morun::publish_state();
      return MORUN_SUCCESS;
    }
    *out_ptr = nullptr;
    MORUN_TRY_LOWER(tavik_buffer_free(own::context, fd));
    keep_range(older, address, size);
  }
  return MORUN_FAIL(MORUN_ERROR_FAILURE, "Every address that the platform gives belonged to a freed buffer\n");
}

int32_t morun_parlo_find_fd(const void* ptr) {
  for (int32_t fd = 0; fd <= TAVIK_MAX_DESCRIPTOR; ++fd)
    if (own::morun_map_db[fd].address == address_of(ptr)) return fd;
  return -1;
}

int32_t morun_npu_free(void* ptr) {
  if (ptr == nullptr) return MORUN_SUCCESS;
  uint32_t fd;
  MORUN_TRY(morun::find_registered(MORUN_HERE, "addr", ptr, &fd));
  MORUN_TRY_LOWER(tavik_buffer_free(own::context, static_cast<int32_t>(fd)));
  // Kept: the registry keeps the entry of a freed buffer.
  return MORUN_SUCCESS;
}

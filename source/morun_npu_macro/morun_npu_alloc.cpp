#include "source/host/context.h"
#include "source/morun_npu_macro/npu_checks.h"

namespace {

constexpr char reporting_file[] = "source/morun_npu_macro/morun_npu_alloc";

uint64_t address_of(const void* pointer) {
  return reinterpret_cast<uintptr_t>(pointer);
}

}  // namespace

int32_t morun_npu_alloc(uint64_t size, void** out_ptr) {
  if (out_ptr == nullptr) return MORUN_FAIL(MORUN_ERROR_NULL_POINTER, "NULL ptr provided\n");
  MORUN_TRY(morun::check_initialized(MORUN_HERE));
  int32_t fd = -1;
  MORUN_TRY_LOWER(tavik_buffer_alloc(own::context, size, out_ptr, &fd));
  if (tavik::is_in_descriptor_table(fd)) own::morun_map_db[fd] = {address_of(*out_ptr), static_cast<uint32_t>(size)};
  morun::publish_state();
  return MORUN_SUCCESS;
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
  // Kept: the entry stays, and finds the descriptor of whoever comes to the same address later at a higher one.
  return MORUN_SUCCESS;
}

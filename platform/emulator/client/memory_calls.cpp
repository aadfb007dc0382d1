// parlo_mem_*, parlo_mmap, parlo_munmap.
#include <cstdio>

#include "platform/emulator/client/platform.h"
#include "platform/parlo.h"

namespace parlo::client {
namespace {

void* allocate(parlo_emulator_operation operation, int heap_id, uint32_t flags, uint64_t size, bool valid_size) {
  parlo_emulator_call call = make_call(operation, {word(heap_id), flags, size, 0});
  void* address = nullptr;
  carry_out(call, [&](Platform& p, PlatformLock&) {
    if (!valid_size) return Outcome{-1, EINVAL};
    const Allocation* allocation = p.memory.allocate(size, p.config.allocation_bytes, p.config.lowest_descriptor);
    if (!allocation) return Outcome{-1, errno};
    address = allocation->address;
    call.arguments[3] = word(address);
    return success;
  });
  return address;
}

void report(const void* address, const char* misuse) {
  std::fprintf(stderr, "[parlo] parlo_mem_free(address=%p): %s\n", address, misuse);
}

// Returns the shared memory with this descriptor and this start address, or nullptr.
const Allocation* find(const SharedMemory& memory, int descriptor, const void* address) {
  const Allocation* allocation = memory.at(address);
  return allocation && allocation->descriptor == descriptor ? allocation : nullptr;
}

}  // namespace
}  // namespace parlo::client

using namespace parlo::client;

void* parlo_mem_alloc(int heap_id, uint32_t flags, int32_t size) {
  return allocate(PARLO_EMULATOR_MEM_ALLOC, heap_id, flags, word(size), size >= 0);
}

void* parlo_mem_alloc2(int heap_id, uint32_t flags, uint64_t size) {
  return allocate(PARLO_EMULATOR_MEM_ALLOC2, heap_id, flags, size, true);
}

void parlo_mem_free(void* address) {
  parlo_emulator_call call = make_call(PARLO_EMULATOR_MEM_FREE, {word(address)});
  carry_out(call, [&](Platform& p, PlatformLock&) {
    const int32_t status = p.memory.release(address);
    if (status == PARLO_EMULATOR_DOUBLE_FREE) report(address, "freed twice");
    if (status == PARLO_EMULATOR_FOREIGN_FREE) report(address, "no shared buffer starts there");
    return outcome_of(status);
  });
}

int parlo_mem_to_fd(const void* address) {
  parlo_emulator_call call = make_call(PARLO_EMULATOR_MEM_TO_FD, {word(address)});
  return carry_out(call, [&](Platform& p, PlatformLock&) {
    const Allocation* allocation = p.memory.at(address);
    return allocation ? Outcome{allocation->descriptor, 0} : Outcome{-1, EINVAL};
  });
}

int parlo_mmap(int domain, int fd, void* address, int offset, uint64_t length, int flags) {
  parlo_emulator_call call =
      make_call(PARLO_EMULATOR_MMAP, {word(domain), word(fd), word(address), word(offset), length, word(flags)});
  return carry_out(call, [&](Platform& p, PlatformLock&) {
    if (offset != 0) return outcome_of(PARLO_EMULATOR_BAD_ARGUMENT);
    return outcome_of(p.sessions.map(domain, find(p.memory, fd, address), length));
  });
}

int parlo_munmap(int domain, int fd, void* address, uint64_t length) {
  parlo_emulator_call call = make_call(PARLO_EMULATOR_MUNMAP, {word(domain), word(fd), word(address), length});
  return carry_out(call, [&](Platform& p, PlatformLock&) {
    return outcome_of(p.sessions.unmap(domain, find(p.memory, fd, address), fd, address, length));
  });
}

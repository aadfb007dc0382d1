// parlo_mem_*, parlo_mmap, parlo_munmap.
#include <cstdio>

#include "platform/emulator/client/platform.h"
#include "platform/parlo.h"

namespace parlo::client {
namespace {

void* allocate(parlo_emulator_operation operation, int heap_id, uint32_t flags, uint64_t size, bool valid_size) {
  TracedCall call = make_call(operation, {word(heap_id), flags, size, 0});
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

int32_t map(Platform& p, PlatformLock& lock, int domain, int descriptor, const void* address, uint64_t length) {
  Session* session;
  int32_t status = p.sessions.with_open_domain(domain, session);
  if (status != KESO_SUCCESS) return status;
  const Allocation* const allocation = find(p.memory, descriptor, address);
  if (!allocation) return PARLO_EMULATOR_UNKNOWN_DESCRIPTOR;
  if (allocation->is_inherited) return PARLO_EMULATOR_INHERITED;
  if (length != allocation->size) return PARLO_EMULATOR_WRONG_SIZE;
  const dsp::SharedBuffer buffer = {allocation->id, descriptor, word(address), length};
  const std::shared_ptr<dsp::Space> space = session->space;
  without_lock(lock, [&] { status = space->map(buffer, descriptor); });
  return noted(p, lock, space.get(), status);
}

// A lost session maps nothing any more, so that a caller's cleanup succeeds there. A lost first session stands beside its
// successor, which has the same domain.
int32_t unmap(Platform& p, PlatformLock& lock, int domain, int descriptor, const void* address, uint64_t length) {
  Session* session;
  int32_t status = p.sessions.with_open_domain(domain, session);
  if (status == KESO_SUCCESS) {
    const std::shared_ptr<dsp::Space> space = session->space;
    without_lock(lock, [&] { status = space->unmap(descriptor, word(address), length); });
    noted(p, lock, space.get(), status);
    if (status == PARLO_EMULATOR_NOT_MAPPED && p.sessions.has_lost(domain)) return KESO_SUCCESS;
    if (status == PARLO_EMULATOR_NOT_MAPPED && !find(p.memory, descriptor, address))
      return PARLO_EMULATOR_UNKNOWN_DESCRIPTOR;
  }
  return status == PARLO_EMULATOR_SESSION_LOST ? KESO_SUCCESS : status;
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
  TracedCall call = make_call(PARLO_EMULATOR_MEM_FREE, {word(address)});
  carry_out(call, [&](Platform& p, PlatformLock&) {
    uint64_t memory = 0;
    const int32_t status = p.memory.release(address, memory);
    if (memory != 0) p.sessions.release(memory);
    if (status == PARLO_EMULATOR_DOUBLE_FREE) report(address, "freed twice");
    if (status == PARLO_EMULATOR_FOREIGN_FREE) report(address, "no shared buffer starts there");
    return outcome_of(status);
  });
}

int parlo_mem_to_fd(const void* address) {
  TracedCall call = make_call(PARLO_EMULATOR_MEM_TO_FD, {word(address)});
  return carry_out(call, [&](Platform& p, PlatformLock&) {
    const Allocation* allocation = p.memory.at(address);
    return allocation ? Outcome{allocation->descriptor, 0} : Outcome{-1, EINVAL};
  });
}

int parlo_mmap(int domain, int fd, void* address, int offset, uint64_t length, int flags) {
  TracedCall call =
      make_call(PARLO_EMULATOR_MMAP, {word(domain), word(fd), word(address), word(offset), length, word(flags)});
  return carry_out(call, [&](Platform& p, PlatformLock& lock) {
    if (offset != 0) return outcome_of(PARLO_EMULATOR_BAD_ARGUMENT);
    return outcome_of(map(p, lock, domain, fd, address, length));
  });
}

int parlo_munmap(int domain, int fd, void* address, uint64_t length) {
  TracedCall call = make_call(PARLO_EMULATOR_MUNMAP, {word(domain), word(fd), word(address), length});
  return carry_out(
      call, [&](Platform& p, PlatformLock& lock) { return outcome_of(unmap(p, lock, domain, fd, address, length)); });
}

#include "platform/emulator/client/shared_memory.h"

#include <fcntl.h>
#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>

namespace parlo::client {
namespace {

constexpr uint64_t file_size_max = INT64_MAX;

void close_keeping_errno(int descriptor) {
  const int error = errno;
  close(descriptor);
  errno = error;
}

// False where the process has all the descriptors that it may have; keeps errno then.
bool raise_descriptor_limit() {
  const int error = errno;
  rlimit limit;
  const bool raised = getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max &&
                      (limit.rlim_cur = limit.rlim_max, setrlimit(RLIMIT_NOFILE, &limit) == 0);
  if (!raised) errno = error;
  return raised;
}

int create_file() {
  int descriptor = memfd_create("parlo", MFD_CLOEXEC);
  if (descriptor < 0 && errno == EMFILE && raise_descriptor_limit()) descriptor = memfd_create("parlo", MFD_CLOEXEC);
  return descriptor;
}

int create_file_from(int lowest_descriptor) {
  const int descriptor = create_file();
  if (descriptor < 0 || descriptor >= lowest_descriptor) return descriptor;
  int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, lowest_descriptor);
  if (moved < 0 && raise_descriptor_limit()) moved = fcntl(descriptor, F_DUPFD_CLOEXEC, lowest_descriptor);
  close_keeping_errno(descriptor);
  return moved;
}

// What the last page holds beyond the buffer. The address sanitizer, where it watches, lets nobody touch it.
struct Slack {
  explicit Slack(const Allocation& allocation)
      : begin(static_cast<char*>(allocation.address) + allocation.size),
        size(-allocation.size % static_cast<uint64_t>(sysconf(_SC_PAGESIZE))) {}
  char* begin;
  uint64_t size;
};

}  // namespace

const Allocation* SharedMemory::allocate(uint64_t size, uint64_t limit, int lowest_descriptor) {
  if (size == 0) {
    errno = EINVAL;
    return nullptr;
  }
  if (size > file_size_max || n_bytes_ > limit || size > limit - n_bytes_) {
    errno = ENOMEM;
    return nullptr;
  }
  const int descriptor = create_file_from(lowest_descriptor);
  if (descriptor < 0) return nullptr;
  void* address = MAP_FAILED;
  if (ftruncate(descriptor, static_cast<off_t>(size)) == 0)
    address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  if (address == MAP_FAILED) {
    close_keeping_errno(descriptor);
    return nullptr;
  }
  n_bytes_ += size;
  const Allocation& allocation =
      by_address_.emplace(address, Allocation{++last_id_, address, size, descriptor}).first->second;
  ASAN_POISON_MEMORY_REGION(Slack(allocation).begin, Slack(allocation).size);
  return &allocation;
}

void SharedMemory::release(const void* address) {
  const Allocation* allocation = at(address);
  if (!allocation) return;
  ASAN_UNPOISON_MEMORY_REGION(Slack(*allocation).begin, Slack(*allocation).size);
  munmap(allocation->address, allocation->size);
  close(allocation->descriptor);
  n_bytes_ -= allocation->size;
  by_address_.erase(address);
}

void SharedMemory::release_all() {
  while (!by_address_.empty()) release(by_address_.begin()->first);
}

const Allocation* SharedMemory::at(const void* address) const {
  const auto found = by_address_.find(address);
  return found == by_address_.end() ? nullptr : &found->second;
}

}  // namespace parlo::client

#include "platform/emulator/client/shared_memory.h"

#include <fcntl.h>
#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/emulator/parlo_emulator.h"
#include "platform/parlo.h"

namespace parlo::client {
namespace {

constexpr uint64_t file_size_max = INT64_MAX;

void close_keeping_errno(int descriptor) {
  const int error = errno;
  close(descriptor);
  errno = error;
}

// Raises the limit on open descriptors as far as the system allows. Returns false, with errno unchanged, when the limit
// is already that high.
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

// The bytes of the last page behind the buffer. The address sanitizer, if it is active, forbids access to them.
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
  Books books;
  books.emplace();
  Books::node_type entry = books.extract(books.begin());
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
  entry.key() = address;
  entry.mapped() = {++last_id_, address, size, descriptor};
  const Allocation& allocation = by_address_.insert(std::move(entry)).position->second;
  ASAN_POISON_MEMORY_REGION(Slack(allocation).begin, Slack(allocation).size);
  return &allocation;
}

void SharedMemory::free(Books::node_type released) {
  const Allocation& allocation = released.mapped();
  ASAN_UNPOISON_MEMORY_REGION(Slack(allocation).begin, Slack(allocation).size);
  munmap(allocation.address, allocation.size);
  close(allocation.descriptor);
  n_bytes_ -= allocation.size;
  freed_.insert(std::move(released));
}

int32_t SharedMemory::release(const void* address, uint64_t& memory) {
  if (!address) return KESO_SUCCESS;
  const auto found = by_address_.find(address);
  if (found != by_address_.end()) {
    memory = found->second.id;
    free(by_address_.extract(found));
    return KESO_SUCCESS;
  }
  const bool again = freed_.contains(address);
  ++(again ? n_double_frees_ : n_foreign_frees_);
  return again ? PARLO_EMULATOR_DOUBLE_FREE : PARLO_EMULATOR_FOREIGN_FREE;
}

void SharedMemory::release_all() {
  while (!by_address_.empty()) free(by_address_.extract(by_address_.begin()));
  freed_.clear();
  n_double_frees_ = n_foreign_frees_ = 0;
}

void SharedMemory::inherit() {
  for (auto& [address, allocation] : by_address_) {
    allocation.is_inherited = true;
    // When the host refuses the copy, the address range must not give the child access to the parent's memory.
    if (mmap(allocation.address, allocation.size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_FIXED | MAP_NORESERVE,
             allocation.descriptor, 0) == MAP_FAILED)
      mmap(allocation.address, allocation.size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE, -1,
           0);
  }
}

void SharedMemory::take_over() {
  for (auto& [address, allocation] : by_address_) {
    if (!allocation.is_inherited) continue;
    allocation.is_inherited = false;
    mmap(allocation.address, allocation.size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, allocation.descriptor, 0);
  }
}

const Allocation* SharedMemory::at(const void* address) const {
  const auto found = by_address_.find(address);
  return found == by_address_.end() ? nullptr : &found->second;
}

}  // namespace parlo::client

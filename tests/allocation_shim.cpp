#include "tests/allocation_shim.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <new>

extern "C" [[gnu::weak]] void __asan_init();

namespace {

std::atomic<pthread_t> arming_thread;
std::atomic<uint64_t> n_calls, n_failed, first_to_fail, last_to_fail;

bool fails() {
  if (__asan_init && arming_thread != pthread_self()) return false;
  const uint64_t call = ++n_calls;
  if (call < first_to_fail || call > last_to_fail) return false;
  ++n_failed;
  errno = ENOMEM;
  return true;
}

// The function that this one stands before. The C library looks symbols up without allocating.
template <class Function>
Function* next(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
#define NEXT(function)                                    \
  ([] {                                                   \
    static const auto found = next(&function, #function); \
    return found;                                         \
  }())

[[gnu::constructor]] void arm_from_environment() {
  if (const char* nth = std::getenv("MORUN_FAIL_ALLOCATION"))
    allocation_shim_fail(std::strtoull(nth, nullptr, 10), false);
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] void allocation_shim_fail(uint64_t nth, bool from_then_on) {
  last_to_fail = 0;
  arming_thread = pthread_self();
  n_calls = n_failed = 0;
  first_to_fail = nth;
  last_to_fail = from_then_on ? UINT64_MAX : nth;
  if (nth == 0) last_to_fail = 0;
}
[[gnu::visibility("default")]] uint64_t allocation_shim_failed() {
  return n_failed;
}

void* malloc(size_t size) {
  return fails() ? nullptr : NEXT(malloc)(size);
}
void* calloc(size_t count, size_t size) {
  return fails() ? nullptr : NEXT(calloc)(count, size);
}
void* realloc(void* block, size_t size) {
  return fails() ? nullptr : NEXT(realloc)(block, size);
}
void* aligned_alloc(size_t alignment, size_t size) {
  return fails() ? nullptr : NEXT(aligned_alloc)(alignment, size);
}
int posix_memalign(void** block, size_t alignment, size_t size) {
  return fails() ? ENOMEM : NEXT(posix_memalign)(block, alignment, size);
}
void* mmap(void* address, size_t length, int protection, int flags, int descriptor, off_t offset) {
  return fails() ? MAP_FAILED : NEXT(mmap)(address, length, protection, flags, descriptor, offset);
}
int memfd_create(const char* name, unsigned flags) {
  return fails() ? -1 : NEXT(memfd_create)(name, flags);
}
}

// The standard library's come down to malloc, the address sanitizer's do not.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return malloc(size != 0 ? size : 1);
}
void* operator new(size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  void* block = nullptr;
  return posix_memalign(&block, static_cast<size_t>(alignment), size) == 0 ? block : nullptr;
}
void* operator new(size_t size) {
  if (void* const block = operator new(size, std::nothrow)) return block;
  throw std::bad_alloc();
}
void* operator new(size_t size, std::align_val_t alignment) {
  if (void* const block = operator new(size, alignment, std::nothrow)) return block;
  throw std::bad_alloc();
}
void* operator new[](size_t size) {
  return operator new(size);
}
void* operator new[](size_t size, std::align_val_t alignment) {
  return operator new(size, alignment);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return operator new(size, std::nothrow);
}
#define FREES(form, ...)                                                \
  void operator form(void* block __VA_OPT__(, ) __VA_ARGS__) noexcept { \
    free(block);                                                        \
  }
FREES(delete)
FREES(delete, size_t)
FREES(delete, std::align_val_t)
FREES(delete, size_t, std::align_val_t)
FREES(delete[])
FREES(delete[], size_t)
FREES(delete[], std::align_val_t)
FREES(delete[], size_t, std::align_val_t)

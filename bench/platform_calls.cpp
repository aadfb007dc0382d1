#include "bench/platform_calls.h"

#include <dlfcn.h>
#include <time.h>

#include "platform/parlo.h"

namespace bench {
namespace {

double now() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// The split of the running call.
struct Recorder {
  Split split;
  bool product_seen;
  double left_platform;  // when the last platform call returned

  void enter_platform(double time) {
    (product_seen ? split.bringing_back : split.staging) += time - left_platform;
    ++split.n_platform_calls;
  }
  void leave_platform(double entered, bool was_product) {
    left_platform = now();
    split.platform += left_platform - entered;
    product_seen |= was_product;
  }
};

Recorder* recorder = nullptr;  // not null while a call is split

template <class Call>
auto timed(bool is_product, Call call) {
  if (recorder == nullptr) return call();
  const double entered = now();
  recorder->enter_platform(entered);
  if constexpr (std::is_void_v<decltype(call())>) {
    call();
    recorder->leave_platform(entered, is_product);
  } else {
    const auto result = call();
    recorder->leave_platform(entered, is_product);
    return result;
  }
}

}  // namespace

Split split(const std::function<void()>& call) {
  Recorder record = {{}, false, now()};
  recorder = &record;
  call();
  recorder = nullptr;
  record.enter_platform(now());
  --record.split.n_platform_calls;
  return record.split;
}

}  // namespace bench

// The platform entries that contexts, buffers and products use. Only products have input buffers besides the handle.
#define PLATFORM_ENTRY(result, name, parameters, arguments, is_product)                  \
  extern "C" result name parameters {                                                    \
    static const auto next = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name)); \
    return bench::timed(is_product, [&] { return next arguments; });                     \
  }

PLATFORM_ENTRY(int, parlo_handle_invoke, (uint64_t handle, uint32_t scalars, parlo_argument* arguments),
               (handle, scalars, arguments), PARLO_SCALARS_N_IN(scalars) > 0)
PLATFORM_ENTRY(void*, parlo_mem_alloc, (int heap_id, uint32_t flags, int32_t size), (heap_id, flags, size), false)
PLATFORM_ENTRY(void*, parlo_mem_alloc2, (int heap_id, uint32_t flags, uint64_t size), (heap_id, flags, size), false)
PLATFORM_ENTRY(void, parlo_mem_free, (void* address), (address), false)
PLATFORM_ENTRY(int, parlo_mem_to_fd, (const void* address), (address), false)
PLATFORM_ENTRY(int, parlo_mmap, (int domain, int fd, void* address, int offset, uint64_t length, int flags),
               (domain, fd, address, offset, length, flags), false)
PLATFORM_ENTRY(int, parlo_munmap, (int domain, int fd, void* address, uint64_t length), (domain, fd, address, length),
               false)
PLATFORM_ENTRY(int, parlo_session_control, (uint32_t request, void* record, uint32_t size), (request, record, size),
               false)
PLATFORM_ENTRY(int, parlo_handle_open, (const char* uri, uint64_t* handle), (uri, handle), false)
PLATFORM_ENTRY(int, parlo_handle_close, (uint64_t handle), (handle), false)

// A remote call that is prepared before the handle for it is known. The object holds the call's source text, which the
// error record quotes when the call fails.
#pragma once

#include <cstdint>

#include "source/host/error.h"

// `call` is an expression in which `handle` stands for the handle. The object refers to the local variables around the
// macro and is valid until the end of the full expression that contains the macro.
#define TAVIK_REMOTE_CALL(call) \
  tavik::RemoteCall([&](uint64_t handle) { return call; }, #call " != KESO_SUCCESS", __LINE__)

namespace tavik {

class RemoteCall {
 public:
  template <class Call>
  RemoteCall(const Call& call, const char* test, int line)
      : call_(&call),
        make_([](const void* object, uint64_t handle) { return (*static_cast<const Call*>(object))(handle); }),
        test_(test),
        line_(line) {}

  // Makes the call. Returns 0, or 1 after recording the failure as a failure of `function`.
  int32_t operator()(uint64_t handle, const char* function) const {
    return record_remote(make_(call_, handle), test_, function, "source/host/kernels", line_);
  }

 private:
  const void* call_;
  int (*make_)(const void*, uint64_t);
  const char* test_;
  int line_;
};

}  // namespace tavik

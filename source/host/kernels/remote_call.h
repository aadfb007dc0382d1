// A remote call to be made later, on a handle that is yet to be found, with the source text that a failure is recorded
// with.
#pragma once

#include <cstdint>

#include "source/host/error.h"

// The call as an expression in which `handle` stands for the handle. It refers to the variables around it and lives as
// long as the full expression that it stands in.
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

  // Status 0, or 1 with the failure recorded as one of `function`.
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

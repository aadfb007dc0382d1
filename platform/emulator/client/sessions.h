// Sessions on the compute DSP and their handles.
#pragma once

#include <cstdint>
#include <map>
#include <string_view>

#include "platform/emulator/client/shared_memory.h"
#include "platform/emulator/dsp/dsp.h"

namespace parlo::client {

struct Session {
  uint32_t id;
  int32_t domain;  // effective domain id
  bool unsigned_modules = false;
  uint64_t handle = 0;  // 0 until the module is open
  uint64_t n_mappings = 0;

  bool is_open() const { return handle != 0; }
};

// Session 0 is always there, on the compute domain itself. The others are reserved one by one, get domain ids of their
// own, and are gone again when their handle is closed. Operations that can be refused return a status.
class Sessions {
 public:
  Sessions();

  // nullptr where `n_session` are taken, the first always counted.
  const Session* reserve(uint32_t n_session);

  Session* with_id(uint32_t id);
  Session* with_domain(int32_t domain);
  Session* with_handle(uint64_t handle);

  int32_t open(std::string_view uri, const dsp::Module& module, uint64_t& handle);
  int32_t close(uint64_t handle);
  void end_all();

  // `allocation` is nullptr where no shared memory has this descriptor and address.
  int32_t map(int32_t domain, const Allocation* allocation, uint64_t length);
  int32_t unmap(int32_t domain, const Allocation* allocation, int descriptor, const void* address, uint64_t length);

  uint64_t n_sessions() const;  // reserved or open
  uint64_t n_handles() const;
  uint64_t n_mappings() const;

 private:
  void end(Session& session);

  std::map<uint32_t, Session> by_id_;
  uint64_t last_handle_;
};

}  // namespace parlo::client

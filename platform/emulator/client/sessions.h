// Sessions on the compute DSP, and the handles of these sessions.
#pragma once

#include <cstdint>
#include <list>
#include <string_view>
#include <vector>

#include "platform/emulator/client/domains.h"
#include "platform/emulator/client/shared_memory.h"
#include "platform/emulator/dsp/dsp.h"
#include "platform/emulator/parlo_emulator.h"

namespace parlo::client {

struct Session {
  uint32_t id = 0;
  int32_t domain = compute_domain;  // the effective domain id
  bool unsigned_modules = false;
  std::vector<uint64_t> handles = {};  // open handles
  bool is_lost = false;
  bool is_inherited = false;

  bool is_open() const { return !handles.empty(); }
  // The status with which the session refuses every call, or success.
  int32_t refusal() const {
    if (is_inherited) return PARLO_EMULATOR_INHERITED;
    return is_lost ? PARLO_EMULATOR_SESSION_LOST : KESO_SUCCESS;
  }
};

// Session 0 exists always, on the compute domain itself, and may be opened any number of times. The other sessions are
// reserved one by one. Each of them gets a domain id of its own, is opened once, and ends when its handle is closed. A
// lost session stays until its last handle is closed; a lost session 0 stands beside its successor. Operations that can
// be refused return a status.
class Sessions {
 public:
  // Returns nullptr when `n_session` sessions exist already. Session 0 counts always.
  const Session* reserve(uint32_t n_session);

  // Store the session with that id, domain or handle. Refused when there is no such session or when it refuses its
  // calls.
  int32_t with_id(uint32_t id, Session*& session);
  int32_t with_domain(int32_t domain, Session*& session);
  int32_t with_handle(uint64_t handle, Session*& session);

  int32_t open(std::string_view uri, const dsp::Module& module, uint64_t& handle);
  int32_t close(uint64_t handle);
  void end_all();

  // `allocation` is nullptr when no shared memory has this descriptor and address.
  int32_t map(int32_t domain, const Allocation* allocation, uint64_t length);
  int32_t unmap(int32_t domain, const Allocation* allocation, int descriptor, const void* address, uint64_t length);

  // Marks the session that `call` names as lost.
  void lose(const parlo_emulator_call& call);
  static bool names_session(const parlo_emulator_call& call);

  // Runs in a forked child: all sessions now belong to the parent.
  void inherit();
  // Runs in a forked child: all sessions belong to the child again. A first session that the child has opened meanwhile
  // remains the first session.
  void take_over();

  uint64_t n_sessions() const;  // reserved or open
  uint64_t n_handles() const;
  uint64_t n_mappings() const;

 private:
  Session* find(auto named);
  Session* find_id(uint32_t id);
  Session* find_domain(int32_t domain);
  Session* find_open(int32_t domain);
  Session* find_handle(uint64_t handle);
  Session* named_by(const parlo_emulator_call& call);
  Session& set_aside(Session& session);
  void end(Session& session);

  Session first_;
  std::list<Session> others_;  // reserved sessions, and former first sessions
  uint64_t last_handle_ = 0x7a5c'0000'0000;
};

}  // namespace parlo::client

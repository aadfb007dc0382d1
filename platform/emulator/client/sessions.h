// Sessions on the compute DSP and their handles.
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
  int32_t domain = compute_domain;  // effective domain id
  bool unsigned_modules = false;
  std::vector<uint64_t> handles = {};  // open ones
  bool is_lost = false;
  bool is_inherited = false;

  bool is_open() const { return !handles.empty(); }
  // The status of every call on it.
  int32_t refusal() const {
    if (is_inherited) return PARLO_EMULATOR_INHERITED;
    return is_lost ? PARLO_EMULATOR_SESSION_LOST : KESO_SUCCESS;
  }
};

// Session 0 is always there, on the compute domain itself, and may be opened any number of times. The others are reserved
// one by one, get domain ids of their own, are opened once, and are gone again when their handle is closed. Lost sessions
// stay until their last handle is closed; a lost session 0 stands beside its successor. Operations that can be refused
// return a status.
class Sessions {
 public:
  // nullptr where `n_session` are taken, the first always counted.
  const Session* reserve(uint32_t n_session);

  // Store the session that is named so; refused where there is none, or where it refuses its calls.
  int32_t with_id(uint32_t id, Session*& session);
  int32_t with_domain(int32_t domain, Session*& session);
  int32_t with_handle(uint64_t handle, Session*& session);

  int32_t open(std::string_view uri, const dsp::Module& module, uint64_t& handle);
  int32_t close(uint64_t handle);
  void end_all();

  // `allocation` is nullptr where no shared memory has this descriptor and address.
  int32_t map(int32_t domain, const Allocation* allocation, uint64_t length);
  int32_t unmap(int32_t domain, const Allocation* allocation, int descriptor, const void* address, uint64_t length);

  // The session that `call` names is lost.
  void lose(const parlo_emulator_call& call);
  static bool names_session(const parlo_emulator_call& call);

  // In a forked child: all of them are the parent's.
  void inherit();
  // And are the child's again; a first session that the child has opened itself meanwhile stays.
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
  std::list<Session> others_;  // reserved ones, and former first ones
  uint64_t last_handle_ = 0x7a5c'0000'0000;
};

}  // namespace parlo::client

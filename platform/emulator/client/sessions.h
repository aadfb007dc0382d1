// Sessions on the compute DSP, and the handles of these sessions.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string_view>
#include <vector>

#include "platform/emulator/client/domains.h"
#include "platform/emulator/client/shared_memory.h"
#include "platform/emulator/dsp/dsp.h"
#include "platform/emulator/parlo_emulator.h"

namespace parlo::client {

struct Session {
  uint32_t id = 0;
  int32_t domain = compute_domain;              // the effective domain id
  bool unsigned_modules = false;                // whether it may load them
  uint32_t n_coming = 0;                        // requests for unsigned modules whose opening has not come yet
  std::vector<uint64_t> handles = {};           // open handles
  std::shared_ptr<dsp::Space> space = nullptr;  // the DSP half; nullptr before the first handle and when lost
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
  // Reservations of matrix units end with the handles that have them.
  explicit Sessions(dsp::MatrixUnitTable& units) : units_(units) {}

  // Returns nullptr when `n_session` sessions exist already. Session 0 counts always.
  const Session* reserve(uint32_t n_session);

  // Store the session with that id, domain or handle. Refused when there is no such session or when it refuses its
  // calls.
  int32_t with_id(uint32_t id, Session*& session);
  int32_t with_domain(int32_t domain, Session*& session);
  int32_t with_handle(uint64_t handle, Session*& session);

  // Stores the session in which `uri` opens a module, and a new handle for the module. Refused when the session cannot
  // be opened.
  int32_t prepare_opening(std::string_view uri, Session*& session, uint64_t& handle);
  // Adds the handle, which the DSP half `space` has opened. Needs no memory: see prepare_opening.
  void add(Session& session, uint64_t handle, std::shared_ptr<dsp::Space> space);
  // Stores the open session with that domain.
  int32_t with_open_domain(int32_t domain, Session*& session);
  // Tells whether a lost session with that domain waits for its closing.
  bool has_lost(int32_t domain);
  // Takes the handle out of the books, and ends the session with its last handle. Returns what the session was, which
  // destroys the DSP half in the caller's hands; no DSP half when the session goes on.
  std::shared_ptr<dsp::Space> remove(uint64_t handle);
  void end_all();
  // Tells all sessions that the host has released the memory.
  void release(uint64_t memory);

  // Marks the session that `call` names, or the session with that DSP half, as lost. Returns the DSP half, which the
  // caller destroys.
  std::shared_ptr<dsp::Space> lose(const parlo_emulator_call& call);
  std::shared_ptr<dsp::Space> lose(const dsp::Space* space);
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
  std::shared_ptr<dsp::Space> lose(Session* session);
  Session* find_id(uint32_t id);
  Session* find_domain(int32_t domain);
  Session* find_open(int32_t domain);
  Session* find_handle(uint64_t handle);
  Session* named_by(const parlo_emulator_call& call);
  Session& set_aside(Session& session);
  std::shared_ptr<dsp::Space> end(Session& session);

  void end_reservations(const Session& session);

  dsp::MatrixUnitTable& units_;
  Session first_;
  std::list<Session> others_;  // reserved sessions, and former first sessions
  uint64_t last_handle_ = 0x7a5c'0000'0000;
};

}  // namespace parlo::client

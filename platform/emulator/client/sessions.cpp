#include "platform/emulator/client/sessions.h"

#include "platform/emulator/client/domains.h"
#include "platform/emulator/client/uri.h"
#include "platform/emulator/parlo_emulator.h"

namespace parlo::client {
namespace {

// Handles look like addresses and are never given twice, so that a stale one is found out.
constexpr uint64_t handle_before_first = 0x7a5c'0000'0000;
constexpr uint64_t handle_step = 0x140;

// Away from the ids of whole domains.
int32_t domain_of_reserved(uint32_t id) {
  return static_cast<int32_t>(8 + id);
}

}  // namespace

Sessions::Sessions() : last_handle_(handle_before_first) {
  by_id_.emplace(0, Session{.id = 0, .domain = compute_domain});
}

const Session* Sessions::reserve(uint32_t n_session) {
  if (by_id_.size() >= n_session) return nullptr;
  uint32_t id = 1;
  while (by_id_.contains(id)) ++id;
  return &by_id_.emplace(id, Session{.id = id, .domain = domain_of_reserved(id)}).first->second;
}

Session* Sessions::with_id(uint32_t id) {
  const auto found = by_id_.find(id);
  return found == by_id_.end() ? nullptr : &found->second;
}

Session* Sessions::with_domain(int32_t domain) {
  for (auto& [id, session] : by_id_)
    if (session.domain == domain) return &session;
  return nullptr;
}

Session* Sessions::with_handle(uint64_t handle) {
  for (auto& [id, session] : by_id_)
    if (session.is_open() && session.handle == handle) return &session;
  return nullptr;
}

int32_t Sessions::open(std::string_view uri, const dsp::Module& module, uint64_t& handle) {
  uint32_t id;
  if (const int32_t status = parse_uri(uri, id); status != KESO_SUCCESS) return status;
  Session* session = with_id(id);
  if (!session) return PARLO_EMULATOR_NO_SUCH_SESSION;
  if (session->is_open()) return PARLO_EMULATOR_SESSION_OPEN;
  if (!session->unsigned_modules) return PARLO_EMULATOR_UNSIGNED_REFUSED;
  last_handle_ += handle_step;
  dsp::open(last_handle_, module);
  handle = session->handle = last_handle_;
  return KESO_SUCCESS;
}

int32_t Sessions::close(uint64_t handle) {
  Session* session = with_handle(handle);
  if (!session) return PARLO_EMULATOR_BAD_HANDLE;
  end(*session);
  return KESO_SUCCESS;
}

void Sessions::end(Session& session) {
  if (session.is_open()) dsp::close(session.handle);
  if (session.id == 0)
    session = Session{.id = 0, .domain = compute_domain};
  else
    by_id_.erase(session.id);
}

void Sessions::end_all() {
  while (by_id_.size() > 1) end(by_id_.rbegin()->second);
  end(by_id_.begin()->second);
}

int32_t Sessions::map(int32_t domain, const Allocation* allocation, uint64_t length) {
  Session* session = with_domain(domain);
  if (!session || !session->is_open()) return PARLO_EMULATOR_UNSUPPORTED_DOMAIN;
  if (!allocation) return PARLO_EMULATOR_UNKNOWN_DESCRIPTOR;
  if (length != allocation->size) return PARLO_EMULATOR_WRONG_SIZE;
  const auto address = reinterpret_cast<uintptr_t>(allocation->address);
  const int32_t status = dsp::map(session->handle, {allocation->id, allocation->descriptor, address, length});
  session->n_mappings += status == KESO_SUCCESS;
  return status;
}

int32_t Sessions::unmap(int32_t domain, const Allocation* allocation, int descriptor, const void* address,
                        uint64_t length) {
  Session* session = with_domain(domain);
  if (!session || !session->is_open()) return PARLO_EMULATOR_UNSUPPORTED_DOMAIN;
  const int32_t status = dsp::unmap(session->handle, descriptor, reinterpret_cast<uintptr_t>(address), length);
  session->n_mappings -= status == KESO_SUCCESS;
  const bool unknown = status == PARLO_EMULATOR_NOT_MAPPED && !allocation;
  return unknown ? PARLO_EMULATOR_UNKNOWN_DESCRIPTOR : status;
}

uint64_t Sessions::n_sessions() const {
  return by_id_.size() - 1 + by_id_.begin()->second.is_open();
}

uint64_t Sessions::n_handles() const {
  uint64_t n = 0;
  for (const auto& [id, session] : by_id_) n += session.is_open();
  return n;
}

uint64_t Sessions::n_mappings() const {
  uint64_t n = 0;
  for (const auto& [id, session] : by_id_) n += session.n_mappings;
  return n;
}

}  // namespace parlo::client

// parlo_session_control.
#include <cstring>
#include <string>

#include "platform/emulator/client/domains.h"
#include "platform/emulator/client/platform.h"
#include "platform/emulator/client/uri.h"
#include "platform/parlo.h"

namespace parlo::client {
namespace {

std::string_view text_of(const char* text, uint32_t length) {
  return text ? std::string_view(text, strnlen(text, length)) : std::string_view();
}

// Writes the session that a request names, and later the answer to the request, into the record of the call.
void describe(parlo_emulator_call& call, uint64_t id, uint64_t answer, std::string_view text) {
  call.n_arguments = 3;
  call.arguments[1] = id;
  call.arguments[2] = answer;
  set_text(call, text);
}
void describe(parlo_emulator_call& call, const parlo_session_reserve& record) {
  describe(call, 0, 0, text_of(record.session_name, record.session_name_length));
}
void describe(parlo_emulator_call& call, const parlo_session_uri& record) {
  describe(call, record.session_id, 0, text_of(record.domain_name, record.domain_name_length));
}
void describe(parlo_emulator_call& call, const parlo_session_unsigned_module& record) {
  describe(call, word(record.domain), word(record.enable), {});
}
void describe(parlo_emulator_call& call, const parlo_session_effective_domain& record) {
  describe(call, record.session_id, 0, text_of(record.domain_name, record.domain_name_length));
}

int32_t answer(Platform& p, parlo_emulator_call& call, parlo_session_reserve& record) {
  const std::string_view name = text_of(record.session_name, record.session_name_length);
  if (!record.domain_name || name.empty()) return PARLO_EMULATOR_BAD_ARGUMENT;
  const Domain* domain = find_domain(text_of(record.domain_name, record.domain_name_length));
  if (!domain || domain->id != compute_domain) return PARLO_EMULATOR_UNSUPPORTED_DOMAIN;
  const Session* session = p.sessions.reserve(p.config.n_sessions);
  if (!session) return PARLO_EMULATOR_NO_MORE_SESSIONS;
  record.session_id = session->id;
  record.effective_domain_id = static_cast<uint32_t>(session->domain);
  describe(call, record.session_id, record.effective_domain_id, name);
  return KESO_SUCCESS;
}

int32_t answer(Platform& p, parlo_emulator_call& call, parlo_session_uri& record) {
  if (!record.domain_name || !record.module_uri || !record.uri) return PARLO_EMULATOR_BAD_ARGUMENT;
  const Domain* domain = find_domain(text_of(record.domain_name, record.domain_name_length));
  if (!domain || domain->id != compute_domain) return PARLO_EMULATOR_UNSUPPORTED_DOMAIN;
  Session* session;
  if (const int32_t status = p.sessions.with_id(record.session_id, session); status != KESO_SUCCESS) return status;
  const std::string uri = session_uri(text_of(record.module_uri, record.module_uri_length), record.session_id);
  if (uri.size() >= record.uri_length) return PARLO_EMULATOR_BAD_ARGUMENT;
  std::memcpy(record.uri, uri.c_str(), uri.size() + 1);
  describe(call, record.session_id, uri.size(), uri);
  return KESO_SUCCESS;
}

int32_t answer(Platform& p, parlo_emulator_call&, parlo_session_unsigned_module& record) {
  Session* session;
  if (const int32_t status = p.sessions.with_domain(record.domain, session); status != KESO_SUCCESS) return status;
  session->unsigned_modules = record.enable == 1;
  session->n_coming = session->unsigned_modules ? session->n_coming + 1 : 0;
  return KESO_SUCCESS;
}

int32_t answer(Platform& p, parlo_emulator_call& call, parlo_session_effective_domain& record) {
  if (!record.domain_name) return PARLO_EMULATOR_BAD_ARGUMENT;
  const std::string_view name = text_of(record.domain_name, record.domain_name_length);
  const Domain* domain = find_domain(name);
  if (!domain) return PARLO_EMULATOR_UNSUPPORTED_DOMAIN;
  Session* session;
  if (const int32_t status = p.sessions.with_id(record.session_id, session); status != KESO_SUCCESS) return status;
  if (session->id != 0 && domain->id != compute_domain) return PARLO_EMULATOR_NO_SUCH_SESSION;
  record.effective_domain_id = session->id == 0 ? domain->id : static_cast<uint32_t>(session->domain);
  describe(call, record.session_id, record.effective_domain_id, name);
  return KESO_SUCCESS;
}

template <class Record, class Body>
int32_t use_record(void* record, uint32_t size, Body body) {
  if (!record || size != sizeof(Record)) return PARLO_EMULATOR_BAD_ARGUMENT;
  return body(*static_cast<Record*>(record));
}

// Calls body with the request's record. Refuses a record that is not of the request's size.
template <class Body>
int32_t use(uint32_t request, void* record, uint32_t size, Body body) {
  switch (request) {
    case PARLO_SESSION_RESERVE:
      return use_record<parlo_session_reserve>(record, size, body);
    case PARLO_SESSION_GET_URI:
      return use_record<parlo_session_uri>(record, size, body);
    case PARLO_SESSION_UNSIGNED_MODULE:
      return use_record<parlo_session_unsigned_module>(record, size, body);
    case PARLO_SESSION_EFFECTIVE_DOMAIN:
      return use_record<parlo_session_effective_domain>(record, size, body);
    default:
      return PARLO_EMULATOR_BAD_ARGUMENT;
  }
}

}  // namespace
}  // namespace parlo::client

using namespace parlo::client;

int parlo_session_control(uint32_t request, void* record, uint32_t size) {
  TracedCall call = make_call(PARLO_EMULATOR_SESSION_CONTROL, {request});
  use(request, record, size, [&](const auto& named) {
    describe(call, named);
    return KESO_SUCCESS;
  });
  return carry_out(call, [&](Platform& p, PlatformLock&) {
    return outcome_of(use(request, record, size, [&](auto& named) { return answer(p, call, named); }));
  });
}

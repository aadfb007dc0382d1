#include "platform/emulator/client/sessions.h"

#include <algorithm>
#include <utility>

#include "platform/emulator/client/uri.h"

namespace parlo::client {
namespace {

// Handles look like addresses. No handle is given twice, so a stale handle is always recognised.
constexpr uint64_t handle_step = 0x140;

// The ids of reserved sessions lie apart from the ids of whole domains.
int32_t domain_of_reserved(uint32_t id) {
  return static_cast<int32_t>(8 + id);
}

int32_t found(Session* named, int32_t none, Session*& session) {
  session = named;
  return named ? named->refusal() : none;
}

bool is_own(const Session& session) {
  return !session.is_inherited;
}

// A context that begins while the first session ends has made its request, and opens the session next.
Session successor(const Session& first) {
  return {.unsigned_modules = first.n_coming != 0, .n_coming = first.n_coming};
}

}  // namespace

Session* Sessions::find(auto named) {
  if (named(first_)) return &first_;
  const auto other = std::find_if(others_.begin(), others_.end(), named);
  return other == others_.end() ? nullptr : &*other;
}

Session* Sessions::find_id(uint32_t id) {
  return find([id](const Session& session) { return session.id == id; });
}

Session* Sessions::find_domain(int32_t domain) {
  return find([domain](const Session& session) { return session.domain == domain; });
}

Session* Sessions::find_open(int32_t domain) {
  return find([domain](const Session& session) { return session.domain == domain && session.is_open(); });
}

Session* Sessions::find_handle(uint64_t handle) {
  return find([handle](const Session& session) { return std::ranges::count(session.handles, handle) != 0; });
}

const Session* Sessions::reserve(uint32_t n_session) {
  const auto reserved = [](const Session& session) { return session.id != 0 && is_own(session); };
  if (1 + std::count_if(others_.begin(), others_.end(), reserved) >= n_session) return nullptr;
  uint32_t id = 1;
  while (find_id(id)) ++id;
  return &others_.emplace_back(Session{.id = id, .domain = domain_of_reserved(id)});
}

int32_t Sessions::with_id(uint32_t id, Session*& session) {
  return found(find_id(id), PARLO_EMULATOR_NO_SUCH_SESSION, session);
}

int32_t Sessions::with_domain(int32_t domain, Session*& session) {
  return found(find_domain(domain), PARLO_EMULATOR_UNSUPPORTED_DOMAIN, session);
}

int32_t Sessions::with_handle(uint64_t handle, Session*& session) {
  return found(find_handle(handle), PARLO_EMULATOR_BAD_HANDLE, session);
}

int32_t Sessions::prepare_opening(std::string_view uri, Session*& session, uint64_t& handle) {
  uint32_t id;
  if (const int32_t status = parse_uri(uri, id); status != KESO_SUCCESS) return status;
  if (const int32_t status = with_id(id, session); status != KESO_SUCCESS) return status;
  if (id != 0 && session->is_open()) return PARLO_EMULATOR_SESSION_OPEN;
  if (!session->unsigned_modules) return PARLO_EMULATOR_UNSIGNED_REFUSED;
  session->handles.reserve(session->handles.size() + 1);
  handle = last_handle_ + handle_step;
  return KESO_SUCCESS;
}

void Sessions::add(Session& session, uint64_t handle, std::shared_ptr<dsp::Space> space) {
  session.handles.push_back(handle);
  if (session.n_coming != 0) --session.n_coming;
  session.space = std::move(space);
  last_handle_ = handle;
}

int32_t Sessions::with_open_domain(int32_t domain, Session*& session) {
  return found(find_open(domain), PARLO_EMULATOR_UNSUPPORTED_DOMAIN, session);
}

bool Sessions::has_lost(int32_t domain) {
  return find([domain](const Session& session) { return session.domain == domain && session.is_lost; }) != nullptr;
}

std::shared_ptr<dsp::Space> Sessions::remove(uint64_t handle) {
  Session* const session = find_handle(handle);
  if (!session) return nullptr;
  std::erase(session->handles, handle);
  units_.end(handle);
  return session->is_open() ? nullptr : end(*session);
}

void Sessions::end_reservations(const Session& session) {
  for (const uint64_t handle : session.handles) units_.end(handle);
}

std::shared_ptr<dsp::Space> Sessions::end(Session& session) {
  end_reservations(session);
  std::shared_ptr<dsp::Space> space = std::move(session.space);
  // In a forked child, the DSP half of a parent's session stays as it is: other threads of the parent may have been in
  // it at the time of the fork.
  if (session.is_inherited && space) new std::shared_ptr<dsp::Space>(std::exchange(space, nullptr));
  if (&session == &first_)
    first_ = successor(first_);
  else
    others_.remove_if([&](const Session& other) { return &other == &session; });
  return space;
}

void Sessions::end_all() {
  while (!others_.empty()) end(others_.front());
  end(first_);
  first_ = {};
}

void Sessions::release(uint64_t memory) {
  if (first_.space) first_.space->release(memory);
  for (const Session& session : others_)
    if (session.space && is_own(session)) session.space->release(memory);
}

// ---- Sessions that refuse their calls ----------------------------------------------------------------------------

bool Sessions::names_session(const parlo_emulator_call& call) {
  switch (call.operation) {
    case PARLO_EMULATOR_HANDLE_OPEN:
    case PARLO_EMULATOR_HANDLE_INVOKE:
    case PARLO_EMULATOR_HANDLE_CLOSE:
    case PARLO_EMULATOR_MMAP:
    case PARLO_EMULATOR_MUNMAP:
      return true;
    case PARLO_EMULATOR_SESSION_CONTROL:
      return call.n_arguments == 3 && call.arguments[0] != PARLO_SESSION_RESERVE;
    default:
      return false;
  }
}

Session* Sessions::named_by(const parlo_emulator_call& call) {
  const uint64_t* arguments = call.arguments;
  uint32_t id = 0;
  switch (call.operation) {
    case PARLO_EMULATOR_HANDLE_OPEN:
      return parse_uri(call.text, id) == KESO_SUCCESS ? find_id(id) : nullptr;
    case PARLO_EMULATOR_MMAP:
    case PARLO_EMULATOR_MUNMAP:
      return find_open(static_cast<int32_t>(arguments[0]));
    case PARLO_EMULATOR_SESSION_CONTROL:
      if (arguments[0] == PARLO_SESSION_UNSIGNED_MODULE) return find_domain(static_cast<int32_t>(arguments[1]));
      return find_id(static_cast<uint32_t>(arguments[1]));
    default:
      return find_handle(arguments[0]);
  }
}

// Moves a first session into the list of other sessions, where it stands beside its successor. Every other session
// stays where it is.
Session& Sessions::set_aside(Session& session) {
  if (&session != &first_) return session;
  Session& former = others_.emplace_back();
  return former = std::exchange(first_, successor(first_));
}

std::shared_ptr<dsp::Space> Sessions::lose(Session* session) {
  if (!session || session->refusal() != KESO_SUCCESS) return nullptr;
  if (!session->is_open()) return end(*session);
  Session& lost = set_aside(*session);
  lost.is_lost = true;
  end_reservations(lost);
  return std::move(lost.space);
}

std::shared_ptr<dsp::Space> Sessions::lose(const parlo_emulator_call& call) {
  return lose(named_by(call));
}

std::shared_ptr<dsp::Space> Sessions::lose(const dsp::Space* space) {
  if (!space) return nullptr;
  return lose(find([space](const Session& session) { return session.space.get() == space; }));
}

void Sessions::inherit() {
  if (first_.is_open()) set_aside(first_);
  first_ = {};
  for (Session& session : others_) session.is_inherited = true;
}

void Sessions::take_over() {
  Session* former = nullptr;
  for (Session& session : others_) {
    if (session.id == 0 && session.is_inherited && !session.is_lost) former = &session;
    session.is_inherited = false;
  }
  if (!former || first_.is_open()) return;
  first_ = std::move(*former);
  others_.remove_if([&](const Session& other) { return &other == former; });
}

// ---- Counts ------------------------------------------------------------------------------------------------------

uint64_t Sessions::n_sessions() const {
  return static_cast<uint64_t>(std::ranges::count_if(others_, is_own)) + first_.is_open();
}

uint64_t Sessions::n_handles() const {
  uint64_t n = first_.handles.size();
  for (const Session& session : others_) n += is_own(session) ? session.handles.size() : 0;
  return n;
}

uint64_t Sessions::n_mappings() const {
  const auto of = [](const Session& session) {
    return session.space && is_own(session) ? session.space->n_mappings() : 0;
  };
  uint64_t n = of(first_);
  for (const Session& session : others_) n += of(session);
  return n;
}

}  // namespace parlo::client

#include "platform/emulator/dsp/dsp.h"

#include <map>
#include <memory>
#include <mutex>
#include <new>

#include "platform/emulator/dsp/methods.h"
#include "platform/emulator/dsp/session.h"
#include "platform/emulator/parlo_emulator.h"

namespace parlo::dsp {
namespace {

using SessionMap = std::map<uint64_t, std::shared_ptr<Session>>;

struct Sessions {
  std::mutex mutex;
  SessionMap by_handle;
  SessionMap of_parent;  // in a forked child: the instances that the parent continues to use
};

// The object is never destroyed, because a call may still run while the process ends.
Sessions& sessions() {
  alignas(Sessions) static std::byte storage[sizeof(Sessions)];
  static Sessions& all = *new (storage) Sessions;
  return all;
}

std::shared_ptr<Session> find(uint64_t handle) {
  const std::lock_guard lock(sessions().mutex);
  const auto found = sessions().by_handle.find(handle);
  return found == sessions().by_handle.end() ? nullptr : found->second;
}

}  // namespace

int32_t Session::lock_matrix_unit() {
  if (!has_resources()) return PARLO_EMULATOR_DSP_NO_RESOURCE;
  const MatrixUnit unit = matrix_unit();
  const std::lock_guard lock(sessions().mutex);
  if (held_unit_) return KESO_SUCCESS;
  for (const auto& [handle, session] : sessions().by_handle)
    if (session->held_unit_ == unit) return PARLO_EMULATOR_DSP_BUSY;
  held_unit_ = unit;
  return KESO_SUCCESS;
}

int32_t Session::unlock_matrix_unit() {
  const std::lock_guard lock(sessions().mutex);
  if (!held_unit_) return PARLO_EMULATOR_DSP_NOT_LOCKED;
  held_unit_.reset();
  return KESO_SUCCESS;
}

int32_t Session::may_multiply() {
  if (!has_resources()) return PARLO_EMULATOR_DSP_NO_RESOURCE;
  const std::lock_guard lock(sessions().mutex);
  return held_unit_ ? KESO_SUCCESS : PARLO_EMULATOR_DSP_NOT_LOCKED;
}

void open(uint64_t handle, const Module& module, uint64_t sibling) {
  const auto neighbour = find(sibling);
  auto session =
      std::make_shared<Session>(module, neighbour ? neighbour->address_space() : std::make_shared<AddressSpace>());
  const std::lock_guard lock(sessions().mutex);
  sessions().by_handle.emplace(handle, std::move(session));
}

void close(uint64_t handle) {
  std::shared_ptr<Session> ended;  // destroyed after the lock is released
  const std::lock_guard lock(sessions().mutex);
  const auto found = sessions().by_handle.find(handle);
  if (found == sessions().by_handle.end()) return;
  ended = std::move(found->second);
  sessions().by_handle.erase(found);
}

int32_t map(uint64_t handle, const SharedBuffer& buffer) {
  const auto session = find(handle);
  return session ? session->address_space()->map(buffer) : PARLO_EMULATOR_BAD_HANDLE;
}

int32_t unmap(uint64_t handle, int32_t descriptor, uint64_t address, uint64_t length) {
  const auto session = find(handle);
  return session ? session->address_space()->unmap(descriptor, address, length) : PARLO_EMULATOR_BAD_HANDLE;
}

void release(uint64_t memory) {
  const std::lock_guard lock(sessions().mutex);
  for (const auto& [handle, session] : sessions().by_handle) session->address_space()->release(memory);
}

uint64_t n_mappings(uint64_t handle) {
  const auto session = find(handle);
  return session ? session->address_space()->n_mappings() : 0;
}

int32_t invoke(uint64_t handle, uint32_t scalars, const parlo_argument* arguments) {
  const auto session = find(handle);
  return session ? run_method(*session, scalars, arguments) : PARLO_EMULATOR_BAD_HANDLE;
}

void before_fork() {
  sessions().mutex.lock();
}

void after_fork(bool in_child) {
  // Another thread of the parent may have been in a call to an instance. The child therefore keeps the instances aside
  // as they are.
  if (in_child) sessions().of_parent.merge(sessions().by_handle);
  sessions().mutex.unlock();
}

void take_over() {
  const std::lock_guard lock(sessions().mutex);
  sessions().by_handle.merge(sessions().of_parent);
}

}  // namespace parlo::dsp

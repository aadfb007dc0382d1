#include "platform/emulator/dsp/dsp.h"

#include <map>
#include <memory>
#include <mutex>

#include "platform/emulator/dsp/methods.h"
#include "platform/emulator/dsp/session.h"
#include "platform/emulator/parlo_emulator.h"

namespace parlo::dsp {
namespace {

struct Sessions {
  std::mutex mutex;
  std::map<uint64_t, std::shared_ptr<Session>> by_handle;
};

// Never destroyed: a call may still run while the process ends.
Sessions& sessions() {
  static Sessions& all = *new Sessions;
  return all;
}

std::shared_ptr<Session> find(uint64_t handle) {
  const std::lock_guard lock(sessions().mutex);
  const auto found = sessions().by_handle.find(handle);
  return found == sessions().by_handle.end() ? nullptr : found->second;
}

}  // namespace

void open(uint64_t handle, const Module& module) {
  auto session = std::make_shared<Session>(module);
  const std::lock_guard lock(sessions().mutex);
  sessions().by_handle.emplace(handle, std::move(session));
}

void close(uint64_t handle) {
  std::shared_ptr<Session> ended;  // taken apart outside the lock
  const std::lock_guard lock(sessions().mutex);
  const auto found = sessions().by_handle.find(handle);
  if (found == sessions().by_handle.end()) return;
  ended = std::move(found->second);
  sessions().by_handle.erase(found);
}

int32_t map(uint64_t handle, const SharedBuffer& buffer) {
  const auto session = find(handle);
  return session ? session->map(buffer) : PARLO_EMULATOR_BAD_HANDLE;
}

int32_t unmap(uint64_t handle, int32_t descriptor, uint64_t address, uint64_t length) {
  const auto session = find(handle);
  return session ? session->unmap(descriptor, address, length) : PARLO_EMULATOR_BAD_HANDLE;
}

int32_t invoke(uint64_t handle, uint32_t scalars, const parlo_argument* arguments) {
  const auto session = find(handle);
  return session ? run_method(*session, scalars, arguments) : PARLO_EMULATOR_BAD_HANDLE;
}

}  // namespace parlo::dsp

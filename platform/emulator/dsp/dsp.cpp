#include "platform/emulator/dsp/dsp.h"

#include <chrono>
#include <map>
#include <mutex>
#include <thread>

#include "platform/emulator/dsp/methods.h"
#include "platform/emulator/dsp/session.h"
#include "platform/emulator/parlo_emulator.h"

namespace parlo::dsp {
namespace {

class LocalSpace final : public Space {
 public:
  LocalSpace(MatrixUnitTable& units, uint32_t limit_milliseconds)
      : units_(units), limit_milliseconds_(limit_milliseconds) {}

  int32_t open(uint64_t handle, const Module& module) override {
    auto session = std::make_shared<Session>(handle, module, addresses_, units_);
    const std::lock_guard lock(mutex_);
    const bool is_new = sessions_.emplace(handle, std::move(session)).second;
    return is_new ? KESO_SUCCESS : int32_t{PARLO_EMULATOR_BAD_HANDLE};
  }

  int32_t close(uint64_t handle) override {
    std::shared_ptr<Session> ended;  // destroyed after the lock is released
    const std::lock_guard lock(mutex_);
    const auto found = sessions_.find(handle);
    if (found == sessions_.end()) return PARLO_EMULATOR_BAD_HANDLE;
    ended = std::move(found->second);
    sessions_.erase(found);
    return KESO_SUCCESS;
  }

  int32_t map(const SharedBuffer& buffer, int file) override { return addresses_->map(buffer, file); }
  int32_t unmap(int32_t descriptor, uint64_t address, uint64_t length) override {
    return addresses_->unmap(descriptor, address, length);
  }
  void release(uint64_t memory) override { addresses_->release(memory); }
  uint64_t n_mappings() override { return addresses_->n_mappings(); }

  int32_t invoke(uint64_t handle, const Call& call, Reply& reply) override {
    const auto session = find(handle);
    if (!session) return PARLO_EMULATOR_BAD_HANDLE;
    if (!sleep(call.late_milliseconds)) return PARLO_EMULATOR_TIMED_OUT;
    reply = {};
    reply.begin = now();
    const int32_t status = run_method(*session, call, reply);
    reply.end = now();
    return status;
  }

 private:
  std::shared_ptr<Session> find(uint64_t handle) {
    const std::lock_guard lock(mutex_);
    const auto found = sessions_.find(handle);
    return found == sessions_.end() ? nullptr : found->second;
  }

  // Returns false when the limit ends before the time does.
  bool sleep(uint32_t milliseconds) const {
    const bool ends = limit_milliseconds_ != 0 && milliseconds >= limit_milliseconds_;
    if (milliseconds != 0)
      std::this_thread::sleep_for(std::chrono::milliseconds(ends ? limit_milliseconds_ : milliseconds));
    return !ends;
  }

  MatrixUnitTable& units_;
  const uint32_t limit_milliseconds_;
  const std::shared_ptr<AddressSpace> addresses_ = std::make_shared<AddressSpace>();
  std::mutex mutex_;  // guards sessions_
  std::map<uint64_t, std::shared_ptr<Session>> sessions_;
};

}  // namespace

std::shared_ptr<Space> make_local_space(MatrixUnitTable& units, uint32_t limit_milliseconds) {
  return std::make_shared<LocalSpace>(units, limit_milliseconds);
}

}  // namespace parlo::dsp

#include "platform/emulator/dsp/session.h"

#include <sys/mman.h>

#include <algorithm>
#include <atomic>

#include "platform/emulator/parlo_emulator.h"

namespace parlo::dsp {
namespace {

std::atomic<const Session*> matrix_unit_holder{nullptr};

}  // namespace

View::View(int32_t descriptor, uint64_t length) : bytes_(nullptr), length_(length) {
  void* address = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  if (address != MAP_FAILED) bytes_ = static_cast<std::byte*>(address);
}

View::~View() {
  if (bytes_) munmap(bytes_, length_);
}

Session::~Session() {
  const Session* self = this;
  matrix_unit_holder.compare_exchange_strong(self, nullptr);
}

int32_t Session::map(const SharedBuffer& buffer) {
  const std::lock_guard lock(mutex_);
  const auto same = [&](const Mapping& mapping) { return mapping.buffer.memory == buffer.memory; };
  if (std::any_of(mappings_.begin(), mappings_.end(), same)) return PARLO_EMULATOR_ALREADY_MAPPED;
  if (n_mapped_bytes_ > module_.address_space_bytes || buffer.length > module_.address_space_bytes - n_mapped_bytes_)
    return PARLO_EMULATOR_ADDRESS_SPACE_FULL;
  auto view = std::make_shared<const View>(buffer.descriptor, buffer.length);
  if (!view->bytes()) return PARLO_EMULATOR_ADDRESS_SPACE_FULL;
  mappings_.push_back({buffer, std::move(view)});
  n_mapped_bytes_ += buffer.length;
  return KESO_SUCCESS;
}

int32_t Session::unmap(int32_t descriptor, uint64_t address, uint64_t length) {
  const std::lock_guard lock(mutex_);
  const auto named = [&](const Mapping& mapping) {
    return mapping.buffer.descriptor == descriptor && mapping.buffer.address == address;
  };
  const auto youngest = std::find_if(mappings_.rbegin(), mappings_.rend(), named);
  if (youngest == mappings_.rend()) return PARLO_EMULATOR_NOT_MAPPED;
  if (youngest->buffer.length != length) return PARLO_EMULATOR_WRONG_SIZE;
  n_mapped_bytes_ -= length;
  mappings_.erase(std::next(youngest).base());
  return KESO_SUCCESS;
}

ViewPointer Session::find_view(int32_t descriptor) const {
  const auto named = [&](const Mapping& mapping) { return mapping.buffer.descriptor == descriptor; };
  const auto youngest = std::find_if(mappings_.rbegin(), mappings_.rend(), named);
  return youngest == mappings_.rend() ? nullptr : youngest->view;
}

ViewPointer Session::view(int32_t descriptor) {
  const std::lock_guard lock(mutex_);
  return find_view(descriptor);
}

int32_t Session::get_AX(const std::array<int32_t, 4>& descriptors) {
  const std::lock_guard lock(mutex_);
  if (!AX_.empty()) return PARLO_EMULATOR_DSP_NO_AX;
  std::vector<std::weak_ptr<const View>> views;
  for (const int32_t descriptor : descriptors) {
    const ViewPointer view = find_view(descriptor);
    if (!view) return PARLO_EMULATOR_DSP_NOT_MAPPED;
    views.push_back(view);
  }
  AX_ = std::move(views);
  return KESO_SUCCESS;
}

int32_t Session::put_AX() {
  const std::lock_guard lock(mutex_);
  if (AX_.empty()) return PARLO_EMULATOR_DSP_NO_AX;
  AX_.clear();
  return KESO_SUCCESS;
}

int32_t Session::find_AX(std::array<ViewPointer, 4>& views) {
  const std::lock_guard lock(mutex_);
  if (AX_.empty()) return PARLO_EMULATOR_DSP_NO_AX;
  std::transform(AX_.begin(), AX_.end(), views.begin(), [](const auto& view) { return view.lock(); });
  return KESO_SUCCESS;
}

int32_t Session::acquire_resources() {
  const std::lock_guard lock(mutex_);
  has_resources_ = true;
  return KESO_SUCCESS;
}

int32_t Session::release_resources() {
  const std::lock_guard lock(mutex_);
  has_resources_ = false;
  return KESO_SUCCESS;
}

int32_t Session::lock_matrix_unit() {
  const std::lock_guard lock(mutex_);
  if (!has_resources_) return PARLO_EMULATOR_DSP_NO_RESOURCE;
  const Session* holder = nullptr;
  const bool taken = matrix_unit_holder.compare_exchange_strong(holder, this);
  return taken || holder == this ? KESO_SUCCESS : PARLO_EMULATOR_DSP_BUSY;
}

int32_t Session::unlock_matrix_unit() {
  const Session* self = this;
  return matrix_unit_holder.compare_exchange_strong(self, nullptr) ? KESO_SUCCESS : PARLO_EMULATOR_DSP_NOT_LOCKED;
}

int32_t Session::may_multiply() {
  const std::lock_guard lock(mutex_);
  if (!has_resources_) return PARLO_EMULATOR_DSP_NO_RESOURCE;
  return matrix_unit_holder == this ? KESO_SUCCESS : PARLO_EMULATOR_DSP_NOT_LOCKED;
}

}  // namespace parlo::dsp

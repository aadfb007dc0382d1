#include "platform/emulator/dsp/session.h"

#include <sys/mman.h>

#include <algorithm>

#include "platform/emulator/parlo_emulator.h"

namespace parlo::dsp {

View::View(int file, uint64_t length) : bytes_(nullptr), length_(length) {
  void* address = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  if (address != MAP_FAILED) bytes_ = static_cast<std::byte*>(address);
}

View::~View() {
  if (bytes_) munmap(bytes_, length_);
}

void AddressSpace::grow(uint64_t n_byte) {
  const std::lock_guard lock(mutex_);
  n_byte_ += n_byte;
}

void AddressSpace::shrink(uint64_t n_byte) {
  const std::lock_guard lock(mutex_);
  n_byte_ -= n_byte;
  for (const Mapping& mapping : mappings_) n_mapped_byte_ -= mapping.is_released ? mapping.buffer.length : 0;
  std::erase_if(mappings_, [](const Mapping& mapping) { return mapping.is_released; });
}

void AddressSpace::release(uint64_t memory) {
  const std::lock_guard lock(mutex_);
  for (Mapping& mapping : mappings_) mapping.is_released |= mapping.buffer.memory == memory;
}

uint64_t AddressSpace::n_mappings() {
  const std::lock_guard lock(mutex_);
  return mappings_.size();
}

int32_t AddressSpace::map(const SharedBuffer& buffer, int file) {
  const std::lock_guard lock(mutex_);
  const auto same = [&](const Mapping& mapping) { return mapping.buffer.memory == buffer.memory; };
  if (std::any_of(mappings_.begin(), mappings_.end(), same)) return PARLO_EMULATOR_ALREADY_MAPPED;
  if (n_mapped_byte_ > n_byte_ || buffer.length > n_byte_ - n_mapped_byte_) return PARLO_EMULATOR_ADDRESS_SPACE_FULL;
  auto view = std::make_shared<const View>(file, buffer.length);
  if (!view->bytes()) return PARLO_EMULATOR_NO_MEMORY;
  mappings_.push_back({buffer, std::move(view)});
  n_mapped_byte_ += buffer.length;
  return KESO_SUCCESS;
}

int32_t AddressSpace::unmap(int32_t descriptor, uint64_t address, uint64_t length) {
  const std::lock_guard lock(mutex_);
  const auto named = [&](const Mapping& mapping) {
    return mapping.buffer.descriptor == descriptor && mapping.buffer.address == address;
  };
  const auto youngest = std::find_if(mappings_.rbegin(), mappings_.rend(), named);
  if (youngest == mappings_.rend()) return PARLO_EMULATOR_NOT_MAPPED;
  if (youngest->buffer.length != length) return PARLO_EMULATOR_WRONG_SIZE;
  n_mapped_byte_ -= length;
  mappings_.erase(std::next(youngest).base());
  return KESO_SUCCESS;
}

Mapping AddressSpace::find(int32_t descriptor) {
  const std::lock_guard lock(mutex_);
  const auto named = [&](const Mapping& mapping) { return mapping.buffer.descriptor == descriptor; };
  const auto youngest = std::find_if(mappings_.rbegin(), mappings_.rend(), named);
  return youngest == mappings_.rend() ? Mapping{} : *youngest;
}

Session::Session(uint64_t handle, const Module& module, std::shared_ptr<AddressSpace> space, MatrixUnitTable& units)
    : handle_(handle), module_(module), space_(std::move(space)), units_(units) {
  space_->grow(module_.address_space_bytes);
}

Session::~Session() {
  units_.end(handle_);
  space_->shrink(module_.address_space_bytes);
}

int32_t Session::get_AX(const std::array<int32_t, 4>& descriptors) {
  const std::lock_guard lock(mutex_);
  if (!AX_.empty()) return PARLO_EMULATOR_DSP_NO_AX;
  std::vector<std::weak_ptr<const View>> views;
  MatrixUnit memory;
  for (size_t i = 0; i < descriptors.size(); ++i) {
    const Mapping mapping = space_->find(descriptors[i]);
    if (!mapping.view) return PARLO_EMULATOR_DSP_NOT_MAPPED;
    views.push_back(mapping.view);
    memory[i] = mapping.buffer.memory;
  }
  AX_ = std::move(views);
  AX_memory_ = memory;
  return KESO_SUCCESS;
}

int32_t Session::put_AX() {
  const std::lock_guard lock(mutex_);
  if (AX_.empty()) return PARLO_EMULATOR_DSP_NO_AX;
  AX_.clear();
  AX_memory_ = {};
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
  if (module_.is_strict && has_resources_) return PARLO_EMULATOR_DSP_REPEATED;
  has_resources_ = true;
  return KESO_SUCCESS;
}

int32_t Session::release_resources() {
  const std::lock_guard lock(mutex_);
  if (module_.is_strict && !has_resources_) return PARLO_EMULATOR_DSP_REPEATED;
  has_resources_ = false;
  return KESO_SUCCESS;
}

int32_t Session::lock_matrix_unit() {
  if (!has_resources()) return PARLO_EMULATOR_DSP_NO_RESOURCE;
  const MatrixUnit unit = matrix_unit();
  const std::lock_guard lock(reservation_mutex_);
  if (!holds_unit_ && !units_.reserve(handle_, unit)) return PARLO_EMULATOR_DSP_BUSY;
  holds_unit_ = true;
  return KESO_SUCCESS;
}

int32_t Session::unlock_matrix_unit() {
  const std::lock_guard lock(reservation_mutex_);
  if (!holds_unit_) return PARLO_EMULATOR_DSP_NOT_LOCKED;
  units_.end(handle_);
  holds_unit_ = false;
  return KESO_SUCCESS;
}

int32_t Session::may_multiply() {
  if (!has_resources()) return PARLO_EMULATOR_DSP_NO_RESOURCE;
  const std::lock_guard lock(reservation_mutex_);
  return holds_unit_ ? KESO_SUCCESS : PARLO_EMULATOR_DSP_NOT_LOCKED;
}

bool Session::has_resources() {
  const std::lock_guard lock(mutex_);
  return has_resources_;
}

MatrixUnit Session::matrix_unit() {
  const std::lock_guard lock(mutex_);
  return module_.shares_matrix_unit ? MatrixUnit{} : AX_memory_;
}

}  // namespace parlo::dsp

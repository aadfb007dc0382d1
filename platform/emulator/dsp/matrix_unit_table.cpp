#include "platform/emulator/dsp/matrix_unit_table.h"

#include <algorithm>

namespace parlo::dsp {

bool HostMatrixUnitTable::reserve(uint64_t handle, const MatrixUnit& unit) {
  const std::lock_guard lock(mutex_);
  const auto held = [&](const auto& holder) { return holder.second == unit && holder.first != handle; };
  if (std::any_of(holders_.begin(), holders_.end(), held)) return false;
  holders_.emplace(handle, unit);
  return true;
}

void HostMatrixUnitTable::end(uint64_t handle) {
  const std::lock_guard lock(mutex_);
  holders_.erase(handle);
}

void HostMatrixUnitTable::after_fork(bool in_child) {
  if (in_child) of_parent_.merge(holders_);
  mutex_.unlock();
}

void HostMatrixUnitTable::take_over() {
  const std::lock_guard lock(mutex_);
  holders_.merge(of_parent_);
}

}  // namespace parlo::dsp

// Who holds which matrix unit. One table serves all sessions of a host process, wherever their DSP halves run.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>

namespace parlo::dsp {

// Identifies a matrix unit by the memory of the four cross-session buffers, which the sessions of one context share.
// The numbers are zero when there are no such buffers, and when all contexts share one unit.
using MatrixUnit = std::array<uint64_t, 4>;

// What a session asks of the table. Any thread may ask.
class MatrixUnitTable {
 public:
  virtual ~MatrixUnitTable() = default;
  // Reserves the unit for the module instance. Returns false when another instance holds it.
  virtual bool reserve(uint64_t handle, const MatrixUnit& unit) = 0;
  // Ends the reservation of the instance, if it has one.
  virtual void end(uint64_t handle) = 0;
};

class HostMatrixUnitTable final : public MatrixUnitTable {
 public:
  bool reserve(uint64_t handle, const MatrixUnit& unit) override;
  void end(uint64_t handle) override;

  // Must be called around a fork, so that the child finds the table unlocked. The child's table is empty.
  void before_fork() { mutex_.lock(); }
  void after_fork(bool in_child);
  // Gives the child the parent's reservations.
  void take_over();

 private:
  using Holders = std::map<uint64_t, MatrixUnit>;

  std::mutex mutex_;
  Holders holders_;
  Holders of_parent_;
};

}  // namespace parlo::dsp

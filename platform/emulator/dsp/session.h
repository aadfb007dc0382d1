// A session on the DSP: its address space, and in it one module instance for each handle.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/emulator/dsp/dsp.h"

namespace parlo::dsp {

// The DSP's own view of shared memory.
class View {
 public:
  View(int32_t descriptor, uint64_t length);
  ~View();
  View(const View&) = delete;
  View& operator=(const View&) = delete;

  std::byte* bytes() const { return bytes_; }  // nullptr where the memory could not be mapped
  uint64_t length() const { return length_; }

 private:
  std::byte* bytes_;
  uint64_t length_;
};
using ViewPointer = std::shared_ptr<const View>;

struct Mapping {
  SharedBuffer buffer;
  ViewPointer view;
  bool is_released = false;  // on the host
};

// What the module instances of a session have in common. Operations that can be refused return a status.
class AddressSpace {
 public:
  void grow(uint64_t n_byte);
  void shrink(uint64_t n_byte);  // and drop the mappings of released memory

  int32_t map(const SharedBuffer& buffer);
  int32_t unmap(int32_t descriptor, uint64_t address, uint64_t length);
  void release(uint64_t memory);
  uint64_t n_mappings();
  // The youngest mapping of that descriptor; one without a view where there is none.
  Mapping find(int32_t descriptor);

 private:
  std::mutex mutex_;
  std::vector<Mapping> mappings_;  // in the order in which they were made
  uint64_t n_byte_ = 0, n_mapped_byte_ = 0;
};

// The memory of the cross-session buffers that the sessions of one context share; zeros where there are none, and where
// all contexts share one unit.
using MatrixUnit = std::array<uint64_t, 4>;

// One module instance. Every operation returns a status. No lock is held while a method computes: it works on views that
// stay as long as it needs them.
class Session {
 public:
  Session(const Module& module, std::shared_ptr<AddressSpace> space);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const Module& module() const { return module_; }
  const std::shared_ptr<AddressSpace>& address_space() const { return space_; }

  // As the address space finds it; nullptr where it is not mapped.
  ViewPointer view(int32_t descriptor) { return space_->find(descriptor).view; }

  // The cross-session buffers A0, A1, A2 and X, in this order; found as nullptr once unmapped.
  int32_t get_AX(const std::array<int32_t, 4>& descriptors);
  int32_t put_AX();
  int32_t find_AX(std::array<ViewPointer, 4>& views);

  // Doing either twice is no change: a switch of sessions that failed half-way is tried again from its start. A release
  // leaves the matrix unit locked, which is unlocked afterwards.
  int32_t acquire_resources();
  int32_t release_resources();

  // The sessions of one context exclude each other from its matrix unit. Locking it again is no change.
  int32_t lock_matrix_unit();
  int32_t unlock_matrix_unit();
  int32_t may_multiply();

 private:
  bool has_resources();
  MatrixUnit matrix_unit();

  const Module module_;
  const std::shared_ptr<AddressSpace> space_;
  std::optional<MatrixUnit> held_unit_;        // guarded by the lock over all sessions
  std::mutex mutex_;                           // guards the rest
  std::vector<std::weak_ptr<const View>> AX_;  // empty or four; one that is unmapped expires
  MatrixUnit AX_memory_{};
  bool has_resources_ = false;
};

}  // namespace parlo::dsp

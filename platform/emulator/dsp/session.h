// A session on the DSP: an address space, which holds one module instance for each handle.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/emulator/dsp/dsp.h"
#include "platform/emulator/dsp/matrix_unit_table.h"

namespace parlo::dsp {

// The DSP's own view of shared memory.
class View {
 public:
  View(int file, uint64_t length);
  ~View();
  View(const View&) = delete;
  View& operator=(const View&) = delete;

  std::byte* bytes() const { return bytes_; }  // nullptr when the memory could not be mapped
  uint64_t length() const { return length_; }

 private:
  std::byte* bytes_;
  uint64_t length_;
};
using ViewPointer = std::shared_ptr<const View>;

struct Mapping {
  SharedBuffer buffer;
  ViewPointer view;
  bool is_released = false;  // the host has released the memory
};

// The state that the module instances of a session share. Operations that can be refused return a status.
class AddressSpace {
 public:
  void grow(uint64_t n_byte);
  void shrink(uint64_t n_byte);  // also drops the mappings of released memory

  int32_t map(const SharedBuffer& buffer, int file);
  int32_t unmap(int32_t descriptor, uint64_t address, uint64_t length);
  void release(uint64_t memory);
  uint64_t n_mappings();
  // Returns the youngest mapping of that descriptor, or a mapping without a view when there is none.
  Mapping find(int32_t descriptor);

 private:
  std::mutex mutex_;
  std::vector<Mapping> mappings_;  // in the order in which they were made
  uint64_t n_byte_ = 0, n_mapped_byte_ = 0;
};

// One module instance. Every operation returns a status. No lock is held while a method computes; the method uses views
// that live as long as it needs them.
class Session {
 public:
  Session(uint64_t handle, const Module& module, std::shared_ptr<AddressSpace> space, MatrixUnitTable& units);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const Module& module() const { return module_; }

  // Returns the view of the mapping that AddressSpace::find returns; nullptr when there is none.
  ViewPointer view(int32_t descriptor) { return space_->find(descriptor).view; }

  // Takes the cross-session buffers A0, A1, A2 and X, in this order. A buffer that is unmapped later is found as
  // nullptr.
  int32_t get_AX(const std::array<int32_t, 4>& descriptors);
  int32_t put_AX();
  int32_t find_AX(std::array<ViewPointer, 4>& views);

  // A repetition changes nothing. It succeeds unless the module is strict, because the library repeats a switch of sessions from its start when a
  // step of it fails. Releasing the resources leaves the matrix unit locked until it is unlocked.
  int32_t acquire_resources();
  int32_t release_resources();

  // The sessions of one context exclude each other from the context's matrix unit. Locking a locked unit again changes
  // nothing.
  int32_t lock_matrix_unit();
  int32_t unlock_matrix_unit();
  int32_t may_multiply();

 private:
  bool has_resources();
  MatrixUnit matrix_unit();

  const uint64_t handle_;
  const Module module_;
  const std::shared_ptr<AddressSpace> space_;
  MatrixUnitTable& units_;
  std::mutex reservation_mutex_;  // guards holds_unit_
  bool holds_unit_ = false;
  std::mutex mutex_;                           // guards the other members
  std::vector<std::weak_ptr<const View>> AX_;  // empty or four pointers; the pointer to an unmapped buffer expires
  MatrixUnit AX_memory_{};
  bool has_resources_ = false;
};

}  // namespace parlo::dsp

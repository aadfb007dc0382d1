// One session's instance of the DSP module: its address space and what it holds of the DSP.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
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

// Every operation returns a status. No lock is held while a method computes: it works on views that stay as long as it
// needs them.
class Session {
 public:
  explicit Session(const Module& module) : module_(module) {}
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const Module& module() const { return module_; }

  int32_t map(const SharedBuffer& buffer);
  int32_t unmap(int32_t descriptor, uint64_t address, uint64_t length);
  // The youngest mapping of that descriptor; nullptr where there is none.
  ViewPointer view(int32_t descriptor);

  // The cross-session buffers A0, A1, A2 and X, in this order; found as nullptr once unmapped.
  int32_t get_AX(const std::array<int32_t, 4>& descriptors);
  int32_t put_AX();
  int32_t find_AX(std::array<ViewPointer, 4>& views);

  // Doing either twice is no change: a switch of sessions that failed half-way is tried again from its start. A release
  // leaves the matrix unit locked, which is unlocked afterwards.
  int32_t acquire_resources();
  int32_t release_resources();

  // The matrix unit is one for all sessions. Locking it again is no change.
  int32_t lock_matrix_unit();
  int32_t unlock_matrix_unit();
  int32_t may_multiply();

 private:
  struct Mapping {
    SharedBuffer buffer;
    ViewPointer view;
  };
  ViewPointer find_view(int32_t descriptor) const;

  const Module module_;
  std::mutex mutex_;
  std::vector<Mapping> mappings_;  // in the order in which they were made
  uint64_t n_mapped_bytes_ = 0;
  std::vector<std::weak_ptr<const View>> AX_;  // empty or four; one that is unmapped expires
  bool has_resources_ = false;
};

}  // namespace parlo::dsp

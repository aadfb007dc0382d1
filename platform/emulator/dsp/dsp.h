// The seam between the client half and the DSP half: a session's address space and its module instances, one for each
// handle. The DSP half runs in the calling process, or in a process of its own (platform/emulator/process).
#pragma once

#include <cstdint>
#include <memory>

#include "platform/emulator/dsp/call.h"
#include "platform/emulator/dsp/matrix_unit_table.h"
#include "platform/parlo.h"

namespace parlo::dsp {

struct Module {
  uint64_t address_space_bytes;
  uint32_t major, minor, patch;
  uint32_t architecture;
  char label[32];
  uint32_t shares_matrix_unit;  // 1: with every other module that has a 1 here
  uint32_t is_strict;           // 1: acquiring and releasing resources twice is refused
};

// Shared memory as a session knows it. After a free, other memory may have the same descriptor and address. `memory`
// identifies the memory itself: no other memory ever has this number, and the number is not 0.
struct SharedBuffer {
  uint64_t memory;
  int64_t descriptor;  // of the host: the name under which methods find the buffer
  uint64_t address;    // of the host: an identifier, never dereferenced
  uint64_t length;
};

// Every function may be called from any thread. The functions return a status of parlo_emulator.h. When the status is
// PARLO_EMULATOR_SESSION_LOST or PARLO_EMULATOR_TIMED_OUT, the session has ended and every later call says so.
// Only invoke takes longer than a mapping or the start of a process does. open, map and invoke throw std::bad_alloc when
// the host has no memory left. They have changed nothing then, except that a product may have written parts of its
// results.
//
// The destructor ends the session with all that it has.
class Space {
 public:
  Space() = default;
  Space(const Space&) = delete;
  Space& operator=(const Space&) = delete;
  virtual ~Space() = default;

  // Creates an instance, which adds its module's address_space_bytes to the address space.
  virtual int32_t open(uint64_t handle, const Module& module) = 0;

  // Ends the instance with its resources and its reservation. The address space drops the mappings of released memory.
  // Data that a running call uses lives until that call has returned.
  virtual int32_t close(uint64_t handle) = 0;

  // Gives the session a view of its own, which outlives the memory's release on the host. `file` is the descriptor of the
  // memory in the calling process.
  virtual int32_t map(const SharedBuffer& buffer, int file) = 0;

  // Removes the youngest mapping with this descriptor and address. A mapping of memory that still exists goes before a
  // mapping of released memory.
  virtual int32_t unmap(int32_t descriptor, uint64_t address, uint64_t length) = 0;

  // Records that the host has released the memory. Mappings of the memory stay until an instance is closed.
  virtual void release(uint64_t memory) = 0;

  virtual uint64_t n_mappings() = 0;

  // Runs one method and blocks until the method has returned.
  virtual int32_t invoke(uint64_t handle, const Call& call, Reply& reply) = 0;

  // The process in which the session runs, or 0 when it is the calling one.
  virtual int process() const { return 0; }
};

// Returns a session in the calling process. `units` must outlive the session. A call that a fault delays for
// `limit_milliseconds` or longer ends with PARLO_EMULATOR_TIMED_OUT after that time; 0 is no limit.
std::shared_ptr<Space> make_local_space(MatrixUnitTable& units, uint32_t limit_milliseconds);

}  // namespace parlo::dsp

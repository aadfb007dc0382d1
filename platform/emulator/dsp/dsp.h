// The seam between the client half and the DSP half: one module instance for each handle.
//
// Only plain data and descriptors cross the seam, so the DSP half could become a process of its own. Every function may
// be called from any thread and returns a status of parlo_emulator.h. Only invoke takes longer than a mapping does.
// open, map and invoke throw std::bad_alloc when the host has no memory left. They have changed nothing then, except
// that a product may have written parts of its results.
#pragma once

#include <cstdint>

#include "platform/parlo.h"

namespace parlo::dsp {

struct Module {
  uint64_t address_space_bytes;
  uint32_t major, minor, patch;
  uint32_t architecture;
  char label[32];
  bool shares_matrix_unit;  // with every other module for which this is true
};

// Shared memory as a session knows it. After a free, other memory may have the same descriptor and address. `memory`
// identifies the memory itself: no other memory ever has this number, and the number is not 0.
struct SharedBuffer {
  uint64_t memory;
  int32_t descriptor;
  uint64_t address;  // of the host: an identifier, never dereferenced
  uint64_t length;
};

// Creates an instance in the address space of `sibling`, an open handle, or in a new address space when `sibling` is 0.
// The instance adds its module's address_space_bytes to the address space.
void open(uint64_t handle, const Module& module, uint64_t sibling);

// Ends the instance with its resources and its reservation. Its address space drops the mappings of released memory,
// and ends with its last instance. Data that a running call uses lives until that call has returned.
void close(uint64_t handle);

// Gives the handle's address space a view of its own, which outlives the memory's release on the host.
int32_t map(uint64_t handle, const SharedBuffer& buffer);

// Removes the youngest mapping with this descriptor and address. A mapping of memory that still exists goes before a
// mapping of released memory.
int32_t unmap(uint64_t handle, int32_t descriptor, uint64_t address, uint64_t length);

// Records that the host has released the memory. Mappings of the memory stay until an instance in their address space
// is closed.
void release(uint64_t memory);

uint64_t n_mappings(uint64_t handle);

// Runs one method and blocks until the method has returned.
int32_t invoke(uint64_t handle, uint32_t scalars, const parlo_argument* arguments);

// Must be called around a fork, so that the child finds the DSP half unlocked. The child has no instances.
void before_fork();
void after_fork(bool in_child);
// Gives the child the parent's instances.
void take_over();

}  // namespace parlo::dsp

// The seam between the client half and the DSP half: one module instance for each handle.
//
// Only plain data and descriptors cross it, so that the DSP half could live in a process of its own. Every function may
// be called from any thread and returns a status of parlo_emulator.h; none but invoke takes longer than a mapping. open,
// map and invoke throw std::bad_alloc where the host has no memory left. They have changed nothing then, but for results
// that a product has partly written.
#pragma once

#include <cstdint>

#include "platform/parlo.h"

namespace parlo::dsp {

struct Module {
  uint64_t address_space_bytes;
  uint32_t major, minor, patch;
  uint32_t architecture;
  char label[32];
  bool shares_matrix_unit;  // with every other module that does
};

// Shared memory as its session knows it. Descriptor and address may come back for other memory after a free; `memory`
// never does, and is not 0.
struct SharedBuffer {
  uint64_t memory;
  int32_t descriptor;
  uint64_t address;  // on the host: a name here, never followed
  uint64_t length;
};

// The instance lives in the address space of `sibling`, an open handle, or in a new one where that is 0. It brings its
// module's address_space_bytes along.
void open(uint64_t handle, const Module& module, uint64_t sibling);

// Ends the instance with its resources and reservation, and in its address space the mappings of released memory; the
// address space ends with its last instance. What a call that still runs works on, goes when that call has returned.
void close(uint64_t handle);

// The address space of that handle makes a view of its own, which outlives the memory's release on the host.
int32_t map(uint64_t handle, const SharedBuffer& buffer);

// Takes back the youngest mapping with this descriptor and address: of memory that is still there, if it is mapped,
// else of released memory.
int32_t unmap(uint64_t handle, int32_t descriptor, uint64_t address, uint64_t length);

// The host has released the memory: its mappings stay until an instance beside them is closed.
void release(uint64_t memory);

uint64_t n_mappings(uint64_t handle);

// Runs one method and blocks until it has returned.
int32_t invoke(uint64_t handle, uint32_t scalars, const parlo_argument* arguments);

// Around a fork, so that the child finds the DSP half unlocked. The child has no instances.
void before_fork();
void after_fork(bool in_child);
// The child has them back.
void take_over();

}  // namespace parlo::dsp

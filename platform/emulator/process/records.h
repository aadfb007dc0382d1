// What travels between a host process and the process of a session. Every message is one record of fixed size on a
// SOCK_SEQPACKET socket. Both sides run on one machine and are built together.
//
// A session has one socket for its control: openings, closings, mappings. Each module instance has a further socket for
// its invocations, so that the calls of one instance do not wait for those of another.
#pragma once

#include <cstdint>
#include <type_traits>

#include "platform/emulator/dsp/dsp.h"

namespace parlo::process {

// Changes with every change of the records.
inline constexpr uint32_t protocol = 0x5041'0001;

inline constexpr int control_descriptor = 3;  // in the process of a session

enum class RequestKind : uint32_t {
  // On the control socket. Each but release is answered.
  open = 1,  // handle, module; with the instance's socket
  close,     // handle
  map,       // buffer; with the memory's descriptor
  unmap,     // buffer without its memory
  release,   // buffer.memory
  // On the socket of an instance.
  invoke,  // call
  permit,  // the answer to reserve_unit
};

enum class Permit : uint32_t { refused, granted, no_memory };

struct Request {
  uint32_t protocol = process::protocol;
  RequestKind kind = {};
  uint64_t serial = 0;
  uint64_t handle = 0;
  dsp::Module module = {};
  dsp::SharedBuffer buffer = {};
  dsp::Call call = {};
  Permit permit = {};
};

enum class AnswerKind : uint32_t {
  done = 1,      // the request has been carried out: status, n_mappings or reply
  reserve_unit,  // while an invocation runs: asks for the matrix unit `unit`, and waits for a permit
  end_unit,      // while an invocation runs: the instance's reservation ends
  no_memory,     // the request has failed for want of memory
};

struct Answer {
  uint32_t protocol = process::protocol;
  AnswerKind kind = {};
  uint64_t serial = 0;  // of the request
  int32_t status = 0;
  uint32_t unused = 0;
  uint64_t n_mappings = 0;
  dsp::MatrixUnit unit = {};
  dsp::Reply reply = {};
};

static_assert(std::is_trivially_copyable_v<Request> && std::is_trivially_copyable_v<Answer>);
// Records have no gaps, in which bytes of the sender's stack would travel along.
static_assert(std::has_unique_object_representations_v<Request> && std::has_unique_object_representations_v<Answer>);

}  // namespace parlo::process

#include "platform/emulator/client/status.h"

#include <cerrno>

namespace parlo::client {
namespace {

int error_of(int32_t status) {
  switch (status) {
    case 0:
      return 0;
    case PARLO_EMULATOR_NO_MEMORY:
      return ENOMEM;
    case PARLO_EMULATOR_UNSUPPORTED_DOMAIN:
      return ENODEV;
    case PARLO_EMULATOR_NO_SUCH_MODULE:
    case PARLO_EMULATOR_NOT_MAPPED:
      return ENOENT;
    case PARLO_EMULATOR_NO_SUCH_SESSION:
      return ESRCH;
    case PARLO_EMULATOR_SESSION_OPEN:
    case PARLO_EMULATOR_DSP_BUSY:
      return EBUSY;
    case PARLO_EMULATOR_NO_MORE_SESSIONS:
      return EAGAIN;
    case PARLO_EMULATOR_UNSIGNED_REFUSED:
    case PARLO_EMULATOR_INHERITED:
      return EACCES;
    case PARLO_EMULATOR_SESSION_LOST:
      return ECONNRESET;
    case PARLO_EMULATOR_NO_SUCH_ENTRY:
      return ENOSYS;
    case PARLO_EMULATOR_DSP_REPEATED:
      return EALREADY;
    case PARLO_EMULATOR_NO_PROCESS:
      return ENOEXEC;
    case PARLO_EMULATOR_TIMED_OUT:
      return ETIMEDOUT;
    case PARLO_EMULATOR_BAD_HANDLE:
    case PARLO_EMULATOR_UNKNOWN_DESCRIPTOR:
      return EBADF;
    case PARLO_EMULATOR_ALREADY_MAPPED:
      return EEXIST;
    case PARLO_EMULATOR_ADDRESS_SPACE_FULL:
      return ENOMEM;
    case PARLO_EMULATOR_DSP_NOT_MAPPED:
      return EFAULT;
    case PARLO_EMULATOR_DSP_OUT_OF_RANGE:
      return ERANGE;
    case PARLO_EMULATOR_DSP_NO_AX:
    case PARLO_EMULATOR_DSP_NO_RESOURCE:
      return ENXIO;
    case PARLO_EMULATOR_DSP_NOT_LOCKED:
      return EPERM;
    default:
      return EINVAL;
  }
}

}  // namespace

Outcome outcome_of(int32_t status) {
  return {status, error_of(status)};
}

Outcome failure_of(const parlo_emulator_call& call, Outcome outcome) {
  switch (call.operation) {
    case PARLO_EMULATOR_MEM_ALLOC:
    case PARLO_EMULATOR_MEM_ALLOC2:
    case PARLO_EMULATOR_MEM_TO_FD:
      return {-1, outcome.error};
    default:
      return outcome;
  }
}

}  // namespace parlo::client

// The program parlo-dsp: the DSP half of one session, in a process of its own. libparlo.so starts it.
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <new>
#include <thread>

#include "platform/emulator/dsp/dsp.h"
#include "platform/emulator/parlo_emulator.h"
#include "platform/emulator/process/channel.h"
#include "platform/emulator/process/records.h"

namespace parlo::process {
namespace {

constexpr int milliseconds_between_looks_at_host = 250;

// The host has gone or sends what it cannot send, so nobody waits for this process any more.
[[noreturn]] void end_process() {
  _exit(0);
}

void require(bool as_agreed, const char* what) {
  if (as_agreed) return;
  std::fprintf(stderr, "[parlo-dsp] the host process sends %s\n", what);
  _exit(1);
}

// The invocation that the calling thread carries out for the host.
struct Job {
  const Channel& channel;
  uint64_t serial;
};
thread_local const Job* job = nullptr;

void answer(const Job& to, Answer record) {
  record.serial = to.serial;
  if (to.channel.send(record) != Transfer::done) end_process();
}

// Asks the host, which holds the table for all sessions.
class RemoteMatrixUnitTable final : public dsp::MatrixUnitTable {
 public:
  bool reserve(uint64_t, const dsp::MatrixUnit& unit) override {
    answer(*job, {.kind = AnswerKind::reserve_unit, .unit = unit});
    Request permit;
    if (job->channel.receive(permit) != Transfer::done) end_process();
    require(permit.kind == RequestKind::permit && permit.serial == job->serial, "no permit");
    if (permit.permit == Permit::no_memory) throw std::bad_alloc();
    return permit.permit == Permit::granted;
  }
  // The host ends the reservation of an instance that it closes.
  void end(uint64_t) override {
    if (job) answer(*job, {.kind = AnswerKind::end_unit});
  }
};

// A buffer must not be longer than its memory: the DSP would touch pages that are not there.
bool holds(int descriptor, uint64_t length) {
  struct stat file;
  return fstat(descriptor, &file) == 0 && file.st_size >= 0 && length != 0 &&
         length <= static_cast<uint64_t>(file.st_size);
}

void serve_instance(const std::shared_ptr<dsp::Space>& space, uint64_t handle, Descriptor socket) {
  const Channel channel(std::move(socket));
  Request request;
  while (channel.receive(request) == Transfer::done) {
    require(request.protocol == protocol && request.kind == RequestKind::invoke && request.handle == handle,
            "no invocation");
    const Job this_job = {channel, request.serial};
    job = &this_job;
    Answer done = {.kind = AnswerKind::done};
    try {
      done.status = space->invoke(handle, request.call, done.reply);
    } catch (const std::bad_alloc&) {
      done.kind = AnswerKind::no_memory;
    }
    answer(this_job, done);
    job = nullptr;
  }
}

int32_t open(const std::shared_ptr<dsp::Space>& space, const Request& request, Descriptor socket) {
  require(socket.number() >= 0, "no socket");
  if (const int32_t status = space->open(request.handle, request.module); status != KESO_SUCCESS) return status;
  std::thread([space, handle = request.handle, s = std::make_shared<Descriptor>(std::move(socket))] {
    serve_instance(space, handle, std::move(*s));
  }).detach();
  return KESO_SUCCESS;
}

int32_t map(dsp::Space& space, Request request, const Descriptor& memory) {
  require(memory.number() >= 0, "no memory");
  return holds(memory.number(), request.buffer.length) ? space.map(request.buffer, memory.number())
                                                       : int32_t{PARLO_EMULATOR_WRONG_SIZE};
}

int32_t carry_out(const std::shared_ptr<dsp::Space>& space, const Request& request, Descriptor descriptor) {
  const dsp::SharedBuffer& buffer = request.buffer;
  switch (request.kind) {
    case RequestKind::open:
      return open(space, request, std::move(descriptor));
    case RequestKind::close:
      return space->close(request.handle);
    case RequestKind::map:
      return map(*space, request, descriptor);
    case RequestKind::unmap:
      return space->unmap(static_cast<int32_t>(buffer.descriptor), buffer.address, buffer.length);
    default:
      require(false, "an unknown request");
      return 0;
  }
}

bool waits(int socket) {
  pollfd waiting = {socket, POLLIN, 0};
  return poll(&waiting, 1, milliseconds_between_looks_at_host) > 0;
}

// Descriptors of the host may be inherited by other processes, so the end of the host's socket alone does not tell that
// the host has ended.
[[noreturn]] void serve(pid_t host) {
  RemoteMatrixUnitTable units;
  const std::shared_ptr<dsp::Space> space = dsp::make_local_space(units, 0);
  const Channel control{Descriptor(control_descriptor)};
  for (;;) {
    if (getppid() != host) end_process();
    if (!waits(control.number())) continue;
    Request request;
    Descriptor descriptor;
    if (control.receive(request, descriptor) != Transfer::done) end_process();
    require(request.protocol == protocol, "records of another version");
    if (request.kind == RequestKind::release) {
      space->release(request.buffer.memory);
      continue;
    }
    Answer done = {.kind = AnswerKind::done};
    try {
      done.status = carry_out(space, request, std::move(descriptor));
    } catch (const std::exception&) {  // no memory, or no thread
      if (request.kind == RequestKind::open) space->close(request.handle);
      done.kind = AnswerKind::no_memory;
    }
    done.n_mappings = space->n_mappings();
    answer({control, request.serial}, done);
  }
}

}  // namespace
}  // namespace parlo::process

int main(int argc, char** argv) {
  int type = 0;
  socklen_t size = sizeof type;
  const bool has_control =
      getsockopt(parlo::process::control_descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_SEQPACKET;
  if (argc != 2 || !has_control) {
    std::fprintf(stderr, "parlo-dsp is the DSP's half of a session of the emulated platform; libparlo.so starts it\n");
    return 2;
  }
  parlo::process::serve(static_cast<pid_t>(std::strtol(argv[1], nullptr, 10)));
}

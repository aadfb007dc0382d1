#include "platform/emulator/process/channel.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace parlo::process {
namespace {

// Sockets stand above the descriptors of shared buffers, which have to be low numbers.
constexpr int lowest_descriptor = 600;

constexpr std::chrono::microseconds time_awake{20};

Descriptor moved_up(Descriptor socket) {
  Descriptor moved(fcntl(socket.number(), F_DUPFD_CLOEXEC, lowest_descriptor));
  return moved.number() < 0 ? std::move(socket) : std::move(moved);
}

Transfer failure(int error) {
  switch (error) {
    case EAGAIN:
      return Transfer::timed_out;
    case ENOMEM:
    case ENOBUFS:
    case EMFILE:
    case ETOOMANYREFS:
      return Transfer::no_memory;
    case EBADF:
      return Transfer::bad;
    default:
      return Transfer::ended;
  }
}

// A record, and the place for one descriptor beside it.
struct Message {
  Message(const void* record, size_t size) : part{const_cast<void*>(record), size} {}
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  void put(int descriptor) {
    cmsghdr* const side = CMSG_FIRSTHDR(&header);
    side->cmsg_level = SOL_SOCKET;
    side->cmsg_type = SCM_RIGHTS;
    side->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(side), &descriptor, sizeof descriptor);
  }
  // Returns -1 where no descriptor has come.
  int take() const {
    int descriptor = -1;
    const cmsghdr* const side = CMSG_FIRSTHDR(&header);
    if (side && side->cmsg_level == SOL_SOCKET && side->cmsg_type == SCM_RIGHTS &&
        side->cmsg_len == CMSG_LEN(sizeof descriptor))
      std::memcpy(&descriptor, CMSG_DATA(side), sizeof descriptor);
    return descriptor;
  }

  iovec part;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  // The length leaves out the padding behind the descriptor, in which a second descriptor would find room.
  msghdr header = {.msg_name = nullptr,
                   .msg_namelen = 0,
                   .msg_iov = &part,
                   .msg_iovlen = 1,
                   .msg_control = control,
                   .msg_controllen = CMSG_LEN(sizeof(int)),
                   .msg_flags = 0};
};

}  // namespace

Descriptor::~Descriptor() {
  if (number_ >= 0) close(number_);
}

bool Channel::connect(Descriptor& mine, Descriptor& other) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return false;
  mine = moved_up(Descriptor(ends[0]));
  other = moved_up(Descriptor(ends[1]));
  return true;
}

void Channel::set_limit(uint32_t milliseconds) {
  limit_ = std::chrono::milliseconds(milliseconds);
  const timeval time = {.tv_sec = milliseconds / 1000, .tv_usec = milliseconds % 1000 * 1000};
  setsockopt(number(), SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
  setsockopt(number(), SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}

// The system begins its own limit anew with every repetition.
ssize_t Channel::repeated(auto transfer) const {
  using Clock = std::chrono::steady_clock;
  const auto begin = Clock::now();
  for (;;) {
    const ssize_t n = transfer();
    if (n >= 0 || errno != EINTR) return n;
    if (limit_.count() == 0 || Clock::now() - begin < limit_) continue;
    errno = EAGAIN;
    return n;
  }
}

// Waking a thread on another processor takes longer than a small method does. A receiver therefore looks for the record
// again and again at first, and lets other threads run between two looks. Then it sleeps until the record arrives.
ssize_t Channel::received(auto receive) const {
  using Clock = std::chrono::steady_clock;
  const auto begin = Clock::now();
  do {
    const ssize_t n = receive(MSG_DONTWAIT);
    if (n >= 0 || (errno != EAGAIN && errno != EINTR)) return n;
    sched_yield();
  } while (Clock::now() - begin < time_awake);
  return repeated([&] { return receive(0); });
}

Transfer Channel::send(const void* record, size_t size, int descriptor, bool at_once) const {
  const int flags = MSG_NOSIGNAL | (at_once ? MSG_DONTWAIT : 0);
  if (descriptor < 0)  // the cheaper call
    return repeated([&] { return ::send(number(), record, size, flags); }) < 0 ? failure(errno) : Transfer::done;
  Message message(record, size);
  message.put(descriptor);
  return repeated([&] { return sendmsg(number(), &message.header, flags); }) < 0 ? failure(errno) : Transfer::done;
}

Transfer Channel::receive(void* record, size_t size) const {
  const ssize_t n = received([&](int flags) { return recv(number(), record, size, flags | MSG_TRUNC); });
  if (n < 0) return failure(errno);
  if (n == 0) return Transfer::ended;
  return static_cast<size_t>(n) == size ? Transfer::done : Transfer::bad;
}

Transfer Channel::receive(void* record, size_t size, Descriptor& descriptor) const {
  Message message(record, size);
  const ssize_t n = received([&](int flags) { return recvmsg(number(), &message.header, flags | MSG_CMSG_CLOEXEC); });
  if (n < 0) return failure(errno);
  descriptor = Descriptor(message.take());
  if (n == 0) return Transfer::ended;
  const bool is_cut = (message.header.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0;
  return static_cast<size_t>(n) == size && !is_cut ? Transfer::done : Transfer::bad;
}

}  // namespace parlo::process

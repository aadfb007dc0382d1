#include "platform/emulator/process/channel.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace parlo::process {
namespace {

// Sockets stand above the descriptors of shared buffers, which have to be low numbers.
constexpr int lowest_descriptor = 600;

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

ssize_t repeated(auto transfer) {
  ssize_t n;
  do n = transfer();
  while (n < 0 && errno == EINTR);
  return n;
}

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

void Channel::set_limit(uint32_t milliseconds) const {
  const timeval time = {.tv_sec = milliseconds / 1000, .tv_usec = milliseconds % 1000 * 1000};
  setsockopt(number(), SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
  setsockopt(number(), SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}

Transfer Channel::send(const void* record, size_t size, int descriptor, bool at_once) const {
  const int flags = MSG_NOSIGNAL | (at_once ? MSG_DONTWAIT : 0);
  if (descriptor < 0)  // the cheaper call
    return repeated([&] { return ::send(number(), record, size, flags); }) < 0 ? failure(errno) : Transfer::done;
  iovec part = {const_cast<void*>(record), size};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptor)] = {};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof descriptor);
  std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
  return repeated([&] { return sendmsg(number(), &message, flags); }) < 0 ? failure(errno) : Transfer::done;
}

Transfer Channel::receive(void* record, size_t size) const {
  const ssize_t n = repeated([&] { return recv(number(), record, size, MSG_TRUNC); });
  if (n < 0) return failure(errno);
  if (n == 0) return Transfer::ended;
  return static_cast<size_t>(n) == size ? Transfer::done : Transfer::bad;
}

Transfer Channel::receive(void* record, size_t size, Descriptor& descriptor) const {
  iovec part = {record, size};
  int passed = -1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof passed)] = {};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  const ssize_t n = repeated([&] { return recvmsg(number(), &message, MSG_CMSG_CLOEXEC); });
  if (n < 0) return failure(errno);
  const cmsghdr* const header = CMSG_FIRSTHDR(&message);
  if (header && header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS &&
      header->cmsg_len == CMSG_LEN(sizeof passed))
    std::memcpy(&passed, CMSG_DATA(header), sizeof passed);
  descriptor = Descriptor(passed);
  if (n == 0) return Transfer::ended;
  if (static_cast<size_t>(n) != size || (message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) return Transfer::bad;
  return Transfer::done;
}

}  // namespace parlo::process

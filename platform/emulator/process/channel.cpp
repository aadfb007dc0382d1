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
  iovec part = {const_cast<void*>(record), size};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptor)] = {};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  if (descriptor >= 0) {
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
  }
  ssize_t n;
  do n = sendmsg(number(), &message, MSG_NOSIGNAL | (at_once ? MSG_DONTWAIT : 0));
  while (n < 0 && errno == EINTR);
  return n < 0 ? failure(errno) : Transfer::done;
}

Transfer Channel::receive(void* record, size_t size, Descriptor* descriptor) const {
  iovec part = {record, size};
  int passed = -1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof passed)] = {};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  ssize_t n;
  do n = recvmsg(number(), &message, MSG_CMSG_CLOEXEC);
  while (n < 0 && errno == EINTR);
  if (n < 0) return failure(errno);
  const cmsghdr* const header = CMSG_FIRSTHDR(&message);
  if (header && header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS &&
      header->cmsg_len == CMSG_LEN(sizeof passed))
    std::memcpy(&passed, CMSG_DATA(header), sizeof passed);
  Descriptor received(passed);  // closed again where none is expected
  if (n == 0) return Transfer::ended;
  if (static_cast<size_t>(n) != size || (message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) return Transfer::bad;
  if (descriptor) *descriptor = std::move(received);
  return Transfer::done;
}

}  // namespace parlo::process

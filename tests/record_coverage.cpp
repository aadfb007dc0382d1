// A part of parlo-dsp where coverage is measured. The host ends parlo-dsp by a signal, and parlo-dsp ends itself by
// _exit; either would lose the counts. The functions here stand before those of the C library, and write the counts
// before each answer to the host and at the end.
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" void __gcov_dump();
extern "C" void __gcov_reset();

extern "C" ssize_t send(int socket, const void* bytes, size_t n_byte, int flags) {
  __gcov_dump();
  __gcov_reset();  // so that the next dump adds what is new
  return sendto(socket, bytes, n_byte, flags, nullptr, 0);
}

extern "C" void _exit(int status) {
  __gcov_dump();
  for (;;) syscall(SYS_exit_group, status);
}

// Host memory that runs out on demand. The shim stands before malloc, calloc, realloc, aligned_alloc, posix_memalign,
// mmap, memfd_create and operator new of the whole process, and makes chosen calls of theirs fail with ENOMEM.
//
// A test program takes it in as a source (target_sources(... allocation_shim.cpp)): its definitions come before those of
// every library, the address sanitizer's included. It is also built as liballocation_shim.so, to be preloaded into a
// program that knows nothing of it; then the functions are found by dlsym, or a fault is armed from the start by
// MORUN_FAIL_ALLOCATION=n. Under the address sanitizer preloading wants ASAN_OPTIONS=verify_asan_link_order=0.
//
// The allocations of every thread are counted. Under the address sanitizer only those of the thread that arms the fault
// are, because the sanitizer allocates when a thread starts and ends the process where it cannot. Not seen are those that the C library makes for itself, such as the stacks
// of threads.
#pragma once

#include <cstdint>

extern "C" {

// Makes the nth allocation from now on fail (1 is the next one), and with `from_then_on` every later one as well. 0: none.
void allocation_shim_fail(uint64_t nth, bool from_then_on);

// How many allocations failed since then.
uint64_t allocation_shim_failed();
}

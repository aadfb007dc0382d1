// Host memory that runs out on demand. The shim stands before malloc, calloc, realloc, aligned_alloc, posix_memalign,
// mmap, memfd_create and operator new of the whole process, and makes chosen calls of theirs fail with ENOMEM.
//
// A test program takes it in as a source (target_sources(... allocation_shim.cpp)): its definitions come before those
// of every library, the address sanitizer's included. It is also built as liballocation_shim.so, to be preloaded into a
// program that knows nothing of it; then the functions are found by dlsym, or a fault is armed from the start by
// MORUN_FAIL_ALLOCATION=n. Under the address sanitizer preloading wants ASAN_OPTIONS=verify_asan_link_order=0.
//
// The shim counts the allocations of every thread. Under the address sanitizer it counts only those of the thread that
// arms the fault: the sanitizer allocates memory when a thread starts, and ends the process when that fails. The shim
// does not see allocations inside the C library, such as the stacks of threads.
#pragma once

#include <cstdint>

extern "C" {

// Makes the nth allocation from now on fail (1 is the next one), and with `from_then_on` every later one as well. With
// 0, no allocation fails.
void allocation_shim_fail(uint64_t nth, bool from_then_on);

// Returns how many allocations have failed since that call.
uint64_t allocation_shim_failed();
}

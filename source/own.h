// Exported names that a program may have given to something of its own: context, get_domain, qdotxH. The library works on
// what it defined under such a name, by the hidden alias own::NAME, whatever NAME itself stands for in the program.
#pragma once

// For the files that use own::name.
#define MORUN_OWN(name)                                               \
  namespace own {                                                     \
  extern decltype(::name) name __attribute__((visibility("hidden"))); \
  }

// For the file that defines `name`, before the definition. In a static library the weak name gives way to the program's.
#define MORUN_WEAK(name) extern "C" decltype(::name) name __attribute__((weak));
#define MORUN_DEFINE_OWN(name)                                                      \
  MORUN_WEAK(name)                                                                  \
  namespace own {                                                                   \
  extern decltype(::name) name __attribute__((alias(#name), visibility("hidden"))); \
  }

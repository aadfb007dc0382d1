// Exported names that a program may have given to something of its own: context, get_domain, qdotxH. The library defines
// and uses such a thing under the hidden name own::NAME, whatever NAME itself stands for in the program.
#pragma once

// For the files that define or use own::name.
#define MORUN_OWN(name)                                                                           \
  namespace own {                                                                                 \
  extern decltype(::name) name __asm__("morun_own_" #name) __attribute__((visibility("hidden"))); \
  }

// For the file that defines own::name, after the definition: exports the public name for the same thing. The other way
// round, a public name with a hidden alias, does not do: clang 14 may turn uses of the alias into uses of the public name.
#if __has_attribute(copy)
#  define MORUN_ATTRIBUTES_OF_OWN(name) , copy(own::name)
#else
#  define MORUN_ATTRIBUTES_OF_OWN(name)
#endif
#define MORUN_EXPORT_OWN(name) \
  extern "C" decltype(::name) name __attribute__((weak, alias("morun_own_" #name) MORUN_ATTRIBUTES_OF_OWN(name)));

// For the file that defines `name` itself. In a static library the weak name gives way to the program's.
#define MORUN_WEAK(name) extern "C" decltype(::name) name __attribute__((weak));

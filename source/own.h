// A program may use some of the exported names for something of its own: context, get_domain, qdotxH. The library
// therefore defines and uses its own variable or function under the hidden name own::NAME, and no definition in the
// program replaces it.
#pragma once

// Declares own::name, for the files that define or use it.
#define MORUN_OWN(name)                                                                           \
  namespace own {                                                                                 \
  extern decltype(::name) name __asm__("morun_own_" #name) __attribute__((visibility("hidden"))); \
  }

// Exports the public name as an alias of own::name. Stands in the file that defines own::name, after the definition.
// The opposite order, a public name with a hidden alias, does not work: clang 14 may turn uses of the alias into uses
// of the public name.
#if __has_attribute(copy)
#  define MORUN_ATTRIBUTES_OF_OWN(name) , copy(own::name)
#else
#  define MORUN_ATTRIBUTES_OF_OWN(name)
#endif
#define MORUN_EXPORT_OWN(name) \
  extern "C" decltype(::name) name __attribute__((weak, alias("morun_own_" #name) MORUN_ATTRIBUTES_OF_OWN(name)));

// Used in the file that defines `name` itself. In a static library the program's definition replaces the weak one.
#define MORUN_WEAK(name) extern "C" decltype(::name) name __attribute__((weak));

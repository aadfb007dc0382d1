// The vector backends of this build, and the one that a library uses.
//
// What computes is compiled once for each backend, into a table of functions. The sources that are compiled for each
// backend define the table MORUN_BACKEND_NAME(table), whose name ends with the backend's. The source that
// chooses finds the tables of all backends by MORUN_TABLES_OF_BACKENDS (morun_built_backends.h).
#pragma once

#include <cstddef>

#define MORUN_PASTE(a, b) a##_##b
#define MORUN_PASTE_VALUES(a, b) MORUN_PASTE(a, b)
#define MORUN_BACKEND_NAME(table) MORUN_PASTE_VALUES(table, MORUN_BACKEND)
#define MORUN_TEXT(name) #name
#define MORUN_TEXT_OF_VALUE(name) MORUN_TEXT(name)
#define MORUN_BACKEND_TEXT MORUN_TEXT_OF_VALUE(MORUN_BACKEND)

namespace morun::simd {

struct Choice {
  size_t index;         // of the backend to use, among those built
  const char* request;  // the value of MORUN_SIMD that could not be followed; NULL when there is none
  bool is_built;        // whether the backend requested is built; it then needs another processor
};

// Chooses the fastest backend that this processor runs, or the one that the environment variable MORUN_SIMD names. A
// program with raised privileges does not read the variable. Where this processor runs none of the backends built, the
// function says so on standard error and ends the process.
Choice choose_backend();

size_t n_built_backends();
const char* backend_name(size_t index);
bool processor_runs(size_t index);

}  // namespace morun::simd

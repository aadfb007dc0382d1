// How the upper interface reports failures: one line on standard error, flushed. A source file that uses these names
// itself once:
//   constexpr char reporting_file[] = "source/morun_npu_macro/...";
#pragma once

#include <cstdint>
#include <cstdio>

#include "include/morun.h"

namespace morun {

// The call in whose name a line is printed.
struct Place {
  const char* file;
  const char* function;
  int32_t line;
};

}  // namespace morun

// Here, in the name of the function itself or of the public call that it is a part of.
#define MORUN_HERE (morun::Place{reporting_file, __func__, __LINE__})
#define MORUN_HERE_IN(call) (morun::Place{reporting_file, (call), __LINE__})

// Prints the line; the value is `status`. `format` is a literal of printf's kind.
#define MORUN_FAIL_AT(place, status, format, ...)                                                             \
  (fprintf(stderr, "[MORUN][ERROR] file = %s, func = %s, line = %d: " format, (place).file, (place).function, \
           (place).line __VA_OPT__(, ) __VA_ARGS__),                                                          \
   fflush(stderr), (status))
#define MORUN_FAIL(status, format, ...) MORUN_FAIL_AT(MORUN_HERE, status, format __VA_OPT__(, ) __VA_ARGS__)

// Leaves the calling function with the status of `expression` unless that is success.
#define MORUN_TRY(expression)                                                                          \
  do {                                                                                                 \
    if (const int32_t morun_status = (expression); morun_status != MORUN_SUCCESS) return morun_status; \
  } while (false)

// Leaves the calling function with the status of a step of the public call named, after a line in that call's name.
#define MORUN_TRY_STEP(call, step, message)                                                  \
  do {                                                                                       \
    if (const auto morun_status = static_cast<int32_t>(step); morun_status != MORUN_SUCCESS) \
      return MORUN_FAIL_AT(MORUN_HERE_IN(call), morun_status, "%s", (message));              \
  } while (false)

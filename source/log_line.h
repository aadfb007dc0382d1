// The upper interface reports each failure as one line on standard error and flushes the stream. A source file that
// uses these macros first names itself:
//   constexpr char reporting_file[] = "source/morun_npu_macro/...";
#pragma once

#include <cstdint>
#include <cstdio>

#include "include/morun.h"

namespace morun {

// The place that a line names: a source file, the public call that the application made, and a line.
struct CallPlace {
  const char* file;
  const char* function;
  int32_t line;
};

}  // namespace morun

// MORUN_HERE names the function that the macro stands in. MORUN_HERE_IN names the public call that this function is a
// part of.
#define MORUN_HERE (morun::CallPlace{reporting_file, __func__, __LINE__})
#define MORUN_HERE_IN(call) (morun::CallPlace{reporting_file, (call), __LINE__})

// Prints the line and has the value `status`. `format` is a string literal for printf.
#define MORUN_FAIL_AT(place, status, format, ...)                                                             \
  (fprintf(stderr, "[MORUN][ERROR] file = %s, func = %s, line = %d: " format, (place).file, (place).function, \
           (place).line __VA_OPT__(, ) __VA_ARGS__),                                                          \
   fflush(stderr), (status))
#define MORUN_FAIL(status, format, ...) MORUN_FAIL_AT(MORUN_HERE, status, format __VA_OPT__(, ) __VA_ARGS__)

// Returns the status of `expression` from the calling function unless that status is success.
#define MORUN_TRY(expression)                                                                          \
  do {                                                                                                 \
    if (const int32_t morun_status = (expression); morun_status != MORUN_SUCCESS) return morun_status; \
  } while (false)

// When the step fails, prints a line that names the public call `call`, and returns the step's status from the calling
// function.
#define MORUN_TRY_STEP(call, step, message)                                                  \
  do {                                                                                       \
    if (const auto morun_status = static_cast<int32_t>(step); morun_status != MORUN_SUCCESS) \
      return MORUN_FAIL_AT(MORUN_HERE_IN(call), morun_status, "%s", (message));              \
  } while (false)

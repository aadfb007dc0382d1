// The lower interface records each failure in the error record. A source file that uses these macros first names
// itself:
//   constexpr char reporting_file[] = "source/host/...";
// Most reported line numbers are published interface. Each file lists its own in a table, reported_line, so that the
// numbers stay when the code moves. The products in source/host/kernels report __LINE__ instead.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "include/tavik.h"
#include "platform/parlo.h"

// Records a failure of the calling function and has the value `code`.
#define TAVIK_FAIL(code, line, ...) (tavik_set_error((code), __func__, reporting_file, (line), __VA_ARGS__), (code))

// Returns the status of `expression` from the calling function unless that status is success.
#define TAVIK_TRY(expression)                                                                          \
  do {                                                                                                 \
    if (const int32_t tavik_status = (expression); tavik_status != TAVIK_SUCCESS) return tavik_status; \
  } while (false)

// Makes a remote call. When the call fails, the error record quotes the call's source text; callers rely on that text.
#define TAVIK_REMOTE(line, call) \
  tavik::record_remote((call), #call " != KESO_SUCCESS", __func__, reporting_file, (line))

namespace tavik {

constexpr char null_location[] = "attempt to write to NULL location";

inline int32_t record_remote(int remote_status, const char* test, const char* function, const char* file,
                             int32_t line) {
  if (remote_status == KESO_SUCCESS) return TAVIK_SUCCESS;
  tavik_set_error(TAVIK_ERROR_FAILURE, function, file, line, "%s in %s", strerror(errno), test);
  return TAVIK_ERROR_FAILURE;
}

}  // namespace tavik

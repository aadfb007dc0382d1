// How the lower interface reports failures. A source file that uses these names itself once:
//   constexpr char reporting_file[] = "source/host/...";
// Line numbers are published: a file lists its own in a table, reported_line, so that they stay when the code moves. The
// products report __LINE__.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "include/tavik.h"
#include "platform/parlo.h"

// Fills the error record in the name of the calling function; the value is `code`.
#define TAVIK_FAIL(code, line, ...) (tavik_set_error((code), __func__, reporting_file, (line), __VA_ARGS__), (code))

// Leaves the calling function with the status of `expression` unless that is success.
#define TAVIK_TRY(expression)                                                                          \
  do {                                                                                                 \
    if (const int32_t tavik_status = (expression); tavik_status != TAVIK_SUCCESS) return tavik_status; \
  } while (false)

// Makes a remote call; a failure is recorded with the source text of its test, which callers see and rely on.
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

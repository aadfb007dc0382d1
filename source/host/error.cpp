#include <cstdarg>
#include <cstdio>

#include "include/tavik.h"

namespace {

thread_local constinit tavik_error last_error = {};

}  // namespace

int tavik_set_error(int32_t code, const char* function, const char* file, int32_t line, const char* format, ...) {
  last_error.code = code;
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(last_error.message, sizeof last_error.message, format, arguments);
  va_end(arguments);
  snprintf(last_error.function, sizeof last_error.function, "%s", function);
  const int count = snprintf(last_error.file, sizeof last_error.file, "%s", file);
  last_error.line = line;
  return count;
}

const tavik_error* tavik_error_get_last() {
  return &last_error;
}

int tavik_error_print(const tavik_error* error) {
  return fprintf(stderr, "[Tavik] error %d (%s, %s, line %d):\n%10s%s\n", error->code, error->function, error->file,
                 error->line, "", error->message);
}

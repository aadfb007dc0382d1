#include "weights/error.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "weights/printable.h"

namespace weights {
namespace {

constexpr size_t text_size = 1024;
thread_local constinit char last_text[text_size] = {};

}  // namespace

Error::Error(int32_t status, const char* format, ...) : status_(status) {
  char text[text_size];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  text_ = text;
}

std::string in_quotes(std::string_view name) {
  constexpr size_t longest = 200;
  if (name.size() <= longest) return '"' + printable::escaped(name) + '"';
  // A letter of several bytes is left out rather than cut.
  size_t end = longest;
  while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xc0) == 0x80) --end;
  return '"' + printable::escaped(name.substr(0, end)) + "...\"";
}

void require_not_null(const void* pointer, const char* argument) {
  if (pointer == nullptr) throw Error(MORUN_WEIGHTS_NULL_ARGUMENT, "%s is NULL", argument);
}

void require_argument(bool is_good, const char* what_is_wrong) {
  if (!is_good) throw Error(MORUN_WEIGHTS_BAD_ARGUMENT, "%s", what_is_wrong);
}

int32_t record_failure(int32_t status, const char* text) noexcept {
  snprintf(last_text, sizeof last_text, "%s", text);
  for (size_t at = 0; last_text[at] != '\0'; ++at)
    if (printable::control_size(last_text, at) > 0) last_text[at] = '?';  // of a path; without memory for more
  return status;
}

}  // namespace weights

const char* morun_weights_error_text(void) {
  return weights::last_text;
}

const char* morun_weights_status_name(int32_t status) {
#define NAME_OF(name)        \
  case MORUN_WEIGHTS_##name: \
    return #name;
  switch (status) {
    NAME_OF(SUCCESS)
    NAME_OF(NULL_ARGUMENT)
    NAME_OF(BAD_ARGUMENT)
    NAME_OF(NO_MEMORY)
    NAME_OF(UNEXPECTED)
    NAME_OF(OPEN)
    NAME_OF(READ)
    NAME_OF(WRITE)
    NAME_OF(SHRUNK)
    NAME_OF(TOO_SHORT)
    NAME_OF(HEADER_TOO_LONG)
    NAME_OF(HEADER_CUT)
    NAME_OF(HEADER_START)
    NAME_OF(HEADER_JSON)
    NAME_OF(HEADER_DEPTH)
    NAME_OF(HEADER_ENTRY)
    NAME_OF(HEADER_METADATA)
    NAME_OF(HEADER_NAME)
    NAME_OF(DUPLICATE_NAME)
    NAME_OF(UNKNOWN_DTYPE)
    NAME_OF(SHAPE_OVERFLOW)
    NAME_OF(SHAPE_MISMATCH)
    NAME_OF(RANGE_REVERSED)
    NAME_OF(RANGE_OUTSIDE)
    NAME_OF(RANGE_OVERLAP)
    NAME_OF(RANGE_GAP)
    NAME_OF(TRAILING_DATA)
    NAME_OF(NOT_PACKED_FILE)
    NAME_OF(UNKNOWN_VERSION)
    NAME_OF(RECORD_MISSING)
    NAME_OF(RECORD_STRAY)
    NAME_OF(RECORD_JSON)
    NAME_OF(RECORD_MEMBER)
    NAME_OF(UNKNOWN_FORM)
    NAME_OF(UNKNOWN_QUANTISER)
    NAME_OF(PACKED_DTYPE)
    NAME_OF(EXTENTS)
    NAME_OF(PARTS)
    NAME_OF(PACKED_SIZE)
    NAME_OF(MISALIGNED)
    NAME_OF(CHECKSUM_TEXT)
    NAME_OF(CHECKSUM)
    NAME_OF(NOT_FOUND)
    NAME_OF(NOT_PACKED)
    NAME_OF(SOURCE_KIND)
    NAME_OF(SOURCE_EMPTY)
    NAME_OF(INDEX)
    NAME_OF(NPY)
    NAME_OF(NPY_TYPE)
    NAME_OF(ALREADY_PACKED)
    NAME_OF(RULE_UNUSED)
    NAME_OF(NON_FINITE)
    NAME_OF(NO_ACTIVATION)
    NAME_OF(ACTIVATION_SHAPE)
    NAME_OF(ACTIVATION_VALUE)
    NAME_OF(COVARIANCE)
    NAME_OF(INTERRUPTED)
    NAME_OF(REQUESTED_TWICE)
    NAME_OF(GROUP_TOO_LARGE)
    NAME_OF(TOO_MANY_BUFFERS)
    NAME_OF(BUFFER)
    NAME_OF(SESSION)
    default:
      return "?";
  }
#undef NAME_OF
}

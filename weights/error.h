// Failures: thrown inside the library, turned into a status and the calling thread's text where it is left.
#pragma once

#include <cstdint>
#include <exception>
#include <new>
#include <string>
#include <string_view>

#include "include/morun_weights.h"

namespace weights {

class Error : public std::exception {
 public:
  // `format` is printf's.
  Error(int32_t status, const char* format, ...) __attribute__((format(printf, 3, 4)));

  int32_t status() const { return status_; }
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  int32_t status_;
  std::string text_;
};

// A name out of a file, as it may stand in a message: in quotes, cut, control characters escaped.
std::string in_quotes(std::string_view name);

// Throws NULL_ARGUMENT, which names the argument, or BAD_ARGUMENT.
void require_not_null(const void* pointer, const char* argument);
void require_argument(bool is_good, const char* what_is_wrong);

// Records a failure of the calling thread; the value is `status`.
int32_t record_failure(int32_t status, const char* text) noexcept;

// Runs the body of a public function: a failure that it throws is recorded, and nothing leaves.
template <typename Body>
int32_t guarded(const Body& body) noexcept {
  try {
    body();
    return MORUN_WEIGHTS_SUCCESS;
  } catch (const Error& error) {
    return record_failure(error.status(), error.what());
  } catch (const std::bad_alloc&) {
    return record_failure(MORUN_WEIGHTS_NO_MEMORY, "not enough memory");
  } catch (const std::exception& error) {
    return record_failure(MORUN_WEIGHTS_UNEXPECTED, error.what());
  } catch (...) {
    return record_failure(MORUN_WEIGHTS_UNEXPECTED, "a failure without a text");
  }
}

}  // namespace weights

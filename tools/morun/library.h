// Owners for the library's resources, and Errors for its failures.
#pragma once

#include <tavik.h>

#include <cstdint>
#include <memory>
#include <string_view>

namespace tool {

// Throws "WHAT: MESSAGE" with the message of the error record unless `status` is a success.
void require(int64_t status, std::string_view what);

tavik_options default_options();

struct ContextRelease {
  void operator()(tavik_context* context) const;
};
using Context = std::unique_ptr<tavik_context, ContextRelease>;

Context open_context(const tavik_options& options);

// Reserves the matrix unit for the active session. Most products reserve it themselves.
void lock_matrix_unit(tavik_context* context);

// Memory that the host and the DSP share. The memory must be released before its context.
class SharedBuffer {
 public:
  // Allocates at least `size` bytes.
  SharedBuffer(tavik_context* context, uint64_t size);
  ~SharedBuffer();
  SharedBuffer(const SharedBuffer&) = delete;
  SharedBuffer& operator=(const SharedBuffer&) = delete;

  void* data() const { return data_; }
  uint32_t fd() const { return static_cast<uint32_t>(fd_); }

 private:
  tavik_context* context_;
  void* data_ = nullptr;
  int32_t fd_ = -1;
};

}  // namespace tool

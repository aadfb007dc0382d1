#include "tools/morun/library.h"

#include "tools/morun/error.h"

namespace tool {

void require(int64_t status, std::string_view what) {
  if (status != TAVIK_SUCCESS) throw Error("{}: {}", what, tavik_error_get_last()->message);
}

tavik_options default_options() {
  tavik_options* options = nullptr;
  require(tavik_options_alloc(&options), "no options");
  const tavik_options defaults = *options;
  tavik_options_free(options);
  return defaults;
}

// A context that cannot be cleaned up still holds memory. Its DSP sessions end with the process.
void ContextRelease::operator()(tavik_context* context) const {
  if (tavik_cleanup(context) != TAVIK_SUCCESS) tavik_context_free(context);
}

Context open_context(const tavik_options& options) {
  tavik_context* context = nullptr;
  require(tavik_init(&options, &context), "the DSP cannot be opened");
  return Context(context);
}

void lock_matrix_unit(tavik_context* context) {
  const int32_t status = tavik_lock_compute_device(context);
  if (status != TAVIK_SUCCESS) throw Error("the matrix unit cannot be locked: status {}", status);
}

SharedBuffer::SharedBuffer(tavik_context* context, uint64_t size) : context_(context) {
  const uint64_t padded_size = tavik_apply_padding(size);
  require(tavik_buffer_alloc(context, padded_size, &data_, &fd_),
          fmt::format("{} bytes cannot be shared with the DSP", padded_size));
}

SharedBuffer::~SharedBuffer() {
  tavik_buffer_free(context_, fd_);
}

}  // namespace tool

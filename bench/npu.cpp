#include "bench/npu.h"

#include <memory>
#include <stdexcept>

#include "bench/memory.h"

namespace bench {

void require(uint32_t status) {
  if (status != TAVIK_SUCCESS) throw std::runtime_error(tavik_error_get_last()->message);
}

Npu::Npu() {
  tavik_options* options = nullptr;
  require(static_cast<uint32_t>(tavik_options_alloc(&options)));
  const std::unique_ptr<tavik_options, decltype(&tavik_options_free)> owner(options, tavik_options_free);
  require(static_cast<uint32_t>(tavik_init(options, &context_)));
}

Npu::~Npu() {
  while (context_->n_buffers > 0 && tavik_buffer_free(context_, context_->buffer_fd[0]) == TAVIK_SUCCESS) continue;
  tavik_cleanup(context_);
}

uint32_t Npu::filled_buffer(uint64_t n_byte) {
  void* data = nullptr;
  int32_t fd = -1;
  require(static_cast<uint32_t>(tavik_buffer_alloc(context_, n_byte, &data, &fd)));
  fill(data, n_byte);
  return static_cast<uint32_t>(fd);
}

}  // namespace bench

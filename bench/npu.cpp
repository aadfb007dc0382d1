#include "bench/npu.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

#include "bench/memory.h"

namespace bench {

void require(uint32_t status) {
  if (status != TAVIK_SUCCESS) throw std::runtime_error(tavik_error_get_last()->message);
}

void require_remote(int status) {
  if (status != 0) throw std::runtime_error(fmt::format("the remote call returned {:#x}", status));
}

Npu::Npu(uint64_t least_n_row_max) {
  tavik_options* options = nullptr;
  require(static_cast<uint32_t>(tavik_options_alloc(&options)));
  const std::unique_ptr<tavik_options, decltype(&tavik_options_free)> owner(options, tavik_options_free);
  options->n_row_max = std::max(options->n_row_max, least_n_row_max);
  require(static_cast<uint32_t>(tavik_init(options, &context_)));
}

Npu::~Npu() {
  while (context_->n_buffers > 0 && tavik_buffer_free(context_, context_->buffer_fd[0]) == TAVIK_SUCCESS) continue;
  tavik_cleanup(context_);
}

SharedBuffer Npu::filled_buffer(uint64_t n_byte) {
  void* data = nullptr;
  int32_t fd = -1;
  n_byte += memory_past_page();
  require(static_cast<uint32_t>(tavik_buffer_alloc(context_, n_byte, &data, &fd)));
  fill(data, n_byte);
  return {static_cast<uint32_t>(fd), static_cast<std::byte*>(data) + memory_past_page()};
}

uint64_t Npu::handle(const SharedBuffer& buffer) const {
  uint64_t handle = 0;
  require(static_cast<uint32_t>(tavik_context_get_handle_from_fd(context_, static_cast<int32_t>(buffer.fd), &handle)));
  return handle;
}

}  // namespace bench

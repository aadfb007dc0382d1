#include "source/host/context.h"
#include "source/host/error.h"
#include "source/host/shared_memory.h"

namespace {

constexpr char reporting_file[] = "source/host/buffer";

// The line numbers that failures report. They are published interface (see include/tavik.h) and name no place in this
// file.
namespace reported_line {
enum : int32_t {
  alloc_without_output = 23,
  alloc_past_limit = 26,
  alloc_memory = 29,
  alloc_descriptor = 34,
  alloc_descriptor_too_high = 39,
  alloc_mapping = 62,
  free_unknown = 118,
  free_clear_cache = 124,
  free_unmapping = 130,
};
}  // namespace reported_line

// The destructor frees the shared memory and stores NULL and -1 in the caller's outputs, unless keep() was called.
// keep() marks the allocation as complete; then the outputs receive address and descriptor.
class Allocation {
 public:
  Allocation(void** pointer_output, int32_t* fd_output) : pointer_output_(pointer_output), fd_output_(fd_output) {}
  ~Allocation() {
    if (!kept_) tavik_rpcmem_free(address);
    if (pointer_output_ != nullptr) *pointer_output_ = kept_ ? address : nullptr;
    if (fd_output_ != nullptr) *fd_output_ = kept_ ? fd : -1;
  }
  void keep() { kept_ = true; }

  void* address = nullptr;
  int32_t fd = -1;

 private:
  void** pointer_output_;
  int32_t* fd_output_;
  bool kept_ = false;
};

bool map_into_session(const tavik_context* context, uint64_t session, const Allocation& buffer, uint64_t size) {
  return parlo_mmap(context->session_domain[session], buffer.fd, buffer.address, 0, size, tavik::map_flags) ==
         KESO_SUCCESS;
}

// Returns the first open session that accepts the mapping, or n_sessions when none accepts it.
uint64_t map_into_open_session(const tavik_context* context, const Allocation& buffer, uint64_t size) {
  uint64_t session = 0;
  while (session < context->n_sessions && !map_into_session(context, session, buffer, size)) ++session;
  return session;
}

// Opens one more session and maps the cross-session buffers into it. When that mapping fails, the function closes the
// session again, and the session's reservation ends with it.
int32_t open_session_with_cross_session_buffers(tavik_context* context) {
  TAVIK_TRY(tavik_context_open_session(context));
  const uint64_t session = context->n_sessions - 1;
  const int32_t status = tavik_context_mmap_cross_session_buffers(context, session);
  if (status != TAVIK_SUCCESS && tavik_close(context->session_handle[session]) == KESO_SUCCESS) {
    context->session_id[session] = 0;
    --context->n_sessions;
  }
  return status;
}

}  // namespace

int32_t tavik_buffer_alloc(tavik_context* context, uint64_t size, void** pointer, int32_t* fd) {
  if (pointer == nullptr && fd == nullptr)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::alloc_without_output, "no output address provided");
  Allocation buffer(pointer, fd);
  if (context->n_buffers == TAVIK_MAX_BUFFERS)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::alloc_past_limit, "cannot hold more than %d buffers",
                      TAVIK_MAX_BUFFERS);

  buffer.address = parlo_mem_alloc2(tavik::heap_id, tavik::buffer_allocation_flags, size);
  if (buffer.address == nullptr)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::alloc_memory, "failed to allocate shared buffer of size %zu",
                      size);
  buffer.fd = parlo_mem_to_fd(buffer.address);
  if (buffer.fd == -1)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::alloc_descriptor,
                      "failed to get descriptor from buffer address");
  if (!tavik::is_in_descriptor_table(buffer.fd))
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::alloc_descriptor_too_high,
                      "descriptor %d too high for fd_to_session table (max: %d)", buffer.fd, TAVIK_MAX_DESCRIPTOR);

  uint64_t session = map_into_open_session(context, buffer, size);
  if (session == context->n_sessions) {
    TAVIK_TRY(open_session_with_cross_session_buffers(context));
    if (!map_into_session(context, session, buffer, size)) {
      // Kept: the message names the domain of the session after the new one. The new session stays open.
      const int32_t domain = session + 1 < TAVIK_MAX_SESSIONS ? context->session_domain[session + 1] : 0;
      return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::alloc_mapping, "Failed to mmap buffer to domain %d",
                        domain);
    }
  }

  const uint64_t entry = context->n_buffers++;
  context->buffer_pointer[entry] = buffer.address;
  context->buffer_fd[entry] = buffer.fd;
  context->buffer_size[entry] = size;
  context->buffer_session[entry] = static_cast<int32_t>(session);
  context->fd_to_session[buffer.fd] = static_cast<int32_t>(session);
  buffer.keep();
  return TAVIK_SUCCESS;
}

int32_t tavik_buffer_free(tavik_context* context, int32_t fd) {
  const uint64_t entry = tavik::find_buffer(context, fd);
  if (entry == context->n_buffers)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::free_unknown, "Failed to find buffer with descriptor %d", fd);

  const auto session = static_cast<uint64_t>(context->buffer_session[entry]);
  const uint64_t handle = context->session_handle[session];
  TAVIK_TRY(TAVIK_REMOTE(reported_line::free_clear_cache, tavik_veyra_clear_cache(handle)));
  const int32_t domain = context->session_domain[session];
  void* const address = context->buffer_pointer[entry];
  // Kept: the message names an output activation, although this is a caller's buffer.
  if (parlo_munmap(domain, fd, address, context->buffer_size[entry]) != KESO_SUCCESS)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::free_unmapping,
                      "Failed to munmap internal buffer for output activation, domain %d", domain);
  tavik_rpcmem_free(address);

  --context->n_buffers;
  for (uint64_t i = entry; i < context->n_buffers; ++i) {
    context->buffer_pointer[i] = context->buffer_pointer[i + 1];
    context->buffer_fd[i] = context->buffer_fd[i + 1];
    context->buffer_size[i] = context->buffer_size[i + 1];
    context->buffer_session[i] = context->buffer_session[i + 1];
  }
  return TAVIK_SUCCESS;
}

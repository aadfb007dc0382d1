#include <cstdlib>
#include <initializer_list>

#include "source/host/context.h"
#include "source/host/error.h"

namespace {

constexpr char reporting_file[] = "source/host/host";

// The line numbers that failures report. They are published interface (see include/tavik.h) and name no place in this
// file.
namespace reported_line {
enum : int32_t {
  init_acquire = 30,
  init_too_large = 36,
  init_descriptor_too_high = 60,
  cleanup_not_initialised = 86,
  cleanup_unlock = 93,
  cleanup_release = 101,
  cleanup_close = 114,
  hello_options = 172,
  hello_init = 173,
};
}  // namespace reported_line

// The destructor undoes what tavik_init has done so far, unless finish() has handed the context over.
class Initialisation {
 public:
  ~Initialisation() {
    if (context == nullptr) return;
    for (void** buffer : {&context->A0, &context->A1, &context->A2, &context->X}) {
      tavik_rpcmem_free(*buffer);
      *buffer = nullptr;  // tavik_context_free releases these buffers too
    }
    // Kept: both warnings lack a line end, and the first is spelt "ressources".
    if (has_resources && tavik_veyra_ressource_release(context->session_handle[0]) != KESO_SUCCESS)
      fprintf(stderr, "[Tavik] warning: failed to release session ressources");
    if (context->n_sessions > 0 && tavik_close(context->session_handle[0]) != KESO_SUCCESS)
      fprintf(stderr, "[Tavik] warning: failed to close session properly");
    tavik_context_free(context);
  }
  tavik_context* finish() {
    tavik_context* const finished = context;
    context = nullptr;
    return finished;
  }

  tavik_context* context = nullptr;
  bool has_resources = false;
};

// The sizes in bytes of A0, A1 and A2 (each A) and of X. X holds an activation in f16, or an activation in u8 followed
// by a scale and a sum for each row.
struct CrossSessionSizes {
  uint64_t A, X;
};

// Returns false when a buffer would need more than 2^31 - 1 bytes, the most that one shared buffer can have.
bool cross_session_sizes(const tavik_options& options, CrossSessionSizes* sizes) {
  constexpr uint64_t limit = INT32_MAX;
  if (options.output_matrix_size_max > limit || options.input_matrix_size_max > limit || options.n_row_max > limit)
    return false;
  sizes->A = 4 * options.output_matrix_size_max;
  sizes->X = tavik_apply_padding(4 * options.n_row_max) + 2 * tavik_apply_padding(options.input_matrix_size_max) +
             4 * options.n_row_max;
  return sizes->A <= limit && sizes->X <= limit;
}

bool close_session(tavik_context* context, uint64_t session) {
  const bool closed = tavik_close(context->session_handle[session]) == KESO_SUCCESS;
  if (closed) context->session_handle[session] = tavik::no_handle;
  return closed;
}

int32_t fail_to_close() {
  tavik_set_error(TAVIK_ERROR_FAILURE, "tavik_cleanup", reporting_file, reported_line::cleanup_close,
                  "Failed to close the handle");
  return TAVIK_ERROR_FAILURE;
}

// Opens the session that is still only reserved, if there is one, as the context's last session. The platform ends a
// reservation only when the session's handle is closed, so cleaning up needs that handle.
int32_t open_reserved_session(tavik_context* context) {
  return tavik::has_reservation(context) ? tavik_context_open_session(context) : TAVIK_SUCCESS;
}

// Runs when an earlier cleanup has failed. Closing a session ends everything that the session still has, so the other
// steps may fail here. The function returns false only when a session cannot be closed.
bool end_what_is_left(tavik_context* context) {
  open_reserved_session(context);
  const uint64_t active_handle = context->session_handle[context->active_session];
  if (active_handle != tavik::no_handle) {
    if (context->tessel_locked) tavik_veyra_unlock_tessel(active_handle);
    tavik_veyra_ressource_release(active_handle);
  }
  bool all_closed = true;
  for (uint64_t session = 0; session < context->n_sessions; ++session) {
    if (context->session_handle[session] == tavik::no_handle) continue;
    tavik::munmap_what_is_left(context, session);
    all_closed &= close_session(context, session);
  }
  return all_closed;
}

[[noreturn]] void end_process(int line, const char* failed_call) {
  tavik_error_print(tavik_error_get_last());
  fprintf(stderr, "[Tavik] error (%s, %s, line %d): %s\n", "tavik_hello_veyra", reporting_file, line, failed_call);
  exit(1);
}

}  // namespace

int32_t tavik_init(const tavik_options* options, tavik_context** output) {
  Initialisation initialisation;
  TAVIK_TRY(tavik_context_alloc(&initialisation.context));
  tavik_context* const context = initialisation.context;
  TAVIK_TRY(tavik_context_open_session(context));
  TAVIK_TRY(TAVIK_REMOTE(reported_line::init_acquire, tavik_veyra_ressource_acquire(context->session_handle[0])));
  initialisation.has_resources = true;
  context->active_session = 0;
  context->tessel_locked = false;

  CrossSessionSizes sizes = {};
  if (!cross_session_sizes(*options, &sizes))
    return TAVIK_FAIL(TAVIK_ERROR_MEMORY, reported_line::init_too_large,
                      "options ask for a shared buffer of more than %d bytes", INT32_MAX);
  context->A_size = sizes.A;
  context->X_size = sizes.X;
  context->output_matrix_size_max = options->output_matrix_size_max;
  context->input_matrix_size_max = options->input_matrix_size_max;
  context->n_row_max = options->n_row_max;

  TAVIK_TRY(tavik_rpcmem_alloc(&context->A0, context->A_size));
  TAVIK_TRY(tavik_rpcmem_alloc(&context->A1, context->A_size));
  TAVIK_TRY(tavik_rpcmem_alloc(&context->A2, context->A_size));
  TAVIK_TRY(tavik_rpcmem_alloc(&context->X, context->X_size));
  TAVIK_TRY(tavik_rpcmem_to_fd(&context->A0_fd, context->A0));
  TAVIK_TRY(tavik_rpcmem_to_fd(&context->A1_fd, context->A1));
  TAVIK_TRY(tavik_rpcmem_to_fd(&context->A2_fd, context->A2));
  TAVIK_TRY(tavik_rpcmem_to_fd(&context->X_fd, context->X));
  const int32_t descriptors[] = {context->A0_fd, context->A1_fd, context->A2_fd, context->X_fd};
  for (const int32_t fd : descriptors)
    if (!tavik::is_in_descriptor_table(fd))
      return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::init_descriptor_too_high,
                        "descriptor %d too high for fd_to_session table (max: %d)", fd, TAVIK_MAX_DESCRIPTOR);
  TAVIK_TRY(tavik_context_mmap_cross_session_buffers(context, 0));
  for (const int32_t fd : descriptors) context->fd_to_session[fd] = 0;
  *output = initialisation.finish();
  return TAVIK_SUCCESS;
}

int32_t tavik_cleanup(tavik_context* context) {
  if (!tavik::has_active_session(context))
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::cleanup_not_initialised, tavik::not_initialised);
  if (context->cleanup_failed) {
    if (!end_what_is_left(context)) return fail_to_close();
    tavik_context_free(context);
    return TAVIK_SUCCESS;
  }
  context->cleanup_failed = true;  // stays set when a step below fails: only success frees the context

  const uint64_t active_handle = context->session_handle[context->active_session];
  if (context->tessel_locked && tavik_veyra_unlock_tessel(active_handle) != KESO_SUCCESS)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::cleanup_unlock, "Failed to unlock compute resource");
  context->tessel_locked = false;
  if (tavik_veyra_ressource_release(active_handle) != KESO_SUCCESS)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::cleanup_release, "Failed to release ressources");
  for (uint64_t session = 0; session < context->n_sessions; ++session) {
    TAVIK_TRY(tavik_context_munmap_cross_session_buffers(context, session));
    if (!close_session(context, session)) return fail_to_close();
  }
  const uint64_t n_closed = context->n_sessions;
  TAVIK_TRY(open_reserved_session(context));
  if (context->n_sessions > n_closed && !close_session(context, n_closed)) return fail_to_close();
  tavik_context_free(context);
  return TAVIK_SUCCESS;
}

int32_t tavik_lock_compute_device(tavik_context* context) {
  if (!tavik::has_active_session(context)) return TAVIK_ERROR_FAILURE;
  if (context->tessel_locked) return TAVIK_SUCCESS;
  const int status = tavik_veyra_lock_tessel(context->session_handle[context->active_session]);
  context->tessel_locked = status == KESO_SUCCESS;
  return status;
}

int32_t tavik_unlock_compute_device(tavik_context* context) {
  if (!tavik::has_active_session(context)) return TAVIK_ERROR_FAILURE;
  if (!context->tessel_locked) return TAVIK_SUCCESS;
  const int status = tavik_veyra_unlock_tessel(context->session_handle[context->active_session]);
  context->tessel_locked = status != KESO_SUCCESS;
  return status;
}

int32_t tavik_hello_host() {
  fprintf(stderr, "Hello Tavik [host says answer to life, universe and everything is %d]\n", 42);
  return TAVIK_SUCCESS;
}

int32_t tavik_hello_veyra() {
  tavik_options* options = nullptr;
  if (tavik_options_alloc(&options) != TAVIK_SUCCESS)
    end_process(reported_line::hello_options, "tavik_options_alloc(&options)");
  tavik_context* context = nullptr;
  if (tavik_init(options, &context) != TAVIK_SUCCESS)
    end_process(reported_line::hello_init, "tavik_init(options, &context)");

  void* buffer = nullptr;
  int32_t fd = -1;
  int32_t status = tavik_buffer_alloc(context, 1, &buffer, &fd);
  if (status == TAVIK_SUCCESS) {
    auto* const byte = static_cast<uint8_t*>(buffer);
    *byte = 41;
    status = static_cast<int32_t>(tavik_npu_test(context, 1, static_cast<uint32_t>(fd)));
    if (status == TAVIK_SUCCESS)
      fprintf(stderr, "Hello Tavik [veyra says answer to life, universe and everything is %d]\n", *byte);
  }
  tavik_options_free(options);
  tavik_buffer_free(context, fd);  // fails harmlessly for the -1 that a failed allocation leaves
  tavik_cleanup(context);
  return status;
}

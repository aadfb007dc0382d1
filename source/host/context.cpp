#include "source/host/context.h"

#include <cstdlib>
#include <cstring>

#include "include/dsp_capability.h"
#include "source/host/error.h"
#include "source/host/shared_memory.h"
#include "source/host/staging.h"
#include "source/own.h"

MORUN_OWN(get_domain)

namespace {

constexpr char reporting_file[] = "source/host/context";

// The line numbers that failures report. They are published interface (see include/tavik.h) and name no place in this
// file.
namespace reported_line {
enum : int32_t {
  alloc_without_output = 21,
  pointer_without_output = 100,
  pointer_unknown = 111,
  session_without_output = 121,
  session_unknown = 132,
  handle_without_output = 140,
  handle_not_initialised = 143,
  handle_unknown = 146,
  switch_release = 155,
  switch_unlock = 157,
  switch_acquire = 163,
  switch_lock = 164,
  lock_active = 172,
  map_A0 = 190,
  map_A1 = 197,
  map_A2 = 204,
  map_X = 211,
  get_AX = 218,
  put_AX = 229,
  unmap_A0 = 235,
  unmap_A1 = 242,
  unmap_A2 = 249,
  unmap_X = 256,
  open_past_limit = 270,
  open_without_domain = 277,
  open_reserve = 296,
  open_uri = 319,
  open_unsigned_module = 337,
  open_module = 344,
};
}  // namespace reported_line
constexpr uint64_t no_session = ~uint64_t{0};

// The platform's records declare their text fields without const, although the platform only reads the texts.
constexpr char domain_name[] = "cdsp";
constexpr char module_uri[] = "file:///libtavik_skel.so?tavik_skel_handle_invoke&_modver=1.0";

// The cross-session buffers in the order in which sessions map them, with the line numbers and the name that failures
// report.
struct CrossSessionBuffer {
  void* tavik_context::*address;
  int32_t tavik_context::*fd;
  uint64_t tavik_context::*size;
  int map_line;
  int unmap_line;
  const char* name;
};
constexpr CrossSessionBuffer cross_session_buffers[] = {
    {&tavik_context::A0, &tavik_context::A0_fd, &tavik_context::A_size, reported_line::map_A0, reported_line::unmap_A0,
     "output activation A0"},
    {&tavik_context::A1, &tavik_context::A1_fd, &tavik_context::A_size, reported_line::map_A1, reported_line::unmap_A1,
     "output activation A1"},
    {&tavik_context::A2, &tavik_context::A2_fd, &tavik_context::A_size, reported_line::map_A2, reported_line::unmap_A2,
     "output activation A2"},
    {&tavik_context::X, &tavik_context::X_fd, &tavik_context::X_size, reported_line::map_X, reported_line::unmap_X,
     "input activation X"},
};

// The destructor closes the handle if one was opened. keep() hands the handle over, and then nothing is closed.
class OpeningSession {
 public:
  ~OpeningSession() {
    if (handle != tavik::no_handle) tavik_close(handle);
  }
  uint64_t keep() {
    const uint64_t kept = handle;
    handle = tavik::no_handle;
    return kept;
  }
  uint64_t handle = tavik::no_handle;
};

uint32_t length_of(const char* text) {
  return static_cast<uint32_t>(strlen(text));
}

void print_heading(FILE* stream, const char* what, uint64_t count) {
  if (count == 0) fprintf(stream, "- %s: none\n", what);
  if (count == 1) fprintf(stream, "- %s:\n", what);
  if (count > 1) fprintf(stream, "- %s (%zu):\n", what, count);
}

}  // namespace

int32_t tavik_context_alloc(tavik_context** context) {
  if (context == nullptr)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::alloc_without_output, tavik::null_location);
  void* record = nullptr;
  TAVIK_TRY(tavik_malloc_zero(&record, sizeof(tavik::ContextRecord)));
  *context = &static_cast<tavik::ContextRecord*>(record)->context;
  (*context)->active_session = no_session;
  return TAVIK_SUCCESS;
}

void tavik_context_free(tavik_context* context) {
  if (context == nullptr) return;
  for (const CrossSessionBuffer& buffer : cross_session_buffers) tavik_rpcmem_free(context->*buffer.address);
  free(context);
}

int32_t tavik_context_open_session(tavik_context* context) {
  const uint64_t index = context->n_sessions;
  if (index == TAVIK_MAX_SESSIONS)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::open_past_limit, "cannot open more than %d sessions",
                      TAVIK_MAX_SESSIONS);
  char* const name = context->session_name[index];
  snprintf(name, TAVIK_SESSION_NAME_SIZE, "%s_%zu", "Tavik", index);
  if (own::get_domain(DSP_DOMAIN_CDSP) == nullptr)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::open_without_domain, "unable to get domain for CDSP");

  int32_t session_id = context->session_id[index];
  int32_t domain_id = index > 0 ? context->session_domain[index] : DSP_DOMAIN_CDSP;
  if (index > 0 && !tavik::has_reservation(context)) {
    parlo_session_reserve reserve = {};
    reserve.domain_name = domain_name;
    reserve.domain_name_length = length_of(domain_name);
    reserve.session_name = name;
    reserve.session_name_length = length_of(name);
    const int status = parlo_session_control(PARLO_SESSION_RESERVE, &reserve, sizeof reserve);
    if (status != KESO_SUCCESS)
      return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::open_reserve,
                        "remote_session_control failed to reserve new session %d : error 0x%x\n", session_id,
                        static_cast<unsigned>(status));
    // The platform ends a reservation only when the session's handle is closed. The context therefore keeps the
    // reservation, and when a later step fails, the next attempt continues with the same reservation.
    context->session_domain[index] = domain_id = static_cast<int32_t>(reserve.effective_domain_id);
    context->session_id[index] = session_id = static_cast<int32_t>(reserve.session_id);
  }

  char session_uri[256] = {};
  parlo_session_uri uri = {};
  uri.domain_name = domain_name;
  uri.domain_name_length = length_of(domain_name);
  uri.session_id = static_cast<uint32_t>(session_id);
  uri.module_uri = module_uri;
  uri.module_uri_length = length_of(module_uri);
  uri.uri = session_uri;
  uri.uri_length = sizeof session_uri;
  int status = parlo_session_control(PARLO_SESSION_GET_URI, &uri, sizeof uri);
  if (status != KESO_SUCCESS)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::open_uri,
                      "remote_session_control failed to get URI for session %d: error 0x%x\n", session_id,
                      static_cast<unsigned>(status));

  parlo_session_unsigned_module unsigned_module = {domain_id, 1};
  status = parlo_session_control(PARLO_SESSION_UNSIGNED_MODULE, &unsigned_module, sizeof unsigned_module);
  if (status != KESO_SUCCESS)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::open_unsigned_module,
                      "remote_session_control failed enable unsigned PD for session %d (domain id %d): error 0x%x\n",
                      session_id, domain_id, static_cast<unsigned>(status));

  OpeningSession session;
  status = tavik_open(session_uri, &session.handle);
  if (status != KESO_SUCCESS)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::open_module, "Failed to open session %d: error 0x%x\n",
                      session_id, static_cast<unsigned>(status));

  context->session_id[index] = session_id;
  context->session_domain[index] = domain_id;
  context->session_handle[index] = session.keep();
  ++context->n_sessions;
  return TAVIK_SUCCESS;
}

int32_t tavik_context_get_pointer_from_fd(tavik_context* context, int32_t fd, void** pointer) {
  if (pointer == nullptr)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::pointer_without_output, tavik::null_location);
  const uint64_t index = tavik::find_buffer(context, fd);
  if (index == context->n_buffers)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::pointer_unknown,
                      "Failed to find pointer for buffer with descriptor %d", fd);
  *pointer = context->buffer_pointer[index];
  return TAVIK_SUCCESS;
}

int32_t tavik_context_get_session_from_fd(tavik_context* context, int32_t fd, uint64_t* session) {
  if (session == nullptr)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::session_without_output, tavik::null_location);
  const uint64_t index = tavik::find_buffer(context, fd);
  if (index == context->n_buffers)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::session_unknown,
                      "Failed to find session for buffer with descriptor %d", fd);
  *session = static_cast<uint64_t>(context->buffer_session[index]);
  return TAVIK_SUCCESS;
}

int32_t tavik_context_get_handle_from_fd(tavik_context* context, int32_t fd, uint64_t* handle) {
  if (handle == nullptr)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::handle_without_output, tavik::null_location);
  if (!tavik::has_active_session(context))
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::handle_not_initialised, tavik::not_initialised);
  if (!tavik::is_in_descriptor_table(fd))
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::handle_unknown,
                      "Failed to find handle for buffer with descriptor %d", fd);

  const auto session = static_cast<uint64_t>(context->fd_to_session[fd]);
  uint64_t active_handle = context->session_handle[context->active_session];
  if (session == context->active_session) {
    if (!context->tessel_locked)
      TAVIK_TRY(TAVIK_REMOTE(reported_line::lock_active, tavik_veyra_lock_tessel(active_handle)));
  } else {
    // Kept: the resources are released before the matrix unit is unlocked.
    TAVIK_TRY(TAVIK_REMOTE(reported_line::switch_release, tavik_veyra_ressource_release(active_handle)));
    if (context->tessel_locked)
      TAVIK_TRY(TAVIK_REMOTE(reported_line::switch_unlock, tavik_veyra_unlock_tessel(active_handle)));
    context->tessel_locked = false;
    active_handle = context->session_handle[session];
    TAVIK_TRY(TAVIK_REMOTE(reported_line::switch_acquire, tavik_veyra_ressource_acquire(active_handle)));
    TAVIK_TRY(TAVIK_REMOTE(reported_line::switch_lock, tavik_veyra_lock_tessel(active_handle)));
    context->active_session = session;
  }
  context->tessel_locked = true;
  *handle = active_handle;
  return TAVIK_SUCCESS;
}

int32_t tavik_context_mmap_cross_session_buffers(tavik_context* context, uint64_t session) {
  const int32_t domain = context->session_domain[session];
  const uint64_t handle = context->session_handle[session];
  for (const CrossSessionBuffer& buffer : cross_session_buffers) {
    const int status =
        parlo_mmap(domain, context->*buffer.fd, context->*buffer.address, 0, context->*buffer.size, tavik::map_flags);
    if (status != KESO_SUCCESS)
      return TAVIK_FAIL(TAVIK_ERROR_FAILURE, buffer.map_line, "Failed to mmap internal buffer for %s, domain %d",
                        buffer.name, domain);
  }
  return TAVIK_REMOTE(reported_line::get_AX,
                      tavik_veyra_mmap_get_AX(handle, context->A0_fd, context->A1_fd, context->A2_fd, context->X_fd));
}

int32_t tavik_context_munmap_cross_session_buffers(tavik_context* context, uint64_t session) {
  const int32_t domain = context->session_domain[session];
  const uint64_t handle = context->session_handle[session];
  TAVIK_TRY(TAVIK_REMOTE(reported_line::put_AX, tavik_veyra_mmap_put_AX(handle)));
  for (const CrossSessionBuffer& buffer : cross_session_buffers) {
    const int status = parlo_munmap(domain, context->*buffer.fd, context->*buffer.address, context->*buffer.size);
    if (status != KESO_SUCCESS)
      return TAVIK_FAIL(TAVIK_ERROR_FAILURE, buffer.unmap_line, "Failed to munmap internal buffer for %s, domain %d",
                        buffer.name, domain);
  }
  return TAVIK_SUCCESS;
}

void tavik::munmap_what_is_left(const tavik_context* context, uint64_t session) {
  tavik_veyra_mmap_put_AX(context->session_handle[session]);
  for (const CrossSessionBuffer& buffer : cross_session_buffers)
    parlo_munmap(context->session_domain[session], context->*buffer.fd, context->*buffer.address,
                 context->*buffer.size);
}

void tavik_context_print(FILE* stream, const tavik_context* context) {
  if (context == nullptr) return;
  fprintf(stream, "Tavik context:\n");

  print_heading(stream, "Sessions", context->n_sessions);
  for (uint64_t i = 0; i < context->n_sessions; ++i)
    fprintf(stream, "--- Session %zu: id %d, name \"%s\", domain %d\n", i, context->session_id[i],
            context->session_name[i], context->session_domain[i]);

  fprintf(stream, "- Cross-session buffers:\n");
  fprintf(stream, "--- A0: size %zu, fd %d\n", context->A_size, context->A0_fd);
  fprintf(stream, "--- A1: size %zu, fd %d\n", context->A_size, context->A1_fd);
  fprintf(stream, "--- A2: size %zu, fd %d\n", context->A_size, context->A2_fd);
  fprintf(stream, "--- X: size %zu, fd %d\n", context->X_size, context->X_fd);

  print_heading(stream, "Per-session buffers", context->n_buffers);
  for (uint64_t i = 0; i < context->n_buffers; ++i)
    fprintf(stream, "--- Buffer %zu: fd %d, size %zu, session %d\n", i, context->buffer_fd[i], context->buffer_size[i],
            context->buffer_session[i]);

  fprintf(stream, "- Management:\n");
  fprintf(stream, "--- Active session: %zu\n", context->active_session);
  fprintf(stream, "--- TESSEL is locked: %s\n", context->tessel_locked ? "true" : "false");
}

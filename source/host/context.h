// What the parts of the lower interface ask of a context beyond the public operations.
#pragma once

#include "include/tavik.h"

namespace tavik {

// Whether `context` has been through tavik_init, so that its active session is one of its sessions.
inline bool has_active_session(const tavik_context* context) {
  return context != nullptr && context->active_session < context->n_sessions;
}

inline constexpr uint64_t no_handle = ~uint64_t{0};

// Whether the entry after the open sessions names one that is reserved and could not be opened yet.
inline bool has_reservation(const tavik_context* context) {
  return context->n_sessions < TAVIK_MAX_SESSIONS && context->session_id[context->n_sessions] != 0;
}

// Takes the cross-session buffers back as far as session `session` gives them.
void munmap_what_is_left(const tavik_context* context, uint64_t session);

// The index of a caller buffer's entry, or n_buffers.
inline uint64_t find_buffer(const tavik_context* context, int32_t fd) {
  uint64_t index = 0;
  while (index < context->n_buffers && context->buffer_fd[index] != fd) ++index;
  return index;
}

inline constexpr char not_initialised[] = "context is not initialised (see tavik_init)";

inline bool is_in_descriptor_table(int32_t fd) {
  return fd >= 0 && fd <= TAVIK_MAX_DESCRIPTOR;
}

}  // namespace tavik

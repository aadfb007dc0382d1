// Where each field of each public record lies, in bytes. Programs, debuggers and the platform rely on it: what differs
// does not compile.
#include <array>
#include <cstddef>

#include "include/dsp_capability.h"
#include "include/morun_state.h"
#include "include/morun_tensor.h"
#include "include/tavik_remote.h"
#include "platform/parlo.h"
#include "remote/methods.h"

#define BRACED(...) \
  { __VA_ARGS__ }
#define OFFSET(field) offsetof(Record, field),
#define LAYOUT(record, bytes, offsets, ...)                                                                  \
  struct layout_of_##record {                                                                                \
    using Record = record;                                                                                   \
    static_assert(sizeof(Record) == bytes);                                                                  \
    static_assert(std::array{TAVIK_FOR_EACH(OFFSET, __VA_ARGS__)} == std::to_array<size_t>(BRACED offsets)); \
  }

LAYOUT(tavik_error, 392, (0, 4, 132, 260, 388), code, message, function, file, line);
LAYOUT(tavik_options, 32, (0, 8, 16, 24), output_matrix_size_max, n_row_max, input_matrix_size_max, reserved);
LAYOUT(tavik_context, 6072,
       (0, 8, 24, 1048, 1064, 1096, 1104, 1112, 1120, 1128, 1136, 1144, 1148, 1152, 1156, 1160, 1168, 1424, 1552, 1808,
        1936, 6032, 6040, 6048, 6056, 6064),
       n_sessions, session_id, session_name, session_domain, session_handle, A_size, X_size, A0, A1, A2, X, A0_fd,
       A1_fd, A2_fd, X_fd, n_buffers, buffer_pointer, buffer_fd, buffer_size, buffer_session, fd_to_session,
       output_matrix_size_max, input_matrix_size_max, n_row_max, active_session, tessel_locked);

LAYOUT(morun_map_entry, 16, (0, 8), address, size);
static_assert(sizeof morun_map_db == 1024 * 16 && sizeof version_prerel == 32 && sizeof npu_version == 128);
LAYOUT(morun_tensor, 72, (0, 16, 32, 40, 48, 56, 60, 64, 68, 69), dims, strides, num_elements, data_offset, data,
       data_dtype, quantization, layout, ndims, is_contiguous);

LAYOUT(tavik_slim_parameter, 16, (0, 4, 8, 12), type, size, alignment, direction);
LAYOUT(tavik_slim_method, 32, (0, 4, 8, 12, 14, 16, 24, 25), buffer_counts, primitive_in_size, primitive_out_size,
       max_arguments, n_parameters, parameters, primitive_in_alignment, primitive_out_alignment);
LAYOUT(tavik_slim_interface, 56, (0, 8, 16, 24, 32, 40, 48), n_methods, methods, n_interface_ids, interface_ids,
       method_names, names, characters);

LAYOUT(dsp_domain, 16, (0, 4), id, uri_suffix);

LAYOUT(parlo_argument, 16, (0, 8), data, length);
LAYOUT(parlo_session_reserve, 40, (0, 8, 16, 24, 28, 32), domain_name, domain_name_length, session_name,
       session_name_length, effective_domain_id, session_id);
LAYOUT(parlo_session_uri, 48, (0, 8, 12, 16, 24, 32, 40), domain_name, domain_name_length, session_id, module_uri,
       module_uri_length, uri, uri_length);
LAYOUT(parlo_session_unsigned_module, 8, (0, 4), domain, enable);
LAYOUT(parlo_session_effective_domain, 24, (0, 8, 12, 16), domain_name, domain_name_length, session_id,
       effective_domain_id);
LAYOUT(parlo_capability, 12, (0, 4, 8), domain, attribute, capability);
LAYOUT(parlo_domain, 96, (0, 32, 36, 40, 44, 48), name, id, instance, type, status, reserved);
LAYOUT(parlo_system_domains, 24, (0, 4, 8, 12, 16), request, type, capacity, count, domains);

// What stands in the records as a plain number.
static_assert(TAVIK_SUCCESS == 0 && TAVIK_ERROR_FAILURE == 1 && TAVIK_ERROR_BAD_DIMENSION == 2 &&
              TAVIK_ERROR_MEMORY == 3);
static_assert(MORUN_DTYPE_I4 == 0 && MORUN_DTYPE_I8 == 1 && MORUN_DTYPE_U8 == 2 && MORUN_DTYPE_I32 == 3 &&
              MORUN_DTYPE_F16 == 4 && MORUN_DTYPE_F32 == 5 && MORUN_QUANTIZATION_NONE == 0);
static_assert(MORUN_LAYOUT_1D_LINEAR == 0 && MORUN_LAYOUT_2D_RM == 1 && MORUN_LAYOUT_2D_WH == 3 &&
              MORUN_LAYOUT_2D_AH == 4 && MORUN_PLATFORM_CPU == 0 && MORUN_PLATFORM_NPU0 == 3);

// Attributes of capability queries, by both of their names.
static_assert(ONDRA_SUPPORT_64B == 2 && ONDRA_SUPPORT_128B == 3 && VTCM_PAGE == 4 && VTCM_COUNT == 5 &&
              TESSEL_SUPPORT_SPATIAL == 7 && TESSEL_SUPPORT_DEPTH == 8);
static_assert(int{DSP_ONDRA_SUPPORT_64B} == 2 && int{DSP_ONDRA_SUPPORT_128B} == 3 && int{DSP_VTCM_PAGE} == 4 &&
              int{DSP_VTCM_COUNT} == 5 && int{DSP_TESSEL_SUPPORT_SPATIAL} == 7 && int{DSP_TESSEL_SUPPORT_DEPTH} == 8);

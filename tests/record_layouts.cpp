// Where each field of each public record lies, in bytes. Programs, debuggers and the platform rely on it: what differs
// does not compile.
#include <array>
#include <cstddef>

#include "include/dsp_capability.h"
#include "include/morun_state.h"
#include "include/morun_tensor.h"
#include "include/tavik_remote.h"
#include "platform/parlo.h"

#define BRACED(...) \
  { __VA_ARGS__ }
#define AT(field) offsetof(Record, field)
#define LAYOUT(record, bytes, offsets, ...)                                          \
  struct layout_of_##record {                                                        \
    using Record = record;                                                           \
    static_assert(sizeof(Record) == bytes);                                          \
    static_assert(std::array{__VA_ARGS__} == std::to_array<size_t>(BRACED offsets)); \
  }

LAYOUT(tavik_error, 392, (0, 4, 132, 260, 388), AT(code), AT(message), AT(function), AT(file), AT(line));
LAYOUT(tavik_options, 32, (0, 8, 16, 24), AT(output_matrix_size_max), AT(n_row_max), AT(input_matrix_size_max),
       AT(reserved));
LAYOUT(tavik_context, 6072,
       (0, 8, 24, 1048, 1064, 1096, 1104, 1112, 1120, 1128, 1136, 1144, 1148, 1152, 1156, 1160, 1168, 1424, 1552, 1808,
        1936, 6032, 6040, 6048, 6056, 6064),
       AT(n_sessions), AT(session_id), AT(session_name), AT(session_domain), AT(session_handle), AT(A_size), AT(X_size),
       AT(A0), AT(A1), AT(A2), AT(X), AT(A0_fd), AT(A1_fd), AT(A2_fd), AT(X_fd), AT(n_buffers), AT(buffer_pointer),
       AT(buffer_fd), AT(buffer_size), AT(buffer_session), AT(fd_to_session), AT(output_matrix_size_max),
       AT(input_matrix_size_max), AT(n_row_max), AT(active_session), AT(tessel_locked));

LAYOUT(morun_map_entry, 16, (0, 8), AT(address), AT(size));
static_assert(sizeof morun_map_db == 1024 * 16 && sizeof version_prerel == 32 && sizeof npu_version == 128);
LAYOUT(morun_tensor, 72, (0, 16, 32, 40, 48, 56, 60, 64, 68, 69), AT(dims), AT(strides), AT(num_elements),
       AT(data_offset), AT(data), AT(data_dtype), AT(quantization), AT(layout), AT(ndims), AT(is_contiguous));

LAYOUT(tavik_slim_parameter, 16, (0, 4, 8, 12), AT(type), AT(size), AT(alignment), AT(direction));
LAYOUT(tavik_slim_method, 32, (0, 4, 8, 12, 14, 16, 24, 25), AT(buffer_counts), AT(primitive_in_size),
       AT(primitive_out_size), AT(max_arguments), AT(n_parameters), AT(parameters), AT(primitive_in_alignment),
       AT(primitive_out_alignment));
LAYOUT(tavik_slim_interface, 56, (0, 8, 16, 24, 32, 40, 48), AT(n_methods), AT(methods), AT(n_interface_ids),
       AT(interface_ids), AT(method_names), AT(names), AT(characters));

LAYOUT(dsp_domain, 16, (0, 4), AT(id), AT(uri_suffix));

LAYOUT(parlo_argument, 16, (0, 8), AT(data), AT(length));
LAYOUT(parlo_session_reserve, 40, (0, 8, 16, 24, 28, 32), AT(domain_name), AT(domain_name_length), AT(session_name),
       AT(session_name_length), AT(effective_domain_id), AT(session_id));
LAYOUT(parlo_session_uri, 48, (0, 8, 12, 16, 24, 32, 40), AT(domain_name), AT(domain_name_length), AT(session_id),
       AT(module_uri), AT(module_uri_length), AT(uri), AT(uri_length));
LAYOUT(parlo_session_unsigned_module, 8, (0, 4), AT(domain), AT(enable));
LAYOUT(parlo_session_effective_domain, 24, (0, 8, 12, 16), AT(domain_name), AT(domain_name_length), AT(session_id),
       AT(effective_domain_id));
LAYOUT(parlo_capability, 12, (0, 4, 8), AT(domain), AT(attribute), AT(capability));
LAYOUT(parlo_domain, 96, (0, 32, 36, 40, 44, 48), AT(name), AT(id), AT(instance), AT(type), AT(status), AT(reserved));
LAYOUT(parlo_system_domains, 24, (0, 4, 8, 12, 16), AT(request), AT(type), AT(capacity), AT(count), AT(domains));

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

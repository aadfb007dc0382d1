#include <cstring>

#include "platform/parlo.h"
#include "source/morun_npu_macro/npu_checks.h"

namespace {

constexpr char reporting_file[] = "source/morun_npu_macro/morun_npu_get_version";
constexpr char version_format[] = "%d_%d_%d_%s_VEYRA_V%d";
constexpr size_t version_size = 64;  // bytes that every caller provides

bool has_remote_handle() {
  return own::context != nullptr && own::context->session_handle[0] != 0 &&
         own::context->session_handle[0] != ~uint64_t{0};
}

// Stores the architecture of the device's DSP. The platform returns the version as two decimal digits in a byte.
int32_t query_architecture(uint32_t* architecture) {
  parlo_capability record = {static_cast<uint32_t>(own::context->session_domain[0]), PARLO_ATTRIBUTE_ARCHITECTURE, 0};
  if (parlo_handle_control == nullptr) return MORUN_ERROR_FAILURE;
  const int32_t status = parlo_handle_control(PARLO_CONTROL_CAPABILITY, &record, sizeof record);
  *architecture = (record.capability & 15u) + (record.capability >> 4 & 15u) * 10;
  return status;
}

}  // namespace

int32_t morun_npu_get_version(int32_t, char* dst) {
  if (dst == nullptr) return MORUN_ERROR_NULL_POINTER;
  if (!has_remote_handle())
    return MORUN_FAIL(MORUN_ERROR_NOT_INITIALIZED, "Do not use morun_npu_get_version() before initialization\n");

  uint32_t major, minor, patch, veyra_version;
  const int32_t told = tavik_veyra_get_version(own::context->session_handle[0], &major, &minor, &patch,
                                               own::version_prerel, sizeof own::version_prerel, &veyra_version);
  morun::publish_state();
  if (told != KESO_SUCCESS) return MORUN_FAIL(told, "Get NPU version failed\n");

  // The library itself has no architecture, so it reports the DSP module's.
  snprintf(dst, version_size, version_format, MORUN_VERSION_MAJOR, MORUN_VERSION_MINOR, MORUN_VERSION_PATCH,
           MORUN_VERSION_PRERELEASE, static_cast<int>(veyra_version));
  snprintf(own::npu_version, sizeof own::npu_version, version_format, static_cast<int>(major), static_cast<int>(minor),
           static_cast<int>(patch), own::version_prerel, static_cast<int>(veyra_version));
  morun::publish_state();
  // The module's label may be longer than the library's label. It counts as the same version when it begins with the
  // library's label.
  if (major != MORUN_VERSION_MAJOR || minor != MORUN_VERSION_MINOR || patch != MORUN_VERSION_PATCH ||
      strncmp(own::version_prerel, MORUN_VERSION_PRERELEASE, strlen(MORUN_VERSION_PRERELEASE)) != 0)
    return MORUN_FAIL(MORUN_ERROR_VERSION_MISMATCH, "Versions mismatch:\nMORUN Version: %s\nTAVIK Version: %s\n\n", dst,
                      own::npu_version);

  uint32_t runtime = 0;
  if (const int32_t status = query_architecture(&runtime); status != KESO_SUCCESS)
    return MORUN_FAIL(status, "Get NPU arch failed\n\n");
  if (runtime != veyra_version) {
    // Kept: this warning goes to standard output.
    printf("[MORUN][WARNING] func = %s: Arch mismatch. Runtime NPU = V%d, Loaded library compiled for V%d\n", __func__,
           static_cast<int>(runtime), static_cast<int>(veyra_version));
    fflush(stdout);
  }
  return MORUN_SUCCESS;
}

#include <cstdlib>

#include "source/host/error.h"

namespace {

constexpr char reporting_file[] = "source/host/options";

// The line numbers that failures report. They are published interface (see include/tavik.h) and name no place in this
// file.
namespace reported_line {
enum : int32_t {
  alloc_without_output = 19,
};
}  // namespace reported_line
constexpr tavik_options defaults = {
    .output_matrix_size_max = uint64_t{1} << 24,
    .n_row_max = 1024,
    .input_matrix_size_max = uint64_t{1} << 28,
    .reserved = 0,
};

}  // namespace

int32_t tavik_options_alloc(tavik_options** options) {
  if (options == nullptr)
    return TAVIK_FAIL(TAVIK_ERROR_FAILURE, reported_line::alloc_without_output, tavik::null_location);
  void* record = nullptr;
  TAVIK_TRY(tavik_malloc_zero(&record, sizeof(tavik_options)));
  *options = static_cast<tavik_options*>(record);
  **options = defaults;
  return TAVIK_SUCCESS;
}

void tavik_options_print(FILE* stream, const tavik_options* options) {
  if (options == nullptr) {
    fprintf(stream, "NULL options\n");
    return;
  }
  fprintf(stream, "Options:\n");
  fprintf(stream, "--- %-20s = %zu\n", "output_matrix_size_max", options->output_matrix_size_max);
  fprintf(stream, "--- %-20s = %zu\n", "input_matrix_size_max", options->input_matrix_size_max);
}

void tavik_options_free(tavik_options* options) {
  free(options);
}

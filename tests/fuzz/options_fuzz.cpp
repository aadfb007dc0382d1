// Contexts with any options on platforms of any size that fail or claim a success that they do not have: a context is
// had or refused, and nothing is left of it. One that is had multiplies within its limits and refuses past them.
#include "include/tavik.h"
#include "tests/fuzz/fuzz.h"

namespace {

using fuzz::expect;

fuzz::Counter initialised = "contexts", refused = "refused contexts", multiplied = "products", too_large = "too large",
              buffers = "buffers", faulty = "faults";

// Zeros where bytes are missing: limits of 32 rows and 1024 elements, the platform as it comes.
struct Input {
  uint64_t numbers[3];
  uint8_t limits[3], n_row, allocation_bytes, session_bytes, n_sessions, lowest_descriptor;
  uint8_t n_buffer, fault, nth, status;
} input;
tavik_options options;
int32_t status;

void print_input() {
  dprintf(fuzz::report_fd, "output %lu, rows %lu, input %lu; fault %d of %d with %d; status %d, %s\n",
          options.output_matrix_size_max, options.n_row_max, options.input_matrix_size_max, input.fault, input.nth,
          input.status, status, tavik_error_get_last()->message);
}

uint64_t limit(uint8_t code, uint64_t otherwise, size_t i) {
  if (code < 128) return otherwise + code * 64;
  if (code < 192) return uint64_t{1} << (code - 128);
  return fuzz::one_of<uint64_t>({0, 1, ~uint64_t{0}, INT32_MAX, UINT32_MAX, input.numbers[i]}, code);
}

void configure() {
  parlo_emulator_config config;
  parlo_emulator_get_config(&config);
  if (input.allocation_bytes >= 128) config.allocation_bytes = uint64_t{1} << (input.allocation_bytes - 128) % 40;
  if (input.session_bytes >= 128) config.session_bytes = uint64_t{1} << (input.session_bytes - 128) % 40;
  if (input.n_sessions >= 128) config.n_sessions = input.n_sessions - 128u;
  if (input.lowest_descriptor >= 192) config.lowest_descriptor = 1000 + (input.lowest_descriptor - 192);
  parlo_emulator_set_config(&config);
  if (input.fault >= 128)
    parlo_emulator_fail((input.fault - 128) % (PARLO_EMULATOR_N_OPERATIONS + 1) - 1, -1, 1 + input.nth % 24,
                        fuzz::one_of({0, 1, -1, 0x77, INT32_MIN}, input.status), input.status);
}

// Row counts around the limit, 32 columns and inner indices.
void multiply(tavik_context* context) {
  const auto n_row = static_cast<int32_t>(std::min<uint64_t>(options.n_row_max, 128)) + input.n_row % 3 - 1;
  int32_t fd = -1;
  void* address = nullptr;
  if (tavik_buffer_alloc(context, 2048, &address, &fd) != 0) return;
  memset(address, 0x11, 2048);
  const auto rows = static_cast<size_t>(std::max(n_row, 0));
  auto* const X = static_cast<float*>(calloc(rows * 32 + 1, sizeof(float)));
  auto* const A = static_cast<float*>(calloc(rows * 32 + 1, sizeof(float)));
  status = static_cast<int32_t>(
      tavik_npu_mm_f32_rm_f32_rm_f16_wh(context, n_row, 32, 32, A, X, static_cast<uint32_t>(fd), 0));
  const bool fits = n_row >= 0 && rows <= options.n_row_max && rows * 32 <= options.output_matrix_size_max &&
                    rows * 32 <= options.input_matrix_size_max;
  if (parlo_emulator_faults_fired() == 0)
    expect(fits ? status == 0 || status == 2 : status == 2,
           "a product within the limits fails, or one past them does not");
  multiplied += status == 0;
  too_large += status == 2;
  free(X), free(A);
  tavik_buffer_free(context, fd);
}

void allocate(tavik_context* context) {
  int32_t fds[TAVIK_MAX_BUFFERS + 2];
  size_t n = 0;
  for (size_t i = 0; i < input.n_buffer % std::size(fds); ++i) {
    const uint64_t size = limit(input.limits[i % 3], 1, i % 3) % (uint64_t{1} << 32);
    n += tavik_buffer_alloc(context, size, nullptr, &fds[n]) == 0;
  }
  buffers += n > 0;
  while (n > 0) tavik_buffer_free(context, fds[--n]);
}

// A context from its first to its last call; whether the platform failed.
bool run() {
  parlo_emulator_reset();
  configure();
  auto* const none = reinterpret_cast<tavik_context*>(&input);
  tavik_context* context = none;
  status = tavik_init(&options, &context);
  expect(status == 0 || status == 1 || status == 3, "an unknown status");
  expect((status == 0) == (context != none), "a context that contradicts the status");
  (status == 0 ? initialised : refused) += 1;
  if (status == 0) {
    multiply(context);
    allocate(context);
    status = tavik_cleanup(context);
    expect(status == 0 || parlo_emulator_faults_fired() != 0, "cleaning up fails by itself");
    if (status != 0) tavik_context_free(context);
  }
  const bool has_failed = parlo_emulator_faults_fired() != 0;
  faulty += has_failed;
  if (has_failed) parlo_emulator_reset();
  return has_failed;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  return fuzz::start(print_input);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  input = fuzz::read<Input>(data, size);
  options = {.output_matrix_size_max = limit(input.limits[0], 1024, 0),
             .n_row_max = limit(input.limits[1], 32, 1),
             .input_matrix_size_max = limit(input.limits[2], 1024, 2),
             .reserved = 0};
  if (run()) return 0;
  // Once more: tables of the emulator grow with the calls of the first run.
  const fuzz::Usage before = fuzz::usage();
  expect(before[0] + before[1] + before[2] + before[3] == 0, "memory, a mapping, a session or a handle is left");
  run();
  expect(fuzz::usage() == before, "memory of the host or a descriptor is left");
  return 0;
}

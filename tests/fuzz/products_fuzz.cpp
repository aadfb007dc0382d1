// Products and buffers of the lower interface, and integer products of the upper one, with any dimensions, descriptors
// and offsets, on a platform that fails or claims a success that it does not have. Nothing beside the results is
// touched, the same call gives the same result again, and after a fault a new context computes what the first one did.
#include <fcntl.h>
#include <unistd.h>

#include <bit>

#include "include/morun_state.h"
#include "include/morun_tensor.h"
#include "tests/fuzz/fuzz.h"
#include "tests/products.h"

namespace {

using fuzz::expect;

// Small limits, set in the context: what they allow fits the memory below, and nothing else is touched.
constexpr uint64_t rows_max = 130, output_max = 128 * 160, input_max = 130 * 160, side_bytes = 4 * 160;
constexpr uint64_t weights_bytes = 2 * 160 * 160 + 3 * side_bytes;
constexpr size_t n_region = 8, region_bytes = 4 * std::max(output_max, input_max);
uint8_t* regions[n_region];
uint64_t first_product;  // digest

enum { tiles = 9, u8i8, u8i4, self_test, reference, float_reference, upper_u8i4, upper_u8i8, buffer, n_kind };
fuzz::Counter kinds[n_kind] = {"f16",       "f16 x2",    "f16 x3",        "a8w8",  "a8w8 x2", "a8w8 x3",
                               "a8w4",      "a8w4 x2",   "a8w4 x3",       "tiles", "u8i8",    "u8i4",
                               "self-test", "reference", "f32 reference", "4-bit", "8-bit",   "buffers"};
fuzz::Counter refusals = "refusals", faults = "faults", lies = "lies", other_session = "other session";

// Zeros where bytes are missing: the single f16 product of 32 x 32 operands on a platform without faults.
struct Input {
  int32_t numbers[4];
  uint8_t kind, n_row, n_col, n_col_kv, n_inner, opens_file;
  uint8_t weights[3], offset[3][4];
  uint8_t fault, nth, status;
} input;

struct Weights {
  void* address;
  int32_t fd;
} weights[3];  // the last in a session of its own

int32_t status;
int32_t n_row, n_col, n_col_kv, n_inner;

void print_input() {
  dprintf(fuzz::report_fd, "kind %d, %d x %d (%d) x %d, weights %d %d %d, fault %d of %d with %d, status %d\n",
          input.kind % n_kind, n_row, n_col, n_col_kv, n_inner, input.weights[0], input.weights[1], input.weights[2],
          input.fault, input.nth, input.status, status);
}

int32_t dimension(uint8_t code) {
  if (code < 160) return 32 * ((code + 1) % 6);
  if (code < 200) return code - 159;
  if (code < 231) return 1 << (code - 200);
  return fuzz::one_of({-1, -31, INT32_MIN, INT32_MAX, 100001, input.numbers[0], input.numbers[1]}, code);
}
uint32_t descriptor(uint8_t code) {
  if (code < 240) return static_cast<uint32_t>(weights[code % 3].fd);
  return fuzz::one_of<uint32_t>({0, 1023, 1024, ~0u, static_cast<uint32_t>(input.numbers[2])}, code);
}
uint64_t offset(uint8_t code, uint64_t otherwise) {
  if (code < 224) return otherwise + code % 7 * 4;
  const auto any = static_cast<uint64_t>(input.numbers[3] & ~3);  // where elements are aligned
  return fuzz::one_of({weights_bytes - side_bytes, weights_bytes, weights_bytes + 1, ~uint64_t{0}, any}, code);
}

// Bytes of a region that are not poisoned: those of a matrix that the limits allow.
void open_region(size_t index, int32_t rows, int32_t columns, uint64_t width, uint64_t limit) {
  ASAN_POISON_MEMORY_REGION(regions[index], region_bytes);
  if (rows < 0 || columns < 0) return;
  const uint64_t count = static_cast<uint64_t>(rows) * static_cast<uint64_t>(columns);
  if (count <= limit) ASAN_UNPOISON_MEMORY_REGION(regions[index], count * width);
}
template <class T>
T* region(size_t index) {
  return reinterpret_cast<T*>(regions[index]);
}

void start() {
  if (morun_npu_initialize(MORUN_DOMAIN_NPU0) != MORUN_SUCCESS) abort();
  context->n_row_max = rows_max, context->output_matrix_size_max = output_max,
  context->input_matrix_size_max = input_max;
  for (Weights& w : weights) {
    w.address = nullptr;
    if (&w == weights + 2) parlo_emulator_fail(PARLO_EMULATOR_MMAP, -1, 1, 1, 0);  // the first session refuses it
    if (morun_npu_alloc(weights_bytes, &w.address) != MORUN_SUCCESS) abort();
    parlo_emulator_clear_fault();
    w.fd = morun_parlo_find_fd(w.address);
    for (uint64_t i = 0; i < weights_bytes; ++i)
      static_cast<uint8_t*>(w.address)[i] = static_cast<uint8_t>(i * 37 >> 2 & 0x3b);
  }
  if (tavik_lock_compute_device(context) != 0) abort();
}

void stop() {
  const int32_t freed = tavik_buffer_free(context, weights[0].fd) | tavik_buffer_free(context, weights[1].fd) |
                        tavik_buffer_free(context, weights[2].fd);
  tavik_context* const old = context;
  if (freed != 0 || morun_npu_finalize(MORUN_DOMAIN_NPU0) != 0) tavik_context_free(old);
  context = nullptr;
  parlo_emulator_reset();
  for (auto& entry : morun_map_db) entry = {};
}

// Results start at region `at`, the activation is region 0.
uint32_t multiply_family(int family, size_t count, size_t at) {
  const auto side = [](size_t i, size_t part) {
    return offset(input.offset[i][part], part == 0 ? 0 : weights_bytes - (4 - part) * side_bytes);
  };
  products::WeightPlace w[3];
  for (size_t i = 0; i < 3; ++i)
    w[i] = {descriptor(input.weights[i]), static_cast<uint32_t>(side(i, 0)), side(i, 1), side(i, 2), side(i, 3)};
  float* const results[] = {region<float>(at), region<float>(at + 1), region<float>(at + 2)};
  const products::Operands product = {n_row,           n_col, n_col_kv, n_inner, {results[0], results[1], results[2]},
                                      region<float>(0)};
  return products::multiply(context, static_cast<products::Kind>(family), product, {w, count});
}

int32_t allocate_and_free() {
  void* address = nullptr;
  int32_t fd = -1;
  const auto size = static_cast<uint64_t>(input.numbers[0]) % (uint64_t{4} << 30);
  const int32_t allocated = tavik_buffer_alloc(context, size, &address, &fd);
  expect((allocated == 0) == (address != nullptr && fd >= 0), "outputs that contradict the status");
  return allocated == 0 ? tavik_buffer_free(context, fd) : allocated;
}

uint32_t multiply_above(bool is_4_bit) {
  constexpr int32_t most = 160;
  const bool is_taken = n_row % 64 == 0 && n_inner % 32 == 0 && (is_4_bit || n_col % 32 == 0);
  // The library asks the DSP for up to 31 rows more than there are.
  const bool is_small =
      n_row > 0 && n_col > 0 && n_inner > 0 && n_row <= int32_t{rows_max} - 31 && n_col <= most && n_inner <= most;
  if ((is_taken || !is_4_bit) && !is_small) return 14;  // the DSP's refusal would end the process
  open_region(0, n_row, n_inner, 1, is_small ? input_max : 0);
  open_region(1, n_row, n_col, 4, is_small ? output_max : 0);
  for (const bool again : {false, true}) {
    const int file = again && input.opens_file ? open("/dev/null", O_RDONLY) : -1;
    const uint32_t result =
        is_4_bit ? morun_npu_mm_u8i4_i32(3, n_row, n_col, n_inner, region<int32_t>(1), regions[0],
                                         static_cast<uint8_t*>(weights[0].address))
                 : morun_npu_mm_u8i8_i32(3, n_row, n_col, n_inner, region<int32_t>(1), regions[0], region<int8_t>(7));
    if (file >= 0) close(file);
    expect(is_taken ? result == 0 : result == 14, "a refusal that is none");
    if (result != 0) return result;
  }
  return 0;
}

uint32_t call(int kind, size_t at) {
  const uint32_t fd = descriptor(input.weights[0]), other = descriptor(input.weights[1]);
  const auto W_offset = static_cast<uint32_t>(offset(input.offset[0][0], 0));
  const auto rows = static_cast<uint64_t>(int64_t{n_row}), columns = static_cast<uint64_t>(int64_t{n_col}),
             inner = static_cast<uint64_t>(int64_t{n_inner});
  auto *const halves = region<uint16_t>(0), *const weights_of_reference = region<uint16_t>(7);
  const bool is_reference = kind == reference || kind == float_reference;
  if (is_reference && columns * inner > input_max) return 2;  // the library has no limit for its weights
  if (is_reference) open_region(7, n_inner, n_col, 2, input_max);
  if (kind == reference) open_region(0, n_row, n_inner, 2, input_max);
  switch (kind) {
    case tiles:
      return tavik_npu_mm_f16_ah_f16_ah_f16_wh(context, n_row, n_col, n_inner, other, other, fd, W_offset, W_offset,
                                               W_offset);
    case u8i8:
      return tavik_veyra_1mm_ui8i8_i32_tessel(context, n_row, n_col, n_inner, 0, 0, fd, 0, 0, W_offset);
    case u8i4:
      return tavik_veyra_1mm_ui8i4_i32_tessel(context, n_row, n_col, n_inner, 0, 0, fd, 0, 0, W_offset);
    case self_test:
      return tavik_npu_test(context, n_row, fd);
    case reference:
      return tavik_cpu_mm_fp32_rm_fp16_rm_fp16_zb(context, rows, columns, inner, region<float>(at), halves,
                                                  weights_of_reference);
    case float_reference:
      return tavik_cpu_mm_fp32_rm_fp32_rm_fp16_zb(context, rows, columns, inner, region<float>(at), region<float>(0),
                                                  weights_of_reference);
    case upper_u8i4:
    case upper_u8i8:
      return multiply_above(kind == upper_u8i4);
    case buffer:
      return static_cast<uint32_t>(allocate_and_free());
    default:
      return multiply_family(kind / 3, static_cast<size_t>(kind % 3 + 1), at);
  }
}

// At region 1 or, for the same call again, region 4.
int32_t multiply(int kind, size_t at) {
  open_region(0, n_row, n_inner, 4, input_max);
  open_region(7, 1, region_bytes, 1, region_bytes);
  for (size_t i = 0; i < 3; ++i) {
    ASAN_UNPOISON_MEMORY_REGION(regions[at + i], region_bytes);
    memset(regions[at + i], 0x5a, region_bytes);
    open_region(at + i, n_row, i > 0 && kind % 3 == 2 ? n_col_kv : n_col, 4, output_max);
  }
  return static_cast<int32_t>(call(kind, at));
}

void unpoison() {
  for (uint8_t* of : regions) ASAN_UNPOISON_MEMORY_REGION(of, region_bytes);
}
bool same_results(size_t a, size_t b) {
  return memcmp(regions[a], regions[b], region_bytes) == 0;
}
// Of a fixed product on the present context.
uint64_t digest_of_product() {
  input = {};
  n_row = n_col = n_inner = 64;
  expect(multiply(0, 4) == 0, "a new context refuses a product");
  unpoison();
  uint64_t digest = 0;
  for (size_t i = 0; i < 64 * 64; ++i) digest = digest * 31 + std::bit_cast<uint32_t>(region<float>(4)[i]);
  return digest;
}

bool arm_fault() {
  if (input.fault < 96) return false;
  const int32_t fault_class =
      fuzz::one_of<int32_t>({PARLO_EMULATOR_FAULT_ONCE, PARLO_EMULATOR_FAULT_FROM_THEN_ON,
                             PARLO_EMULATOR_FAULT_TRUNCATED_REPLY, PARLO_EMULATOR_FAULT_SESSION_LOST},
                            input.fault / 16);
  const int32_t operation = fuzz::one_of<int32_t>(
      {PARLO_EMULATOR_HANDLE_INVOKE, PARLO_EMULATOR_MMAP, PARLO_EMULATOR_MUNMAP, PARLO_EMULATOR_MEM_ALLOC2,
       PARLO_EMULATOR_MEM_TO_FD, PARLO_EMULATOR_HANDLE_OPEN, PARLO_EMULATOR_SESSION_CONTROL},
      input.fault < 208 ? 0 : input.fault);
  const int32_t wrong_status = fuzz::one_of({0, 1, -1, 0x77, INT32_MIN, 2}, input.status);
  const parlo_emulator_fault fault = {fault_class, operation, -1, input.nth % 5u, wrong_status, input.status};
  parlo_emulator_arm(&fault);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::start(print_input);
  for (uint8_t*& of : regions) {
    of = static_cast<uint8_t*>(aligned_alloc(64, region_bytes));
    for (size_t i = 0; i < region_bytes; ++i) of[i] = static_cast<uint8_t>(i * 2654435761u >> 13 & 0x3b);
  }
  start();
  first_product = digest_of_product();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  input = fuzz::read<Input>(data, size);
  const int kind = input.kind % n_kind;
  n_row = dimension(input.n_row), n_col = dimension(input.n_col), n_col_kv = dimension(input.n_col_kv),
  n_inner = dimension(input.n_inner);
  const bool is_above = kind == upper_u8i4 || kind == upper_u8i8;
  const bool has_fault = !is_above && arm_fault();
  const auto before = fuzz::usage();
  status = multiply(kind, 1);
  const size_t n_call = parlo_emulator_trace_length();
  const bool has_failed = has_fault && parlo_emulator_faults_fired() != 0;
  parlo_emulator_clear_fault();
  unpoison();
  kinds[kind] += status == 0;
  refusals += status != 0;
  expect(status >= 0 && (status <= 2 || (is_above && status == 14)), "an unknown status");
  // The caller's tiles may be anywhere in the buffers that hold the weights.
  if (kind == tiles || kind == self_test || has_failed) {
    (has_failed && input.status % 6 == 0 ? lies : faults) += has_failed;
    stop();
    start();
    expect(digest_of_product() == first_product, "a new context computes something else");
    return 0;
  }
  if (has_fault || kind == buffer || is_above) return 0;
  expect(status != 2 || n_call == 0, "the DSP was asked for what is refused");
  expect(fuzz::usage() == before, "memory, a mapping, a session or a descriptor is left");
  other_session += context->active_session != 0 && status == 0;
  if (kind >= tiles && kind != reference && kind != float_reference) return 0;
  expect(multiply(kind, 4) == status, "another status for the same call");
  unpoison();
  expect(same_results(1, 4) && same_results(2, 5) && same_results(3, 6), "another result of the same call");
  return 0;
}

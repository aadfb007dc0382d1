// Random products of random records: every call keeps to its statuses, writes nothing but the result and gives back all
// it took. Inputs choose a path, extents and memory, and fields to spoil. MORUN_FUZZ_SHOW=1 prints the records.
#include "include/morun_state.h"
#include "include/morun_tensor.h"
#include "tests/fuzz/fuzz.h"

namespace {

// No record has more elements than a matrix of 128 x 128 with gaps between its rows. The NPU takes every integer
// product of that size; a refusal would end the process.
constexpr uint64_t elements_max = 17 * 1024, width_max = 4, page = 4096, region_bytes = elements_max * width_max + page;

// Three regions of the heap and three of shared memory. Before every call each page has the bytes of that page of
// `pattern`, and the sanitizer poisons the memory that the call may not reach.
constexpr size_t n_region = 6, first_shared_region = 3;
uint8_t* regions[n_region];
uint8_t pattern[region_bytes];

constexpr auto i4 = MORUN_DTYPE_I4, i8 = MORUN_DTYPE_I8, u8 = MORUN_DTYPE_U8, i32 = MORUN_DTYPE_I32,
               f16 = MORUN_DTYPE_F16, f32 = MORUN_DTYPE_F32;
constexpr auto rm = MORUN_LAYOUT_2D_RM, wh = MORUN_LAYOUT_2D_WH, ah = MORUN_LAYOUT_2D_AH;

// P1 to P6, and P5 on the CPU. Wherever there are three, they are of result, left and right.
struct Path {
  uint32_t platform;
  morun_tensor_dtype_e types[3];
  morun_tensor_layout_e layouts[3];
  bool packs_rows, writes_before_failing;
};
const Path paths[] = {{MORUN_PLATFORM_NPU0, {f32, f32, f16}, {rm, rm, wh}, false, true},
                      {MORUN_PLATFORM_NPU0, {f16, f16, f16}, {ah, ah, wh}, true, false},
                      {MORUN_PLATFORM_NPU0, {f16, f16, f16}, {rm, rm, wh}, false, false},
                      {MORUN_PLATFORM_NPU0, {i32, u8, i4}, {rm, rm, wh}, false, true},
                      {MORUN_PLATFORM_NPU0, {f16, f16, f16}, {rm, rm, rm}, true, false},
                      {MORUN_PLATFORM_NPU0, {i32, u8, i8}, {rm, rm, wh}, false, true},
                      {MORUN_PLATFORM_CPU, {f16, f16, f16}, {rm, rm, rm}, true, false}};
fuzz::Counter products[] = {"P1", "P2", "P3", "P4", "P5", "P6", "P5 on the CPU"};

// Zeros where bytes are missing: 32 x 32 operands, each in memory of its own.
struct Input {
  uint64_t numbers[2];
  uint8_t path, platform, n_row, n_col, n_inner, row_gap;
  uint8_t region[3], data_offset[3], slack[3], record[3];  // of each operand
  uint8_t n_spoiling, operand[8], field[8], value[8];
};

struct {
  uint32_t platform;
  morun_tensor tensors[3];
  const morun_tensor* operands[3];
  int32_t status;
} call;

void print_call() {
  dprintf(fuzz::report_fd, "platform %u, status %d, fields in their order:\n", call.platform, call.status);
  for (const morun_tensor* t : call.operands)
    if (t != nullptr)
      dprintf(fuzz::report_fd, "  {{%#lx, %#lx}, {%#lx, %#lx}, %lu, %lu, %p, %u, %u, %u, %u, %u}\n", t->dims[0],
              t->dims[1], t->strides[0], t->strides[1], t->num_elements, t->data_offset, t->data, t->data_dtype,
              t->quantization, t->layout, t->ndims, t->is_contiguous);
}

using fuzz::expect;

uint64_t number(const Input& input, uint8_t code) {
  if (code < 128) return 32 * (1 + code % 4u);
  if (code < 192) return code - 127u;
  if (code < 208) return -(1ull << (code - 192));
  if (code < 248) return 1ull << (code - 184);
  return fuzz::one_of<uint64_t>({0, INT32_MAX, UINT32_MAX - 31, (1ull << 32) + 32, input.numbers[0], input.numbers[1]},
                                code);
}

void spoil(morun_tensor& t, unsigned field, uint8_t code, uint64_t value) {
  uint64_t* const words[] = {t.dims, t.dims + 1, t.strides, t.strides + 1, &t.num_elements, &t.data_offset};
  uint32_t* const kinds[] = {&t.data_dtype, &t.quantization, &t.layout};
  if (field < 6) *words[field] = value;
  if (field >= 6 && field < 9) *kinds[field - 6] = code < 240 ? code % 8u : static_cast<uint32_t>(value);
  if (field == 9) t.ndims = code % 4;
  if (field == 10) t.is_contiguous = code % 3;
  if (field == 11) t.data = code < 128 || t.data == nullptr ? nullptr : static_cast<uint8_t*>(t.data) + code / 8 * 4;
  // The last row wraps round to the first elements.
  if (field == 12 && t.dims[0] > 1) t.strides[0] = UINT64_MAX / (t.dims[0] - 1) + 1;
}

// One byte for i4: more than its tiles take, which the NPU alone reads.
uint64_t width(const morun_tensor& tensor) {
  return tensor.data_dtype < i32 ? 1 : tensor.data_dtype == f16 ? 2 : width_max;
}

void make_operand(const Input& input, size_t i, morun_tensor& tensor) {
  tensor.data = regions[input.region[i] < 128 ? (i < 2 ? i : first_shared_region) : input.region[i] % n_region];
  tensor.data_offset = input.data_offset[i];
  const uint64_t gap = i == 0 ? input.row_gap : 0;
  tensor.strides[0] = gap < 192 ? tensor.dims[1] + gap : gap - 191;
  tensor.num_elements = (tensor.dims[0] - 1) * tensor.strides[0] + tensor.dims[1] + input.slack[i];
  tensor.num_elements += tensor.data_offset * (gap == 0 ? 1 : 2);
  tensor.is_contiguous = gap == 0;
  for (size_t k = 0; k < input.n_spoiling % 9; ++k)
    if (input.operand[k] % 3 == i) spoil(tensor, input.field[k] % 13, input.value[k], number(input, input.value[k]));
  tensor.num_elements = std::min(tensor.num_elements, elements_max);  // the caller's promise is true
  if (tensor.data != nullptr) ASAN_UNPOISON_MEMORY_REGION(tensor.data, tensor.num_elements * width(tensor));
  call.operands[i] = input.record[i] < 252 ? &call.tensors[input.record[i] < 240 ? i : input.record[i] % 3] : nullptr;
}

void make_call(const Input& input) {
  const Path& path = paths[input.path % std::size(paths)];
  call.platform = input.platform < 224 ? path.platform : input.platform % 8u;
  const uint64_t n_row = number(input, input.n_row), n_col = number(input, input.n_col),
                 n_inner = number(input, input.n_inner);
  const uint64_t dims[3][2] = {{n_row, n_col}, {n_row, n_inner}, {n_inner, n_col}};
  for (size_t i = 0; i < 3; ++i)
    make_operand(
        input, i,
        call.tensors[i] = morun_tensor_matrix(dims[i][0], dims[i][1], path.types[i], path.layouts[i], nullptr));
}

// Puts back the elements of the result.
void restore_result(const Path& path) {
  const morun_tensor& t = *call.operands[0];
  const uint64_t n_row = t.dims[0], n_col = t.dims[1], stride = path.packs_rows ? n_col : t.strides[0];
  const auto real = [](uint64_t count) { return static_cast<double>(count); };
  const double end = real(n_row - 1) * real(stride) + real(n_col) + real(t.data_offset);
  const bool fits = t.data != nullptr && t.strides[1] == 1 && stride > 0 && end <= real(t.num_elements);
  expect(fits || call.status != MORUN_SUCCESS, "a result that has no room");
  // With 4-bit weights, columns past the last whole tile keep what they held.
  const uint64_t n_written = path.types[2] == i4 ? n_col / 32 * 32 : n_col;
  for (uint64_t i = 0; fits && i < n_row; ++i) {
    uint8_t* const row = static_cast<uint8_t*>(t.data) + (t.data_offset + i * stride) * width(t);
    memcpy(row, pattern + reinterpret_cast<uintptr_t>(row) % page, n_written * width(t));
  }
}

void check_memory() {
  const bool computed = call.status == MORUN_SUCCESS;
  bool on_a_path = call.platform == 2 || call.platform > 4;  // there a success may compute nothing
  for (const Path& path : paths) {
    bool takes = path.platform == call.platform;
    for (size_t i = 0; i < 3; ++i)
      takes = takes && call.operands[i] != nullptr && call.operands[i]->data_dtype == path.types[i] &&
              call.operands[i]->layout == path.layouts[i] && (i == 0 || call.operands[i]->is_contiguous == 1);
    if (takes && (computed || path.writes_before_failing)) restore_result(path);
    products[&path - paths] += takes && computed;
    on_a_path |= takes;
  }
  expect(on_a_path || !computed, "a success on no path");
  for (const uint8_t* region : regions)
    expect(memcmp(region, pattern, region_bytes) == 0, "something beside the result was written");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::start(print_call);
  if (morun_npu_initialize(MORUN_DOMAIN_NPU0) != MORUN_SUCCESS) abort();
  void* buffers[8];  // tables of the emulator grow once
  for (void*& buffer : buffers) morun_npu_alloc(1, &buffer);
  for (void* buffer : buffers) morun_npu_free(buffer);
  for (size_t i = 0; i < region_bytes; ++i) pattern[i] = static_cast<uint8_t>(i % page * 2654435761u >> 13);
  for (size_t i = 0; i < n_region; ++i) {
    void* memory = i < first_shared_region ? aligned_alloc(page, region_bytes) : nullptr;
    if (i >= first_shared_region) morun_npu_alloc(region_bytes, &memory);
    regions[i] = static_cast<uint8_t*>(memcpy(memory, pattern, region_bytes));
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto input = fuzz::read<Input>(data, size);
  // What the registry keeps of freed buffers would stand in the way at descriptors that libFuzzer has taken since.
  for (auto& entry : morun_map_db)
    if (std::count(regions, regions + n_region, reinterpret_cast<uint8_t*>(entry.address)) == 0) entry = {};
  const auto before = fuzz::usage();
  for (uint8_t* region : regions) ASAN_POISON_MEMORY_REGION(region, region_bytes);
  make_call(input);
  if (getenv("MORUN_FUZZ_SHOW") != nullptr) print_call();
  morun_tensor tensors[3];
  memcpy(tensors, call.tensors, sizeof tensors);
  const auto multiply = [] {
    call.status = morun_mm_tensor(call.platform, call.operands[0], call.operands[1], call.operands[2]);
  };
  multiply();
  const bool leaves_nothing = fuzz::leaves_nothing(before, multiply);
  for (uint8_t* region : regions) ASAN_UNPOISON_MEMORY_REGION(region, region_bytes);
  expect(leaves_nothing, "memory, a mapping, a session or a descriptor is left");
  expect(memcmp(tensors, call.tensors, sizeof tensors) == 0, "a record was changed");
  check_memory();
  constexpr int32_t known[] = {0, 1, 2, 10, 14, 20};
  expect(std::count(std::begin(known), std::end(known), call.status) == 1, "an unknown status");
  const int32_t mismatch = morun_mm_tensor_validate(call.operands[0], call.operands[1], call.operands[2]);
  expect(mismatch == MORUN_SUCCESS || call.status != MORUN_SUCCESS, "a product of records that do not fit");
  return 0;
}

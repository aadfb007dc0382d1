// Validation of tensor records: what is said of each field, alone and in a product.
#include "tests/upper.h"

namespace {

using Tensor = morun_tensor;
using test::make_view;

uint64_t memory[1];

Tensor matrix(uint64_t n_row, uint64_t n_col) {
  return morun_tensor_matrix(n_row, n_col, MORUN_DTYPE_F16, MORUN_LAYOUT_2D_RM, memory);
}
Tensor vector(uint64_t length) {
  Tensor t = morun_tensor_matrix(length, 1, MORUN_DTYPE_F16, MORUN_LAYOUT_1D_LINEAR, memory);
  t.ndims = 1;
  t.dims[1] = t.strides[1] = 0;  // not read
  return t;
}

TEST(TensorRecord, IsRefusedForItsFirstBadField) {
  struct Case {
    Tensor tensor;
    void (*change)(Tensor&);
    std::string message;  // none: valid
  };
  using T = Tensor&;
  const Tensor m = matrix(4, 8), v = vector(5);
  const std::string offset = "Invalid data_offset: = 32 and num_elementst: = 32. Offset can't be greater or equal to ",
                    size = "num_elements (32) mismatch. Expected at least 33 = data_offset (1) + product of dims (32).",
                    strided = " mismatch for strided layout. Expected at least ", use = ". Use morun_tensor_";
  const Case cases[] = {
      {m, [](T t) { t.data = nullptr, t.ndims = 0; }, "tensor data pointer is NULL"},
      {m, [](T t) { t.ndims = 0; }, "Invalid ndims field: 0. ndims should be in [1, 2] range"},
      {m, [](T t) { t.dims[0] = t.strides[0] = 0; }, "Invalid dims[0] field : = 0.  The minimal dimension is 1"},
      {m, [](T t) { t.strides[0] = t.dims[1] = 0; }, "Invalid strides[0] field : = 0.  The minimal stride is 1"},
      {m, [](T t) { t.dims[1] = t.strides[1] = 0; }, "Invalid dims[1] field : = 0.  The minimal dimension is 1"},
      {m, [](T t) { t.strides[1] = t.num_elements = 0; }, "Invalid strides[1] field : = 0.  The minimal stride is 1"},
      {m, [](T t) { t.num_elements = 0; }, "Invalid num_elements field: = 0. Tensor must access at least one element."},
      {m, [](T t) { t.data_offset = 32; }, offset + "number of elements in tensor."},
      {m, [](T t) { t.data_offset = 1, t.layout = 0; }, size},
      {m, [](T t) { t.layout = 0, t.strides[0] = 9; }, "2D tensor, unsupported layout: = 0"},
      {m, [](T t) { t.layout = 7; }, "2D tensor, unsupported layout: = 7"},
      {m, [](T t) { t.strides[0] = 9; }, "2D tensor is not contiguous. Expected stride[0] = 8, got 9."},
      {m, [](T t) { t.strides[1] = 2, t.data_dtype = 6; },
       "2D tensor is not contiguous. Expected stride[1] = 1, got 2."},
      {m, [](T t) { t.layout = 6, t.is_contiguous = 2; }, ""},
      {m, [](T t) { t.data_dtype = 6; }, "Invalid data_dtype field : = 6" + use + "dtype_e to declare tensor type"},
      {m, [](T t) { t.quantization = 1; },
       "Invalid quantization field : = 1" + use + "quantization_e to declare tensor quantization"},
      {m, [](T t) { make_view(t, 10, 2, 45), t.layout = 7; },
       "Invalid layout field : = 7" + use + "layout_e to declare tensor layout"},
      {m, [](T t) { make_view(t, 10, 2, 45), t.layout = 0; }, ""},
      {m, [](T t) { make_view(t, 10, 2, 44); },
       "num_elements (44)" + strided + "45 = data_offset (0) + max index (45)."},
      {m, [](T t) { t.dims[0] = uint64_t{1} << 61; }, ""},  // times 8 columns: nothing at all, in 64 bits
      {v, [](T t) { t.layout = 1, t.strides[0] = 2; }, "1D tensor supported only in MORUN_LAYOUT_1D_LINEAR layout"},
      {v, [](T t) { t.strides[0] = 2; }, "1D tensor is not contiguous. Expected stride[0] = 1, got 2."},
      {v, [](T t) { make_view(t, 2, 0, 15), t.data_offset = 3; }, ""},
      {v, [](T t) { make_view(t, 2, 0, 14), t.data_offset = 3; },
       "num_elements (14)" + strided + "15 = data_offset (3) + max index (12)."}};
  for (const Case& c : cases) {
    Tensor t = c.tensor;
    c.change(t);
    const std::string status = t.data == nullptr ? "10" : "14";
    EXPECT_OUTCOME(morun_tensor_validate(&t),
                   c.message.empty() ? "0" : status + " tensor.tensor_validate: " + c.message);
  }
  EXPECT_OUTCOME(morun_tensor_validate(nullptr), "10 tensor.tensor_validate: tensor parameter is NULL");
}

TEST(TensorProduct, IsRefusedForItsFirstMismatch) {
  const Tensor a = matrix(4, 5), x = matrix(4, 8), w = matrix(8, 5), v4 = vector(4), v8 = vector(8);
  Tensor rank_0 = a, rank_1 = a, rank_3 = a, quantised = x, bad_a = a, bad_x = x, bad_w = w;
  rank_0.ndims = 0, rank_1.ndims = 1, rank_3.ndims = 3, quantised.quantization = 1;
  bad_a.layout = bad_x.layout = 3, bad_w.layout = 4;
  const std::string of = "Result tensor shape mismatch for ",
                    call = " tensor.mm_tensor_validate: ", names[] = {"Result", "Left", "Right"};
  struct Case {
    Tensor result, left, right;
    std::string message;
  };
  std::vector<Case> cases = {
      {vector(1), v8, v8, ""},
      {vector(5), v8, w, ""},
      {v4, x, v8, ""},
      {a, rank_0, rank_3, "Unsupported tensor ranks: left = 0, right = 3. Only 1D and 2D tensors are supported."},
      {a, quantised, a, "Left tensor must not be quantized. Found quantization = 1"},
      {v8, v8, v4, "1D x 1D mismatch: left dim = 8, right dim = 4"},
      {v4, v8, v8, of + "1D x 1D. Expected [1], got ndims = 1, dims[0] = 4"},
      {matrix(1, 1), v8, v8, of + "1D x 1D. Expected [1], got ndims = 2, dims[0] = 1"},
      {v4, x, a, "2D x 2D mismatch: left inner dim = 8, right outer dim = 4"},
      {x, x, w, of + "2D x 2D. Expected [4, 5], got [4, 8]"},
      {w, x, w, of + "2D x 2D. Expected [4, 5], got [8, 5]"},
      {rank_1, x, w, of + "2D x 2D. Expected [4, 5], got [4, 5]"},
      {v4, v4, w, "1D x 2D mismatch: left dim = 4, right rows = 8"},
      {v8, v8, w, of + "1D x 2D. Expected [5], got [8]"},
      {matrix(5, 1), v8, w, of + "1D x 2D. Expected [5], got [5]"},
      {v8, x, v4, "2D x 1D mismatch: left cols = 8, right dim = 4"},
      {v8, x, v8, of + "2D x 1D. Expected [4], got [8]"},
      {a, x, v8, of + "2D x 1D. Expected [4], got [4]"},
      {bad_a, bad_x, bad_w, "Left tensor illegal layout = 3"},
      {bad_a, x, bad_w, "Right tensor illegal layout = 4"}};
  const uint32_t illegal[] = {0xa8, 0xa8, 0xd0};  // layouts of result, left and right, as bits
  for (uint32_t i = 0, layout = 0; layout < 9; i = (i + 1) % 3, layout += i == 0) {
    Case c = {a, x, w, ""};
    std::array{&c.result, &c.left, &c.right}[i]->layout = layout;
    if ((illegal[i] >> layout & 1) != 0) c.message = names[i] + " tensor illegal layout = " + std::to_string(layout);
    cases.push_back(c);
  }
  for (const Case& c : cases)
    EXPECT_OUTCOME(morun_mm_tensor_validate(&c.result, &c.left, &c.right),
                   c.message.empty() ? "0" : "14" + call + c.message);
  const std::string null = "10" + call + "One or more tensor pointers are NULL.";
  EXPECT_OUTCOME(morun_mm_tensor_validate(nullptr, &rank_0, &rank_0), null);
  EXPECT_OUTCOME(morun_mm_tensor_validate(&rank_0, nullptr, &rank_0), null);
  EXPECT_OUTCOME(morun_mm_tensor_validate(&rank_0, &rank_0, nullptr), null);
}

}  // namespace

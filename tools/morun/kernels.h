// The products of both interfaces in one table: the operands of each, and how it is called.
#pragma once

#include <morun_tensor.h>
#include <tavik.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace tool {

enum class WeightKind { f16, a8w8, a8w4 };

// Where a kernel reads its activation and writes its results.
enum class Operands {
  converted,      // f32 row-major in ordinary memory, converted before and after the DSP's product
  own_buffers,    // f16 in tiles, in shared buffers
  cross_session,  // the caller puts bytes into X and takes sums out of A0
  host_f16,       // row-major in ordinary memory, computed on the host
  host_f32,
  upper,          // the upper interface, in the kernel's UpperForm
  upper_on_host,  // the upper interface, computed on the host
  bytes           // the self-test of the DSP module: no product
};

// How the operands of A = X * W stand in memory in the upper interface. A has the layout of X.
struct UpperForm {
  morun_tensor_dtype_e x = MORUN_DTYPE_F16;
  morun_tensor_layout_e x_layout = MORUN_LAYOUT_2D_RM;
  morun_tensor_layout_e w_layout = MORUN_LAYOUT_2D_WH;
  const char* shared = "";  // the operands of "AXW" that must be in shared buffers
  size_t row_multiple = 1;
  bool takes_tensors = false;
  bool packs_rows = false;  // writes the result's rows without gaps, whatever its row stride

  bool shares(char operand) const { return std::string_view(shared).find(operand) != std::string_view::npos; }
};

// A weight matrix in a shared buffer: byte offsets of its arrays. f16 weights have only values.
struct WeightArrays {
  uint32_t fd = 0;
  uint32_t values = 0;
  uint64_t zero_points = 0;
  uint64_t scales = 0;
  uint64_t sums = 0;
};

// One of the products of a call.
struct Product {
  int32_t n_col = 0;
  WeightArrays weights;
  const uint16_t* host_weights = nullptr;  // for host_f16 and host_f32: in zb blocks
  float* result = nullptr;                 // for converted, host_f16, host_f32
};

struct Call {
  tavik_context* context = nullptr;
  int32_t n_row = 0;  // for bytes: their number
  int32_t n_inner = 0;
  const void* x = nullptr;  // f32 for converted and host_f32, f16 for host_f16
  uint32_t a_offset = 0;    // for own_buffers: byte offsets in the buffer that holds the weights
  uint32_t x_offset = 0;
  std::array<Product, 3> products;
  std::array<morun_tensor, 3> tensors = {};  // for upper: A, X, W; some calls take only the data
};

struct Kernel {
  const char* name;  // of the library's function, and of its path
  Operands operands;
  WeightKind weights;
  size_t n_weights;
  uint32_t (*run)(const Call&);
  // The remote method of the same product, with the same arguments; nullptr: none.
  int (*run_remote)(uint64_t handle, const Call&);
  UpperForm form = {};

  bool is_quantised() const { return operands == Operands::converted && weights != WeightKind::f16; }
  bool is_upper() const { return operands == Operands::upper || operands == Operands::upper_on_host; }
  bool is_on_host() const {
    return operands == Operands::host_f16 || operands == Operands::host_f32 || operands == Operands::upper_on_host;
  }
  bool is_timed() const { return !is_upper() && operands != Operands::bytes; }
  bool takes_bytes() const { return operands == Operands::cross_session || form.x == MORUN_DTYPE_U8; }
  bool takes_f32() const {
    return operands == Operands::converted || operands == Operands::host_f32 || form.x == MORUN_DTYPE_F32;
  }
};

std::span<const Kernel> kernels();

// Returns the kernel that converts its activation.
const Kernel& kernel_for(WeightKind weights, size_t n_weights);

// Returns the kernels whose names contain `part`. Throws an Error when there are none.
std::vector<const Kernel*> kernels_named(std::string_view part);

}  // namespace tool

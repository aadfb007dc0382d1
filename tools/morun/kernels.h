// The products of both interfaces in one table: what each takes and how it is called.
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

// Where a kernel finds its activation and leaves its results.
enum class Operands {
  converted,      // f32 row-major in ordinary memory, converted on the way to the DSP and back
  own_buffers,    // f16 in tiles, in shared buffers
  cross_session,  // bytes that the caller puts into X, sums that it takes out of A0
  host_f16,       // row-major in ordinary memory, computed on the host
  host_f32,
  upper,          // the upper interface: as the kernel's form says
  upper_on_host,  // the same, computed on the host
  bytes           // the self-test of the DSP module: no product
};

// How the operands A = X * W of the upper interface stand in memory. A has X's layout.
struct UpperForm {
  morun_tensor_dtype_e x = MORUN_DTYPE_F16;
  morun_tensor_layout_e x_layout = MORUN_LAYOUT_2D_RM;
  morun_tensor_layout_e w_layout = MORUN_LAYOUT_2D_WH;
  const char* shared = "";  // which of "AXW" have to be in shared buffers; the others are in ordinary memory
  size_t row_multiple = 1;
  bool takes_tensors = false;
  bool packs_rows = false;  // of the result, whatever its row stride

  bool shares(char operand) const { return std::string_view(shared).find(operand) != std::string_view::npos; }
};

// A weight matrix in a shared buffer: where its arrays start, in bytes. f16 weights have values alone.
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
  const uint16_t* host_weights = nullptr;  // host_f16, host_f32: in zb blocks
  float* result = nullptr;                 // converted, host_f16, host_f32
};

struct Call {
  tavik_context* context = nullptr;
  int32_t n_row = 0;  // bytes: how many
  int32_t n_inner = 0;
  const void* x = nullptr;  // converted, host_f32: f32; host_f16: f16
  uint32_t a_offset = 0;    // own_buffers: bytes from the start of the buffer that holds the weights
  uint32_t x_offset = 0;
  std::array<Product, 3> products;
  std::array<morun_tensor, 3> tensors = {};  // upper: A, X, W, of which some calls take the data alone
};

struct Kernel {
  const char* name;  // of the library's function, and which of its paths
  Operands operands;
  WeightKind weights;
  size_t n_weights;
  uint32_t (*run)(const Call&);
  int (*run_remote)(uint64_t handle, const Call&);  // its remote method, with the same arguments; nullptr: it has none
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

// The one with a converted activation.
const Kernel& kernel_for(WeightKind weights, size_t n_weights);

// Those whose names contain `part`. Throws an Error when there are none.
std::vector<const Kernel*> kernels_named(std::string_view part);

}  // namespace tool

// The kernels of the lower interface in one table: what each takes and how it is called.
#pragma once

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
  bytes  // the self-test of the DSP module: no product
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
};

struct Kernel {
  const char* name;  // of the library's function
  Operands operands;
  WeightKind weights;
  size_t n_weights;
  uint32_t (*run)(const Call&);
  int (*run_remote)(uint64_t handle, const Call&);  // its remote method, with the same arguments; nullptr on the host

  bool is_quantised() const { return operands == Operands::converted && weights != WeightKind::f16; }
  bool is_on_host() const { return run_remote == nullptr; }
};

std::span<const Kernel> kernels();

// The one with a converted activation.
const Kernel& kernel_for(WeightKind weights, size_t n_weights);

// Those whose names contain `part`. Throws an Error when there are none.
std::vector<const Kernel*> kernels_named(std::string_view part);

}  // namespace tool

// Operands with which a kernel is verified or timed. Their values are random or extreme. They are written into their
// layouts element by element, by the definitions of the layouts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tools/morun/files/matrix.h"
#include "tools/morun/kernels.h"
#include "tools/morun/library.h"
#include "tools/morun/product.h"

namespace tool {

enum class Values { random, whole, extreme };

struct WeightOperand {
  Matrix values;  // as stored: reals that binary16 can represent, or integers
  // Zero points and scales of quantised weights, one for each column.
  std::vector<int> zero_points;
  std::vector<double> scales;  // that binary16 can represent
  std::vector<int64_t> sums;
};

struct OperandSet {
  Matrix x;
  std::vector<WeightOperand> weights;
};

// Equal seeds give equal operands.
OperandSet make_operands(const Kernel& kernel, const ProductShape& shape, Values values, uint64_t seed);

// Writes weight (k, c) to its place in the wh form of `kind`. Memory for 4-bit weights must be zero before.
void write_weight(WeightKind kind, uint8_t* base, size_t k, size_t c, size_t n_col, float value);

// A shared buffer that is filled from its start.
class Region {
 public:
  Region(tavik_context* context, uint64_t size) : buffer_(context, size), size_(size) {}

  uint32_t fd() const { return buffer_.fd(); }
  void clear() { used_ = 0; }
  // Takes `n_byte` more bytes and returns their offset, a multiple of 2048.
  uint32_t take(uint64_t n_byte);

  template <typename Element>
  Element* at(uint64_t offset) const {
    return reinterpret_cast<Element*>(static_cast<std::byte*>(buffer_.data()) + offset);
  }

 private:
  SharedBuffer buffer_;
  uint64_t size_;
  uint64_t used_ = 0;
};

// Returns the bytes that a region needs for all operands of any kernel of this shape.
uint64_t region_bytes(const ProductShape& shape);

// Returns limits under which every kernel takes this shape.
tavik_options options_for(const ProductShape& shape);

// A call that is ready to run, and the memory that it uses.
class PreparedCall {
 public:
  // Weight matrix i goes into regions[i].
  PreparedCall(tavik_context* context, const Kernel& kernel, const OperandSet& operands,
               const std::vector<Region*>& regions);
  PreparedCall(const PreparedCall&) = delete;
  PreparedCall& operator=(const PreparedCall&) = delete;

  const Call& call() const { return call_; }
  // Returns element (r, c) of result i.
  double result(size_t i, size_t r, size_t c) const;

  // The value of all results in ordinary memory before the call.
  static constexpr float untouched = -0x1.234p100f;
  // Returns the sum that element (r, c) of cross-session result buffer i holds before the call.
  static int32_t earlier_sum(size_t i, size_t r, size_t c);

 private:
  void write_activation(const Matrix& x, Region& region);
  void write_weights(const WeightOperand& weights, Region& region, Product& product);
  void prepare_result(size_t i, Region& region);

  const Kernel& kernel_;
  Call call_;
  std::vector<float> x_;
  std::vector<uint16_t> x_halves_;
  std::vector<uint16_t> host_weights_;
  std::vector<std::vector<float>> results_;
  uint16_t* own_result_ = nullptr;  // for own_buffers
};

}  // namespace tool

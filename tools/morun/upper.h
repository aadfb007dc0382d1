// The upper interface: its process-wide context, and calls that are ready to run.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "tools/morun/kernels.h"
#include "tools/morun/operands.h"

namespace tool {

// The constructor opens the upper interface, the destructor closes it. While another context is open, a platform may
// refuse to open this one.
class UpperInterface {
 public:
  UpperInterface();
  ~UpperInterface();
  UpperInterface(const UpperInterface&) = delete;
  UpperInterface& operator=(const UpperInterface&) = delete;
};

// The answers of the version query.
struct UpperVersions {
  int32_t status = 0;
  std::string library, dsp_module;  // empty when unknown
};
UpperVersions upper_versions();

// A call of the upper interface, and the memory that it uses.
class UpperCall {
 public:
  // In the result, `row_gap` elements behind each row do not belong to the result.
  UpperCall(const Kernel& kernel, const OperandSet& operands, size_t row_gap);

  const Call& call() const { return call_; }
  double result(size_t i, size_t r, size_t c) const;
  // Tells whether the memory around and between the result's elements is unchanged.
  bool leaves_the_rest() const;

 private:
  using Memory = std::unique_ptr<void, void (*)(void*)>;

  void allocate(char operand, morun_tensor& tensor, int filler);
  void write_activation(const Matrix& x);
  void write_weights(const Matrix& w);
  size_t place_of_result(size_t r, size_t c) const;

  const Kernel& kernel_;
  Call call_;
  std::vector<Memory> memory_;
};

}  // namespace tool

// The upper interface: its process-wide context, and calls that are ready to be run.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "tools/morun/kernels.h"
#include "tools/morun/operands.h"

namespace tool {

// Opens the upper interface, and closes it. A platform may refuse it while another context is open.
class UpperInterface {
 public:
  UpperInterface();
  ~UpperInterface();
  UpperInterface(const UpperInterface&) = delete;
  UpperInterface& operator=(const UpperInterface&) = delete;
};

// What the version query answers.
struct UpperVersions {
  int32_t status = 0;
  std::string library, dsp_module;  // empty where it is not known
};
UpperVersions upper_versions();

// A call of the upper interface, and the memory that it works on.
class UpperCall {
 public:
  // Each row of the result is followed by `row_gap` elements that are not its own.
  UpperCall(const Kernel& kernel, const OperandSet& operands, size_t row_gap);

  const Call& call() const { return call_; }
  double result(size_t i, size_t r, size_t c) const;
  // Of the memory around and between the result's elements.
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

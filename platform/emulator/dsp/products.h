// Products of matrices in shared memory: what may be computed, and how it is where the buffers end early or overlap.
#pragma once

#include <cstdint>
#include <initializer_list>

#include "platform/emulator/dsp/matrix_unit.h"
#include "platform/emulator/dsp/session.h"

namespace parlo::dsp {

struct MatrixPlace {
  ViewPointer view;     // nullptr for a buffer that is not mapped
  uint64_t offset = 0;  // bytes
};

struct Operands {
  uint32_t n_row, n_col, n_inner;
  MatrixPlace A, X, W;
};

// Computes all products, or, where a check of any of them fails, none, and returns that check's status. Operands are
// read as they are before the first result is written.
//
// Columns and inner dimension are in whole tiles, and so are rows unless the kind takes any number. Then a last band
// that is asked for in part is computed in whole if activation and result reach as far, else only the rows asked for.
int32_t multiply(const ProductKind& kind, std::initializer_list<Operands> products);

}  // namespace parlo::dsp

// Products of matrices in shared memory. This file decides which products may be computed, and handles buffers that end
// early or overlap.
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

// Computes all products. When a check of any product fails, computes none and returns that check's status. All operands
// are read before the first result is written.
//
// Columns and inner dimension must be whole tiles, and rows too, unless the kind takes any number of rows. The last
// band may then have fewer rows. It is computed in whole if activation and result have room for whole tiles, otherwise
// only its rows.
int32_t multiply(const ProductKind& kind, std::initializer_list<Operands> products);

}  // namespace parlo::dsp

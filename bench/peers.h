// The nearest operations of a well-known library, oneDNN, for comparison. oneDNN runs on one thread and with the vector
// instructions of this build. A peer moves as many bytes or multiplies as much as the library's operation, in layouts
// of its own.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace bench {

enum class Element { f32, i32, u8, i8 };

// Row-major, row-major blocks of 16 x 16, column-major.
enum class Arrangement { rows, blocks, columns };

struct PeerMatrix {
  Element element;
  Arrangement arrangement;
};

using Peer = std::function<void()>;

// Copies from one memory to another, with a given scale when `scaled` is true.
Peer reorder_peer(size_t n_row, size_t n_col, PeerMatrix from, PeerMatrix to, bool scaled = false);

// Operands are row-major. A product of u8 and i8 to i32 is exact only where the processor's instructions are exact.
Peer matmul_peer(size_t n_row, size_t n_col, size_t n_inner, Element left, Element right, Element result);

std::string onednn_description();

}  // namespace bench

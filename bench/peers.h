// The nearest that a well-known library offers, for comparison: oneDNN, on one thread, with the vectors that this build
// uses. A peer's operation moves as many bytes or multiplies as much as ours; its layouts are its own.
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

// From one memory to another, with one given scale where `scaled`.
Peer reorder_peer(size_t n_row, size_t n_col, PeerMatrix from, PeerMatrix to, bool scaled = false);

// Row-major operands; u8 by i8 to i32 is exact only as far as the processor's instructions are.
Peer matmul_peer(size_t n_row, size_t n_col, size_t n_inner, Element left, Element right, Element result);

std::string onednn_description();

}  // namespace bench

// Changes of layout and of precision, and quantisation, on the host.
#include <fmt/format.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "bench/memory.h"
#include "bench/peers.h"
#include "bench/row.h"
#include "bench/yardsticks.h"
#include "include/morun.h"
#include "include/tavik.h"

namespace bench {
namespace {

struct Shape {
  uint64_t n_row, n_col;
};
constexpr std::array<Shape, 3> shapes = {{{128, 2048}, {1024, 4096}, {4096, 4096}}};

// Filled memory, which converts to a pointer of any element type.
struct Memory {
  std::shared_ptr<std::byte> bytes;
  template <class T>
  operator T*() const {
    return reinterpret_cast<T*>(bytes.get());
  }
};

// The data that quantisation stores for each row or for each column, at most 4 bytes each.
struct Vectors {
  Memory scales, sums, zero_points;
};

// The operands of every conversion. A conversion uses only some of them.
struct Operands {
  Shape shape;
  Memory source, target;
  Vectors rows, columns;
};

using Convert = std::function<void(const Operands&)>;

template <class Function>
Convert in_place(Function convert) {
  return [convert](const Operands& o) { convert(o.shape.n_row, o.shape.n_col, o.target); };
}

template <class Function>
Convert matrix(Function convert) {
  return [convert](const Operands& o) { convert(o.shape.n_row, o.shape.n_col, o.source, o.target); };
}

template <class Function>
Convert elements(Function convert) {
  return [convert](const Operands& o) { convert(o.shape.n_row * o.shape.n_col, o.source, o.target); };
}

template <class Function>
Convert activation(Function quantise) {
  return [quantise](const Operands& o) {
    quantise(o.shape.n_row, o.shape.n_col, o.source, o.target, o.rows.scales, o.rows.sums);
  };
}

// Quantises to a plane of high bytes and a plane of low bytes behind it.
template <class Function>
Convert activation_in_two(Function quantise) {
  return [quantise](const Operands& o) {
    uint8_t* const high = o.target;
    quantise(o.shape.n_row, o.shape.n_col, o.source, high, high + o.shape.n_row * o.shape.n_col, o.rows.scales,
             o.rows.sums);
  };
}

template <class Function>
Convert weights(Function quantise) {
  return [quantise](const Operands& o) {
    quantise(o.shape.n_row, o.shape.n_col, o.source, o.target, o.rows.zero_points, o.rows.scales, o.rows.sums);
  };
}

template <class Function>
Convert output(Function dequantise) {
  return [dequantise](const Operands& o) {
    const auto n_row = static_cast<int32_t>(o.shape.n_row), n_col = static_cast<int32_t>(o.shape.n_col);
    const int32_t n_inner = 2048;  // any value will do
    dequantise(n_row, n_col, n_inner, o.target, o.source, o.rows.scales, o.rows.sums, o.columns.zero_points,
               o.columns.scales, o.columns.sums);
  };
}

void bytes_to_tiles(const Operands& o) {
  morun_cpu_rm_to_wh_i8(o.shape.n_col, o.shape.n_row, o.source, o.target);
}
void nibbles_to_tiles(const Operands& o) {
  morun_cpu_rm_to_wh_i4(o.target, o.source, o.shape.n_col, o.shape.n_row);
}
void flat_to_weight(const Operands& o) {
  tavik_host_layout_w4_flat_to_weight(o.target, o.source, o.shape.n_row, o.shape.n_col);
}

// The block size of the f16 tiles, 16 x 64.
template <class Function>
Convert blocks(Function rearrange) {
  return [rearrange](const Operands& o) { rearrange(o.shape.n_row, o.shape.n_col, 16, 64, o.target); };
}

// oneDNN reorders f32 where the library converts smaller elements. There are fewer rows then, so both move equally many
// bytes.
struct PeerReorder {
  PeerMatrix from, to;
  uint64_t row_divisor = 1;
  bool scaled = false;
};

constexpr PeerMatrix rows_of(Element element) {
  return {element, Arrangement::rows};
}
constexpr PeerMatrix f32_rows = rows_of(Element::f32), f32_blocks = {Element::f32, Arrangement::blocks},
                     f32_columns = {Element::f32, Arrangement::columns};
constexpr PeerReorder to_blocks = {f32_rows, f32_blocks, 2}, from_blocks = {f32_blocks, f32_rows, 2},
                      transposing_halves = {f32_rows, f32_columns, 2}, transposing_bytes = {f32_rows, f32_columns, 4},
                      transposing_nibbles = {f32_rows, f32_columns, 8}, transposing = {f32_rows, f32_columns},
                      quantising = {f32_rows, rows_of(Element::u8), 1, true},
                      dequantising = {rows_of(Element::i32), f32_rows, 1, true};

struct Conversion {
  const char* name;
  double bytes_read, bytes_written;          // of an element; vectors do not count
  std::array<Wanted, shapes.size()> wanted;  // for each shape
  Convert convert;
  std::optional<PeerReorder> peer = {};
};

constexpr std::array<Wanted, shapes.size()> in_place_wanted = {{{0.65, 0.55}, {}, {1.1, 1.1}}},
                                            widening_wanted = {{{0.90, 0.80}, {}, {0.90, 0.80}}},
                                            narrowing_wanted = {{{0.85, 0.80}, {}, {0.85, 0.80}}},
                                            quantising_wanted = {{{0.60, 0.50}, {}, {0.85, 0.80}}},
                                            plain_wanted = {{{}, {}, {0.90, 0.85}}},
                                            weights_wanted = {{{}, {}, {0.60, 0.30}}},
                                            flat_wanted = {{{}, {}, {0.80, 0.60}}};

const Conversion conversions[] = {
    {"f16_rm_to_f16_ah_inplace", 2, 2, in_place_wanted, in_place(tavik_f16_rm_to_f16_ah_inplace), to_blocks},
    {"f16_ah_to_f16_rm_inplace", 2, 2, in_place_wanted, in_place(tavik_f16_ah_to_f16_rm_inplace), from_blocks},
    {"f16_rm_to_f16_wh_inplace", 2, 2, in_place_wanted, in_place(tavik_f16_rm_to_f16_wh_inplace), transposing_halves},
    {"i8_rm_to_i8_wh_inplace", 1, 1, in_place_wanted, in_place(tavik_i8_rm_to_i8_wh_inplace), transposing_bytes},
    {"i4_rm_to_i4_wh_inplace", 0.5, 0.5, in_place_wanted, in_place(tavik_i4_rm_to_i4_wh_inplace), transposing_nibbles},
    {"f32_rm_to_f16_ah", 4, 2, narrowing_wanted, matrix(tavik_f32_rm_to_f16_ah)},
    {"f16_ah_to_f32_rm", 2, 4, widening_wanted, matrix(tavik_f16_ah_to_f32_rm)},
    {"f32_to_f16", 4, 2, plain_wanted, elements(tavik_f32_to_f16)},
    {"f16_to_f32", 2, 4, plain_wanted, elements(tavik_f16_to_f32)},
    {"f32_rm_to_u8_ah", 4, 1, quantising_wanted, activation(tavik_f32_rm_to_u8_ah), quantising},
    {"f32_rm_to_u8_rm", 4, 1, {}, activation(tavik_f32_rm_to_u8_rm)},
    {"f32_rm_to_u16_rm", 4, 2, {}, activation_in_two(tavik_f32_rm_to_u16_rm)},
    {"f16_rm_to_i8_rm", 2, 1, weights_wanted, weights(tavik_f16_rm_to_i8_rm)},
    {"f16_rm_to_i4_rm", 2, 0.5, weights_wanted, weights(tavik_f16_rm_to_i4_rm)},
    {"a8w8_output_to_f32_rm", 4, 4, quantising_wanted, output(tavik_a8w8_output_to_f32_rm), dequantising},
    {"a8w4_output_to_f32_rm", 4, 4, quantising_wanted, output(tavik_a8w4_output_to_f32_rm), dequantising},
    {"ui8i8_ah_to_i32_rm", 4, 4, {}, matrix(morun_cpu_ui8i8_ah_to_i32_rm)},
    {"rm_to_wh_i8", 1, 1, {}, bytes_to_tiles},
    {"rm_to_wh_i4", 1, 0.5, {}, nibbles_to_tiles},
    {"w4_flat_to_weight", 1, 0.5, flat_wanted, flat_to_weight},
    {"f16_cm_to_f16_zb_inplace", 2, 2, {}, in_place(tavik_f16_cm_to_f16_zb_inplace), to_blocks},
    {"matrix_block_linearize_f16", 2, 2, {}, blocks(tavik_matrix_block_linearize_f16), to_blocks},
    {"matrix_block_unlinearize_f16", 2, 2, {}, blocks(tavik_matrix_block_unlinearize_f16), from_blocks},
    {"matrix_transpose_f16", 2, 2, {}, in_place(tavik_matrix_transpose_f16), transposing_halves},
    {"matrix_transpose_f32", 4, 4, {}, in_place(tavik_matrix_transpose_f32), transposing},
};

Vectors vectors(uint64_t n_element) {
  const auto memory = [n_element] { return Memory{filled_memory(4 * n_element)}; };
  return {memory(), memory(), memory()};
}

Work prepare(const Conversion& conversion, Shape shape) {
  const auto bytes = [shape](double bytes_of_element) {
    return static_cast<size_t>(bytes_of_element * static_cast<double>(shape.n_row * shape.n_col));
  };
  const Operands operands = {shape,
                             {filled_memory(bytes(conversion.bytes_read))},
                             {filled_memory(bytes(conversion.bytes_written))},
                             vectors(shape.n_row),
                             vectors(shape.n_col)};
  Work work = {[convert = conversion.convert, operands] { convert(operands); },
               memcpy_yardstick(bytes(conversion.bytes_read + conversion.bytes_written))};
  if (conversion.peer)
    work.peer = reorder_peer(shape.n_row / conversion.peer->row_divisor, shape.n_col, conversion.peer->from,
                             conversion.peer->to, conversion.peer->scaled);
  return work;
}

}  // namespace

std::vector<Row> conversion_rows() {
  std::vector<Row> rows;
  for (const Conversion& conversion : conversions) {
    for (size_t i = 0; i < shapes.size(); ++i) {
      const Shape shape = shapes[i];
      rows.push_back({fmt::format("{}/{}x{}", conversion.name, shape.n_row, shape.n_col),
                      wanted_here(conversion.wanted[i]), [&conversion, shape] { return prepare(conversion, shape); }});
    }
  }
  return rows;
}

}  // namespace bench

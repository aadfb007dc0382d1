#include "source/loops.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>

#include "source/loops/quantise.h"
#include "source/loops/scratch.h"

namespace tavik::inline MORUN_BACKEND {
namespace {

namespace simd = morun::simd;

constexpr int32_t infinity_bits = 0x7f800000;

int32_t magnitude_bits(float x) {
  return static_cast<int32_t>(std::bit_cast<uint32_t>(x) & 0x7fffffffu);
}

// Returns the bit pattern of the largest magnitude. A NaN counts as larger than every number.
int32_t largest_magnitude_bits(const float* row, uint64_t n_col) {
  simd::i32x8 largest[4] = {};
  uint64_t c = 0;
  for (; c + segment_cols <= n_col; c += segment_cols)
    for (size_t i = 0; i < 4; ++i) largest[i] = simd::greater_magnitude(row + c + 8 * i, largest[i]);
  int32_t bits = simd::greatest(simd::greater(simd::greater(largest[0], largest[1]),  //
                                              simd::greater(largest[2], largest[3])));
  for (; c < n_col; ++c) bits = std::max(bits, magnitude_bits(row[c]));
  return bits;
}

// Returns the largest magnitude among the elements that are not NaN, or 0 when there is none.
float largest_number(const float* row, uint64_t n_col) {
  float largest = 0;
  for (uint64_t c = 0; c < n_col; ++c)
    if (std::fabs(row[c]) > largest) largest = std::fabs(row[c]);
  return largest;
}

struct Step {
  float scale;
  float inverse;
  // True when no element is NaN or infinite and twice the inverse is finite. Then the magnitude of every quotient stays
  // within the divisor.
  bool is_ordinary;
};

Step step_of(const float* row, uint64_t n_col, float divisor) {
  const int32_t bits = largest_magnitude_bits(row, n_col);
  const float largest = bits > infinity_bits ? largest_number(row, n_col) : std::bit_cast<float>(bits);
  const float scale = largest / divisor;
  const float inverse = scale != 0 ? 1 / scale : 0;
  return {scale, inverse, bits < infinity_bits && std::isfinite(2 * inverse)};
}

// Rounds half away from zero. NaN gives 0, and a value out of range gives the nearest bound.
int32_t nearest_integer(float x) {
  const float rounded = std::round(x);
  if (rounded >= 0x1p31f) return INT32_MAX;
  if (rounded < -0x1p31f) return INT32_MIN;
  return rounded == rounded ? static_cast<int32_t>(rounded) : 0;
}

// The two places where the bytes of a row can go. Segments of a row lie `pitch` bytes apart, from row(index) on.
struct RowMajor {
  static constexpr uint64_t pitch = segment_cols;
  uint8_t* dst;
  uint64_t n_col;

  uint8_t* row(uint64_t index) const { return dst + index * n_col; }
};
struct Tiles {
  static constexpr uint64_t pitch = tall_tile_elements;
  uint8_t* dst;
  uint64_t tiles_per_row;

  uint8_t* row(uint64_t index) const {
    return dst + index / tall_tile_rows * tiles_per_row * tall_tile_elements + index % tall_tile_rows * segment_cols;
  }
};

// To8Bits and To16Bits quantise one row. put_segment stores a whole segment and adds the segment's values to a vector
// of sums. total adds up that vector. put_one stores a single value and returns the value's contribution to the sum.
//
// To8Bits stores 8 bits with an offset of 128. Kept: the sum adds v + 128 before v + 128 is cut to the 8 bits that are
// stored.
template <class Layout>
class To8Bits {
 public:
  static constexpr float divisor = 127;

  To8Bits(const Layout& layout, uint64_t row) : row_(layout.row(row)) {}
  simd::i32x8 put_segment(uint64_t column, const float* from, simd::f32x8 inverse, simd::i32x8 sums) const {
    const simd::u8x32 bytes = simd::flip_top_bits(simd::scale_to_bytes(from, inverse));
    simd::store(segment(column), bytes);
    return simd::add_bytes(sums, bytes);
  }
  static uint32_t total(simd::i32x8 sums, uint64_t) { return simd::sum(sums); }
  uint32_t put_one(uint64_t column, int32_t v) const {
    const uint32_t q = static_cast<uint32_t>(v) + 128;
    segment(column)[column % segment_cols] = static_cast<uint8_t>(q);
    return q;
  }

 private:
  uint8_t* segment(uint64_t column) const { return row_ + column / segment_cols * Layout::pitch; }
  uint8_t* row_;
};

struct Planes {
  RowMajor high, low;
};

// To16Bits stores 16 bits with an offset of 32768, in two planes of bytes. The sum adds the 16 bits that are stored.
class To16Bits {
 public:
  static constexpr float divisor = 32767;

  To16Bits(const Planes& planes, uint64_t row) : high_(planes.high.row(row)), low_(planes.low.row(row)) {}
  simd::i32x8 put_segment(uint64_t column, const float* from, simd::f32x8 inverse, simd::i32x8 sums) const {
    Segment v;
    for (size_t i = 0; i < 4; ++i) v[i] = simd::to_nearest(simd::multiply(simd::load(from + 8 * i), inverse));
    simd::store(high_ + column, simd::flip_top_bits(simd::pack_high_bytes(v[0], v[1], v[2], v[3])));
    simd::store(low_ + column, simd::pack_low_bytes(v[0], v[1], v[2], v[3]));
    return simd::add(sums, simd::add(simd::add(v[0], v[1]), simd::add(v[2], v[3])));
  }
  static uint32_t total(simd::i32x8 sums, uint64_t n_segments) {
    return simd::sum(sums) + static_cast<uint32_t>(n_segments * segment_cols) * offset;
  }
  uint32_t put_one(uint64_t column, int32_t v) const {
    const auto q = static_cast<uint16_t>(static_cast<uint32_t>(v) + offset);
    high_[column] = static_cast<uint8_t>(q >> 8);
    low_[column] = static_cast<uint8_t>(q);
    return q;
  }

 private:
  static constexpr uint32_t offset = 32768;
  uint8_t* high_;
  uint8_t* low_;
};

template <class Row>
uint32_t quantise_singly(const float* src, uint64_t begin, uint64_t end, float inverse, const Row& row) {
  uint32_t sum = 0;
  for (uint64_t c = begin; c < end; ++c) sum += row.put_one(c, nearest_integer(src[c] * inverse));
  return sum;
}

// Quantises `count` consecutive ordinary rows together, and prefetches the same number of rows behind them.
template <size_t count, class Row>
void quantise_ordinary(const float* src, const float* end, uint64_t n_col, const Step* steps,
                       std::array<Row, count> rows, uint32_t* sums) {
  const uint64_t ahead = static_cast<uint64_t>(end - src) >= 2 * count * n_col ? count * n_col : 0;
  simd::f32x8 inverses[count];
  for (size_t r = 0; r < count; ++r) inverses[r] = simd::broadcast(steps[r].inverse);
  simd::i32x8 segment_sums[count] = {};
  uint64_t c = 0;
  for (; c + segment_cols <= n_col; c += segment_cols) {
    for (size_t r = 0; r < count; ++r) {
      simd::prefetch(src + ahead + r * n_col + c);
      simd::prefetch(src + ahead + r * n_col + c + segment_cols / 2);
    }
    for (size_t r = 0; r < count; ++r)
      segment_sums[r] = rows[r].put_segment(c, src + r * n_col + c, inverses[r], segment_sums[r]);
  }
  for (size_t r = 0; r < count; ++r)
    sums[r] = Row::total(segment_sums[r], n_col / segment_cols) +
              quantise_singly(src + r * n_col, c, n_col, steps[r].inverse, rows[r]);
}

// `end` is the end of the source, which may have more rows.
template <class Row, class Destination>
void quantise_activation(uint64_t n_row, uint64_t n_col, const float* src, const float* end, const Destination& dst,
                         float* scales, uint32_t* sums) {
  uint64_t r = 0;
  while (r < n_row) {
    const float* const from = src + r * n_col;
    const size_t count = std::min<uint64_t>(2, n_row - r);  // the two rows of a tile that share cache lines
    Step steps[2] = {};
    for (size_t i = 0; i < count; ++i) steps[i] = step_of(from + i * n_col, n_col, Row::divisor);
    if (count == 2 && steps[0].is_ordinary && steps[1].is_ordinary) {
      quantise_ordinary<2, Row>(from, end, n_col, steps, {Row(dst, r), Row(dst, r + 1)}, sums + r);
    } else {
      for (size_t i = 0; i < count; ++i) {
        const float* const row = from + i * n_col;
        if (steps[i].is_ordinary)
          quantise_ordinary<1, Row>(row, end, n_col, steps + i, {Row(dst, r + i)}, sums + r + i);
        else
          sums[r + i] = quantise_singly(row, 0, n_col, steps[i].inverse, Row(dst, r + i));
      }
    }
    for (size_t i = 0; i < count; ++i) scales[r + i] = steps[i].scale;
    r += count;
  }
}

// The tiles of 64 rows are collected in the second-level cache before they are written past the caches.
constexpr uint64_t most_collected = 512 << 10;  // bytes

// Does the work of f32_rm_to_u8_ah for the rows of whole tiles, past the caches. The tiles of 64 rows are neighbours in
// memory. Returns the number of rows that are done: none where there is no memory to collect tiles in.
uint64_t stream_to_tiles(uint64_t n_row, uint64_t n_col, const float* src, uint8_t* dst, float* scales,
                         uint32_t* sums) {
  const uint64_t n_collected = tall_tile_rows * n_col;
  const Scratch scratch(n_collected);
  if (!scratch) return 0;
  const Tiles tiles = {reinterpret_cast<uint8_t*>(scratch.bytes()), n_col / tile_side};
  uint64_t row = 0;
  for (; row + tall_tile_rows <= n_row; row += tall_tile_rows) {
    quantise_activation<To8Bits<Tiles>>(tall_tile_rows, n_col, src + row * n_col, src + n_row * n_col, tiles,
                                        scales + row, sums + row);
    copy_streaming(dst + row * n_col, tiles.dst, n_collected);
  }
  simd::fence_streaming();
  return row;
}

}  // namespace

void f32_rm_to_u8_rm(uint64_t n_row, uint64_t n_col, const float* src, uint8_t* dst, float* scales, uint32_t* sums) {
  quantise_activation<To8Bits<RowMajor>>(n_row, n_col, src, src + n_row * n_col, RowMajor{dst, n_col}, scales, sums);
}

void f32_rm_to_u8_ah(uint64_t n_row, uint64_t n_col, const float* src, uint8_t* dst, float* scales, uint32_t* sums) {
  const bool streams = should_stream(5 * n_row * n_col, dst) && n_row >= tall_tile_rows &&
                       n_col <= most_collected / tall_tile_rows && n_col % segment_cols == 0;
  const uint64_t done = streams ? stream_to_tiles(n_row, n_col, src, dst, scales, sums) : 0;
  const Tiles rest = {dst + done * n_col, divide_up(n_col, tile_side)};
  quantise_activation<To8Bits<Tiles>>(n_row - done, n_col, src + done * n_col, src + n_row * n_col, rest, scales + done,
                                      sums + done);
}

void f32_rm_to_u16_rm(uint64_t n_row, uint64_t n_col, const float* src, uint8_t* high, uint8_t* low, float* scales,
                      uint32_t* sums) {
  quantise_activation<To16Bits>(n_row, n_col, src, src + n_row * n_col, Planes{{high, n_col}, {low, n_col}}, scales,
                                sums);
}

}  // namespace tavik::inline MORUN_BACKEND

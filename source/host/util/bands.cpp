#include "source/host/util/bands.h"

#include <algorithm>
#include <cstring>

#include "source/host/util/blocks.h"
#include "source/host/util/scratch.h"
#include "source/simd/simd.h"

namespace tavik {
namespace {

namespace simd = morun::simd;

constexpr size_t tile_cols = 32;
constexpr size_t half_tile_bytes = band_rows * tile_cols * 2;
constexpr size_t word_column_bytes = band_rows * 4;

// The rows of one band in scratch memory. Their pitch is a cache line longer than a row: rows of a power of two would
// all fall into the same sets of the first-level cache.
class BandRows {
 public:
  explicit BandRows(size_t row_bytes)
      : row_bytes_(row_bytes),
        pitch_((row_bytes + Scratch::line - 1) / Scratch::line * Scratch::line + Scratch::line),
        scratch_(band_rows * pitch_) {}
  explicit operator bool() const { return static_cast<bool>(scratch_); }
  size_t pitch() const { return pitch_; }
  std::byte* row(size_t index) const { return scratch_.bytes() + index * pitch_; }

  void read(const std::byte* band) const {
    for (size_t i = 0; i < band_rows; ++i) memcpy(row(i), band + i * row_bytes_, row_bytes_);
  }
  void write(std::byte* band) const {
    for (size_t i = 0; i < band_rows; ++i) memcpy(band + i * row_bytes_, row(i), row_bytes_);
  }

 private:
  size_t row_bytes_;
  size_t pitch_;
  Scratch scratch_;
};

// Fetches the next band into the caches, a little with each step of the work on this one.
class NextBand {
 public:
  NextBand(const std::byte* begin, const std::byte* end) : next_(begin), end_(end) {}
  void fetch(size_t bytes) {
    const std::byte* const stop = next_ + std::min(bytes, static_cast<size_t>(end_ - next_));
    for (; next_ < stop; next_ += Scratch::line) simd::prefetch(next_);
  }

 private:
  const std::byte* next_;
  const std::byte* end_;
};

const uint16_t* halves(const std::byte* p) {
  return reinterpret_cast<const uint16_t*>(p);
}
uint16_t* halves(std::byte* p) {
  return reinterpret_cast<uint16_t*>(p);
}

void interleave_tile(const BandRows& rows, size_t tile, std::byte* to) {
  for (size_t row = 0; row < band_rows; row += 2) {
    const uint16_t* const even = halves(rows.row(row)) + tile * tile_cols;
    const uint16_t* const odd = halves(rows.row(row + 1)) + tile * tile_cols;
    uint16_t* const pair = halves(to) + row * tile_cols;
    for (size_t i = 0; i < tile_cols; i += 8) {
      const simd::f16x8 a = simd::load(even + i), b = simd::load(odd + i);
      simd::store(pair + 2 * i, simd::zip_low(a, b));
      simd::store(pair + 2 * i + 8, simd::zip_high(a, b));
    }
  }
}

void separate_tile(const std::byte* from, size_t tile, const BandRows& rows) {
  for (size_t row = 0; row < band_rows; row += 2) {
    const uint16_t* const pair = halves(from) + row * tile_cols;
    uint16_t* const even = halves(rows.row(row)) + tile * tile_cols;
    uint16_t* const odd = halves(rows.row(row + 1)) + tile * tile_cols;
    for (size_t i = 0; i < tile_cols; i += 8) {
      const simd::f16x8 a = simd::load(pair + 2 * i), b = simd::load(pair + 2 * i + 8);
      simd::store(even + i, simd::unzip_even(a, b));
      simd::store(odd + i, simd::unzip_odd(a, b));
    }
  }
}

uint32_t map_word(WordMap map, uint32_t word) {
  return map == WordMap::keep ? word : simd::zip_nibbles(word);
}

void transpose_word_columns(const BandRows& rows, size_t first_word, WordMap map, std::byte* to) {
  for (size_t row = 0; row < band_rows; row += 8) {
    const std::byte* const from = rows.row(row) + 4 * first_word;
    if (map == WordMap::keep)
      simd::transpose_words(from, rows.pitch(), to + 4 * row, word_column_bytes);
    else
      simd::transpose_zip_nibbles(from, rows.pitch(), to + 4 * row, word_column_bytes);
  }
}

void transpose_word_column(const BandRows& rows, size_t word_index, WordMap map, std::byte* to) {
  for (size_t row = 0; row < band_rows; ++row) {
    uint32_t word;
    memcpy(&word, rows.row(row) + 4 * word_index, 4);
    word = map_word(map, word);
    memcpy(to + 4 * row, &word, 4);
  }
}

// Without scratch: the same permutation along its cycles, then the nibbles.
void transpose_band_in_place(uint64_t words_per_row, WordMap map, std::byte* band) {
  transpose_units(band_rows, words_per_row, 4, band);
  for (size_t i = 0; map == WordMap::zip_nibbles && i < band_rows * words_per_row; ++i) {
    uint32_t word;
    memcpy(&word, band + 4 * i, 4);
    word = map_word(map, word);
    memcpy(band + 4 * i, &word, 4);
  }
}

}  // namespace

void f16_rows_to_ah(uint64_t n_row, uint64_t n_col, uint16_t* data) {
  const size_t band_bytes = band_rows * n_col * 2;
  const BandRows rows(n_col * 2);
  if (!rows) {
    block_linearize(n_row, n_col, 2, 1, 2, reinterpret_cast<std::byte*>(data));
    return block_linearize(n_row / 2, 2 * n_col, 16, 64, 2, reinterpret_cast<std::byte*>(data));
  }
  auto* band = reinterpret_cast<std::byte*>(data);
  std::byte* const end = band + n_row * n_col * 2;
  for (; band < end; band += band_bytes) {
    rows.read(band);
    NextBand next(band + band_bytes, std::min(band + 2 * band_bytes, end));
    for (size_t tile = 0; tile < n_col / tile_cols; ++tile) {
      interleave_tile(rows, tile, band + tile * half_tile_bytes);
      next.fetch(half_tile_bytes);
    }
  }
}

void f16_ah_to_rows(uint64_t n_row, uint64_t n_col, uint16_t* data) {
  const size_t band_bytes = band_rows * n_col * 2;
  const BandRows rows(n_col * 2);
  if (!rows) {
    block_unlinearize(n_row / 2, 2 * n_col, 16, 64, 2, reinterpret_cast<std::byte*>(data));
    return block_unlinearize(n_row, n_col, 2, 1, 2, reinterpret_cast<std::byte*>(data));
  }
  auto* band = reinterpret_cast<std::byte*>(data);
  std::byte* const end = band + n_row * n_col * 2;
  for (; band < end; band += band_bytes) {
    NextBand next(band + band_bytes, std::min(band + 2 * band_bytes, end));
    for (size_t tile = 0; tile < n_col / tile_cols; ++tile) {
      separate_tile(band + tile * half_tile_bytes, tile, rows);
      next.fetch(half_tile_bytes);
    }
    rows.write(band);
  }
}

void rows_to_word_columns(uint64_t n_bands, uint64_t words_per_row, WordMap map, std::byte* data) {
  const size_t band_bytes = word_column_bytes * words_per_row;
  const BandRows rows(4 * words_per_row);
  std::byte* const end = data + n_bands * band_bytes;
  for (std::byte* band = data; band < end; band += band_bytes) {
    if (!rows) {
      transpose_band_in_place(words_per_row, map, band);
      continue;
    }
    rows.read(band);
    NextBand next(band + band_bytes, std::min(band + 2 * band_bytes, end));
    uint64_t word = 0;
    for (; word + 8 <= words_per_row; word += 8) {
      transpose_word_columns(rows, word, map, band + word * word_column_bytes);
      next.fetch(8 * word_column_bytes);
    }
    for (; word < words_per_row; ++word) transpose_word_column(rows, word, map, band + word * word_column_bytes);
  }
}

}  // namespace tavik

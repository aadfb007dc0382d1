#include "source/host/util/bands.h"

#include <algorithm>
#include <cstring>

#include "simd/simd.h"
#include "source/host/util/blocks.h"
#include "source/host/util/scratch.h"

namespace tavik {
namespace {

namespace simd = morun::simd;

constexpr size_t line = Scratch::line;
constexpr size_t word_column_bytes = band_rows * 4;
// A strip is a line of each row of a band. In the tiled layouts it is one piece: a tile of f16, or columns of words.
constexpr size_t strip_bytes = band_rows * line;
constexpr size_t strip_halves = line / 2, strip_words = line / 4;
// Strips that become rows are read so many at a time: stores to a longer part of a row touch fewer pages.
constexpr size_t strips_at_once = 8;

// Where the rows of a band stand while it is converted in place. The pieces of the first strips have the places of the
// first rows, so these are away in scratch memory, with what of them is right of those strips: in the end that was half
// of the band, and a quarter of it at a time.
class BandRows {
 public:
  // Rows go away and come back with strips whose number is a multiple of `step`.
  BandRows(size_t row_bytes, size_t step) : row_bytes_(row_bytes), step_(step), scratch_(scratch_bytes()) {
    std::byte* place = scratch_.bytes();
    for (size_t i = 0; i < band_rows && scratch_; place += place_bytes(i), ++i) away_[i] = place - kept_from(i);
  }
  explicit operator bool() const { return static_cast<bool>(scratch_); }
  size_t n_strips() const { return (row_bytes_ + line - 1) / line; }
  size_t band_bytes() const { return band_rows * row_bytes_; }

  // As if all of it stood there.
  std::byte* row(size_t index) const { return row_[index]; }

  void start_in(std::byte* band) {
    band_ = band;
    n_away_ = 0;
    for (size_t i = 0; i < band_rows; ++i) row_[i] = home(i);
  }
  void start_away_from(std::byte* band) {
    band_ = band;
    n_away_ = band_rows;
    std::copy_n(away_, band_rows, row_);
  }
  // To be called before the piece of each strip is written, from the first to the last.
  void make_way_for(size_t strip) {
    for (; n_away_ < band_rows && kept_from(n_away_) <= strip * line; ++n_away_) move(n_away_, away_[n_away_]);
  }
  // To be called after the piece of each strip is read, from the last to the first.
  void return_after(size_t strip) {
    for (; n_away_ > 0 && kept_from(n_away_ - 1) >= strip * line; --n_away_) move(n_away_ - 1, home(n_away_ - 1));
  }

 private:
  std::byte* home(size_t row) const { return band_ + row * row_bytes_; }
  size_t kept_from(size_t row) const { return row * row_bytes_ / strip_bytes / step_ * step_ * line; }
  size_t place_bytes(size_t row) const { return n_strips() * line - kept_from(row); }
  size_t scratch_bytes() const {
    size_t bytes = 0;
    for (size_t i = 0; i < band_rows; ++i) bytes += place_bytes(i);
    return bytes;
  }
  void move(size_t row, std::byte* to) {
    memcpy(to + kept_from(row), row_[row] + kept_from(row), row_bytes_ - kept_from(row));
    row_[row] = to;
  }

  size_t row_bytes_, step_;
  Scratch scratch_;
  std::byte* band_ = nullptr;
  std::byte* away_[band_rows];
  std::byte* row_[band_rows];
  size_t n_away_ = 0;  // the first ones
};

// Fetches the next band into the outer caches, a little at a time while this one is worked on. Not in a matrix that may
// well be there already.
class NextBand {
 public:
  NextBand(const std::byte* data, const std::byte* end, size_t band_bytes)
      : end_(end), band_bytes_(static_cast<size_t>(end - data) > least_bytes ? band_bytes : 0) {}
  void start_after(const std::byte* band) {
    next_ = band + band_bytes_;
    stop_ = next_ + std::min(band_bytes_, static_cast<size_t>(end_ - next_));
  }
  void fetch(size_t bytes) {
    const std::byte* const stop = next_ + std::min(bytes, static_cast<size_t>(stop_ - next_));
    for (; next_ < stop; next_ += line) simd::prefetch_outer(next_);
  }

 private:
  static constexpr size_t least_bytes = 1u << 20;
  const std::byte* end_;
  size_t band_bytes_;
  const std::byte* next_ = nullptr;
  const std::byte* stop_ = nullptr;
};

const uint16_t* halves(const std::byte* p) {
  return reinterpret_cast<const uint16_t*>(p);
}
uint16_t* halves(std::byte* p) {
  return reinterpret_cast<uint16_t*>(p);
}

void interleave_strip(const BandRows& rows, size_t strip, std::byte* to, NextBand& next) {
  for (size_t row = 0; row < band_rows; row += 2) {
    const uint16_t* const even = halves(rows.row(row) + strip * line);
    const uint16_t* const odd = halves(rows.row(row + 1) + strip * line);
    uint16_t* const pair = halves(to + row * line);
    for (size_t i = 0; i < strip_halves; i += 8) {
      const simd::f16x8 a = simd::load(even + i), b = simd::load(odd + i);
      simd::store(pair + 2 * i, simd::zip_low(a, b));
      simd::store(pair + 2 * i + 8, simd::zip_high(a, b));
    }
    next.fetch(2 * line);
  }
}

void separate_strips(const std::byte* from, size_t begin, size_t end, const BandRows& rows) {
  for (size_t row = 0; row < band_rows; row += 2) {
    std::byte* const even_row = rows.row(row);
    std::byte* const odd_row = rows.row(row + 1);
    for (size_t strip = begin; strip < end; ++strip) {
      const uint16_t* const pair = halves(from + strip * strip_bytes + row * line);
      uint16_t* const even = halves(even_row + strip * line);
      uint16_t* const odd = halves(odd_row + strip * line);
      for (size_t i = 0; i < strip_halves; i += 8) {
        const simd::f16x8 a = simd::load(pair + 2 * i), b = simd::load(pair + 2 * i + 8);
        simd::store(even + i, simd::unzip_even(a, b));
        simd::store(odd + i, simd::unzip_odd(a, b));
      }
    }
  }
}

uint32_t map_word(WordMap map, uint32_t word) {
  return map == WordMap::keep ? word : simd::zip_nibbles(word);
}

template <WordMap map>
void transpose_words(const BandRows& rows, size_t row, size_t column, std::byte* to) {
  const auto word_row = [&](size_t i) { return rows.row(row + i) + column; };
  if constexpr (map == WordMap::keep)
    simd::transpose_words(word_row, to + 4 * row, word_column_bytes);
  else
    simd::transpose_zip_nibbles(word_row, to + 4 * row, word_column_bytes);
}

template <WordMap map>
void transpose_strip(const BandRows& rows, size_t strip, std::byte* to, NextBand& next) {
  // Eight lines at a time: those of all rows may fall into the same sets of the first-level cache.
  for (size_t row = 0; row < band_rows; row += 8) {
    for (size_t word = 0; word < strip_words; word += 8)
      transpose_words<map>(rows, row, strip * line + 4 * word, to + word * word_column_bytes);
    next.fetch(8 * line);
  }
}

// One that is narrower.
template <WordMap map>
void transpose_last_strip(const BandRows& rows, size_t strip, size_t n_words, std::byte* to) {
  for (size_t word = 0; word < n_words; ++word) {
    for (size_t row = 0; row < band_rows; ++row) {
      uint32_t bits;
      memcpy(&bits, rows.row(row) + strip * line + 4 * word, 4);
      bits = map_word(map, bits);
      memcpy(to + word * word_column_bytes + 4 * row, &bits, 4);
    }
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

// Calls put(strip, place of its piece, next band) for each strip of each band; put fetches as much as it writes.
template <class Put>
void rows_to_strips(BandRows& rows, std::byte* data, std::byte* end, Put put) {
  NextBand next(data, end, rows.band_bytes());
  for (std::byte* band = data; band < end; band += rows.band_bytes()) {
    rows.start_in(band);
    next.start_after(band);
    for (size_t strip = 0; strip < rows.n_strips(); ++strip) {
      rows.make_way_for(strip);
      put(strip, band + strip * strip_bytes, next);
    }
  }
}

template <WordMap map>
void rows_to_word_columns(BandRows& rows, uint64_t words_per_row, std::byte* data, std::byte* end) {
  rows_to_strips(rows, data, end, [&](size_t strip, std::byte* to, NextBand& next) {
    const size_t n_words = words_per_row - strip * strip_words;
    if (n_words < strip_words) return transpose_last_strip<map>(rows, strip, n_words, to);
    transpose_strip<map>(rows, strip, to, next);
  });
}

}  // namespace

void f16_rows_to_ah(uint64_t n_row, uint64_t n_col, uint16_t* data) {
  auto* const bytes = reinterpret_cast<std::byte*>(data);
  BandRows rows(n_col * 2, 1);
  if (!rows) {
    block_linearize(n_row, n_col, 2, 1, 2, bytes);
    return block_linearize(n_row / 2, 2 * n_col, 16, 64, 2, bytes);
  }
  rows_to_strips(rows, bytes, bytes + n_row * n_col * 2,
                 [&](size_t strip, std::byte* to, NextBand& next) { interleave_strip(rows, strip, to, next); });
}

void f16_ah_to_rows(uint64_t n_row, uint64_t n_col, uint16_t* data) {
  auto* const bytes = reinterpret_cast<std::byte*>(data);
  BandRows rows(n_col * 2, strips_at_once);
  if (!rows) {
    block_unlinearize(n_row / 2, 2 * n_col, 16, 64, 2, bytes);
    return block_unlinearize(n_row, n_col, 2, 1, 2, bytes);
  }
  std::byte* const end = bytes + n_row * n_col * 2;
  NextBand next(bytes, end, rows.band_bytes());
  for (std::byte* band = bytes; band < end; band += rows.band_bytes()) {
    rows.start_away_from(band);
    next.start_after(band);
    for (size_t stop = rows.n_strips(); stop > 0;) {
      const size_t start = (stop - 1) / strips_at_once * strips_at_once;
      separate_strips(band, start, stop, rows);
      rows.return_after(start);
      next.fetch((stop - start) * strip_bytes);
      stop = start;
    }
  }
}

void rows_to_word_columns(uint64_t n_bands, uint64_t words_per_row, WordMap map, std::byte* data) {
  BandRows rows(4 * words_per_row, 1);
  std::byte* const end = data + n_bands * rows.band_bytes();
  if (!rows) {
    for (std::byte* band = data; band < end; band += rows.band_bytes())
      transpose_band_in_place(words_per_row, map, band);
  } else if (map == WordMap::keep) {
    rows_to_word_columns<WordMap::keep>(rows, words_per_row, data, end);
  } else {
    rows_to_word_columns<WordMap::zip_nibbles>(rows, words_per_row, data, end);
  }
}

}  // namespace tavik

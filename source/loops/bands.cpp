#include "source/loops.h"

#include <algorithm>
#include <cstring>

#include "simd/simd.h"
#include "source/loops/scratch.h"

namespace tavik::inline MORUN_BACKEND {
namespace {

namespace simd = morun::simd;

constexpr size_t line_bytes = simd::cache_line;
constexpr size_t word_column_bytes = band_rows * 4;
// A strip is one cache line of each row of a band. In the tiled layouts a strip occupies one piece of contiguous bytes:
// a tile of f16, or columns of words.
constexpr size_t strip_bytes = band_rows * line_bytes;
constexpr size_t strip_halves = line_bytes / 2, strip_words = line_bytes / 4;
// The number of strips that become rows together. Storing a longer part of one row at a time touches fewer pages.
constexpr size_t strips_at_once = 8;

// The rows of a band while the band is converted in place.
//
// Strip s is a cache line of every row; its piece of tiles begins at byte s * strip_bytes of the band. Row r begins at
// byte r * row_bytes, which lies in piece r * row_bytes / strip_bytes. All strips before that piece are converted
// before the piece is written, so only the columns of row r from kept_from(r) on are still needed then: the kept
// columns.
//
// From rows to tiles, pieces are written from the first to the last. Before a piece takes the first bytes of a row, the
// row's kept columns move to scratch memory. From tiles to rows, pieces are read from the last to the first. All rows
// begin in scratch memory. After the piece that covers a row's first bytes has been read, the row's kept columns move
// to the band. Scratch memory has a place for the kept columns of every row, which is half of the band. At any time a
// quarter of the band is in use.
class BandRows {
 public:
  // Kept columns begin at a strip whose number is a multiple of `step`.
  BandRows(size_t row_bytes, size_t step) : row_bytes_(row_bytes), step_(step), scratch_(scratch_bytes()) {
    uintptr_t place = reinterpret_cast<uintptr_t>(scratch_.bytes());
    for (size_t row = 0; row < band_rows; place += place_bytes(row), ++row)
      start_in_scratch_[row] = place - kept_from(row);
  }
  explicit operator bool() const { return static_cast<bool>(scratch_); }
  size_t n_strips() const { return (row_bytes_ + line_bytes - 1) / line_bytes; }
  size_t band_bytes() const { return band_rows * row_bytes_; }

  // Returns the address of byte `column` of a row. For a row in scratch memory, `column` must be a kept column.
  std::byte* at(size_t row, size_t column) const { return reinterpret_cast<std::byte*>(start_[row] + column); }

  void start_in_band(std::byte* band) {
    band_ = reinterpret_cast<uintptr_t>(band);
    n_in_scratch_ = 0;
    for (size_t row = 0; row < band_rows; ++row) start_[row] = start_in_band(row);
  }
  void start_in_scratch(std::byte* band) {
    band_ = reinterpret_cast<uintptr_t>(band);
    n_in_scratch_ = band_rows;
    std::copy_n(start_in_scratch_, band_rows, start_);
  }
  // Must be called before the piece of each strip is written, from the first strip to the last.
  void make_way_for(size_t strip) {
    for (; n_in_scratch_ < band_rows && kept_from(n_in_scratch_) <= strip * line_bytes; ++n_in_scratch_)
      move_kept_columns(n_in_scratch_, start_in_scratch_[n_in_scratch_]);
  }
  // Must be called after the piece of each strip is read, from the last strip to the first.
  void return_after(size_t strip) {
    for (; n_in_scratch_ > 0 && kept_from(n_in_scratch_ - 1) >= strip * line_bytes; --n_in_scratch_)
      move_kept_columns(n_in_scratch_ - 1, start_in_band(n_in_scratch_ - 1));
  }

 private:
  // The start of a row is the address that the row's first byte would have if the whole row stood where its kept
  // columns stand. That address may lie outside all allocated memory, so a start is an integer and never a pointer.
  uintptr_t start_in_band(size_t row) const { return band_ + row * row_bytes_; }
  size_t kept_from(size_t row) const { return row * row_bytes_ / strip_bytes / step_ * step_ * line_bytes; }
  size_t place_bytes(size_t row) const { return n_strips() * line_bytes - kept_from(row); }
  size_t scratch_bytes() const {
    size_t bytes = 0;
    for (size_t row = 0; row < band_rows; ++row) bytes += place_bytes(row);
    return bytes;
  }
  void move_kept_columns(size_t row, uintptr_t start) {
    const std::byte* const from = at(row, kept_from(row));
    start_[row] = start;
    memcpy(at(row, kept_from(row)), from, row_bytes_ - kept_from(row));
  }

  size_t row_bytes_, step_;
  Scratch scratch_;
  uintptr_t band_ = 0;
  uintptr_t start_in_scratch_[band_rows];
  uintptr_t start_[band_rows];
  size_t n_in_scratch_ = 0;  // number of rows in scratch memory, counted from the band's first row
};

// Prefetches the next band into the outer caches, in small steps while the current band is converted. A small matrix is
// likely to be in the caches already, and for a small matrix the class prefetches nothing.
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
    for (; next_ < stop; next_ += line_bytes) simd::prefetch_outer(next_);
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
    const uint16_t* const even = halves(rows.at(row, strip * line_bytes));
    const uint16_t* const odd = halves(rows.at(row + 1, strip * line_bytes));
    uint16_t* const pair = halves(to + row * line_bytes);
    for (size_t i = 0; i < strip_halves; i += 8) {
      const simd::f16x8 a = simd::load(even + i), b = simd::load(odd + i);
      simd::store(pair + 2 * i, simd::zip_low(a, b));
      simd::store(pair + 2 * i + 8, simd::zip_high(a, b));
    }
    next.fetch(2 * line_bytes);
  }
}

void separate_strips(const std::byte* from, size_t begin, size_t end, const BandRows& rows, NextBand& next) {
  for (size_t row = 0; row < band_rows; row += 2) {
    uint16_t* const even_row = halves(rows.at(row, begin * line_bytes));
    uint16_t* const odd_row = halves(rows.at(row + 1, begin * line_bytes));
    for (size_t strip = begin; strip < end; ++strip) {
      const uint16_t* const pair = halves(from + strip * strip_bytes + row * line_bytes);
      uint16_t* const even = even_row + (strip - begin) * strip_halves;
      uint16_t* const odd = odd_row + (strip - begin) * strip_halves;
      for (size_t i = 0; i < strip_halves; i += 8) {
        const simd::f16x8 a = simd::load(pair + 2 * i), b = simd::load(pair + 2 * i + 8);
        simd::store(even + i, simd::unzip_even(a, b));
        simd::store(odd + i, simd::unzip_odd(a, b));
      }
      next.fetch(2 * line_bytes);
    }
  }
}

uint32_t map_word(WordMap map, uint32_t word) {
  return map == WordMap::keep ? word : simd::zip_nibbles(word);
}

template <WordMap map>
void transpose_words(const BandRows& rows, size_t row, size_t column, std::byte* to) {
  const auto word_row = [&](size_t i) { return rows.at(row + i, column); };
  if constexpr (map == WordMap::keep)
    simd::transpose_words(word_row, to + 4 * row, word_column_bytes);
  else
    simd::transpose_zip_nibbles(word_row, to + 4 * row, word_column_bytes);
}

template <WordMap map>
void transpose_strip(const BandRows& rows, size_t strip, std::byte* to, NextBand& next) {
  // Only eight rows at a time: the cache lines of all 32 rows may compete for the same sets of the first-level cache.
  for (size_t row = 0; row < band_rows; row += 8) {
    for (size_t word = 0; word < strip_words; word += 8)
      transpose_words<map>(rows, row, strip * line_bytes + 4 * word, to + word * word_column_bytes);
    next.fetch(8 * line_bytes);
  }
}

// Does the work of transpose_strip for a strip that is narrower than a cache line.
template <WordMap map>
void transpose_last_strip(const BandRows& rows, size_t strip, size_t n_words, std::byte* to) {
  for (size_t word = 0; word < n_words; ++word) {
    for (size_t row = 0; row < band_rows; ++row) {
      uint32_t bits;
      memcpy(&bits, rows.at(row, strip * line_bytes + 4 * word), 4);
      bits = map_word(map, bits);
      memcpy(to + word * word_column_bytes + 4 * row, &bits, 4);
    }
  }
}

// Converts a band without scratch memory: follows the cycles of the permutation, then zips the nibbles of each word.
void transpose_band_in_place(uint64_t words_per_row, WordMap map, std::byte* band) {
  transpose_units(band_rows, words_per_row, 4, band);
  for (size_t i = 0; map == WordMap::zip_nibbles && i < band_rows * words_per_row; ++i) {
    uint32_t word;
    memcpy(&word, band + 4 * i, 4);
    word = map_word(map, word);
    memcpy(band + 4 * i, &word, 4);
  }
}

// Calls put(strip, place of the strip's piece, next band) for each strip of each band. `put` prefetches as many bytes
// of the next band as it writes.
template <class Put>
void rows_to_strips(BandRows& rows, std::byte* data, std::byte* end, Put put) {
  NextBand next(data, end, rows.band_bytes());
  for (std::byte* band = data; band < end; band += rows.band_bytes()) {
    rows.start_in_band(band);
    next.start_after(band);
    for (size_t strip = 0; strip < rows.n_strips(); ++strip) {
      rows.make_way_for(strip);
      put(strip, band + strip * strip_bytes, next);
    }
  }
}

// Calls take(pieces of the band, first strip, end strip, next band) for groups of strips of each band, from the last
// group to the first. `take` prefetches as many bytes of the next band as it reads.
template <class Take>
void strips_to_rows(BandRows& rows, std::byte* data, std::byte* end, Take take) {
  NextBand next(data, end, rows.band_bytes());
  for (std::byte* band = data; band < end; band += rows.band_bytes()) {
    rows.start_in_scratch(band);
    next.start_after(band);
    for (size_t stop = rows.n_strips(), start; stop > 0; stop = start) {
      start = (stop - 1) / strips_at_once * strips_at_once;
      take(band, start, stop, next);
      rows.return_after(start);
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
  strips_to_rows(rows, bytes, bytes + n_row * n_col * 2,
                 [&](const std::byte* band, size_t start, size_t stop, NextBand& next) {
                   separate_strips(band, start, stop, rows, next);
                 });
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

}  // namespace tavik::inline MORUN_BACKEND

#include "platform/emulator/dsp/products.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "platform/emulator/parlo_emulator.h"

namespace parlo::dsp {
namespace {

using Bytes = std::unique_ptr<std::byte[]>;

uint64_t round_up(uint64_t n, uint64_t unit) {
  return (n + unit - 1) / unit * unit;
}

// A matrix in tiles, at an offset of a view. The view lives at least as long as the matrix.
class Matrix {
 public:
  // The call asks for all rows of the last band of tiles except n_row_missing. Dimensions are at most 2^32.
  Matrix(const MatrixPlace& place, uint64_t n_row, uint64_t n_col, uint64_t n_row_missing, uint64_t element_bits)
      : place_(place),
        element_bits_(element_bits),
        n_whole_(n_row * n_col),
        n_asked_(n_whole_ - n_row_missing * std::min<uint64_t>(n_col, tile_size)) {}

  std::byte* bytes() const { return place_.view->bytes() + place_.offset; }
  uint64_t whole_bytes() const { return n_whole_ * element_bits_ / 8; }
  uint64_t asked_bytes() const { return n_asked_ * element_bits_ / 8; }  // up to the last element asked for
  bool is_whole() const { return reaches(n_whole_); }

  int32_t check() const {
    if (!place_.view) return PARLO_EMULATOR_DSP_NOT_MAPPED;
    if (place_.offset * 8 % std::max<uint64_t>(element_bits_, 8) != 0) return PARLO_EMULATOR_DSP_MISALIGNED;
    return reaches(n_asked_) ? KESO_SUCCESS : PARLO_EMULATOR_DSP_OUT_OF_RANGE;
  }
  // Requires that both matrices have passed check().
  bool overlaps(const Matrix& other) const {
    return place_.view == other.place_.view && place_.offset < other.end() && other.place_.offset < end();
  }

 private:
  // The function compares numbers of elements, because numbers of bytes may exceed 2^64.
  bool reaches(uint64_t n_element) const {
    const uint64_t length = place_.view->length();
    return place_.offset <= length && n_element <= (length - place_.offset) * 8 / element_bits_;
  }
  uint64_t end() const { return place_.offset + whole_bytes(); }

  MatrixPlace place_;
  uint64_t element_bits_;
  uint64_t n_whole_, n_asked_;
};

struct MappedProduct {
  const ProductKind& kind;
  uint64_t n_row;
  Shape whole;  // with rows rounded up to whole bands
  Matrix A, X, W;

  MappedProduct(const ProductKind& k, const Operands& o)
      : kind(k),
        n_row(o.n_row),
        whole{round_up(o.n_row, k.tile_rows), o.n_col, o.n_inner},
        A(o.A, whole.n_row, o.n_col, whole.n_row - n_row, 8 * k.result_bytes),
        X(o.X, whole.n_row, o.n_inner, whole.n_row - n_row, 8 * k.activation_bytes),
        W(o.W, o.n_inner, o.n_col, 0, k.weight_bits) {}

  int32_t check() const {
    if ((whole.n_col | whole.n_inner) % tile_size != 0) return PARLO_EMULATOR_DSP_BAD_DIMENSION;
    if (kind.whole_bands && n_row != whole.n_row) return PARLO_EMULATOR_DSP_BAD_DIMENSION;
    for (const Matrix* matrix : {&A, &X, &W})
      if (const int32_t status = matrix->check(); status != KESO_SUCCESS) return status;
    return KESO_SUCCESS;
  }

  bool is_whole() const { return A.is_whole() && X.is_whole(); }

  void multiply(std::byte* result) const {
    if (X.is_whole()) return kind.multiply(whole, X.bytes(), W.bytes(), result);
    const auto padded = std::make_unique<std::byte[]>(X.whole_bytes());
    std::memcpy(padded.get(), X.bytes(), X.asked_bytes());
    kind.multiply(whole, padded.get(), W.bytes(), result);
  }

  Bytes multiply_aside() const {
    Bytes result = std::make_unique_for_overwrite<std::byte[]>(A.whole_bytes());
    multiply(result.get());
    return result;
  }

  void store(const std::byte* result) const {
    if (is_whole()) {
      std::memcpy(A.bytes(), result, A.whole_bytes());
      return;
    }
    const uint64_t row_bytes = tile_size * kind.result_bytes;  // bytes of one row of a tile
    const uint64_t last_rows = n_row % kind.tile_rows;
    const uint64_t last_band = (n_row - last_rows) * whole.n_col * kind.result_bytes;
    std::memcpy(A.bytes(), result, last_band);
    for (uint64_t tile = last_band; tile < A.whole_bytes(); tile += kind.tile_rows * row_bytes)
      std::memcpy(A.bytes() + tile, result + tile, last_rows * row_bytes);
  }
};

bool overwrites_operand(const std::vector<MappedProduct>& products) {
  for (const MappedProduct& writer : products)
    for (const MappedProduct& reader : products)
      if (writer.A.overlaps(reader.X) || writer.A.overlaps(reader.W)) return true;
  return false;
}

}  // namespace

int32_t multiply(const ProductKind& kind, std::initializer_list<Operands> operands) {
  std::vector<MappedProduct> products;
  for (const Operands& o : operands) {
    const MappedProduct& product = products.emplace_back(kind, o);
    if (const int32_t status = product.check(); status != KESO_SUCCESS) return status;
  }
  const bool in_place =
      std::all_of(products.begin(), products.end(), [](const MappedProduct& p) { return p.is_whole(); }) &&
      !overwrites_operand(products);
  if (in_place) {
    for (const MappedProduct& product : products) product.multiply(product.A.bytes());
    return KESO_SUCCESS;
  }
  std::vector<Bytes> results;
  for (const MappedProduct& product : products) results.push_back(product.multiply_aside());
  for (size_t i = 0; i < products.size(); ++i) products[i].store(results[i].get());
  return KESO_SUCCESS;
}

}  // namespace parlo::dsp

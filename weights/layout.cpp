#include "weights/layout.h"

#include <iterator>

#include "weights/error.h"

namespace weights {
namespace {

constexpr const char* form_names[] = {"carried", "f16", "a8w8", "a8w4"};
constexpr const char* quantiser_names[] = {"minmax", "mse", "calibrated", "library"};

template <size_t count>
const char* name_of(const char* const (&names)[count], int32_t number) {
  return number >= 0 && static_cast<size_t>(number) < count ? names[number] : nullptr;
}
template <size_t count>
int32_t number_of(const char* const (&names)[count], std::string_view name) {
  for (size_t i = 0; i < count; ++i)
    if (names[i] == name) return static_cast<int32_t>(i);
  return -1;
}

// Places parts one behind the other.
class Parts {
 public:
  uint64_t add(uint64_t n_byte) {
    const uint64_t offset = end_;
    end_ = round_up(end_ + n_byte, part_alignment);
    return offset;
  }
  uint64_t end() const { return end_; }

 private:
  uint64_t end_ = 0;
};

}  // namespace

morun_weights_layout layout_of(int32_t form, uint64_t n_inner, uint64_t n_col) {
  if (n_inner == 0 || n_col == 0)
    throw Error(MORUN_WEIGHTS_EXTENTS, "a matrix of %ju x %ju is empty", uintmax_t{n_inner}, uintmax_t{n_col});
  const uint64_t most_tiles = largest_matrix / (tile * tile * bits_per_value(form) / 8);
  const bool fits = n_inner <= most_tiles * tile && n_col <= most_tiles * tile &&
                    round_up(n_inner, tile) / tile <= most_tiles / (round_up(n_col, tile) / tile);
  morun_weights_layout layout = {};
  Parts parts;
  if (fits) {
    layout.padded_n_inner = round_up(n_inner, tile);
    layout.padded_n_col = round_up(n_col, tile);
    parts.add(layout.padded_n_inner * layout.padded_n_col * bits_per_value(form) / 8);
  }
  if (fits && is_quantised(form)) {
    layout.zero_points = parts.add(layout.padded_n_col * bits_per_value(form) / 8);
    layout.scales = parts.add(layout.padded_n_col * sizeof(uint16_t));
    layout.sums = parts.add(layout.padded_n_col * sizeof(int32_t));
  }
  layout.n_byte = parts.end();
  if (!fits || layout.n_byte > largest_matrix)
    throw Error(MORUN_WEIGHTS_EXTENTS, "a matrix of %ju x %ju in form %s takes more than %ju bytes", uintmax_t{n_inner},
                uintmax_t{n_col}, form_name(form), uintmax_t{largest_matrix});
  return layout;
}

const char* form_name(int32_t form) {
  return name_of(form_names, form);
}
int32_t form_by_name(std::string_view name) {
  return number_of(form_names, name);
}
const char* quantiser_name(int32_t quantiser) {
  return name_of(quantiser_names, quantiser);
}
int32_t quantiser_by_name(std::string_view name) {
  return number_of(quantiser_names, name);
}

}  // namespace weights

int32_t morun_weights_layout_of(int32_t form, uint64_t n_inner, uint64_t n_col, morun_weights_layout* layout) {
  return weights::guarded([&] {
    weights::require_not_null(layout, "layout");
    weights::require_argument(weights::is_packed(form), "form is none of a packed matrix");
    *layout = weights::layout_of(form, n_inner, n_col);
  });
}

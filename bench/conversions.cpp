// Changes of layout and of precision, on the host.
#include <fmt/format.h>

#include <array>
#include <cmath>
#include <cstdint>

#include "bench/memory.h"
#include "bench/row.h"
#include "bench/yardsticks.h"
#include "include/tavik.h"

namespace bench {
namespace {

struct Shape {
  uint64_t n_row, n_col;
};
constexpr std::array<Shape, 3> shapes = {{{128, 2048}, {1024, 4096}, {4096, 4096}}};

// What works in place leaves `source` alone.
using Convert = std::function<void(Shape, const void* source, void* target)>;

template <class T>
Convert in_place(void (*convert)(uint64_t, uint64_t, T*)) {
  return [convert](Shape s, const void*, void* data) { convert(s.n_row, s.n_col, static_cast<T*>(data)); };
}

template <class From, class To>
Convert matrix(void (*convert)(uint64_t, uint64_t, const From*, To*)) {
  return [convert](Shape s, const void* source, void* target) {
    convert(s.n_row, s.n_col, static_cast<const From*>(source), static_cast<To*>(target));
  };
}

template <class From, class To>
Convert elements(void (*convert)(uint64_t, const From*, To*)) {
  return [convert](Shape s, const void* source, void* target) {
    convert(s.n_row * s.n_col, static_cast<const From*>(source), static_cast<To*>(target));
  };
}

struct Conversion {
  const char* name;
  double bytes_read, bytes_written;          // of an element
  std::array<double, shapes.size()> wanted;  // ratio for each shape; 0: for information
  Convert convert;
};

const Conversion conversions[] = {
    {"f16_rm_to_f16_ah_inplace", 2, 2, {0.50, 0.70, 0.90}, in_place(tavik_f16_rm_to_f16_ah_inplace)},
    {"f16_ah_to_f16_rm_inplace", 2, 2, {0.50, 0.60, 0.75}, in_place(tavik_f16_ah_to_f16_rm_inplace)},
    {"f16_rm_to_f16_wh_inplace", 2, 2, {0.50, 0.55, 0.75}, in_place(tavik_f16_rm_to_f16_wh_inplace)},
    {"i8_rm_to_i8_wh_inplace", 1, 1, {0.45, 0.45, 0.65}, in_place(tavik_i8_rm_to_i8_wh_inplace)},
    {"i4_rm_to_i4_wh_inplace", 0.5, 0.5, {0.30, 0.38, 0.42}, in_place(tavik_i4_rm_to_i4_wh_inplace)},
    {"f32_rm_to_f16_ah", 4, 2, {0.80, 0.70, 0.80}, matrix(tavik_f32_rm_to_f16_ah)},
    {"f16_ah_to_f32_rm", 2, 4, {0.75, 0.90, 1.00}, matrix(tavik_f16_ah_to_f32_rm)},
    {"f32_to_f16", 4, 2, {}, elements(tavik_f32_to_f16)},
    {"f16_to_f32", 2, 4, {}, elements(tavik_f16_to_f32)},
};

Work prepare(const Conversion& conversion, Shape shape) {
  const auto bytes = [shape](double bytes_of_element) {
    return static_cast<size_t>(bytes_of_element * static_cast<double>(shape.n_row * shape.n_col));
  };
  return {[convert = conversion.convert, shape, source = filled_memory(bytes(conversion.bytes_read)),
           target = filled_memory(bytes(conversion.bytes_written))] { convert(shape, source.get(), target.get()); },
          memcpy_yardstick(bytes(conversion.bytes_read + conversion.bytes_written))};
}

}  // namespace

std::vector<Row> conversion_rows() {
  std::vector<Row> rows;
  for (const Conversion& conversion : conversions) {
    for (size_t i = 0; i < shapes.size(); ++i) {
      const Shape shape = shapes[i];
      rows.push_back({fmt::format("{}/{}x{}", conversion.name, shape.n_row, shape.n_col), conversion.wanted[i],
                      [&conversion, shape] { return prepare(conversion, shape); }});
    }
  }
  return rows;
}

}  // namespace bench

// Packing weights on one core, columns one behind the other as a transposed checkpoint has them.
#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>

#include "bench/memory.h"
#include "bench/row.h"
#include "bench/yardsticks.h"
#include "include/morun_weights.h"

namespace bench {
namespace {

struct Shape {
  uint64_t n_inner, n_col;
};
constexpr Shape shape = {1024, 4096};

struct Packing {
  const char* name;
  int32_t form, quantiser;
};
constexpr Packing packings[] = {
    {"f16", MORUN_WEIGHTS_F16, MORUN_WEIGHTS_MINMAX},
    {"a8w8_minmax", MORUN_WEIGHTS_A8W8, MORUN_WEIGHTS_MINMAX},
    {"a8w8_library", MORUN_WEIGHTS_A8W8, MORUN_WEIGHTS_LIBRARY},
    {"a8w8_mse", MORUN_WEIGHTS_A8W8, MORUN_WEIGHTS_MSE},
    {"a8w4_minmax", MORUN_WEIGHTS_A8W4, MORUN_WEIGHTS_MINMAX},
    {"a8w4_mse", MORUN_WEIGHTS_A8W4, MORUN_WEIGHTS_MSE},
    {"a8w4_calibrated", MORUN_WEIGHTS_A8W4, MORUN_WEIGHTS_CALIBRATED},
};

void require(int32_t status) {
  if (status != MORUN_WEIGHTS_SUCCESS) throw std::runtime_error(morun_weights_error_text());
}

using Calibration = std::shared_ptr<morun_weights_calibration>;

Calibration calibration() {
  constexpr uint64_t n_row = 128;
  morun_weights_calibration* made = nullptr;
  require(morun_weights_calibration_create(shape.n_inner, &made));
  Calibration calibration(made, morun_weights_calibration_free);
  const auto activation = filled_memory(n_row * shape.n_inner * sizeof(float));
  require(morun_weights_calibration_add(made, n_row, reinterpret_cast<const float*>(activation.get()), shape.n_inner));
  require(morun_weights_calibration_finish(made, 0.05));
  return calibration;
}

Work prepare(const Packing& packing) {
  morun_weights_layout layout;
  require(morun_weights_layout_of(packing.form, shape.n_inner, shape.n_col, &layout));
  const size_t n_source_byte = shape.n_inner * shape.n_col * sizeof(float);
  const auto source = filled_memory(n_source_byte), packed = filled_memory(layout.n_byte);
  const bool is_calibrated = packing.quantiser == MORUN_WEIGHTS_CALIBRATED;
  const Calibration known = is_calibrated ? calibration() : nullptr;
  return {[=] {
            const morun_weights_recipe recipe = {
                packing.form, packing.quantiser, shape.n_inner, shape.n_col, known.get(), 0, 0};
            require(morun_weights_pack_columns(&recipe, 0, shape.n_col, reinterpret_cast<const float*>(source.get()), 1,
                                               shape.n_inner, packed.get(), layout.n_byte, nullptr));
          },
          memcpy_yardstick(n_source_byte + layout.n_byte)};
}

}  // namespace

std::vector<Row> weight_rows() {
  std::vector<Row> rows;
  for (const Packing& packing : packings)
    rows.push_back({fmt::format("pack_{}/{}x{}", packing.name, shape.n_inner, shape.n_col), 0,
                    [&packing] { return prepare(packing); }});
  return rows;
}

}  // namespace bench

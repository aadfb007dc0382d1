#include <fmt/format.h>
#include <morun_weights.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/morun/commands.h"
#include "tools/morun/error.h"
#include "tools/morun/files/npy.h"
#include "tools/morun/files/output_file.h"
#include "tools/morun/files/packed_file.h"
#include "tools/morun/form_names.h"
#include "tools/morun/progress.h"
#include "weights/printable.h"

namespace tool {
namespace {

using printable::escaped;

bool is_packed(const morun_weights_tensor& tensor) {
  return tensor.form != MORUN_WEIGHTS_CARRIED;
}

std::string extents_of(const morun_weights_tensor& tensor) {
  if (is_packed(tensor)) return fmt::format("{} x {}", tensor.n_inner, tensor.n_col);
  return fmt::format("{}", fmt::join(tensor.shape, tensor.shape + tensor.n_dimension, " x "));
}

std::string how_packed(const morun_weights_tensor& tensor) {
  return is_quantised(tensor.form) ? std::string(quantiser_names[static_cast<size_t>(tensor.quantiser)]) : "";
}

std::string errors_of(const morun_weights_tensor& tensor) {
  if (!is_packed(tensor)) return "";
  const std::string error = error_text(tensor.error);
  return tensor.product_error < 0 ? error : error + " / " + error_text(tensor.product_error);
}

// Columns as wide as their widest cells.
void print_table(const std::vector<morun_weights_tensor>& tensors) {
  using Line = std::array<std::string, 7>;
  std::vector<Line> lines = {{"form", "quantiser", "source", "extents", "bytes", "error / of products", "name"}};
  for (const morun_weights_tensor& tensor : tensors) {
    lines.push_back({std::string(form_names[static_cast<size_t>(tensor.form)]), how_packed(tensor),
                     escaped(tensor.source_dtype), extents_of(tensor), fmt::format("{}", tensor.n_byte),
                     errors_of(tensor), escaped(tensor.name)});
  }
  std::array<size_t, 7> widths = {};
  for (const Line& line : lines) {
    for (size_t i = 0; i + 1 < line.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
  }
  for (const Line& line : lines) {
    std::string text;
    for (size_t i = 0; i < line.size(); ++i) text += fmt::format("{:<{}}  ", line[i], widths[i]);
    text.erase(text.find_last_not_of(' ') + 1);
    fmt::print("{}\n", text);
  }
}

nlohmann::ordered_json json_of(const morun_weights_tensor& tensor) {
  nlohmann::ordered_json json = {{"name", tensor.name},
                                 {"form", form_names[static_cast<size_t>(tensor.form)]},
                                 {"dtype", tensor.dtype},
                                 {"shape", std::vector(tensor.shape, tensor.shape + tensor.n_dimension)},
                                 {"file_offset", tensor.file_offset},
                                 {"bytes", tensor.n_byte},
                                 {"source", tensor.source_name},
                                 {"source_dtype", tensor.source_dtype},
                                 {"checksum", fmt::format("xxh3:{:016x}", tensor.checksum)}};
  if (!is_packed(tensor)) return json;
  json["n_inner"] = tensor.n_inner;
  json["n_col"] = tensor.n_col;
  json["error"] = tensor.error;
  if (tensor.product_error >= 0) json["product_error"] = tensor.product_error;
  if (!is_quantised(tensor.form)) return json;
  json["quantiser"] = how_packed(tensor);
  json["zero_points"] = tensor.layout.zero_points;
  json["scales"] = tensor.layout.scales;
  json["sums"] = tensor.layout.sums;
  return json;
}

void print_json(const std::vector<morun_weights_tensor>& tensors) {
  nlohmann::ordered_json report = {{"tensors", nlohmann::ordered_json::array()}};
  for (const morun_weights_tensor& tensor : tensors) report["tensors"].push_back(json_of(tensor));
  fmt::print("{}\n", report.dump(2));
}

// The names of tensors whose bytes cannot be read or do not give their checksums.
std::vector<std::string> damaged_tensors(const PackedFile& file, const std::vector<morun_weights_tensor>& tensors) {
  std::vector<std::string> damaged;
  Progress progress;
  for (size_t i = 0; i < tensors.size(); ++i) {
    progress.show(i, tensors.size(), "tensors verified");
    const int32_t status = morun_weights_file_verify(file.get(), i);
    if (status == MORUN_WEIGHTS_CHECKSUM || status == MORUN_WEIGHTS_READ || status == MORUN_WEIGHTS_SHRUNK)
      damaged.push_back(fmt::format("\"{}\"", escaped(tensors[i].name)));
    else
      require_weights(status);
  }
  return damaged;
}

}  // namespace

void inspect(const InspectArguments& arguments) {
  const PackedFile file(arguments.file);
  std::vector<morun_weights_tensor> tensors;
  for (uint64_t i = 0, n = file.n_tensor(); i < n; ++i) tensors.push_back(file.tensor(i));
  std::vector<std::string> damaged;
  if (arguments.verify) damaged = damaged_tensors(file, tensors);
  if (arguments.as_json)
    print_json(tensors);
  else
    print_table(tensors);
  if (!damaged.empty())
    throw Error("{}: {} of {} tensors are damaged: {}", arguments.file.native(), damaged.size(), tensors.size(),
                fmt::join(damaged, ", "));
  if (arguments.verify && !arguments.as_json) fmt::print("{} checksums are right\n", tensors.size());
}

void unpack(const UnpackArguments& arguments) {
  const PackedFile file(arguments.file);
  const uint64_t index = file.find(arguments.tensor);
  const morun_weights_tensor tensor = file.tensor(index);
  if (!is_packed(tensor)) throw Error("{}: tensor {} is not packed", arguments.file.native(), arguments.tensor);
  OutputFile output(arguments.output);
  Matrix values(tensor.n_inner, tensor.n_col);
  require_weights(morun_weights_file_unpack(file.get(), index, values.row(0)));
  write_npy([&](const void* bytes, size_t n_byte) { output.write(bytes, n_byte); }, values);
  output.commit();
}

}  // namespace tool

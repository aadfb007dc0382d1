// Packing weights on one core, columns one behind the other as a transposed checkpoint has them; and loading a packed
// file, from a warm cache into fresh shared memory.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

#include "bench/memory.h"
#include "bench/npu.h"
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

void require_weights(int32_t status) {
  if (status != MORUN_WEIGHTS_SUCCESS) throw std::runtime_error(morun_weights_error_text());
}

using Calibration = std::shared_ptr<morun_weights_calibration>;

Calibration calibration() {
  constexpr uint64_t n_row = 128;
  morun_weights_calibration* made = nullptr;
  require_weights(morun_weights_calibration_create(shape.n_inner, &made));
  Calibration calibration(made, morun_weights_calibration_free);
  const auto activation = filled_memory(n_row * shape.n_inner * sizeof(float));
  require_weights(
      morun_weights_calibration_add(made, n_row, reinterpret_cast<const float*>(activation.get()), shape.n_inner));
  require_weights(morun_weights_calibration_finish(made, 0.05));
  return calibration;
}

Work prepare(const Packing& packing) {
  morun_weights_layout layout;
  require_weights(morun_weights_layout_of(packing.form, shape.n_inner, shape.n_col, &layout));
  const size_t n_source_byte = shape.n_inner * shape.n_col * sizeof(float);
  const auto source = filled_memory(n_source_byte), packed = filled_memory(layout.n_byte);
  const bool is_calibrated = packing.quantiser == MORUN_WEIGHTS_CALIBRATED;
  const Calibration known = is_calibrated ? calibration() : nullptr;
  return {[=] {
            const morun_weights_recipe recipe = {
                packing.form, packing.quantiser, shape.n_inner, shape.n_col, known.get(), 0, 0};
            require_weights(morun_weights_pack_columns(&recipe, 0, shape.n_col,
                                                       reinterpret_cast<const float*>(source.get()), 1, shape.n_inner,
                                                       packed.get(), layout.n_byte, nullptr));
          },
          memcpy_yardstick(n_source_byte + layout.n_byte)};
}

struct Loading {
  const char* name;
  double wanted;
  int32_t skip_checksums;
};
constexpr Loading loadings[] = {{"load", 0.8, 0}, {"load_without_checksums", 0, 1}};
constexpr uint64_t n_layer = 16;

// A packed file of a8w8 layers in a folder of its own, open twice, and a context to load it into.
class PackedFile {
 public:
  PackedFile() {
    char folder[] = "/tmp/morun_bench.XXXXXX";
    if (mkdtemp(folder) == nullptr) throw std::runtime_error("no temporary folder");
    folder_ = folder;
    pack(write_checkpoint());
    require_weights(morun_weights_file_open(path().c_str(), &file_));
    descriptor_ = open(path().c_str(), O_RDONLY | O_CLOEXEC);
    morun_weights_tensor tensor;
    require_weights(morun_weights_file_tensor(file_, 0, &tensor));
    offset_ = tensor.file_offset;
    n_byte_ = n_layer * tensor.n_byte;
  }
  ~PackedFile() {
    if (descriptor_ >= 0) close(descriptor_);
    morun_weights_file_close(file_);
    std::filesystem::remove_all(folder_);
  }
  PackedFile(const PackedFile&) = delete;
  PackedFile& operator=(const PackedFile&) = delete;

  void load(int32_t skip_checksums) const {
    morun_weights_request requests[n_layer] = {};
    for (uint64_t i = 0; i < n_layer; ++i) requests[i].tensor = i;
    morun_weights_load_options options;
    morun_weights_load_options_init(&options);
    options.skip_checksums = skip_checksums;
    morun_weights_loaded* loaded = nullptr;
    require_weights(morun_weights_load(file_, npu_.context(), n_layer, requests, &options, &loaded));
    require_weights(morun_weights_release(loaded));
  }

  // The same bytes by calls of the system alone.
  void read() const {
    void* bytes = nullptr;
    int32_t fd = -1;
    require(static_cast<uint32_t>(tavik_buffer_alloc(npu_.context(), n_byte_, &bytes, &fd)));
    const ssize_t n_read = pread(descriptor_, bytes, n_byte_, static_cast<off_t>(offset_));
    require(static_cast<uint32_t>(tavik_buffer_free(npu_.context(), fd)));
    if (n_read != static_cast<ssize_t>(n_byte_)) throw std::runtime_error("the packed file could not be read");
  }

 private:
  std::string path() const { return folder_ / "packed.safetensors"; }

  std::string write_checkpoint() const {
    std::string header = "{";
    const uint64_t n_byte = shape.n_inner * shape.n_col * sizeof(float);
    for (uint64_t i = 0; i < n_layer; ++i)
      header += fmt::format("{}\"{}.weight\":{{\"dtype\":\"F32\",\"shape\":[{},{}],\"data_offsets\":[{},{}]}}",
                            i == 0 ? "" : ",", i, shape.n_col, shape.n_inner, i * n_byte, (i + 1) * n_byte);
    header += "}";
    std::string checkpoint = folder_ / "checkpoint.safetensors";
    std::ofstream stream(checkpoint, std::ios::binary);
    const uint64_t size = header.size();
    stream.write(reinterpret_cast<const char*>(&size), sizeof size) << header;
    const auto values = filled_memory(n_byte);
    for (uint64_t i = 0; i < n_layer; ++i)
      stream.write(reinterpret_cast<const char*>(values.get()), static_cast<std::streamsize>(n_byte));
    if (!stream.flush()) throw std::runtime_error("the checkpoint could not be written");
    return checkpoint;
  }

  void pack(const std::string& checkpoint) const {
    morun_weights_packer* made = nullptr;
    require_weights(morun_weights_packer_create(nullptr, &made));
    const std::shared_ptr<morun_weights_packer> packer(made, morun_weights_packer_free);
    require_weights(morun_weights_packer_add_source(made, checkpoint.c_str()));
    require_weights(morun_weights_packer_run(made, path().c_str()));
  }

  Npu npu_;
  std::filesystem::path folder_;
  morun_weights_file* file_ = nullptr;
  int descriptor_ = -1;
  uint64_t offset_ = 0, n_byte_ = 0;
};

Work prepare(const Loading& loading) {
  const auto file = std::make_shared<PackedFile>();
  return {[file, skips = loading.skip_checksums] { file->load(skips); }, {"pread", [file] { file->read(); }}};
}

}  // namespace

std::vector<Row> weight_rows() {
  std::vector<Row> rows;
  for (const Packing& packing : packings)
    rows.push_back({fmt::format("pack_{}/{}x{}", packing.name, shape.n_inner, shape.n_col), 0,
                    [&packing] { return prepare(packing); }});
  for (const Loading& loading : loadings)
    rows.push_back({fmt::format("{}/{}x{}x{}", loading.name, n_layer, shape.n_inner, shape.n_col), loading.wanted,
                    [&loading] { return prepare(loading); }});
  return rows;
}

}  // namespace bench

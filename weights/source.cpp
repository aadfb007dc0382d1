#include "weights/source.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <nlohmann/json.hpp>
#include <set>
#include <string_view>
#include <system_error>

#include "weights/error.h"
#include "weights/index.h"
#include "weights/layout.h"
#include "weights/record.h"

namespace weights {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view safetensors_ending = ".safetensors", index_ending = ".index.json", npy_ending = ".npy";

// ---- Files of tensors ----------------------------------------------------------------------------------------------

Source open_safetensors(const std::string& path) {
  const InputFile opened(path);
  SafetensorsHeader header = read_header(opened);
  if (header.metadata.contains(format_key))
    throw Error(MORUN_WEIGHTS_ALREADY_PACKED, "%s: is a packed file already", path.c_str());
  const auto file = std::make_shared<const ReopenedFile>(opened);
  Source source;
  source.metadata = std::move(header.metadata);
  for (TensorEntry& entry : header.tensors) {
    SourceTensor tensor;
    tensor.name = std::move(entry.name);
    tensor.dtype = entry.dtype;
    tensor.shape = std::move(entry.shape);
    tensor.file = file;
    tensor.file_offset = header.data_begin + entry.begin;
    tensor.n_byte = entry.end - entry.begin;
    source.tensors.push_back(std::move(tensor));
  }
  return source;
}

bool is_utf8(const std::string& text) {
  try {
    (void)nlohmann::json(text).dump();
    return true;
  } catch (const nlohmann::json::exception&) {
    return false;
  }
}

// The tensor's name is the file's without its ending.
Source open_npy_source(const std::string& path) {
  Source source;
  source.tensors.push_back(open_npy(path));
  std::string& name = source.tensors.back().name;
  name = fs::path(path).stem().string();
  if (name.empty() || !is_utf8(name) || name == "__metadata__")
    throw Error(MORUN_WEIGHTS_HEADER_NAME,
                "the file name %s gives no name of a tensor: it is empty, __metadata__, or no UTF-8",
                in_quotes(name).c_str());
  return source;
}

void append(Source& source, Source&& more) {
  std::move(more.tensors.begin(), more.tensors.end(), std::back_inserter(source.tensors));
  source.metadata.merge(more.metadata);  // of equal keys the first stays
}

// ---- Indices -------------------------------------------------------------------------------------------------------

Source open_index(const std::string& path) {
  Source source;
  for (auto& [name, tensors] : tensors_by_file(path)) {
    Source file = open_safetensors((fs::path(path).parent_path() / name).string());
    std::erase_if(file.tensors,
                  [&wanted = tensors](const SourceTensor& tensor) { return wanted.erase(tensor.name) == 0; });
    if (!tensors.empty())
      throw Error(MORUN_WEIGHTS_INDEX, "%s: file %s does not have tensor %s", path.c_str(), in_quotes(name).c_str(),
                  in_quotes(*tensors.begin()).c_str());
    append(source, std::move(file));
  }
  return source;
}

// ---- Directories ---------------------------------------------------------------------------------------------------

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

Error cannot_list(const std::string& folder) {
  if (errno == ENOMEM) throw std::bad_alloc();
  return {MORUN_WEIGHTS_OPEN, "%s: %s", folder.c_str(), strerror(errno)};
}

// By the C library, because a std::filesystem::directory_iterator that finds no memory ends the process.
std::vector<std::string> files_ending_in(const std::string& folder, std::string_view ending) {
  const std::unique_ptr<DIR, CloseDirectory> directory(opendir(folder.c_str()));
  if (!directory) throw cannot_list(folder);
  std::vector<std::string> files;
  errno = 0;
  while (const dirent* const entry = readdir(directory.get())) {
    const std::string_view name = entry->d_name;
    if (name.ends_with(ending)) files.push_back((fs::path(folder) / name).string());
    errno = 0;
  }
  if (errno != 0) throw cannot_list(folder);
  std::sort(files.begin(), files.end());
  return files;
}

Source open_directory(const std::string& path) {
  const std::vector<std::string> indices = files_ending_in(path, index_ending);
  if (indices.size() > 1)
    throw Error(MORUN_WEIGHTS_INDEX, "%s: has %zu files *.index.json; name the one to be packed", path.c_str(),
                indices.size());
  if (indices.size() == 1) return open_index(indices[0]);
  Source source;
  for (const std::string& file : files_ending_in(path, safetensors_ending)) append(source, open_safetensors(file));
  if (!source.tensors.empty()) return source;
  for (const std::string& file : files_ending_in(path, npy_ending)) append(source, open_npy_source(file));
  return source;
}

Source open_any(const std::string& path) {
  std::error_code error;
  if (fs::is_directory(path, error)) return open_directory(path);
  if (path.ends_with(safetensors_ending)) return open_safetensors(path);
  if (path.ends_with(index_ending)) return open_index(path);
  if (path.ends_with(npy_ending)) return open_npy_source(path);
  if (!fs::exists(path, error)) throw Error(MORUN_WEIGHTS_OPEN, "%s: %s", path.c_str(), strerror(ENOENT));
  throw Error(MORUN_WEIGHTS_SOURCE_KIND,
              "%s: is neither a directory nor ends in .safetensors, .safetensors.index.json or .npy", path.c_str());
}

// ---- Values --------------------------------------------------------------------------------------------------------

template <typename Element>
void copy_as_f32(const std::byte* bytes, uint64_t count, float* values) {
  for (uint64_t i = 0; i < count; ++i) {
    Element element;
    std::memcpy(&element, bytes + i * sizeof element, sizeof element);
    values[i] = static_cast<float>(element);
  }
}

void widen_bf16(const std::byte* bytes, uint64_t count, float* values) {
  for (uint64_t i = 0; i < count; ++i) {
    uint16_t half;
    std::memcpy(&half, bytes + i * sizeof half, sizeof half);
    const uint32_t bits = uint32_t{half} << 16;
    std::memcpy(values + i, &bits, sizeof bits);
  }
}

// The library converts whole groups of eight.
void widen_f16(const std::byte* bytes, uint64_t count, float* values) {
  const uint64_t n_group = count / 8 * 8, n_left = count - n_group;
  tavik_f16_to_f32(n_group, reinterpret_cast<const uint16_t*>(bytes), values);
  uint16_t halves[8] = {};
  float last[8];
  std::memcpy(halves, bytes + n_group * sizeof(uint16_t), n_left * sizeof(uint16_t));
  tavik_f16_to_f32(8, halves, last);
  std::copy_n(last, n_left, values + n_group);
}

// `bytes` are aligned to 2.
void convert(const Dtype& dtype, const std::byte* bytes, uint64_t count, float* values) {
  const std::string_view name = dtype.name;
  if (name == "F32") return copy_as_f32<float>(bytes, count, values);
  if (name == "F64") return copy_as_f32<double>(bytes, count, values);
  if (name == "F16") return widen_f16(bytes, count, values);
  widen_bf16(bytes, count, values);
}

constexpr uint64_t piece_size = uint64_t{1} << 20;  // bytes that are read at once

// Columns stand one behind the other.
void read_contiguous(const SourceMatrix& matrix, uint64_t first_column, uint64_t n_column, float* values,
                     std::vector<std::byte>& scratch) {
  const uint64_t element_size = matrix.tensor->dtype->n_bit / 8;
  const uint64_t count = n_column * matrix.n_inner, n_at_once = piece_size / element_size;
  scratch.resize(piece_size);
  uint64_t offset = matrix.tensor->file_offset + first_column * matrix.n_inner * element_size;
  for (uint64_t done = 0; done < count; done += n_at_once) {
    const uint64_t n = std::min(n_at_once, count - done);
    matrix.file->read(offset, n * element_size, scratch.data());
    convert(*matrix.tensor->dtype, scratch.data(), n, values + done);
    offset += n * element_size;
  }
}

// Reads of each row of W the part that lies in the columns. The function takes some rows at a time, so that columns are
// written in runs, and of a row no more columns at a time than a matrix of a few rows leaves room for.
void read_strided(const SourceMatrix& matrix, uint64_t first_column, uint64_t n_column, float* values,
                  std::vector<std::byte>& scratch) {
  constexpr uint64_t rows_at_once = 16, columns_at_once = 16384;
  const uint64_t element_size = matrix.tensor->dtype->n_bit / 8, most_columns = std::min(n_column, columns_at_once);
  const uint64_t row_size = round_up(most_columns * element_size, alignof(float));
  scratch.resize(row_size + std::min(rows_at_once, matrix.n_inner) * most_columns * sizeof(float));
  auto* const rows = reinterpret_cast<float*>(scratch.data() + row_size);
  for (uint64_t first = 0; first < matrix.n_inner; first += rows_at_once) {
    const uint64_t n_row = std::min(rows_at_once, matrix.n_inner - first);
    for (uint64_t done = 0; done < n_column; done += most_columns) {
      const uint64_t n = std::min(most_columns, n_column - done);
      for (uint64_t r = 0; r < n_row; ++r) {
        const uint64_t offset = ((first + r) * matrix.n_col + first_column + done) * element_size;
        matrix.file->read(matrix.tensor->file_offset + offset, n * element_size, scratch.data());
        convert(*matrix.tensor->dtype, scratch.data(), n, rows + r * n);
      }
      for (uint64_t c = 0; c < n; ++c)
        for (uint64_t r = 0; r < n_row; ++r) values[(done + c) * matrix.n_inner + first + r] = rows[r * n + c];
    }
  }
}

}  // namespace

Source open_source(const std::string& path) {
  Source source = open_any(path);
  if (source.tensors.empty()) throw Error(MORUN_WEIGHTS_SOURCE_EMPTY, "%s: holds no tensors", path.c_str());
  return source;
}

bool is_float(const Dtype& dtype) {
  constexpr std::string_view floats[] = {"F64", "F32", "F16", "BF16"};
  return std::find(std::begin(floats), std::end(floats), dtype.name) != std::end(floats);
}

void read_columns(const SourceMatrix& matrix, uint64_t first_column, uint64_t n_column, float* values,
                  std::vector<std::byte>& scratch) {
  if (matrix.is_transposed)
    read_contiguous(matrix, first_column, n_column, values, scratch);
  else
    read_strided(matrix, first_column, n_column, values, scratch);
}

}  // namespace weights

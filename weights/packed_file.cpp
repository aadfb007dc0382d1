#include "weights/packed_file.h"

#include <algorithm>
#include <utility>

#include "weights/checksum.h"
#include "weights/error.h"
#include "weights/layout.h"

namespace weights {
namespace {

void check_version(const std::string& path, const std::map<std::string, std::string>& metadata) {
  const auto format = metadata.find(format_key);
  if (format == metadata.end())
    throw Error(MORUN_WEIGHTS_NOT_PACKED_FILE, "%s: is no packed file, its __metadata__ has no %s", path.c_str(),
                format_key);
  if (format->second != std::to_string(MORUN_WEIGHTS_FORMAT_VERSION))
    throw Error(MORUN_WEIGHTS_UNKNOWN_VERSION, "%s: is a packed file of version %s, which is not version %d",
                path.c_str(), in_quotes(format->second).c_str(), MORUN_WEIGHTS_FORMAT_VERSION);
}

// `place` begins the messages: file and tensor.
morun_weights_layout checked_layout(const std::string& place, const PackedTensor& tensor) {
  const Record& record = tensor.record;
  if (tensor.entry.dtype != dtype_by_name("U8") || tensor.entry.shape.size() != 1)
    throw Error(MORUN_WEIGHTS_PACKED_DTYPE, "%s: a packed matrix is a U8 tensor of 1 dimension, not %s of %zu",
                place.c_str(), tensor.entry.dtype->name, tensor.entry.shape.size());
  morun_weights_layout layout;
  try {
    layout = layout_of(record.form, record.n_inner, record.n_col);
  } catch (const Error& error) {
    throw Error(error.status(), "%s: %s", place.c_str(), error.what());
  }
  if (record.zero_points != layout.zero_points || record.scales != layout.scales || record.sums != layout.sums)
    throw Error(MORUN_WEIGHTS_PARTS,
                "%s: zero points, scales and sums are said to stand at bytes %ju, %ju and %ju, and those of %ju x %ju "
                "in form %s stand at %ju, %ju and %ju",
                place.c_str(), uintmax_t{record.zero_points}, uintmax_t{record.scales}, uintmax_t{record.sums},
                uintmax_t{record.n_inner}, uintmax_t{record.n_col}, form_name(record.form),
                uintmax_t{layout.zero_points}, uintmax_t{layout.scales}, uintmax_t{layout.sums});
  if (tensor.n_byte() != layout.n_byte)
    throw Error(MORUN_WEIGHTS_PACKED_SIZE, "%s: has %ju bytes, and %ju x %ju in form %s takes %ju", place.c_str(),
                uintmax_t{tensor.n_byte()}, uintmax_t{record.n_inner}, uintmax_t{record.n_col}, form_name(record.form),
                uintmax_t{layout.n_byte});
  if (tensor.file_offset % part_alignment != 0)
    throw Error(MORUN_WEIGHTS_MISALIGNED, "%s: begins at byte %ju of the file, which is no multiple of %ju",
                place.c_str(), uintmax_t{tensor.file_offset}, uintmax_t{part_alignment});
  return layout;
}

// Bytes: a checksum takes what was read out of the cache still.
constexpr uint64_t read_at_once = uint64_t{1} << 18;

// Reads a tensor piece by piece, each to the place that `place_of` gives for its offset.
template <typename PlaceOf>
void read_pieces(const InputFile& input, const PackedTensor& tensor, bool compares_checksum, const PlaceOf& place_of) {
  Checksum checksum;
  for (uint64_t done = 0; done < tensor.n_byte(); done += read_at_once) {
    std::byte* const piece = place_of(done);
    const uint64_t n = std::min(read_at_once, tensor.n_byte() - done);
    input.read(tensor.file_offset + done, n, piece);
    if (compares_checksum) checksum.add(piece, n);
  }
  if (!compares_checksum || checksum.value() == tensor.record.checksum) return;
  throw Error(MORUN_WEIGHTS_CHECKSUM, "%s: tensor %s: the bytes have checksum %016jx, not %016jx as packed",
              input.path().c_str(), in_quotes(tensor.entry.name).c_str(), uintmax_t{checksum.value()},
              uintmax_t{tensor.record.checksum});
}

}  // namespace

std::vector<PackedTensor> checked_tensors(const std::string& path, SafetensorsHeader header) {
  check_version(path, header.metadata);
  if (header.data_begin % data_alignment != 0)
    throw Error(MORUN_WEIGHTS_MISALIGNED, "%s: the data begin at byte %ju, which is no multiple of %ju", path.c_str(),
                uintmax_t{header.data_begin}, uintmax_t{data_alignment});
  std::vector<PackedTensor> tensors;
  tensors.reserve(header.tensors.size());
  for (TensorEntry& entry : header.tensors) {
    const std::string place = path + ": tensor " + in_quotes(entry.name);
    const auto text = header.metadata.extract(record_prefix + entry.name);
    if (text.empty()) throw Error(MORUN_WEIGHTS_RECORD_MISSING, "%s: has no record", place.c_str());
    PackedTensor tensor;
    tensor.record = parse_record(place, text.mapped());
    tensor.file_offset = header.data_begin + entry.begin;
    tensor.entry = std::move(entry);
    if (is_packed(tensor.record.form)) tensor.layout = checked_layout(place, tensor);
    tensors.push_back(std::move(tensor));
  }
  // The records of all tensors are taken out.
  const auto stray = header.metadata.lower_bound(record_prefix);
  if (stray != header.metadata.end() && stray->first.starts_with(record_prefix))
    throw Error(MORUN_WEIGHTS_RECORD_STRAY, "%s: the record %s belongs to no tensor", path.c_str(),
                in_quotes(stray->first).c_str());
  return tensors;
}

}  // namespace weights

morun_weights_file::morun_weights_file(const char* path)
    : input(path), tensors(weights::checked_tensors(input.path(), weights::read_header(input))) {
  for (uint64_t i = 0; i < tensors.size(); ++i) numbers.emplace(tensors[i].entry.name, i);
}

const weights::PackedTensor& morun_weights_file::tensor(uint64_t index) const {
  weights::require_argument(index < tensors.size(), "index is not below the number of tensors");
  return tensors[index];
}

void morun_weights_file::read_tensor(const weights::PackedTensor& tensor, bool compares_checksum, void* bytes) const {
  weights::read_pieces(input, tensor, compares_checksum,
                       [bytes](uint64_t offset) { return static_cast<std::byte*>(bytes) + offset; });
}

void morun_weights_file::verify_tensor(const weights::PackedTensor& tensor) const {
  std::vector<std::byte> piece(std::min(weights::read_at_once, tensor.n_byte()));
  weights::read_pieces(input, tensor, true, [&piece](uint64_t) { return piece.data(); });
}

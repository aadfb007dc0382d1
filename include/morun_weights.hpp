/// Weight files for C++20: packed files, loading into shared buffers, the quantisers and the packer of
/// libmorun_weights, on top of morun.hpp and with its manner of results, owners and errors. The header stands apart
/// from morun.hpp because it is installed with the library that it needs: a program that loads nothing needs neither.
///
///   morun::Result<morun::WeightFile> file = morun::WeightFile::open("packed.safetensors");
///   const morun::Request requests[] = {{"up.weight"}, {"down.weight"}};
///   morun::Result<morun::LoadedWeights> loaded = morun::load(*file, context, requests);
///   morun::Result<morun::Weights<morun::a8w8>> up = loaded->weights<morun::a8w8>(0);
///
/// Statuses are those of morun_weights.h (Origin::weights), with the text of morun_weights_error_text.
///
/// Threads. An object is used by one thread at a time; what loads or packs into a context counts as a use of it.
/// Several threads may verify and unpack one WeightFile, and quantise with one finished Calibration, at a time.
#pragma once

#include "morun.hpp"
#include "morun_weights.h"

namespace morun {

namespace detail {

inline Result<void> of_weights(int32_t status) {
  if (status == MORUN_WEIGHTS_SUCCESS) return {};
  return Error{Origin::weights, status, morun_weights_error_text()};
}

template <auto free>
struct Free {
  template <typename T>
  void operator()(T* object) const {
    free(object);
  }
};

template <WeightForm Form>
constexpr int32_t form_number = std::same_as<Form, f16>    ? MORUN_WEIGHTS_F16
                                : std::same_as<Form, a8w8> ? MORUN_WEIGHTS_A8W8
                                                           : MORUN_WEIGHTS_A8W4;

}  // namespace detail

/// How scale and zero point of a column are chosen; docs/weight-files.md has the formulas.
enum class Quantiser : int32_t {
  minmax = MORUN_WEIGHTS_MINMAX,          ///< the column's range, stretched to include 0
  mse = MORUN_WEIGHTS_MSE,                ///< the range of the least squared error
  calibrated = MORUN_WEIGHTS_CALIBRATED,  ///< the least error of the product with the activations of a Calibration
  library = MORUN_WEIGHTS_LIBRARY         ///< as morun::pack without options
};

// ---- Packing in memory ----------------------------------------------------------------------------------------------

/// What the quantiser `calibrated` knows of a layer: the covariance of its activations.
class Calibration {
 public:
  /// Takes 8 * n_inner^2 bytes. Fails with the statuses of morun_weights_calibration_create.
  static Result<Calibration> create(uint64_t n_inner) {
    morun_weights_calibration* calibration = nullptr;
    if (Result<void> made = detail::of_weights(morun_weights_calibration_create(n_inner, &calibration)); !made)
      return made.error();
    return Calibration(calibration, n_inner);
  }

  /// Adds activations, n_row x n_inner. Fails with Misuse::view, Misuse::empty, Misuse::extents (another number of
  /// columns than n_inner) and the statuses of morun_weights_calibration_add.
  Result<void> add(Matrix<const float> x) {
    if (Result<void> checked = detail::check_view(x); !checked) return checked;
    if (calibration_ == nullptr) return detail::empty("calibration");
    if (x.n_col() != n_inner_)
      return detail::misuse(Misuse::extents, "an activation of " + detail::extents(x.n_row(), x.n_col()) +
                                                 " is added to a calibration of " + std::to_string(n_inner_));
    return detail::of_weights(morun_weights_calibration_add(calibration_.get(), x.n_row(), x.data(), x.n_col()));
  }

  /// Adds `damping` times the mean of the diagonal to the diagonal and factorises. Nothing can be added afterwards.
  /// Fails with Misuse::empty and the statuses of morun_weights_calibration_finish.
  Result<void> finish(double damping = 0.05) {
    if (calibration_ == nullptr) return detail::empty("calibration");
    return detail::of_weights(morun_weights_calibration_finish(calibration_.get(), damping));
  }

  /// For the functions of morun_weights.h; NULL when the calibration is empty.
  const morun_weights_calibration* get() const { return calibration_.get(); }

 private:
  Calibration(morun_weights_calibration* calibration, uint64_t n_inner)
      : calibration_(calibration), n_inner_(n_inner) {}

  std::unique_ptr<morun_weights_calibration, detail::Free<morun_weights_calibration_free>> calibration_;
  uint64_t n_inner_;
};

/// How morun::pack packs.
struct PackOptions {
  Quantiser quantiser = Quantiser::minmax;         ///< not used in form f16
  const Calibration* calibration = nullptr;        ///< finished; required by `calibrated`
  bool allow_non_finite = false;                   ///< see morun_weights_recipe
  morun_weights_statistics* statistics = nullptr;  ///< receives what packing did to the values; may be NULL
};

/// Packs W, n_inner x n_col, into a shared buffer of its own, in the calling thread.
///
///   Misuse::view, Misuse::extents, Misuse::empty, TAVIK_ERROR_FAILURE   as the pack of morun.hpp
///   the statuses of morun_weights_pack_columns; NON_FINITE fills *statistics nevertheless
template <WeightForm Form>
Result<Weights<Form>> pack(const Context& context, const WeightValues& w, const PackOptions& options) {
  return detail::pack_into_buffer<Form>(context, w, [&](const Operand&, std::span<std::byte> bytes) {
    const morun_weights_recipe recipe{detail::form_number<Form>,
                                      static_cast<int32_t>(options.quantiser),
                                      w.n_inner(),
                                      w.n_col(),
                                      options.calibration == nullptr ? nullptr : options.calibration->get(),
                                      options.allow_non_finite,
                                      0};
    return detail::of_weights(morun_weights_pack_columns(&recipe, 0, w.n_col(), w.view().data(), w.inner_stride(),
                                                         w.column_stride(), bytes.data(), bytes.size(),
                                                         options.statistics));
  });
}

// ---- Packing files --------------------------------------------------------------------------------------------------

/// From checkpoints to a packed file: create, add_source and add_rule in any order, run. Fails with the statuses of the
/// functions of morun_weights.h that have the same names; a moved-from packer with NULL_ARGUMENT.
class Packer {
 public:
  static morun_weights_pack_options default_options() {
    morun_weights_pack_options options;
    morun_weights_pack_options_init(&options);
    return options;
  }
  static Result<Packer> create(const morun_weights_pack_options& options = default_options()) {
    morun_weights_packer* packer = nullptr;
    if (Result<void> made = detail::of_weights(morun_weights_packer_create(&options, &packer)); !made)
      return made.error();
    return Packer(packer);
  }

  /// A .safetensors or .npy file, an .index.json, or a directory of them.
  Result<void> add_source(const std::string& path) {
    return detail::of_weights(morun_weights_packer_add_source(get(), path.c_str()));
  }
  /// Tensors whose names match `pattern` are packed in `form` (MORUN_WEIGHTS_F16 and so on, or MORUN_WEIGHTS_CARRIED).
  Result<void> add_rule(const std::string& pattern, int32_t form) {
    return detail::of_weights(morun_weights_packer_add_rule(get(), pattern.c_str(), form));
  }
  /// Writes the packed file, or nothing.
  Result<void> run(const std::string& output) {
    return detail::of_weights(morun_weights_packer_run(get(), output.c_str()));
  }

  /// For the functions of morun_weights.h: decisions, reports, interruption; NULL when the packer is empty.
  morun_weights_packer* get() const { return packer_.get(); }

 private:
  explicit Packer(morun_weights_packer* packer) : packer_(packer) {}

  std::unique_ptr<morun_weights_packer, detail::Free<morun_weights_packer_free>> packer_;
};

// ---- Packed files and loading ---------------------------------------------------------------------------------------

/// A tensor to be loaded, by its name. See morun_weights_request for groups: tensors of one group go into one session,
/// so that their products can be one call.
struct Request {
  std::string name;
  uint32_t group = 0;
  bool alone = false;
};

/// An open packed file whose header is checked. The data stay in the file.
class WeightFile {
 public:
  /// Fails with the statuses of morun_weights_file_open.
  static Result<WeightFile> open(const std::string& path) {
    morun_weights_file* file = nullptr;
    if (Result<void> opened = detail::of_weights(morun_weights_file_open(path.c_str(), &file)); !opened)
      return opened.error();
    return WeightFile(file);
  }

  /// The number of tensors; 0 when the file is empty.
  uint64_t size() const {
    uint64_t count = 0;
    return morun_weights_file_count(get(), &count) == MORUN_WEIGHTS_SUCCESS ? count : 0;
  }
  /// The number of the tensor called `name`. Fails with NOT_FOUND; when the file is empty with NULL_ARGUMENT, as all
  /// functions of this class.
  Result<uint64_t> find(const std::string& name) const {
    uint64_t index = 0;
    if (Result<void> found = detail::of_weights(morun_weights_file_find(get(), name.c_str(), &index)); !found)
      return found.error();
    return index;
  }
  /// Tensor number `index`; its texts live as long as the file. Fails with BAD_ARGUMENT.
  Result<morun_weights_tensor> tensor(uint64_t index) const {
    morun_weights_tensor tensor;
    if (Result<void> found = detail::of_weights(morun_weights_file_tensor(get(), index, &tensor)); !found)
      return found.error();
    return tensor;
  }
  /// Compares a tensor with its checksum. Fails with the statuses of morun_weights_file_verify, CHECKSUM among them.
  Result<void> verify(uint64_t index) const { return detail::of_weights(morun_weights_file_verify(get(), index)); }
  /// Stores the values that a packed tensor stands for, n_inner x n_col. Fails with Misuse::view, Misuse::extents, and
  /// the statuses of morun_weights_file_unpack.
  Result<void> unpack(uint64_t index, Matrix<float> values) const {
    if (Result<void> checked = detail::check_view(values); !checked) return checked;
    Result<morun_weights_tensor> it = tensor(index);
    if (!it) return it.error();
    if (it->form != MORUN_WEIGHTS_CARRIED && (values.n_row() != it->n_inner || values.n_col() != it->n_col))
      return detail::misuse(Misuse::extents, "a tensor of " + detail::extents(it->n_inner, it->n_col) +
                                                 " is unpacked into " +
                                                 detail::extents(values.n_row(), values.n_col()));
    return detail::of_weights(morun_weights_file_unpack(get(), index, values.data()));
  }

  /// For the functions of morun_weights.h; NULL when the file is empty.
  const morun_weights_file* get() const { return file_.get(); }

 private:
  explicit WeightFile(morun_weights_file* file) : file_(file) {}

  std::unique_ptr<morun_weights_file, detail::Free<morun_weights_file_close>> file_;
};

namespace detail {

/// The buffers of loaded weights, which LoadedWeights and all Weights taken from it share.
class LoadedBuffers : public WeightsOwner {
 public:
  explicit LoadedBuffers(SharedContext context) : context_(std::move(context)) {}
  LoadedBuffers(const LoadedBuffers&) = delete;
  LoadedBuffers& operator=(const LoadedBuffers&) = delete;
  ~LoadedBuffers() override {
    if (loaded_ != nullptr) release_at_last([this] { return release(); });
  }

  Result<void> load(const morun_weights_file* file, std::span<const morun_weights_request> requests,
                    const morun_weights_load_options& options) {
    return of_weights(morun_weights_load(file, context_->get(), requests.size(), requests.data(), &options, &loaded_));
  }
  Result<void> release() override {
    Result<void> released = of_weights(morun_weights_release(loaded_));
    if (released) loaded_ = nullptr;
    return released;
  }
  const morun_weights_loaded* get() const { return loaded_; }
  const SharedContext& context() const { return context_; }

 private:
  SharedContext context_;
  morun_weights_loaded* loaded_ = nullptr;
};

}  // namespace detail

struct LoadOptions {
  uint64_t largest_buffer = 0;  ///< bytes that no buffer exceeds, 2048 to 2^32 - 2048; 0 stands for 2^28
  bool skip_checksums = false;
};

/// Tensors of a packed file in shared buffers of a context. They keep the context open; the file may end before them.
class LoadedWeights {
 public:
  /// The weights of request number `index`. They share the memory, which ends with the last of them and this object.
  ///
  ///   Misuse::empty   the object is empty
  ///   Misuse::form    the tensor is packed in another form
  ///   BAD_ARGUMENT    there are not that many requests
  template <WeightForm Form>
  Result<Weights<Form>> weights(uint64_t index) const {
    if (buffers_ == nullptr) return detail::empty("set of weights");
    morun_weights_operand found;
    if (Result<void> is_found = detail::of_weights(morun_weights_operand_of(buffers_->get(), index, &found)); !is_found)
      return is_found.error();
    if (found.form != detail::form_number<Form>)
      return detail::misuse(Misuse::form, "the weights of request " + std::to_string(index) +
                                              " are packed in form number " + std::to_string(found.form) +
                                              ", not in number " + std::to_string(detail::form_number<Form>));
    const auto layout =
        detail::layout_of<Form>(static_cast<uint64_t>(found.n_inner), static_cast<uint64_t>(found.n_col));
    const uint64_t n_byte = layout ? layout->second : 0;
    const Operand operand{found.fd,
                          found.session,
                          found.q_offset,
                          found.z_offset,
                          found.s_offset,
                          found.sum_offset,
                          found.n_inner,
                          found.n_col,
                          found.padded_n_inner,
                          found.padded_n_col,
                          {static_cast<const std::byte*>(found.bytes), n_byte}};
    return detail_access::weights<Form>(buffers_->context(), buffers_, operand);
  }

  /// Frees the buffers before the destructor does.
  ///
  ///   Misuse::empty           the object is empty
  ///   Misuse::in_use          weights taken from it are there
  ///   MORUN_WEIGHTS_BUFFER    the DSP refuses to let go of a buffer; the others are freed
  Result<void> release() {
    if (buffers_ == nullptr) return detail::empty("set of weights");
    if (buffers_.use_count() > 1) return detail::misuse(Misuse::in_use, "weights of the set are still there");
    if (Result<void> released = buffers_->release(); !released) return released;
    buffers_ = nullptr;
    return {};
  }

 private:
  friend Result<LoadedWeights> load(const WeightFile&, const Context&, std::span<const Request>, const LoadOptions&);
  explicit LoadedWeights(std::shared_ptr<detail::LoadedBuffers> buffers) : buffers_(std::move(buffers)) {}

  std::shared_ptr<detail::LoadedBuffers> buffers_;
};

/// Reads packed tensors straight into new shared buffers. morun_weights_load says how buffers and sessions are chosen.
///
///   Misuse::empty    the context is empty
///   Misuse::memory   no host memory for the list of requests
///   NOT_FOUND        the file has no tensor of a requested name
///   the statuses of morun_weights_load
/// A failure leaves nothing allocated.
inline Result<LoadedWeights> load(const WeightFile& file, const Context& context, std::span<const Request> requests,
                                  const LoadOptions& options = {}) {
  if (context.get() == nullptr) return detail::empty("context");
  const auto numbered = detail::host_array<morun_weights_request>(requests.size());
  if (numbered == nullptr) return detail::no_memory();
  for (size_t i = 0; i < requests.size(); ++i) {
    Result<uint64_t> index = file.find(requests[i].name);
    if (!index) return index.error();
    numbered[i] = {*index, requests[i].group, requests[i].alone};
  }
  morun_weights_load_options load_options;
  morun_weights_load_options_init(&load_options);
  if (options.largest_buffer != 0) load_options.largest_buffer = options.largest_buffer;
  load_options.skip_checksums = options.skip_checksums;
  auto buffers = std::make_shared<detail::LoadedBuffers>(detail_access::context(context));
  if (Result<void> loaded = buffers->load(file.get(), {numbered.get(), requests.size()}, load_options); !loaded)
    return loaded.error();
  return LoadedWeights(std::move(buffers));
}

}  // namespace morun

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_set>

#include "weights/checksum.h"
#include "weights/decide.h"
#include "weights/error.h"
#include "weights/layout.h"
#include "weights/output_file.h"
#include "weights/record.h"
#include "weights/relative_error.h"

struct morun_weights_packer {
  explicit morun_weights_packer(const morun_weights_pack_options& given) : options(given) {
    if (given.activations != nullptr) activations = given.activations;
  }

  // What becomes of the tensors; made anew after each change.
  std::vector<weights::Decision>& decisions() const {
    if (!decided) decided = weights::decide(source.tensors, rules, options.form, options.transpose != 0);
    return *decided;
  }
  void check_unchanged() const { weights::require_argument(!has_run, "the packer has run"); }

  morun_weights_pack_options options;
  std::string activations;  // empty: none
  weights::Source source;
  std::unordered_set<std::string> names;
  std::vector<weights::Rule> rules;
  mutable std::optional<std::vector<weights::Decision>> decided;
  std::atomic<bool> is_interrupted = false;
  bool has_run = false;
};

namespace weights {
namespace {

using Clock = std::chrono::steady_clock;
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets the flag");

constexpr uint64_t copied_at_once = uint64_t{1} << 22;         // bytes
constexpr uint64_t stripe_size = uint64_t{1} << 22;            // of columns that stand one behind the other, as f32
constexpr uint64_t row_major_stripe_size = uint64_t{1} << 24;  // of columns whose rows are read one by one

[[noreturn]] void rethrow(int32_t status, const std::string& name) {
  throw Error(status, "tensor %s: %s", in_quotes(name).c_str(), morun_weights_error_text());
}

// ---- Activations ---------------------------------------------------------------------------------------------------

struct CalibrationRelease {
  void operator()(morun_weights_calibration* calibration) const { morun_weights_calibration_free(calibration); }
};
using Calibration = std::unique_ptr<morun_weights_calibration, CalibrationRelease>;

// The activations that the options name, by tensor.
class Activations {
 public:
  explicit Activations(const std::string& path) : path_(path), is_file_(path.ends_with(".npy")) {}

  void require_matrices(uint64_t n_packed) const {
    require_argument(!is_file_ || n_packed == 1, "activations is one file, and not just one matrix is packed");
  }

  // Activations that no matrix takes are a mistake, such as a wrong folder.
  void require_use(uint64_t n_taken) const {
    if (path_.empty() || n_taken > 0) return;
    throw Error(MORUN_WEIGHTS_NO_ACTIVATION, "%s: is to hold activations, and has none for a matrix that is packed",
                path_.c_str());
  }

  // Throws NO_ACTIVATION where the matrix is to be calibrated and there is none, ACTIVATION_SHAPE.
  std::optional<SourceTensor> find(const Decision& decision, bool is_required) const {
    if (path_.empty()) return std::nullopt;
    const std::string& name = decision.tensor->name;
    const bool is_file_name = is_file_ || name.find('/') == std::string::npos;
    const std::string path = is_file_ ? path_ : path_ + "/" + name + ".npy";
    if (!is_file_name || access(path.c_str(), F_OK) != 0) {
      if (!is_required && !is_file_) return std::nullopt;
      throw Error(MORUN_WEIGHTS_NO_ACTIVATION, "tensor %s: there is no activation %s", in_quotes(name).c_str(),
                  path.c_str());
    }
    SourceTensor activation = open_npy(path);
    if (!is_float(*activation.dtype) || activation.shape.size() != 2 || activation.shape[1] != decision.n_inner)
      throw Error(MORUN_WEIGHTS_ACTIVATION_SHAPE, "tensor %s: the activation %s is no matrix of %ju columns of floats",
                  in_quotes(name).c_str(), path.c_str(), uintmax_t{decision.n_inner});
    return activation;
  }

 private:
  std::string path_;
  bool is_file_;
};

// `go_on` is called before each piece of the activation, and throws to end the calibration.
template <typename GoOn>
Calibration calibrate(const SourceTensor& activation, double damping, const std::string& name, const GoOn& go_on) {
  constexpr uint64_t most_rows_at_once = 64;
  const uint64_t n_row = activation.shape[0], n_inner = activation.shape[1];
  morun_weights_calibration* made = nullptr;
  if (const int32_t status = morun_weights_calibration_create(n_inner, &made); status != MORUN_WEIGHTS_SUCCESS)
    rethrow(status, name);
  Calibration calibration(made);
  // Rows of the activation are columns of its transpose.
  const InputFile file = activation.file->open();
  const SourceMatrix transposed = {&activation, &file, n_inner, n_row, !activation.is_fortran_order};
  const uint64_t n_at_once = std::clamp<uint64_t>(stripe_size / sizeof(float) / n_inner, 1, most_rows_at_once);
  std::vector<float> rows(std::min(n_at_once, n_row) * n_inner);
  std::vector<std::byte> scratch;
  for (uint64_t first = 0; first < n_row; first += n_at_once) {
    go_on();
    const uint64_t n = std::min(n_at_once, n_row - first);
    read_columns(transposed, first, n, rows.data(), scratch);
    if (const int32_t status = morun_weights_calibration_add(made, n, rows.data(), n_inner); status != 0)
      rethrow(status, name);
  }
  if (const int32_t status = morun_weights_calibration_finish(made, damping); status != 0) rethrow(status, name);
  return calibration;
}

// ---- Progress ------------------------------------------------------------------------------------------------------

class Progress {
 public:
  Progress(const morun_weights_pack_options& options, const std::vector<Decision>& decisions) : options_(options) {
    state_.n_tensor = decisions.size();
    for (const Decision& decision : decisions) state_.n_byte += decision.tensor->n_byte;
  }

  void begin(const Decision& decision) { state_.tensor = decision.tensor->name.c_str(); }
  void add(uint64_t n_byte) { n_byte_done_ += n_byte; }  // by any thread
  void end_tensor() { ++state_.n_tensor_done; }

  void show(bool is_end = false) {
    const auto now = Clock::now();
    if (options_.progress == nullptr || (!is_end && now < next_)) return;
    next_ = now + interval;
    state_.n_byte_done = n_byte_done_;
    state_.seconds = std::chrono::duration<double>(now - start_).count();
    options_.progress(options_.user, &state_);
  }

  static constexpr auto interval = std::chrono::milliseconds(100);

 private:
  const morun_weights_pack_options& options_;
  morun_weights_progress state_ = {};
  std::atomic<uint64_t> n_byte_done_ = 0;
  Clock::time_point start_ = Clock::now(), next_ = start_ + interval;
};

void require_not_interrupted(const std::atomic<bool>& is_interrupted) {
  if (is_interrupted) throw Error(MORUN_WEIGHTS_INTERRUPTED, "packing was interrupted");
}

// ---- Packing one matrix --------------------------------------------------------------------------------------------

// Columns that a job takes at a time: whole rows of tiles' widths, of the same number whatever the number of jobs,
// since figures are added up stripe by stripe.
uint64_t columns_per_stripe(const SourceMatrix& matrix) {
  const uint64_t size = matrix.is_transposed ? stripe_size : row_major_stripe_size;
  return std::max<uint64_t>(1, size / sizeof(float) / matrix.n_inner / tile) * tile;
}

// Of long columns fewer jobs than are allowed fill the memory of all.
uint32_t jobs_that_fit(uint32_t n_job, uint64_t n_inner) {
  constexpr uint64_t memory_of_job = uint64_t{64} << 20, memory_of_row = 400;  // bytes; of 32 columns on their way
  return static_cast<uint32_t>(std::clamp<uint64_t>(n_job * memory_of_job / memory_of_row / n_inner, 1, n_job));
}

class MatrixJobs {
 public:
  MatrixJobs(const SourceMatrix& matrix, const morun_weights_recipe& recipe, const std::atomic<bool>& is_interrupted,
             Progress& progress, std::vector<std::byte>& packed)
      : matrix_(matrix),
        recipe_(recipe),
        is_interrupted_(is_interrupted),
        progress_(progress),
        packed_(packed),
        n_per_stripe_(columns_per_stripe(matrix)),
        statistics_((matrix.n_col + n_per_stripe_ - 1) / n_per_stripe_) {}

  // Returns when all stripes are packed; the figures of all.
  morun_weights_statistics run(uint32_t n_job) {
    n_working_ = static_cast<uint32_t>(std::min<uint64_t>(jobs_that_fit(n_job, matrix_.n_inner), statistics_.size()));
    std::vector<std::jthread> threads;
    try {
      for (uint32_t i = 0, n = n_working_; i < n; ++i) threads.emplace_back([this] { work(); });
    } catch (...) {
      next_ = statistics_.size();
      throw;
    }
    std::unique_lock lock(mutex_);
    while (!ended_.wait_for(lock, Progress::interval, [this] { return n_working_ == 0; })) progress_.show();
    lock.unlock();
    threads.clear();
    if (failure_) std::rethrow_exception(failure_);
    morun_weights_statistics all = {};
    for (const morun_weights_statistics& some : statistics_) morun_weights_statistics_add(&all, &some);
    return all;
  }

 private:
  void work() {
    try {
      std::vector<float> values;
      std::vector<std::byte> scratch;
      for (uint64_t stripe; (stripe = next_++) < statistics_.size();) pack_stripe(stripe, values, scratch);
    } catch (...) {
      const std::lock_guard lock(mutex_);
      next_ = statistics_.size();
      if (!failure_) failure_ = std::current_exception();
    }
    const std::lock_guard lock(mutex_);
    --n_working_;
    ended_.notify_one();
  }

  void pack_stripe(uint64_t stripe, std::vector<float>& values, std::vector<std::byte>& scratch) {
    const uint64_t first = stripe * n_per_stripe_, n_column = std::min(n_per_stripe_, matrix_.n_col - first);
    values.resize(std::min(n_per_stripe_, matrix_.n_col) * matrix_.n_inner);
    require_not_interrupted(is_interrupted_);
    read_columns(matrix_, first, n_column, values.data(), scratch);
    const uint64_t column_size = matrix_.n_inner * matrix_.tensor->dtype->n_bit / 8;
    for (uint64_t done = 0; done < n_column; done += tile) {
      require_not_interrupted(is_interrupted_);
      const uint64_t n = std::min(tile, n_column - done);
      morun_weights_statistics some;
      const int32_t status =
          morun_weights_pack_columns(&recipe_, first + done, n, values.data() + done * matrix_.n_inner, 1,
                                     matrix_.n_inner, packed_.data(), packed_.size(), &some);
      if (status != MORUN_WEIGHTS_SUCCESS) rethrow(status, matrix_.tensor->name);
      morun_weights_statistics_add(&statistics_[stripe], &some);
      progress_.add(n * column_size);
    }
  }

  const SourceMatrix& matrix_;
  const morun_weights_recipe& recipe_;
  const std::atomic<bool>& is_interrupted_;
  Progress& progress_;
  std::vector<std::byte>& packed_;
  uint64_t n_per_stripe_;
  std::vector<morun_weights_statistics> statistics_;  // by stripe
  std::atomic<uint64_t> next_ = 0;                    // stripe
  std::mutex mutex_;
  std::condition_variable ended_;
  uint32_t n_working_ = 0;
  std::exception_ptr failure_;
};

// ---- The file ------------------------------------------------------------------------------------------------------

Record record_of(const Decision& decision, int32_t quantiser) {
  Record record;
  record.form = decision.form;
  record.source = decision.tensor->name;
  record.source_dtype = decision.tensor->dtype->name;
  record.checksum = decision.checksum;
  if (!is_packed(decision.form)) return record;
  const morun_weights_layout layout = layout_of(decision.form, decision.n_inner, decision.n_col);
  record.quantiser = quantiser;
  record.n_inner = decision.n_inner;
  record.n_col = decision.n_col;
  record.zero_points = layout.zero_points;
  record.scales = layout.scales;
  record.sums = layout.sums;
  record.error = decision.error;
  record.product_error = decision.product_error;
  return record;
}

TensorEntry entry_of(const Decision& decision, uint64_t begin) {
  TensorEntry entry;
  entry.name = decision.tensor->name;
  entry.begin = begin;
  entry.end = begin + decision.n_byte;
  entry.dtype = is_packed(decision.form) ? dtype_by_name("U8") : decision.tensor->dtype;
  entry.shape = is_packed(decision.form) ? std::vector<uint64_t>{decision.n_byte} : decision.tensor->shape;
  return entry;
}

// What the sources' __metadata__ say is kept, but for what this format says itself.
std::map<std::string, std::string> metadata_of_sources(const Source& source) {
  std::map<std::string, std::string> metadata = source.metadata;
  std::erase_if(metadata, [](const auto& member) { return member.first.starts_with("morun."); });
  return metadata;
}

class Run {
 public:
  explicit Run(morun_weights_packer& packer)
      : packer_(packer),
        options_(packer.options),
        decisions_(packer.decisions()),
        activations_(packer.activations),
        progress_(options_, decisions_) {}

  void write_to(const std::string& path) {
    check();
    const std::string header = longest_header();
    OutputFile file(path);
    std::vector<std::byte> buffer;
    uint64_t offset = header.size();
    for (Decision& decision : decisions_) {
      require_not_interrupted(packer_.is_interrupted);
      progress_.begin(decision);
      if (is_packed(decision.form))
        pack(decision, file, offset, buffer);
      else
        carry(decision, file, offset);
      offset += decision.n_byte;
      progress_.end_tensor();
    }
    const std::string text = format_header(entries(), metadata(), header.size());
    file.write(0, text.size(), text.data());
    progress_.show(true);
    require_not_interrupted(packer_.is_interrupted);  // the last report may have had enough too
    file.commit();
    for (Decision& decision : decisions_) decision.is_done = true;
  }

 private:
  // Called between pieces of work.
  void go_on() {
    progress_.show();
    require_not_interrupted(packer_.is_interrupted);
  }

  bool is_calibrated(const Decision& decision) const {
    return is_quantised(decision.form) && options_.quantiser == MORUN_WEIGHTS_CALIBRATED;
  }

  // What can be known to fail before anything is written.
  void check() const {
    if (decisions_.empty()) throw Error(MORUN_WEIGHTS_SOURCE_EMPTY, "there is nothing to pack: no source was added");
    require_rules_used(packer_.source.tensors, packer_.rules);
    activations_.require_matrices(static_cast<uint64_t>(
        std::count_if(decisions_.begin(), decisions_.end(), [](const Decision& d) { return is_packed(d.form); })));
    uint64_t n_activation = 0;
    for (const Decision& decision : decisions_) {
      if (is_packed(decision.form)) {
        if (!decision.refusal.empty())
          throw Error(MORUN_WEIGHTS_EXTENTS, "tensor %s: %s", in_quotes(decision.tensor->name).c_str(),
                      decision.refusal.c_str());
        if (activations_.find(decision, is_calibrated(decision))) ++n_activation;
      } else if (decision.tensor->is_fortran_order) {
        throw Error(MORUN_WEIGHTS_NPY, "%s: is in Fortran order and cannot be carried over as it is",
                    decision.tensor->file->path().c_str());
      }
    }
    activations_.require_use(n_activation);
  }

  std::vector<TensorEntry> entries() const {
    std::vector<TensorEntry> entries;
    uint64_t begin = 0;
    for (const Decision& decision : decisions_) {
      entries.push_back(entry_of(decision, begin));
      begin = entries.back().end;
    }
    return entries;
  }

  std::map<std::string, std::string> metadata() const {
    std::map<std::string, std::string> metadata = metadata_of_sources(packer_.source);
    metadata[format_key] = std::to_string(MORUN_WEIGHTS_FORMAT_VERSION);
    for (const Decision& decision : decisions_)
      metadata[record_prefix + decision.tensor->name] = format_record(record_of(decision, options_.quantiser));
    return metadata;
  }

  // The errors are known when the data are written, and the header stands before these: it gets as much room as the
  // longest numbers take.
  std::string longest_header() {
    constexpr double longest_number = 2.2250738585072014e-308;
    for (Decision& decision : decisions_) decision.error = decision.product_error = longest_number;
    return format_header(entries(), metadata(), 0);
  }

  void pack(Decision& decision, const OutputFile& file, uint64_t offset, std::vector<std::byte>& buffer) {
    const std::optional<SourceTensor> activation = activations_.find(decision, is_calibrated(decision));
    Calibration calibration;
    if (activation) calibration = calibrate(*activation, options_.damping, decision.tensor->name, [&] { go_on(); });
    const morun_weights_recipe recipe = {decision.form,
                                         options_.quantiser,
                                         decision.n_inner,
                                         decision.n_col,
                                         calibration.get(),
                                         options_.allow_non_finite,
                                         0};
    const InputFile source = decision.tensor->file->open();
    const SourceMatrix matrix = {decision.tensor, &source, decision.n_inner, decision.n_col, decision.is_transposed};
    if (buffer.empty()) buffer.resize(largest_packed());
    decision.statistics = MatrixJobs(matrix, recipe, packer_.is_interrupted, progress_, buffer).run(options_.n_job);
    decision.error = relative_error(decision.statistics.squared_error, decision.statistics.sum_of_squares);
    decision.product_error =
        calibration ? relative_error(decision.statistics.product_error, decision.statistics.product_squares) : -1;
    Checksum checksum;
    for (uint64_t done = 0, n_byte = decision.n_byte; done < n_byte; done += copied_at_once) {
      go_on();
      const uint64_t n = std::min(copied_at_once, n_byte - done);
      checksum.add(buffer.data() + done, n);
      file.write(offset + done, n, buffer.data() + done);
    }
    decision.checksum = checksum.value();
  }

  void carry(Decision& decision, const OutputFile& file, uint64_t offset) {
    const SourceTensor& tensor = *decision.tensor;
    const InputFile source = tensor.file->open();
    std::vector<std::byte> bytes(std::min(copied_at_once, tensor.n_byte));
    Checksum checksum;
    for (uint64_t done = 0; done < tensor.n_byte; done += copied_at_once) {
      go_on();
      const uint64_t n = std::min(copied_at_once, tensor.n_byte - done);
      source.read(tensor.file_offset + done, n, bytes.data());
      checksum.add(bytes.data(), n);
      file.write(offset + done, n, bytes.data());
      progress_.add(n);
    }
    decision.checksum = checksum.value();
    decision.error = 0;
    decision.product_error = -1;
  }

  uint64_t largest_packed() const {
    uint64_t largest = 0;
    for (const Decision& decision : decisions_)
      if (is_packed(decision.form)) largest = std::max(largest, decision.n_byte);
    return largest;
  }

  morun_weights_packer& packer_;
  const morun_weights_pack_options& options_;
  std::vector<Decision>& decisions_;
  Activations activations_;
  Progress progress_;
};

void check_options(const morun_weights_pack_options& options) {
  require_argument(is_packed(options.form), "form is none of a packed matrix");
  require_argument(quantiser_name(options.quantiser) != nullptr, "quantiser is none");
  require_argument(options.n_job >= 1 && options.n_job <= 256, "n_job is not within 1 to 256");
  require_argument(options.damping >= 0 && options.damping <= 1, "damping is not within 0 to 1");
  require_argument(options.quantiser != MORUN_WEIGHTS_CALIBRATED || options.activations != nullptr,
                   "calibrated needs activations");
}

morun_weights_pack_options default_options() {
  morun_weights_pack_options options = {};
  options.form = MORUN_WEIGHTS_A8W8;
  options.quantiser = MORUN_WEIGHTS_MINMAX;
  options.transpose = 1;
  options.n_job = 1;
  options.damping = 0.05;
  return options;
}

void add_source(morun_weights_packer& packer, Source source) {
  std::unordered_set<std::string> names = packer.names;
  for (const SourceTensor& tensor : source.tensors)
    if (!names.insert(tensor.name).second)
      throw Error(MORUN_WEIGHTS_DUPLICATE_NAME, "%s: another source or file has a tensor %s too",
                  tensor.file->path().c_str(), in_quotes(tensor.name).c_str());
  packer.decided.reset();
  std::move(source.tensors.begin(), source.tensors.end(), std::back_inserter(packer.source.tensors));
  packer.source.metadata.merge(source.metadata);
  packer.names.swap(names);
}

}  // namespace
}  // namespace weights

void morun_weights_pack_options_init(morun_weights_pack_options* options) {
  *options = weights::default_options();
}

int32_t morun_weights_packer_create(const morun_weights_pack_options* options, morun_weights_packer** packer) {
  return weights::guarded([&] {
    weights::require_not_null(packer, "packer");
    const morun_weights_pack_options chosen = options != nullptr ? *options : weights::default_options();
    weights::check_options(chosen);
    *packer = new morun_weights_packer(chosen);
  });
}

int32_t morun_weights_packer_add_source(morun_weights_packer* packer, const char* path) {
  return weights::guarded([&] {
    weights::require_not_null(packer, "packer");
    weights::require_not_null(path, "path");
    packer->check_unchanged();
    weights::add_source(*packer, weights::open_source(path));
  });
}

int32_t morun_weights_packer_add_rule(morun_weights_packer* packer, const char* pattern, int32_t form) {
  return weights::guarded([&] {
    weights::require_not_null(packer, "packer");
    weights::require_not_null(pattern, "pattern");
    packer->check_unchanged();
    weights::require_argument(form == MORUN_WEIGHTS_CARRIED || weights::is_packed(form), "form is none");
    packer->rules.push_back({pattern, form});
    packer->decided.reset();
  });
}

int32_t morun_weights_packer_count(const morun_weights_packer* packer, uint64_t* count) {
  return weights::guarded([&] {
    weights::require_not_null(packer, "packer");
    weights::require_not_null(count, "count");
    *count = packer->source.tensors.size();
  });
}

int32_t morun_weights_packer_decision(const morun_weights_packer* packer, uint64_t index,
                                      morun_weights_decision* decision) {
  return weights::guarded([&] {
    weights::require_not_null(packer, "packer");
    weights::require_not_null(decision, "decision");
    weights::require_argument(index < packer->source.tensors.size(), "index is not below the number of tensors");
    const weights::Decision& made = packer->decisions()[index];
    const weights::SourceTensor& tensor = *made.tensor;
    morun_weights_decision told = {};
    told.name = tensor.name.c_str();
    told.file = tensor.file->path().c_str();
    told.dtype = tensor.dtype->name;
    told.shape = tensor.shape.data();
    told.n_dimension = tensor.shape.size();
    told.n_source_byte = tensor.n_byte;
    told.form = made.form;
    told.quantiser = packer->options.quantiser;
    told.reason = made.reason.c_str();
    told.n_inner = made.n_inner;
    told.n_col = made.n_col;
    told.n_byte = made.n_byte;
    if (made.is_done) {
      told.is_done = 1;
      told.error = made.error;
      told.product_error = made.product_error;
      told.statistics = made.statistics;
    }
    *decision = told;
  });
}

int32_t morun_weights_packer_run(morun_weights_packer* packer, const char* output) {
  return weights::guarded([&] {
    weights::require_not_null(packer, "packer");
    weights::require_not_null(output, "output");
    packer->check_unchanged();
    try {
      weights::Run(*packer).write_to(output);
    } catch (const weights::Error& error) {
      if (error.status() == MORUN_WEIGHTS_INTERRUPTED) packer->is_interrupted = false;  // it has had its effect
      throw;
    }
    packer->has_run = true;
  });
}

void morun_weights_packer_interrupt(morun_weights_packer* packer) {
  packer->is_interrupted = true;
}

void morun_weights_packer_free(morun_weights_packer* packer) {
  delete packer;
}

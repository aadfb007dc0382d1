/// libmorun for C++20: contexts, shared buffers, weights and products whose owners release them, and whose types keep
/// the forms of weights apart. Header only, on tavik.h (the lower interface), morun.h and morun_tensor.h (the upper
/// one). A program that includes this header links with libmorun alone; morun_weights.hpp adds packed files and the
/// quantisers of libmorun_weights.
///
///   morun::Result<morun::Context> context = morun::Context::open(morun::Limits::up_to(n_row, n_inner, n_col));
///   morun::Result<morun::Weights<morun::a8w8>> weights = morun::pack<morun::a8w8>(*context, {values, n_inner, n_col});
///   morun::Result<void> done = morun::multiply({x, n_row, n_inner}, *weights, {y, n_row, n_col});
///   if (!done) std::puts(done.error().text.c_str());
///
/// Statuses. Whatever can fail returns a Result, which holds a value or an Error: the status of the call of the C
/// interface that failed, and its text. Nothing in this header throws, and everything works with -fno-exceptions;
/// morun::or_throw turns a Result into a value or an exception for programs that want one. Only the memory of texts and
/// of a context's bookkeeping, some hundred bytes, comes from the standard library, which throws std::bad_alloc (with
/// -fno-exceptions: ends the program) where there is none.
///
/// Owners. Context, Buffer, Weights and Npu can be moved and not copied. A moved-from or released owner is empty: its
/// functions return Misuse::empty. Buffers and weights keep their context open, so they may end in any order. A
/// destructor releases, and where releasing fails twice, it prints the error record to standard error; release() and
/// close() do the same with a status.
///
/// Threads. A Context and all buffers and weights of it are used, moved and destroyed by one thread at a time;
/// different contexts are independent. Npu is the process's one context, for one thread at a time. Views, results and
/// errors are plain values.
#pragma once

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#ifdef __cpp_exceptions
#  include <stdexcept>
#endif

#include "morun.h"
#include "morun_tensor.h"
#include "tavik.h"

namespace morun {

// ---- Errors and results ---------------------------------------------------------------------------------------------

/// Whose status an Error carries.
enum class Origin : uint8_t {
  tavik,    ///< TAVIK_ERROR_..., of the lower interface
  morun,    ///< MORUN_ERROR_..., of the upper interface
  weights,  ///< MORUN_WEIGHTS_..., of libmorun_weights
  layer     ///< Misuse, of this layer
};

/// The statuses of this layer's own checks.
enum class Misuse : int32_t {
  empty = 1,          ///< an owner that was moved from, released or closed
  view = 2,           ///< a view whose extents do not multiply to the number of its values
  extents = 3,        ///< extents that do not fit each other or the form
  other_context = 4,  ///< weights of different contexts in one product
  session = 5,        ///< weights a8w4, multiplied alone, that are not in session 0
  in_use = 6,         ///< a context with buffers or weights is to be closed, or loaded weights are still in use
  form = 7,           ///< loaded weights are asked for in another form than they have
  open = 8,           ///< the process's context is open already
  memory = 9          ///< host memory for copies could not be had
};

/// Why a call failed.
struct Error {
  Origin origin;
  int32_t code;      ///< a status of `origin`, never 0
  std::string text;  ///< the call, a colon, and the text of the error record; or a sentence of this layer

  bool is(Misuse misuse) const { return origin == Origin::layer && code == static_cast<int32_t>(misuse); }
};

namespace detail {

[[noreturn]] inline void stop(const char* why) {
  std::fprintf(stderr, "morun: %s\n", why);
  std::abort();
}

}  // namespace detail

/// A value, or why there is none. Asking a failure for its value prints the error's text to standard error and aborts
/// the program, and so does asking a success for its error.
template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
  Result(Error error) : state_(std::in_place_index<1>, std::move(error)) {}

  bool has_value() const { return state_.index() == 0; }
  explicit operator bool() const { return has_value(); }

  T& value() & { return *checked(); }
  const T& value() const& { return *const_cast<Result*>(this)->checked(); }
  T&& value() && { return std::move(*checked()); }
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }
  T&& operator*() && { return std::move(*this).value(); }
  T* operator->() { return checked(); }
  const T* operator->() const { return &value(); }

  const Error& error() const {
    if (has_value()) detail::stop("the error of a success is asked for");
    return *std::get_if<1>(&state_);
  }

 private:
  T* checked() {
    if (!has_value()) detail::stop(error().text.c_str());
    return std::get_if<0>(&state_);
  }

  std::variant<T, Error> state_;
};

/// Success, or why not.
template <>
class [[nodiscard]] Result<void> {
 public:
  Result() = default;
  Result(Error error) : error_(std::move(error)) {}

  bool has_value() const { return !error_.has_value(); }
  explicit operator bool() const { return has_value(); }

  const Error& error() const {
    if (has_value()) detail::stop("the error of a success is asked for");
    return *error_;
  }

 private:
  std::optional<Error> error_;
};

#ifdef __cpp_exceptions
/// What or_throw throws. what() is the error's text.
class Failure : public std::runtime_error {
 public:
  explicit Failure(const Error& error) : std::runtime_error(error.text), origin(error.origin), code(error.code) {}
  Origin origin;
  int32_t code;
};

/// The opt-in for exceptions: the value of a success; throws Failure for a failure.
template <typename T>
T or_throw(Result<T> result) {
  if (!result) throw Failure(result.error());
  if constexpr (!std::is_void_v<T>) return *std::move(result);
}
#endif

namespace detail {

inline Error misuse(Misuse misuse, std::string text) {
  return {Origin::layer, static_cast<int32_t>(misuse), std::move(text)};
}

inline Error empty(const char* what) {
  return misuse(Misuse::empty, std::string("this ") + what + " was moved from, released or closed");
}

/// Of a call of the lower interface, which has filled the error record.
inline Result<void> lower(int64_t status, const char* call) {
  if (status == TAVIK_SUCCESS) return {};
  return Error{Origin::tavik, static_cast<int32_t>(status), std::string(call) + ": " + tavik_error_get_last()->message};
}

inline void clear_record() {
  tavik_set_error(TAVIK_SUCCESS, "", "", 0, "%s", "");
}

/// Of a call of the upper interface, which has printed its line. Where the record was cleared before the call, it holds
/// what the lower interface says to the failure, if anything.
inline Result<void> upper(int64_t status, const char* call) {
  if (status == MORUN_SUCCESS) return {};
  const tavik_error& record = *tavik_error_get_last();
  const std::string why = record.code == TAVIK_SUCCESS ? "" : std::string(": ") + record.message;
  return Error{Origin::morun, static_cast<int32_t>(status),
               std::string(call) + " fails with status " + std::to_string(status) + why};
}

/// For destructors: releases, tries a second time where that fails, and then prints why.
template <typename Release>
void release_at_last(const Release& release) {
  if (release().has_value()) return;
  const Result<void> second = release();
  if (!second) std::fprintf(stderr, "morun: %s\n", second.error().text.c_str());
}

/// `n` values of undefined content, or none.
template <typename T>
std::unique_ptr<T[]> host_array(uint64_t n) {
  if (n > std::numeric_limits<ptrdiff_t>::max() / sizeof(T)) return nullptr;
  return std::unique_ptr<T[]>(new (std::nothrow) T[n]);
}

inline Error no_memory() {
  return misuse(Misuse::memory, "no host memory for a copy");
}

constexpr uint64_t tile = 32;
constexpr uint64_t whole_tiles(uint64_t n) {
  return (n + tile - 1) / tile * tile;
}

inline std::string extents(uint64_t n_row, uint64_t n_col) {
  return std::to_string(n_row) + " x " + std::to_string(n_col);
}

}  // namespace detail

// ---- Views ----------------------------------------------------------------------------------------------------------

/// A row-major n_row x n_col matrix in memory of the caller: value (r, c) is values[r * n_col + c]. T is float, or
/// const float for what is only read. The values outlive the view. The functions that take a view refuse one whose
/// extents do not multiply to values.size() (Misuse::view).
template <typename T>
requires std::same_as < std::remove_const_t<T>,
float > class Matrix {
 public:
  Matrix(std::span<T> values, uint64_t n_row, uint64_t n_col) : values_(values), n_row_(n_row), n_col_(n_col) {}
  /// What may be written may be read.
  template <typename U>
  requires(std::is_const_v<T> && !std::is_const_v<U>) Matrix(const Matrix<U>& other)
      : Matrix(other.values(), other.n_row(), other.n_col()) {}

  std::span<T> values() const { return values_; }
  T* data() const { return values_.data(); }
  uint64_t n_row() const { return n_row_; }
  uint64_t n_col() const { return n_col_; }

  bool is_valid() const {
    if (n_row_ == 0 || n_col_ == 0) return values_.empty();
    return values_.size() / n_col_ == n_row_ && values_.size() % n_col_ == 0;
  }

 private:
  std::span<T> values_;
  uint64_t n_row_, n_col_;
};

namespace detail {

template <typename T>
Result<void> check_view(const Matrix<T>& view) {
  if (view.is_valid()) return {};
  return misuse(Misuse::view, "a view of " + extents(view.n_row(), view.n_col()) + " has " +
                                  std::to_string(view.values().size()) + " values");
}

}  // namespace detail

/// Values of a weight matrix W, n_inner x n_col, from which packing reads: a Matrix of n_inner x n_col, or
/// morun::transposed of a Matrix of n_col x n_inner.
class WeightValues {
 public:
  WeightValues(std::span<const float> values, uint64_t n_inner, uint64_t n_col)
      : WeightValues(Matrix<const float>(values, n_inner, n_col)) {}
  template <typename T>
  WeightValues(const Matrix<T>& w) : WeightValues(w, w.n_row(), w.n_col(), w.n_col(), 1) {}

  Matrix<const float> view() const { return view_; }
  uint64_t n_inner() const { return n_inner_; }
  uint64_t n_col() const { return n_col_; }
  /// Value (k, c) of W is view().data()[k * inner_stride() + c * column_stride()].
  uint64_t inner_stride() const { return inner_stride_; }
  uint64_t column_stride() const { return column_stride_; }

 private:
  WeightValues(Matrix<const float> view, uint64_t n_inner, uint64_t n_col, uint64_t inner_stride,
               uint64_t column_stride)
      : view_(view), n_inner_(n_inner), n_col_(n_col), inner_stride_(inner_stride), column_stride_(column_stride) {}
  friend WeightValues transposed(Matrix<const float>);

  Matrix<const float> view_;
  uint64_t n_inner_, n_col_, inner_stride_, column_stride_;
};

/// Weights as frameworks store those of a linear layer: n_col rows of n_inner values.
inline WeightValues transposed(Matrix<const float> w) {
  return {w, w.n_col(), w.n_row(), 1, w.n_col()};
}

// ---- Contexts and shared buffers ------------------------------------------------------------------------------------

/// The largest matrices that a context takes; elements and rows. The shared memory of a context grows with them, see
/// tavik_init. The defaults are those of tavik_options_alloc.
struct Limits {
  uint64_t n_output_element = uint64_t{1} << 24;  ///< n_row * n_col of the largest result
  uint64_t n_row = 1024;
  uint64_t n_input_element = uint64_t{1} << 28;  ///< n_row * n_inner of the largest activation

  /// Room for products of up to n_row x n_inner activations and n_inner x n_col weights, padded to whole tiles.
  static constexpr Limits up_to(uint64_t n_row, uint64_t n_inner, uint64_t n_col) {
    const uint64_t n_padded_row = (n_row + 63) / 64 * 64;
    return {n_padded_row * detail::whole_tiles(n_col), n_padded_row, n_padded_row * detail::whole_tiles(n_inner)};
  }
};

namespace detail {

/// What a context, its buffers and its weights share; the last of them closes it.
class OpenContext {
 public:
  OpenContext() = default;
  OpenContext(const OpenContext&) = delete;
  OpenContext& operator=(const OpenContext&) = delete;
  ~OpenContext() {
    if (context_ == nullptr) return;
    release_at_last([this] { return close(); });
    tavik_context_free(context_);  // a context that cannot be closed; otherwise NULL
  }

  Result<void> open(const tavik_options& options) { return lower(tavik_init(&options, &context_), "tavik_init"); }
  Result<void> close() {
    Result<void> closed = lower(tavik_cleanup(context_), "tavik_cleanup");
    if (closed) context_ = nullptr;
    return closed;
  }
  Result<void> free(void*, int32_t fd) { return lower(tavik_buffer_free(context_, fd), "tavik_buffer_free"); }
  tavik_context* get() const { return context_; }

 private:
  tavik_context* context_ = nullptr;
};
using SharedContext = std::shared_ptr<OpenContext>;

/// Likewise for the process's context of the upper interface.
class OpenNpu {
 public:
  OpenNpu() = default;
  OpenNpu(const OpenNpu&) = delete;
  OpenNpu& operator=(const OpenNpu&) = delete;
  ~OpenNpu() {
    if (!is_open_) return;
    release_at_last([this] { return close(); });
    is_process_open() = false;
  }

  Result<void> open() {
    if (is_process_open()) return misuse(Misuse::open, "the process's context is open already");
    clear_record();
    Result<void> opened = upper(morun_npu_initialize(MORUN_DOMAIN_NPU0), "morun_npu_initialize");
    // Where the lock alone is refused, the context is open, and there is no record.
    is_open_ = opened.has_value() || tavik_error_get_last()->code == TAVIK_SUCCESS;
    is_process_open() = is_open_;
    return opened;
  }
  Result<void> close() {
    clear_record();
    Result<void> closed = upper(morun_npu_finalize(MORUN_DOMAIN_NPU0), "morun_npu_finalize");
    if (closed) is_open_ = is_process_open() = false;
    return closed;
  }
  Result<void> free(void* data, int32_t) {
    clear_record();
    return upper(morun_npu_free(data), "morun_npu_free");
  }

 private:
  static bool& is_process_open() {
    static bool is_open = false;
    return is_open;
  }

  bool is_open_ = false;
};

/// Closes what nothing but `shared` holds.
template <typename Home>
Result<void> close(std::shared_ptr<Home>& shared) {
  if (shared == nullptr) return empty("context");
  if (shared.use_count() > 1) return misuse(Misuse::in_use, "buffers or weights of the context are still there");
  if (Result<void> closed = shared->close(); !closed) return closed;
  shared = nullptr;
  return {};
}

}  // namespace detail

/// Memory that host and DSP both see. Buffer is of a Context, NpuBuffer of the process's Npu.
template <typename Home>
class BasicBuffer {
 public:
  BasicBuffer(BasicBuffer&& other) noexcept
      : home_(std::move(other.home_)), bytes_(std::exchange(other.bytes_, {})), fd_(std::exchange(other.fd_, -1)) {}
  BasicBuffer& operator=(BasicBuffer&& other) noexcept {
    const BasicBuffer old(std::move(*this));
    home_ = std::move(other.home_);
    bytes_ = std::exchange(other.bytes_, {});
    fd_ = std::exchange(other.fd_, -1);
    return *this;
  }
  ~BasicBuffer() {
    if (home_ != nullptr) detail::release_at_last([this] { return free(); });
  }

  /// The memory; none when the buffer is empty.
  std::span<std::byte> bytes() const { return bytes_; }
  /// The memory as elements of type T.
  template <typename T>
  T* as() const {
    return reinterpret_cast<T*>(bytes_.data());
  }
  /// The descriptor by which the lower interface knows the buffer, or -1 when the buffer is empty.
  int32_t fd() const { return fd_; }
  /// The session that maps the buffer, 0 to 3; 0 when the buffer is empty.
  uint32_t session() const requires std::same_as<Home, detail::OpenContext> {
    return home_ == nullptr ? 0 : static_cast<uint32_t>(home_->get()->fd_to_session[fd_]);
  }

  /// Frees the buffer before its destructor does.
  ///
  ///   Misuse::empty                              the buffer is empty
  ///   TAVIK_ERROR_FAILURE, MORUN_ERROR_FAILURE   the DSP refuses to let go of the buffer, which stays
  Result<void> release() {
    if (home_ == nullptr) return detail::empty("buffer");
    if (Result<void> freed = free(); !freed) return freed;
    home_ = nullptr;
    bytes_ = {};
    fd_ = -1;
    return {};
  }

 private:
  friend class Context;
  friend class Npu;
  BasicBuffer(std::shared_ptr<Home> home, std::span<std::byte> bytes, int32_t fd)
      : home_(std::move(home)), bytes_(bytes), fd_(fd) {}
  Result<void> free() const { return home_->free(bytes_.data(), fd_); }

  std::shared_ptr<Home> home_;  // none when the buffer is empty
  std::span<std::byte> bytes_;
  int32_t fd_;
};
using Buffer = BasicBuffer<detail::OpenContext>;
using NpuBuffer = BasicBuffer<detail::OpenNpu>;

/// A context of the lower interface.
class Context {
 public:
  /// Opens session 0 on the DSP and reserves shared memory for the limits.
  ///
  /// Fails with the statuses of tavik_init: TAVIK_ERROR_MEMORY, TAVIK_ERROR_FAILURE.
  static Result<Context> open(const Limits& limits = {}) {
    const tavik_options options{limits.n_output_element, limits.n_row, limits.n_input_element, 0};
    auto shared = std::make_shared<detail::OpenContext>();
    if (Result<void> opened = shared->open(options); !opened) return opened.error();
    return Context(std::move(shared));
  }
  Context(Context&&) noexcept = default;
  Context& operator=(Context&&) noexcept = default;

  /// Allocates `n_byte` bytes of shared memory in the first session that has room.
  ///
  ///   Misuse::empty         the context is empty
  ///   TAVIK_ERROR_FAILURE   32 buffers are in use, memory or descriptors have run out, or no session has room
  Result<Buffer> allocate(uint64_t n_byte) const {
    if (shared_ == nullptr) return detail::empty("context");
    void* data = nullptr;
    int32_t fd = -1;
    Result<void> allocated = detail::lower(tavik_buffer_alloc(get(), n_byte, &data, &fd), "tavik_buffer_alloc");
    if (!allocated) return allocated.error();
    return Buffer(shared_, {static_cast<std::byte*>(data), n_byte}, fd);
  }

  /// Closes the context before its destructor does.
  ///
  ///   Misuse::empty         the context is empty
  ///   Misuse::in_use        a buffer or weights of the context are there
  ///   TAVIK_ERROR_FAILURE   a step failed. The context is partly torn down; only close and the destructor are left
  Result<void> close() { return detail::close(shared_); }

  /// For the functions of tavik.h; NULL when the context is empty. The caller does not clean it up.
  tavik_context* get() const { return shared_ == nullptr ? nullptr : shared_->get(); }

 private:
  friend struct detail_access;
  explicit Context(detail::SharedContext shared) : shared_(std::move(shared)) {}

  detail::SharedContext shared_;
};

/// The process's context of the upper interface, opened and locked. One can be open at a time. A program that uses Npu
/// leaves morun_npu_initialize and morun_npu_finalize to it.
class Npu {
 public:
  /// Opens the DSP and locks the matrix unit.
  ///
  ///   Misuse::open          another Npu, or a buffer of one, is there
  ///   MORUN_ERROR_FAILURE   the lower interface refuses. Nothing stays open
  static Result<Npu> open() {
    auto shared = std::make_shared<detail::OpenNpu>();
    if (Result<void> opened = shared->open(); !opened) return opened.error();
    return Npu(std::move(shared));
  }
  Npu(Npu&&) noexcept = default;
  Npu& operator=(Npu&&) noexcept = default;

  /// Allocates `n_byte` bytes of shared memory, which the calls of morun.h and records of tensors name by its address.
  ///
  ///   Misuse::empty         the Npu is empty
  ///   MORUN_ERROR_FAILURE   32 buffers are in use, memory or descriptors have run out, or no session has room
  Result<NpuBuffer> allocate(uint64_t n_byte) const {
    if (shared_ == nullptr) return detail::empty("context");
    void* data = nullptr;
    detail::clear_record();
    Result<void> allocated = detail::upper(morun_npu_alloc(n_byte, &data), "morun_npu_alloc");
    if (!allocated) return allocated.error();
    return NpuBuffer(shared_, {static_cast<std::byte*>(data), n_byte}, morun_parlo_find_fd(data));
  }

  /// result = left * right on records of tensors, on `platform` (MORUN_PLATFORM_NPU0, MORUN_PLATFORM_CPU). Types and
  /// layouts are in the records. Fails with the statuses of morun_mm_tensor, and with
  ///
  ///   Misuse::empty   the Npu is empty
  Result<void> multiply(uint32_t platform, const morun_tensor& result, const morun_tensor& left,
                        const morun_tensor& right) const {
    if (shared_ == nullptr) return detail::empty("context");
    detail::clear_record();
    return detail::upper(morun_mm_tensor(platform, &result, &left, &right), "morun_mm_tensor");
  }

  /// Closes the context before the destructor does.
  ///
  ///   Misuse::empty         the Npu is empty
  ///   Misuse::in_use        a buffer is there
  ///   MORUN_ERROR_FAILURE   the DSP refuses; the context stays open or is partly torn down
  Result<void> close() { return detail::close(shared_); }

 private:
  explicit Npu(std::shared_ptr<detail::OpenNpu> shared) : shared_(std::move(shared)) {}

  std::shared_ptr<detail::OpenNpu> shared_;
};

// ---- Weights --------------------------------------------------------------------------------------------------------

/// Forms of weights. f16 is halves; a8w8 is i8 values and a8w4 i4 values, with a zero point, a scale and a sum for each
/// column, for activations that the product quantises to 8 bits. tavik.h describes the tiles.
struct f16 {};
struct a8w8 {};
struct a8w4 {};

template <typename Form>
concept WeightForm = std::same_as<Form, f16> || std::same_as<Form, a8w8> || std::same_as<Form, a8w4>;

/// What the products of tavik.h take of a weight matrix: W_fd, Wq_offset (W_offset for f16), Wz_offset, Ws_offset,
/// Wsum_offset, and the padded extents as n_inner and n_col.
struct Operand {
  int32_t fd = -1;
  uint32_t session = 0;
  uint32_t q_offset = 0;  ///< bytes from the start of the buffer
  uint64_t z_offset = 0;  ///< 0 in form f16, like the next two
  uint64_t s_offset = 0;
  uint64_t sum_offset = 0;
  int32_t n_inner = 0;  ///< the extents of the matrix
  int32_t n_col = 0;
  int32_t padded_n_inner = 0;  ///< rounded up to multiples of 32
  int32_t padded_n_col = 0;
  std::span<const std::byte> bytes;  ///< the four parts in the host's memory
};

namespace detail {

/// Keeps the memory of weights.
class WeightsOwner {
 public:
  virtual ~WeightsOwner() = default;
  virtual Result<void> release() = 0;
};

class PackedWeights : public WeightsOwner {
 public:
  explicit PackedWeights(Buffer buffer) : buffer_(std::move(buffer)) {}
  Result<void> release() override { return buffer_.release(); }

 private:
  Buffer buffer_;
};

}  // namespace detail

/// A weight matrix n_inner x n_col in a shared buffer, in the layout of its form. Only morun::pack makes one, and
/// loading (morun_weights.hpp); the type therefore says what is in the memory. Extents need not be multiples of 32.
template <WeightForm Form>
class Weights {
 public:
  Weights(Weights&& other) noexcept
      : context_(std::move(other.context_)),
        owner_(std::move(other.owner_)),
        operand_(std::exchange(other.operand_, {})) {}
  Weights& operator=(Weights&& other) noexcept {
    owner_ = std::move(other.owner_);
    context_ = std::move(other.context_);
    operand_ = std::exchange(other.operand_, {});
    return *this;
  }
  ~Weights() = default;

  /// Extents; 0 when the weights are empty.
  uint64_t n_inner() const { return static_cast<uint64_t>(operand_.n_inner); }
  uint64_t n_col() const { return static_cast<uint64_t>(operand_.n_col); }
  /// The session in which products with these weights run.
  uint32_t session() const { return operand_.session; }
  /// For the functions of tavik.h.
  const Operand& operand() const { return operand_; }

  /// Frees the weights before their destructor does. Of loaded weights the memory stays until all of its
  /// LoadedWeights are released, and no failure other than Misuse::empty is possible before.
  ///
  ///   Misuse::empty                the weights are empty
  ///   TAVIK_ERROR_FAILURE, MORUN_WEIGHTS_BUFFER
  ///                                the DSP refuses to let go of the buffer, which stays
  Result<void> release() {
    if (owner_ == nullptr) return detail::empty("weight matrix");
    if (owner_.use_count() == 1)
      if (Result<void> released = owner_->release(); !released) return released;
    owner_ = nullptr;
    context_ = nullptr;
    operand_ = {};
    return {};
  }

 private:
  friend struct detail_access;
  Weights(detail::SharedContext context, std::shared_ptr<detail::WeightsOwner> owner, const Operand& operand)
      : context_(std::move(context)), owner_(std::move(owner)), operand_(operand) {}

  detail::SharedContext context_;  // none when the weights are empty
  std::shared_ptr<detail::WeightsOwner> owner_;
  Operand operand_;
};

/// For this header and morun_weights.hpp alone.
struct detail_access {
  static const detail::SharedContext& context(const Context& context) { return context.shared_; }
  template <WeightForm Form>
  static const detail::SharedContext& context(const Weights<Form>& weights) {
    return weights.context_;
  }
  template <WeightForm Form>
  static Weights<Form> weights(detail::SharedContext context, std::shared_ptr<detail::WeightsOwner> owner,
                               const Operand& operand) {
    return {std::move(context), std::move(owner), operand};
  }
};

// ---- Packing --------------------------------------------------------------------------------------------------------

namespace detail {

/// Working memory for 32 columns of a weight matrix: `halves` has a row of n_inner values, padded, for each column.
struct Band {
  std::unique_ptr<float[]> values;
  std::unique_ptr<uint16_t[]> halves;
  std::unique_ptr<int8_t[]> q;
  std::unique_ptr<uint32_t[]> words;
  std::unique_ptr<uint8_t[]> tiles;

  explicit Band(uint64_t n)
      : values(host_array<float>(tile * n)),
        halves(host_array<uint16_t>(tile * n)),
        q(host_array<int8_t>(tile * n)),
        words(host_array<uint32_t>(tile * n / 8)),
        tiles(host_array<uint8_t>(tile * n / 2)) {}
  bool is_complete() const {
    return values != nullptr && halves != nullptr && q != nullptr && words != nullptr && tiles != nullptr;
  }
};

/// Where zero points, scales and sums of 32 columns go.
struct ColumnPlaces {
  std::byte *zero_points, *scales, *sums;
  uint16_t* scale_places() const { return reinterpret_cast<uint16_t*>(scales); }
  int32_t* sum_places() const { return reinterpret_cast<int32_t*>(sums); }
};

/// What differs between the forms: bits of a value and of a zero point, how 32 columns are packed, and the products.
template <WeightForm Form>
struct FormTraits;

template <>
struct FormTraits<f16> {
  static constexpr uint64_t n_value_bit = 16, n_zero_point_bit = 0;

  static const void* pack(Band& band, uint64_t n, const ColumnPlaces&) {
    tavik_matrix_transpose_f16(tile, n, band.halves.get());
    tavik_f16_rm_to_f16_wh_inplace(n, tile, band.halves.get());
    return band.halves.get();
  }
  static int64_t multiply(tavik_context* context, int32_t n_row, const float* x, const std::array<Operand, 1>& w,
                          const std::array<float*, 1>& a) {
    return tavik_npu_mm_f32_rm_f32_rm_f16_wh(context, n_row, w[0].padded_n_col, w[0].padded_n_inner, a[0], x,
                                             static_cast<uint32_t>(w[0].fd), w[0].q_offset);
  }
  static int64_t multiply(tavik_context* context, int32_t n_row, const float* x, const std::array<Operand, 2>& w,
                          const std::array<float*, 2>& a) {
    return tavik_npu_2mm_f32_rm_f32_rm_f16_wh(context, n_row, w[0].padded_n_col, w[0].padded_n_inner, a[0], a[1], x,
                                              static_cast<uint32_t>(w[0].fd), static_cast<uint32_t>(w[1].fd),
                                              w[0].q_offset, w[1].q_offset);
  }
  static int64_t multiply(tavik_context* context, int32_t n_row, const float* x, const std::array<Operand, 3>& w,
                          const std::array<float*, 3>& a) {
    return tavik_npu_3mm_f32_rm_f32_rm_f16_wh(context, n_row, w[0].padded_n_col, w[1].padded_n_col, w[0].padded_n_inner,
                                              a[0], a[1], a[2], x, static_cast<uint32_t>(w[0].fd),
                                              static_cast<uint32_t>(w[1].fd), static_cast<uint32_t>(w[2].fd),
                                              w[0].q_offset, w[1].q_offset, w[2].q_offset);
  }
};

/// The products of both quantised forms have the same parameters.
template <auto one, auto two, auto three>
struct QuantisedProducts {
  static int64_t multiply(tavik_context* context, int32_t n_row, const float* x, const std::array<Operand, 1>& w,
                          const std::array<float*, 1>& a) {
    return one(context, n_row, w[0].padded_n_col, w[0].padded_n_inner, a[0], x, static_cast<uint32_t>(w[0].fd),
               w[0].q_offset, w[0].z_offset, w[0].s_offset, w[0].sum_offset);
  }
  static int64_t multiply(tavik_context* context, int32_t n_row, const float* x, const std::array<Operand, 2>& w,
                          const std::array<float*, 2>& a) {
    return two(context, n_row, w[0].padded_n_col, w[0].padded_n_inner, a[0], a[1], x, static_cast<uint32_t>(w[0].fd),
               static_cast<uint32_t>(w[1].fd), w[0].q_offset, w[0].z_offset, w[0].s_offset, w[0].sum_offset,
               w[1].q_offset, w[1].z_offset, w[1].s_offset, w[1].sum_offset);
  }
  static int64_t multiply(tavik_context* context, int32_t n_row, const float* x, const std::array<Operand, 3>& w,
                          const std::array<float*, 3>& a) {
    return three(context, n_row, w[0].padded_n_col, w[1].padded_n_col, w[0].padded_n_inner, a[0], a[1], a[2], x,
                 static_cast<uint32_t>(w[0].fd), static_cast<uint32_t>(w[1].fd), static_cast<uint32_t>(w[2].fd),
                 w[0].q_offset, w[0].z_offset, w[0].s_offset, w[0].sum_offset, w[1].q_offset, w[1].z_offset,
                 w[1].s_offset, w[1].sum_offset, w[2].q_offset, w[2].z_offset, w[2].s_offset, w[2].sum_offset);
  }
};

template <>
struct FormTraits<a8w8>
    : QuantisedProducts<tavik_npu_mm_a8w8_f32_rm_f32_rm_i8f16_wh, tavik_npu_2mm_a8w8_f32_rm_f32_rm_i8f16_wh,
                        tavik_npu_3mm_a8w8_f32_rm_f32_rm_i8f16_wh> {
  static constexpr uint64_t n_value_bit = 8, n_zero_point_bit = 8;

  static const void* pack(Band& band, uint64_t n, const ColumnPlaces& places) {
    tavik_f16_rm_to_i8_rm(tile, n, band.halves.get(), band.q.get(), reinterpret_cast<int8_t*>(places.zero_points),
                          places.scale_places(), places.sum_places());
    tavik_matrix_transpose_i8(tile, n, band.q.get());
    tavik_i8_rm_to_i8_wh_inplace(n, tile, band.q.get());
    return band.q.get();
  }
};

template <>
struct FormTraits<a8w4>
    : QuantisedProducts<tavik_npu_mm_a8w4_f32_rm_f32_rm_i4f16_wh, tavik_npu_2mm_a8w4_f32_rm_f32_rm_i4f16_wh,
                        tavik_npu_3mm_a8w4_f32_rm_f32_rm_i4f16_wh> {
  static constexpr uint64_t n_value_bit = 4, n_zero_point_bit = 4;

  static const void* pack(Band& band, uint64_t n, const ColumnPlaces& places) {
    tavik_f16_rm_to_i4_rm(tile, n, band.halves.get(), band.words.get(), reinterpret_cast<uint32_t*>(places.zero_points),
                          places.scale_places(), places.sum_places());
    auto* const nibbles = reinterpret_cast<uint8_t*>(band.q.get());
    for (uint64_t i = 0; i < tile * n; ++i) nibbles[i] = band.words[i / 8] >> 4 * (i % 8) & 15;
    tavik_host_layout_w4_flat_to_weight(band.tiles.get(), nibbles, tile, n);
    return band.tiles.get();
  }
};

/// The parts of a packed matrix, each at a multiple of 2048 bytes. The operand names no buffer yet; none where the
/// extents are 0 or do not fit a buffer.
template <WeightForm Form>
std::optional<std::pair<Operand, uint64_t>> layout_of(uint64_t n_inner, uint64_t n_col) {
  constexpr uint64_t largest = (uint64_t{1} << 32) - 2048, largest_extent = uint64_t{1} << 31;
  if (n_inner == 0 || n_col == 0 || n_inner > largest_extent - tile || n_col > largest_extent - tile) return {};
  using Traits = FormTraits<Form>;
  const uint64_t padded_n_inner = whole_tiles(n_inner), padded_n_col = whole_tiles(n_col);
  Operand operand{.n_inner = static_cast<int32_t>(n_inner),
                  .n_col = static_cast<int32_t>(n_col),
                  .padded_n_inner = static_cast<int32_t>(padded_n_inner),
                  .padded_n_col = static_cast<int32_t>(padded_n_col),
                  .bytes = {}};
  uint64_t n_byte = tavik_apply_padding(padded_n_inner * padded_n_col / 8 * Traits::n_value_bit);
  if constexpr (Traits::n_zero_point_bit != 0) {
    const auto take = [&](uint64_t size) { return std::exchange(n_byte, tavik_apply_padding(n_byte + size)); };
    operand.z_offset = take(padded_n_col * Traits::n_zero_point_bit / 8);
    operand.s_offset = take(padded_n_col * sizeof(uint16_t));
    operand.sum_offset = take(padded_n_col * sizeof(int32_t));
  }
  if (n_byte > largest) return {};
  return std::pair(operand, n_byte);
}

/// Brings 32 columns of W, or the last ones, from `first` on into band.halves. Padding must not widen the range of a
/// quantised column: it repeats the column's first value, which meets activations of 0.
template <WeightForm Form>
void gather(const WeightValues& w, uint64_t first, uint64_t n_padded, Band& band) {
  const uint64_t n_inner = w.n_inner(), n_column = std::min(tile, w.n_col() - first);
  std::fill_n(band.values.get(), tile * n_padded, 0.0f);
  const float* const from = w.view().data() + first * w.column_stride();
  constexpr uint64_t step = 16;  // rows at a time, so that a row-major source is read once
  for (uint64_t begin = 0; begin < n_inner; begin += step)
    for (uint64_t c = 0; c < n_column; ++c)
      for (uint64_t k = begin; k < std::min(begin + step, n_inner); ++k)
        band.values[c * n_padded + k] = from[k * w.inner_stride() + c * w.column_stride()];
  tavik_f32_to_f16(tile * n_padded, band.values.get(), band.halves.get());
  if constexpr (std::same_as<Form, f16>) return;
  for (uint64_t c = 0; c < n_column; ++c) {
    uint16_t* const column = band.halves.get() + c * n_padded;
    std::fill(column + n_inner, column + n_padded, column[0]);
  }
}

/// Has `fill` write a packed matrix into a new shared buffer.
template <WeightForm Form, typename Fill>
Result<Weights<Form>> pack_into_buffer(const Context& context, const WeightValues& w, const Fill& fill) {
  if (Result<void> checked = check_view(w.view()); !checked) return checked.error();
  auto layout = layout_of<Form>(w.n_inner(), w.n_col());
  if (!layout)
    return misuse(Misuse::extents,
                  "weights of " + extents(w.n_inner(), w.n_col()) + " take no bytes or 4 GiB and more");
  auto& [operand, n_byte] = *layout;
  Result<Buffer> buffer = context.allocate(n_byte);
  if (!buffer) return buffer.error();
  operand.fd = buffer->fd();
  operand.session = buffer->session();
  operand.bytes = buffer->bytes();
  if (Result<void> filled = fill(operand, buffer->bytes()); !filled) return filled.error();
  return detail_access::weights<Form>(detail_access::context(context),
                                      std::make_shared<PackedWeights>(*std::move(buffer)), operand);
}

}  // namespace detail

/// Packs W, n_inner x n_col, into a shared buffer of its own: rounds f32 to f16 and, for a8w8 and a8w4, quantises each
/// column as tavik_f16_rm_to_i8_rm and tavik_f16_rm_to_i4_rm do. Their zero points are cut to the range of the type, so
/// columns whose values all have one sign lose accuracy; the pack of morun_weights.hpp has other quantisers. Both
/// extents are padded to multiples of 32, which changes no product. Takes 12 * 32 * n_inner bytes of host memory.
///
///   Misuse::view          the view's extents and number of values differ
///   Misuse::extents       an extent is 0, or the packed matrix takes more than 2^32 - 2048 bytes
///   Misuse::empty         the context is empty
///   Misuse::memory        no host memory for 32 columns
///   TAVIK_ERROR_FAILURE   as Context::allocate
template <WeightForm Form>
Result<Weights<Form>> pack(const Context& context, const WeightValues& w) {
  using Traits = detail::FormTraits<Form>;
  return detail::pack_into_buffer<Form>(
      context, w, [&](const Operand& operand, std::span<std::byte> bytes) -> Result<void> {
        const auto n_padded = static_cast<uint64_t>(operand.padded_n_inner);
        const auto n_tile_col = static_cast<uint64_t>(operand.padded_n_col) / detail::tile;
        constexpr uint64_t tile_size = detail::tile * detail::tile * Traits::n_value_bit / 8;
        detail::Band band(n_padded);
        if (!band.is_complete()) return detail::no_memory();
        std::memset(bytes.data(), 0, bytes.size());
        for (uint64_t first = 0; first < w.n_col(); first += detail::tile) {
          detail::gather<Form>(w, first, n_padded, band);
          const detail::ColumnPlaces places{bytes.data() + operand.z_offset + first * Traits::n_zero_point_bit / 8,
                                            bytes.data() + operand.s_offset + first * sizeof(uint16_t),
                                            bytes.data() + operand.sum_offset + first * sizeof(int32_t)};
          const auto* from = static_cast<const std::byte*>(Traits::pack(band, n_padded, places));
          std::byte* to = bytes.data() + first / detail::tile * tile_size;
          for (uint64_t k = 0; k < n_padded; k += detail::tile, from += tile_size, to += n_tile_col * tile_size)
            std::memcpy(to, from, tile_size);
        }
        return {};
      });
}

// ---- Products -------------------------------------------------------------------------------------------------------

namespace detail {

/// Memory of the caller where its width is a multiple of 32, and a copy in whole tiles otherwise.
template <typename T>
struct Staged {
  T* data = nullptr;
  std::unique_ptr<float[]> copy;

  /// Whether there is memory for the copy, which holds zeros.
  bool stage(const Matrix<T>& view) {
    data = view.data();
    const uint64_t n_padded = whole_tiles(view.n_col());
    if (n_padded == view.n_col() || view.n_row() == 0) return true;
    copy = host_array<float>(view.n_row() * n_padded);
    if (copy == nullptr) return false;
    std::fill_n(copy.get(), view.n_row() * n_padded, 0.0f);
    data = copy.get();
    return true;
  }
};

inline void copy_rows(uint64_t n_row, uint64_t width, const float* from, uint64_t from_stride, float* to,
                      uint64_t to_stride) {
  for (uint64_t r = 0; r < n_row; ++r) std::copy_n(from + r * from_stride, width, to + r * to_stride);
}

inline Result<void> check_product(const Matrix<const float>& x, const Operand& w, const Matrix<float>& a) {
  if (Result<void> checked = check_view(a); !checked) return checked;
  const auto n_inner = static_cast<uint64_t>(w.n_inner), n_col = static_cast<uint64_t>(w.n_col);
  constexpr uint64_t largest = std::numeric_limits<int32_t>::max();
  if (x.n_col() == n_inner && a.n_row() == x.n_row() && a.n_col() == n_col && x.n_row() <= largest) return {};
  return misuse(Misuse::extents, "an activation of " + extents(x.n_row(), x.n_col()) + " and weights of " +
                                     extents(n_inner, n_col) + " do not make a result of " +
                                     extents(a.n_row(), a.n_col()));
}

/// Whether one call computes all the products: the weights are in one session, and the last two are of one width.
template <size_t n>
bool is_one_call(const std::array<Operand, n>& w) {
  for (const Operand& other : w)
    if (other.session != w[0].session) return false;
  if constexpr (n > 1) return w[n - 2].padded_n_col == w[n - 1].padded_n_col;
  return true;
}

/// The single a8w4 product runs in session 0 alone.
template <WeightForm Form, size_t n>
Result<void> check_sessions(const std::array<Operand, n>& w) {
  if (!std::same_as<Form, a8w4> || (n > 1 && is_one_call(w))) return {};
  for (const Operand& one : w)
    if (one.session != 0)
      return misuse(Misuse::session, "weights a8w4 in session " + std::to_string(one.session) +
                                         " are multiplied alone, which takes session 0");
  return {};
}

/// The single a8w4 product takes for granted that session 0 is active and holds the matrix unit.
inline Result<void> activate_session(tavik_context* context, const Operand& w) {
  uint64_t handle = 0;
  return lower(tavik_context_get_handle_from_fd(context, w.fd, &handle), "tavik_context_get_handle_from_fd");
}

template <WeightForm Form, size_t n>
Result<void> compute(tavik_context* context, int32_t n_row, const float* x, const std::array<Operand, n>& w,
                     const std::array<float*, n>& a) {
  if constexpr (n > 1) {
    if (!is_one_call(w)) {
      for (size_t i = 0; i < n; ++i)
        if (Result<void> done = compute<Form, 1>(context, n_row, x, {w[i]}, {a[i]}); !done) return done;
      return {};
    }
  } else if constexpr (std::same_as<Form, a8w4>) {
    if (Result<void> activated = activate_session(context, w[0]); !activated) return activated;
  }
  return lower(FormTraits<Form>::multiply(context, n_row, x, w, a), "multiply");
}

template <WeightForm Form, size_t n>
Result<void> multiply_all(Matrix<const float> x, const std::array<const Weights<Form>*, n>& weights,
                          const std::array<Matrix<float>, n>& results) {
  if (Result<void> checked = check_view(x); !checked) return checked;
  const SharedContext& context = detail_access::context(*weights[0]);
  std::array<Operand, n> w;
  for (size_t i = 0; i < n; ++i) {
    const SharedContext& its_context = detail_access::context(*weights[i]);
    if (its_context == nullptr) return empty("weight matrix");
    if (its_context != context) return misuse(Misuse::other_context, "the weights belong to different contexts");
    w[i] = weights[i]->operand();
    if (Result<void> checked = check_product(x, w[i], results[i]); !checked) return checked;
  }
  if (Result<void> checked = check_sessions<Form>(w); !checked) return checked;
  Staged<const float> activation;
  if (!activation.stage(x)) return no_memory();
  if (activation.copy != nullptr)
    copy_rows(x.n_row(), x.n_col(), x.data(), x.n_col(), activation.copy.get(), whole_tiles(x.n_col()));
  std::array<Staged<float>, n> staged;
  std::array<float*, n> a;
  for (size_t i = 0; i < n; ++i) {
    if (!staged[i].stage(results[i])) return no_memory();
    a[i] = staged[i].data;
  }
  const auto n_row = static_cast<int32_t>(x.n_row());
  if (Result<void> done = compute<Form, n>(context->get(), n_row, activation.data, w, a); !done) return done;
  for (size_t i = 0; i < n; ++i)
    if (staged[i].copy != nullptr)
      copy_rows(results[i].n_row(), results[i].n_col(), a[i], whole_tiles(results[i].n_col()), results[i].data(),
                results[i].n_col());
  return {};
}

}  // namespace detail

/// A = X * W, where the activation X is n_row x n_inner, the weights W n_inner x n_col and the result A n_row x n_col.
/// With f16 weights X and A are rounded to f16; with a8w8 and a8w4 weights each row of X is quantised to 8 bits. Where
/// n_inner or n_col is no multiple of 32, the function makes copies of X or A in whole tiles. A overlaps neither X nor
/// another result. The weights stay as they are.
///
///   Misuse::view, Misuse::extents   a view is not valid, or the shapes do not fit each other
///   Misuse::empty                   weights are empty
///   Misuse::memory                  no host memory for copies
///   Misuse::session                 weights a8w4 that are multiplied alone are not in session 0
///   TAVIK_ERROR_BAD_DIMENSION       the matrices exceed the limits of the context
///   TAVIK_ERROR_FAILURE             the DSP refuses
/// A failure leaves the results as they were, except that where the DSP refuses one of several calls, the results of
/// the calls before may be written.
template <WeightForm Form>
Result<void> multiply(Matrix<const float> x, const Weights<Form>& w, Matrix<float> a) {
  return detail::multiply_all<Form, 1>(x, {&w}, {a});
}

/// A_0 = X * W_0 and A_1 = X * W_1, of weights with the same n_inner. One call of the DSP where one session holds both
/// weights and n_col is the same; otherwise one product after the other. Statuses as above, and Misuse::other_context.
template <WeightForm Form>
Result<void> multiply(Matrix<const float> x, const Weights<Form>& w_0, const Weights<Form>& w_1, Matrix<float> a_0,
                      Matrix<float> a_1) {
  return detail::multiply_all<Form, 2>(x, {&w_0, &w_1}, {a_0, a_1});
}

/// Three products of one activation, such as query, key and value: one call of the DSP where one session holds all
/// weights and w_1 and w_2 have the same n_col; otherwise one product after the other. Statuses as above.
template <WeightForm Form>
Result<void> multiply(Matrix<const float> x, const Weights<Form>& w_0, const Weights<Form>& w_1,
                      const Weights<Form>& w_2, Matrix<float> a_0, Matrix<float> a_1, Matrix<float> a_2) {
  return detail::multiply_all<Form, 3>(x, {&w_0, &w_1, &w_2}, {a_0, a_1, a_2});
}

}  // namespace morun

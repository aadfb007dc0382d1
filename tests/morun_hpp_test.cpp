// The C++ layer: products against plain ones, every way to fail, and what is left behind. Statuses and texts stand in
// tests/transcripts/Layer*.txt.

#include "include/morun_weights.hpp"
#include "tests/expected_text.h"
#include "tests/support.h"
#include "tests/weight_files.h"

namespace {

using morun::a8w4, morun::a8w8, morun::f16;
using test::relative_error;
using Floats = std::vector<float>;

Floats random_values(uint64_t n) {
  static unsigned seed = 7;
  return test::normal_values(n, seed++);
}

// Returns x * w in double precision. `w` holds n_inner x n_col weights, or their transpose, n_col x n_inner.
std::vector<double> plain_product(const Floats& x, const Floats& w, uint64_t n_inner, bool is_transposed = false) {
  const uint64_t n_col = w.size() / n_inner;
  return test::product(x, n_inner, n_col,
                       [&](uint64_t k, uint64_t c) { return w[is_transposed ? c * n_inner + k : k * n_col + c]; });
}

// What a result says: "", or whose status, which one, and the text, in which files have no folder.
template <typename T>
std::string said(const morun::Result<T>& result) {
  if (result) return "";
  const auto& [origin, code, text] = result.error();
  const std::string origins[] = {"tavik", "morun", "weights", "layer"}, folder = testing::TempDir();
  const size_t at = text.find(folder), name = at == text.npos ? at : text.find('/', at + folder.size());
  const std::string without = at == text.npos ? text : text.substr(0, at) + text.substr(name + 1);
  return origins[static_cast<int>(origin)] + " " + std::to_string(code) + " " + without;
}

void fail_once(int32_t operation, int32_t method = -1, uint32_t nth = 1) {
  parlo_emulator_fail(operation, method, nth, 0x77, EIO);
}

size_t n_invocation() {
  size_t n = 0;
  for (const std::string& name : test::trace()) n += isdigit(name[0]) != 0;
  return n;
}

// Adds a call and what its result says to the text of the test.
#define TELL(...) told_ += #__VA_ARGS__ "\n" + test::indented(said(__VA_ARGS__))

class MorunHpp : public test::PlatformTest {
 protected:
  void TearDown() override {
    PlatformTest::TearDown();
    if (!told_.empty()) test::expect_kept_text(told_);
  }
  static morun::Context open(const morun::Limits& limits = morun::Limits::up_to(70, 160, 160)) {
    return morun::or_throw(morun::Context::open(limits));
  }
  template <typename Form>
  static morun::Weights<Form> random_weights(const morun::Context& context, uint64_t n_inner, uint64_t n_col) {
    return morun::or_throw(morun::pack<Form>(context, {random_values(n_inner * n_col), n_inner, n_col}));
  }
  std::string told_;
};

struct Shape {
  uint64_t n_row, n_inner, n_col;
};
const Shape shapes[] = {{64, 96, 160}, {5, 33, 45}, {1, 32, 31}, {70, 130, 32}, {3, 1, 1}};

template <typename Form>
void check_products(double bound) {
  const morun::Context context = morun::or_throw(morun::Context::open(morun::Limits::up_to(70, 160, 160)));
  for (const auto& [n_row, n_inner, n_col] : shapes) {
    SCOPED_TRACE(testing::Message() << n_row << " x " << n_inner << " x " << n_col);
    const Floats x = random_values(n_row * n_inner), w = random_values(n_inner * n_col);
    const morun::WeightValues sources[] = {{w, n_inner, n_col}, morun::transposed({w, n_col, n_inner})};
    for (const bool is_transposed : {false, true}) {
      const morun::WeightValues& source = sources[is_transposed];
      const auto weights = morun::or_throw(morun::pack<Form>(context, source));
      EXPECT_EQ(weights.n_inner(), n_inner);
      EXPECT_EQ(weights.n_col(), n_col);

      // The values around the result stay.
      Floats a(n_row * n_col + 2, -7.5f);
      const std::span<float> inner(a.data() + 1, n_row * n_col);
      ASSERT_EQ(said(morun::multiply({x, n_row, n_inner}, weights, {inner, n_row, n_col})), "");
      EXPECT_EQ(a.front(), -7.5f);
      EXPECT_EQ(a.back(), -7.5f);
      const auto expected = plain_product(x, w, n_inner, is_transposed);
      EXPECT_LT(relative_error(expected, Floats(inner.begin(), inner.end())), n_inner > 1 ? bound : 2);

      // The companion library packs the same bytes by its quantiser `library`, and other ones otherwise.
      const auto same = morun::or_throw(morun::pack<Form>(context, source, {.quantiser = morun::Quantiser::library}));
      EXPECT_TRUE(std::ranges::equal(same.operand().bytes, weights.operand().bytes));
      EXPECT_EQ(same.operand().sum_offset, weights.operand().sum_offset);
      const auto better = morun::or_throw(morun::pack<Form>(context, source, {}));
      ASSERT_EQ(said(morun::multiply({x, n_row, n_inner}, better, {inner, n_row, n_col})), "");
      EXPECT_LT(relative_error(expected, Floats(inner.begin(), inner.end())), bound);
    }
  }
}

TEST_F(MorunHpp, ProductsAreThePlainOnesForAnyExtentsInBothOrders) {
  check_products<f16>(0.001);
  check_products<a8w8>(0.02);
  check_products<a8w4>(0.2);
}

// Leaves a session room for two such matrices beside its cross-session buffers.
template <typename Form>
void make_sessions_small(const morun::Limits& limits, uint64_t n_inner, uint64_t n_col) {
  const morun::Context context = morun::or_throw(morun::Context::open(limits));
  const Floats w(n_inner * n_col);
  const auto first = morun::pack<Form>(context, {w, n_inner, n_col}),
             second = morun::pack<Form>(context, {w, n_inner, n_col});
  test::configure([](auto& config) { config.session_bytes = test::usage().n_bytes; });
}

// Two and three products at once give what the products give one by one. `expected` is what one that cannot be computed
// says. Returns the number of the DSP's calls for two and for three.
template <typename Form>
std::pair<size_t, size_t> check_fused(const std::vector<morun::Weights<Form>>& w, const std::string& expected = "") {
  constexpr uint64_t n_row = 7;
  const Floats x = random_values(n_row * w[0].n_inner());
  const morun::Matrix<const float> activation(x, n_row, w[0].n_inner());
  std::vector<Floats> one_by_one, at_once;
  std::vector<morun::Matrix<float>> results;
  for (size_t i = 0; i < 3; ++i) {
    one_by_one.push_back(Floats(n_row * w[i].n_col()));
    at_once.push_back(Floats(n_row * w[i].n_col()));
    results.emplace_back(at_once[i], n_row, w[i].n_col());
    const auto done = morun::multiply(activation, w[i], {one_by_one[i], n_row, w[i].n_col()});
    EXPECT_EQ(said(done), i == 2 ? expected : "");
  }
  (void)morun::multiply(activation, w[0], results[0]);  // sessions and unit are where the calls want them
  at_once[0].assign(at_once[0].size(), 0);
  parlo_emulator_trace_clear();
  EXPECT_EQ(said(morun::multiply(activation, w[0], w[1], results[0], results[1])), "");
  const size_t n_call_2 = n_invocation();
  EXPECT_EQ(at_once[0], one_by_one[0]);
  EXPECT_EQ(at_once[1], one_by_one[1]);
  for (Floats& result : at_once) std::fill(result.begin(), result.end(), 0);
  parlo_emulator_trace_clear();
  EXPECT_EQ(said(morun::multiply(activation, w[0], w[1], w[2], results[0], results[1], results[2])), expected);
  for (size_t i = 0; i < 3; ++i)
    EXPECT_EQ(at_once[i], expected.empty() ? one_by_one[i] : Floats(at_once[i].size())) << i;
  return {n_call_2, n_invocation()};
}

// Of 50 columns and as many as are given; the last one in a session of its own where that is said.
template <typename Form>
std::pair<size_t, size_t> n_call_for(uint64_t n_col_1, uint64_t n_col_2, bool has_sessions,
                                     const std::string& expected = "") {
  SCOPED_TRACE(testing::Message() << n_col_1 << " " << n_col_2 << " " << has_sessions);
  parlo_emulator_reset();
  constexpr uint64_t n_inner = 40;
  const morun::Limits limits = morun::Limits::up_to(7, n_inner, 96);
  if (has_sessions) make_sessions_small<Form>(limits, n_inner, 50);
  const morun::Context context = morun::or_throw(morun::Context::open(limits));
  std::vector<morun::Weights<Form>> w;
  for (const uint64_t width : {uint64_t{50}, n_col_1, n_col_2})
    w.push_back(morun::or_throw(morun::pack<Form>(context, {random_values(n_inner * width), n_inner, width})));
  EXPECT_EQ(w[0].session(), 0u);
  EXPECT_EQ(w[2].session() != 0, has_sessions);
  return check_fused(w, expected);
}

TEST_F(MorunHpp, FusedProductsAreThoseOfSingleCallsInOneCallWherePossible) {
  for (const auto n_call : {n_call_for<f16>, n_call_for<a8w8>, n_call_for<a8w4>}) {
    EXPECT_EQ(n_call(50, 50, false, ""), std::pair(1ul, 1ul));
    EXPECT_EQ(n_call(64, 33, false, ""), std::pair(1ul, 1ul));  // the same number of tiles
    EXPECT_EQ(n_call(70, 70, false, ""), std::pair(2ul, 1ul));
    EXPECT_EQ(n_call(70, 20, false, ""), std::pair(2ul, 3ul));
  }
}

TEST_F(MorunHpp, FusedProductsInSeveralSessionsAreComputedOneByOne) {
  EXPECT_EQ(n_call_for<f16>(50, 50, true).first, 1u);
  EXPECT_EQ(n_call_for<a8w8>(50, 50, true).first, 1u);
  n_call_for<a8w4>(50, 50, true, "layer 5 weights a8w4 in session 1 are multiplied alone, which takes session 0");
}

TEST_F(MorunHpp, MultipliesAlonesA8w4AfterAnotherSessionWasActive) {
  make_sessions_small<f16>(morun::Limits::up_to(7, 40, 50), 40, 50);
  const morun::Context context = open(morun::Limits::up_to(7, 40, 50));
  const auto first = random_weights<a8w4>(context, 40, 50);
  std::vector<morun::Weights<f16>> others;
  do others.push_back(random_weights<f16>(context, 40, 50));
  while (others.back().session() == 0);
  const Floats x = random_values(7 * 40);
  Floats before(7 * 50), a(7 * 50), after(7 * 50);
  EXPECT_EQ(said(morun::multiply({x, 7, 40}, first, {before, 7, 50})), "");
  EXPECT_EQ(said(morun::multiply({x, 7, 40}, others.back(), {a, 7, 50})), "");
  EXPECT_EQ(said(morun::multiply({x, 7, 40}, first, {after, 7, 50})), "");
  EXPECT_EQ(before, after);
}

TEST_F(MorunHpp, LayerRefusals) {
  const morun::Context context = open(), other_context = open();
  const auto w = random_weights<a8w8>(context, 40, 50), other = random_weights<a8w8>(other_context, 40, 50);
  const auto wide = random_weights<a8w8>(context, 40, 51), low = random_weights<a8w8>(context, 41, 50);
  Floats x(7 * 40), a(7 * 50, 3), many(1200 * 40), many_results(1200 * 50);
  const std::span<const float> none, few(x.data(), 7 * 32);
  const morun::Matrix<const float> activation(x, 7, 40);
  const morun::Matrix<float> result(a, 7, 50);
  morun::Context moved_from = open();
  const morun::Context moved_to = std::move(moved_from);
  auto released = random_weights<f16>(context, 32, 32);
  morun::Buffer buffer = morun::or_throw(context.allocate(100));

  TELL(buffer.release());
  TELL(buffer.release());
  TELL(released.release());
  TELL(released.release());
  TELL(moved_from.allocate(10));
  TELL(moved_from.close());
  TELL(morun::pack<f16>(moved_from, {x, 7, 40}));
  TELL(morun::multiply({many, 7, 32}, released, result));
  TELL(morun::multiply({few, 7, 32}, released, result));
  TELL(morun::multiply(activation, w, {a, 7, 49}));
  TELL(morun::multiply({x, (uint64_t{1} << 61) + 7, 40}, w, result));
  TELL(morun::multiply({x, 0, 40}, w, result));
  TELL(morun::multiply(activation, w, {std::span(a).first(300), 6, 50}));
  TELL(morun::multiply(activation, w, wide, result, result));
  TELL(morun::multiply(activation, w, w, low, result, result, result));
  TELL(morun::multiply(activation, w, other, result, result));
  TELL(morun::multiply({many, 1200, 40}, w, {many_results, 1200, 50}));
  TELL(morun::pack<a8w8>(context, {x, 7, 41}));
  TELL(morun::pack<a8w8>(context, {none, 0, 40}));
  TELL(morun::pack<a8w4>(context, morun::transposed({none, 40, 0}), {}));
  // A matrix of 4 GiB is refused before memory is asked for.
  TELL(morun::pack<a8w8>(context, {{x.data(), uint64_t{1} << 32}, 1 << 16, 1 << 16}));
  fail_once(PARLO_EMULATOR_HANDLE_INVOKE, -1, 2);  // behind the lock
  TELL(morun::multiply(activation, w, result));
  EXPECT_EQ(a, Floats(a.size(), 3));
  TELL(morun::multiply({none, 0, 40}, w, {std::span(a).first(0), 0, 50}));

  const morun::Error error = morun::pack<a8w8>(context, {x, 1, 1}).error();
  EXPECT_TRUE(error.is(morun::Misuse::view) && !error.is(morun::Misuse::extents));
}

TEST_F(MorunHpp, LayerMovesAndReleases) {
  const auto n_allocation = [] { return test::usage().n_allocations; };
  {
    std::optional<morun::Context> context = open();
    const uint64_t n_own = n_allocation();
    std::optional<morun::Buffer> buffer = morun::or_throw(context->allocate(5000));
    std::memset(buffer->bytes().data(), 1, buffer->bytes().size());
    EXPECT_EQ(buffer->bytes().size(), 5000u);
    auto weights = random_weights<a8w8>(*context, 40, 50), others = random_weights<a8w8>(*context, 70, 30);
    EXPECT_EQ(n_allocation(), n_own + 3);

    const int32_t fd = buffer->fd();
    morun::Buffer moved = *std::move(buffer);
    EXPECT_EQ(buffer->fd(), -1);
    EXPECT_TRUE(buffer->bytes().empty());
    EXPECT_EQ(buffer->session(), 0u);
    EXPECT_EQ(moved.fd(), fd);
    *buffer = std::move(moved);
    buffer = morun::or_throw(context->allocate(7000));  // the first one ends
    EXPECT_EQ(n_allocation(), n_own + 3);
    EXPECT_EQ(buffer->bytes().size(), 7000u);

    const std::byte* const packed = others.operand().bytes.data();
    weights = std::move(others);
    EXPECT_EQ(n_allocation(), n_own + 2);
    EXPECT_EQ(weights.operand().bytes.data(), packed);
    EXPECT_EQ(others.n_inner() + others.n_col(), 0u);
    EXPECT_EQ(others.operand().fd, -1);

    others = std::move(weights);
    (void)morun::Weights(std::move(others));
    EXPECT_EQ(others.n_inner() + others.n_col(), 0u);
    TELL(others.release());
    weights = random_weights<a8w8>(*context, 70, 30);
    TELL(context->close());
    buffer.reset();
    TELL(context->close());

    // Weights keep their context.
    context.reset();
    const Floats x = random_values(70);
    Floats a(30);
    TELL(morun::multiply({x, 1, 70}, weights, {a, 1, 30}));
    TELL(weights.release());
    EXPECT_EQ(test::usage().n_handles, 0u);
  }
  morun::Context first = open();
  first = open();
  EXPECT_EQ(test::usage().n_handles, 1u);
  TELL(first.close());
  EXPECT_EQ(first.get(), nullptr);
  EXPECT_EQ(n_allocation(), 0u);
}

TEST_F(MorunHpp, LayerSecondTries) {
  testing::internal::CaptureStderr();
  morun::Context context = open();
  {
    morun::Buffer buffer = morun::or_throw(context.allocate(100));
    auto weights = random_weights<f16>(context, 32, 32);
    fail_once(PARLO_EMULATOR_MUNMAP);
    TELL(buffer.release());
    fail_once(PARLO_EMULATOR_MUNMAP);
    TELL(weights.release());
    EXPECT_EQ(buffer.bytes().size() + weights.n_col(), 132u);
    fail_once(PARLO_EMULATOR_MUNMAP);  // the weights' destructor meets it and goes on
  }
  EXPECT_EQ(context.get()->n_buffers, 0u);
  fail_once(PARLO_EMULATOR_HANDLE_CLOSE);
  TELL(context.close());
  TELL(context.close());
  // Where the second try fails too, the destructor says why.
  {
    const morun::Context other = open();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    testing::internal::CaptureStderr();
    fail_once(PARLO_EMULATOR_HANDLE_CLOSE, -1, 0);  // and every later time
  }
  told_ += "the destructor\n" + test::indented(testing::internal::GetCapturedStderr());
  parlo_emulator_reset();  // ends the session that would not close
}

TEST_F(MorunHpp, LayerFailuresOfPackingAndOpening) {
  fail_once(PARLO_EMULATOR_MMAP, -1, 2);
  TELL(morun::Context::open(morun::Limits::up_to(32, 32, 32)));
  EXPECT_EQ(test::usage().n_allocations, 0u);
  const morun::Context context = open();
  const uint64_t n_own = test::usage().n_allocations;
  Floats w(32 * 40, 1);
  w[3 * 40 + 33] = std::numeric_limits<float>::infinity();
  morun_weights_statistics statistics = {};
  TELL(morun::pack<a8w8>(context, {w, 32, 40}, {.statistics = &statistics}));
  EXPECT_EQ(statistics.n_infinite, 1u);
  EXPECT_EQ(test::usage().n_allocations, n_own);
  TELL(morun::pack<a8w8>(context, {w, 32, 40}, {.allow_non_finite = true}));
}

TEST_F(MorunHpp, LayerCalibration) {
  const morun::Context context = open();
  constexpr uint64_t n_row = 64, n_inner = 64, n_col = 32;
  Floats x = random_values(n_row * n_inner), w = random_values(n_inner * n_col);
  for (size_t i = 0; i < x.size(); ++i) x[i] += 3 * x[i - i % n_inner];  // columns that hang together
  morun::Calibration calibration = morun::or_throw(morun::Calibration::create(n_inner));
  TELL(calibration.add({x, n_row * 2, n_inner / 2}));
  TELL(calibration.add({x, n_row, n_inner}));
  TELL(calibration.finish(0.01));
  double errors[2];
  for (const bool is_calibrated : {false, true}) {
    const auto quantiser = is_calibrated ? morun::Quantiser::calibrated : morun::Quantiser::minmax;
    const auto weights = morun::or_throw(
        morun::pack<a8w4>(context, {w, n_inner, n_col}, {.quantiser = quantiser, .calibration = &calibration}));
    Floats a(n_row * n_col);
    ASSERT_EQ(said(morun::multiply({x, n_row, n_inner}, weights, {a, n_row, n_col})), "");
    errors[is_calibrated] = relative_error(plain_product(x, w, n_inner), a);
  }
  EXPECT_LT(errors[1], 0.8 * errors[0]);
  const morun::Calibration taken = std::move(calibration);
  TELL(calibration.finish());
  TELL(morun::Calibration::create(0));
}

TEST_F(MorunHpp, ExceptionsAreOptIn) {
  const morun::Context context = open();
  try {
    morun::or_throw(context.allocate(uint64_t{1} << 50));
    FAIL() << "no exception";
  } catch (const morun::Failure& failure) {
    EXPECT_EQ(failure.origin, morun::Origin::tavik);
    EXPECT_EQ(failure.code, TAVIK_ERROR_FAILURE);
    EXPECT_EQ(std::string(failure.what()), std::string("tavik_buffer_alloc: ") + tavik_error_get_last()->message);
  }
  EXPECT_NO_THROW(morun::or_throw(morun::Result<void>()));
}

TEST_F(MorunHpp, AnUncheckedFailureEndsTheProgramWithItsText) {
  const morun::Result<int> failure(morun::Error{morun::Origin::layer, 1, "the text of the failure"}), success(5);
  EXPECT_EQ(*success, 5);
  EXPECT_DEATH((void)*failure, "morun: the text of the failure");
  EXPECT_DEATH((void)success.error(), "the error of a success");
  EXPECT_DEATH((void)morun::Result<void>().error(), "the error of a success");
}

// ---- The upper interface --------------------------------------------------------------------------------------------

TEST_F(MorunHpp, LayerUpperInterface) {
  constexpr uint64_t n = 32;
  testing::internal::CaptureStderr();
  fail_once(PARLO_EMULATOR_MMAP);
  TELL(morun::Npu::open());
  fail_once(PARLO_EMULATOR_HANDLE_INVOKE, 7);  // the lock, which comes last
  TELL(morun::Npu::open());
  EXPECT_EQ(test::usage().n_allocations + test::usage().n_handles, 0u);
  std::optional<morun::Npu> npu = morun::or_throw(morun::Npu::open());
  TELL(morun::Npu::open());
  std::optional<morun::NpuBuffer> buffer = morun::or_throw(npu->allocate(n * n * sizeof(uint16_t)));
  EXPECT_EQ(buffer->fd(), morun_parlo_find_fd(buffer->bytes().data()));
  const Floats x = random_values(n * n), w = random_values(n * n);
  Floats a(n * n);
  tavik_f32_to_f16(n * n, w.data(), buffer->as<uint16_t>());
  ASSERT_EQ(morun_cpu_rm_to_wh_f16_inplace(n, n, buffer->as<uint16_t>()), 0u);
  const auto record = [](int32_t type, auto layout, const void* data, uint64_t n_row) {
    return morun_tensor_matrix(n_row, n, static_cast<morun_tensor_dtype_e>(type), layout, const_cast<void*>(data));
  };
  const auto left = record(MORUN_DTYPE_F32, MORUN_LAYOUT_2D_RM, x.data(), n);
  const auto right = record(MORUN_DTYPE_F16, MORUN_LAYOUT_2D_WH, buffer->bytes().data(), n);
  const auto result = record(MORUN_DTYPE_F32, MORUN_LAYOUT_2D_RM, a.data(), n);
  TELL(npu->multiply(MORUN_PLATFORM_NPU0, result, left, right));
  EXPECT_LT(relative_error(plain_product(x, w, n), a), 0.001);

  const auto wrong = record(MORUN_DTYPE_F32, MORUN_LAYOUT_2D_RM, a.data(), n - 1);
  tavik_set_error(TAVIK_ERROR_MEMORY, "", "", 0, "%s", "of an earlier failure");
  TELL(npu->multiply(MORUN_PLATFORM_NPU0, wrong, left, right));
  TELL(npu->allocate(uint64_t{1} << 50));
  TELL(npu->close());
  npu.reset();
  TELL(morun::Npu::open());
  fail_once(PARLO_EMULATOR_MUNMAP);
  TELL(buffer->release());
  buffer.reset();
  EXPECT_EQ(test::usage().n_handles, 0u);
  morun::Npu again = morun::or_throw(morun::Npu::open());
  TELL(again.close());
  TELL(again.close());
  TELL(again.allocate(1));
  TELL(again.multiply(MORUN_PLATFORM_CPU, result, left, right));
  testing::internal::GetCapturedStderr();
}

// ---- Packed files ---------------------------------------------------------------------------------------------------

// A checkpoint of f32 matrices: n_col x n_inner, as frameworks have them.
struct Matrix {
  std::string name;
  uint64_t n_col, n_inner;
  Floats values;
};

class PackedFile : public MorunHpp, public test::Folder {
 protected:
  PackedFile() {
    std::vector<test::Tensor> tensors;
    for (const Matrix& m : matrices) tensors.push_back({m.name, "F32", {m.n_col, m.n_inner}, test::bytes_of(m.values)});
    write("model.safetensors", test::safetensors(tensors));
  }

  void pack_file() {
    morun::Packer packer = morun::or_throw(morun::Packer::create());
    morun::or_throw(packer.add_source(checkpoint));
    morun::or_throw(packer.add_rule("up.*", MORUN_WEIGHTS_F16));
    morun::or_throw(packer.add_rule("q.*", MORUN_WEIGHTS_A8W4));
    morun::or_throw(packer.run(packed));
  }

  template <typename Form>
  void check_product(const morun::Weights<Form>& weights, const Matrix& m, double bound) {
    const Floats x = random_values(3 * m.n_inner);
    Floats a(3 * m.n_col);
    ASSERT_EQ(said(morun::multiply({x, 3, m.n_inner}, weights, {a, 3, m.n_col})), "");
    EXPECT_LT(relative_error(plain_product(x, m.values, m.n_inner, true), a), bound) << m.name;
  }

  const std::string checkpoint = path("model.safetensors"), packed = path("packed.safetensors");
  const std::vector<Matrix> matrices = {
      {"q.weight", 50, 40, test::some_values(2000, 2000)},    {"up.weight", 70, 33, test::some_values(2310, 2310)},
      {"down.weight", 32, 64, test::some_values(2048, 2048)}, {"k.weight", 32, 40, test::some_values(1280, 1280)},
      {"v.weight", 32, 40, test::some_values(1280, 1280)},    {"norm.weight", 1, 5, test::some_values(5, 5)}};
};

TEST_F(PackedFile, LayerLoadedWeights) {
  pack_file();
  std::optional<morun::Context> context = open();
  const uint64_t n_own = test::usage().n_allocations;
  std::optional<morun::WeightFile> file = morun::or_throw(morun::WeightFile::open(packed));
  ASSERT_EQ(file->size(), matrices.size());
  const morun::Request requests[] = {{"down.weight"}, {"q.weight"}, {"up.weight"}};
  // Two of the three share no buffer of this size.
  std::optional<morun::LoadedWeights> loaded =
      morun::or_throw(morun::load(*file, *context, requests, {.largest_buffer = 12288}));
  EXPECT_GT(test::usage().n_allocations, n_own + 1);
  std::optional down = morun::or_throw(loaded->weights<a8w8>(0));
  const auto q = morun::or_throw(loaded->weights<a8w4>(1));
  const auto up = morun::or_throw(loaded->weights<f16>(2));
  TELL(loaded->weights<f16>(1));
  TELL(loaded->weights<f16>(3));
  check_product(q, matrices[0], 0.2);
  check_product(up, matrices[1], 0.001);
  check_product(*down, matrices[2], 0.02);

  // The bytes are those of packing in memory.
  const auto same = morun::or_throw(morun::pack<a8w8>(*context, morun::transposed({matrices[2].values, 32, 64}), {}));
  EXPECT_TRUE(std::ranges::equal(same.operand().bytes, down->operand().bytes));

  Floats values(64 * 32);
  const uint64_t index = morun::or_throw(file->find("down.weight"));
  TELL(file->verify(index));
  TELL(file->unpack(index, {values, 64, 32}));
  Floats by_rows;
  for (uint64_t i = 0; i < values.size(); ++i) by_rows.push_back(matrices[2].values[i % 32 * 64 + i / 32]);
  EXPECT_LT(relative_error(by_rows, values), 0.01);
  TELL(file->unpack(index, {values, 32, 64}));
  TELL(loaded->release());
  file.reset();
  context.reset();
  loaded.reset();
  check_product(*down, matrices[2], 0.02);
  TELL(down->release());
  check_product(q, matrices[0], 0.2);
}

// Weights of a group stand behind one another in one buffer.
template <typename Form>
void check_group(const std::string& checkpoint, const std::string& packed, int32_t form) {
  morun_weights_pack_options options = morun::Packer::default_options();
  options.form = form;
  morun::Packer packer = morun::or_throw(morun::Packer::create(options));
  morun::or_throw(packer.add_source(checkpoint));
  morun::or_throw(packer.run(packed));
  const morun::Context context = morun::or_throw(morun::Context::open(morun::Limits::up_to(7, 40, 50)));
  const auto file = morun::or_throw(morun::WeightFile::open(packed));
  const morun::Request requests[] = {{"q.weight", 1, true}, {"k.weight", 1, true}, {"v.weight", 1, true}};
  const auto loaded = morun::or_throw(morun::load(file, context, requests));
  EXPECT_EQ(context.get()->n_buffers, 1u);
  std::vector<morun::Weights<Form>> w;
  for (const uint64_t i : {1, 2, 0}) w.push_back(morun::or_throw(loaded.template weights<Form>(i)));
  EXPECT_EQ(check_fused(w), std::pair(1ul, 3ul));
  std::swap(w[0], w[2]);
  EXPECT_EQ(check_fused(w), std::pair(2ul, 1ul));
}

TEST_F(PackedFile, AGroupInOneBufferIsMultipliedInOneCall) {
  check_group<f16>(checkpoint, packed, MORUN_WEIGHTS_F16);
  check_group<a8w8>(checkpoint, packed, MORUN_WEIGHTS_A8W8);
  check_group<a8w4>(checkpoint, packed, MORUN_WEIGHTS_A8W4);
}

TEST_F(PackedFile, LayerFailuresOfLoading) {
  pack_file();
  const morun::Context context = open();
  const uint64_t n_own = test::usage().n_allocations;
  morun::WeightFile file = morun::or_throw(morun::WeightFile::open(packed));
  const morun::Request known[] = {{"q.weight"}, {"up.weight"}}, unknown[] = {{"q.weight"}, {"gone.weight"}},
                       group[] = {{"q.weight", 1}, {"up.weight", 1}};
  TELL(morun::load(file, context, unknown));
  TELL(morun::load(file, context, group, {.largest_buffer = 16384}));
  fail_once(PARLO_EMULATOR_MEM_TO_FD);
  TELL(morun::load(file, context, known));

  const uint64_t index = morun::or_throw(file.find("up.weight"));
  const uint64_t offset = morun::or_throw(file.tensor(index)).file_offset;
  std::fstream(packed, std::ios::in | std::ios::out).seekp(static_cast<std::streamoff>(offset)).put('\x55');
  TELL(morun::load(file, context, known));
  EXPECT_EQ(test::usage().n_allocations, n_own);
  morun::LoadedWeights loaded = morun::or_throw(morun::load(file, context, known, {.skip_checksums = true}));
  fail_once(PARLO_EMULATOR_MUNMAP);
  TELL(loaded.release());
  TELL(loaded.release());
  TELL(loaded.release());
  TELL(loaded.weights<f16>(0));
  EXPECT_EQ(test::usage().n_allocations, n_own);
  const morun::WeightFile taken = std::move(file);
  TELL(file.find("q.weight"));
  EXPECT_EQ(file.size(), 0u);
  TELL(morun::WeightFile::open(path("gone")));
  morun::Packer packer = morun::or_throw(morun::Packer::create());
  TELL(packer.add_source(path("gone.npy")));
  TELL(packer.run(packed));
}

}  // namespace

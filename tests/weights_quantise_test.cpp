// Quantisers and packed bytes, read back by the layouts' definitions and compared with independent computations.

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <functional>
#include <map>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "include/morun_weights.h"
#include "tests/packed_matrix.h"

namespace {

constexpr int32_t forms[] = {MORUN_WEIGHTS_F16, MORUN_WEIGHTS_A8W8, MORUN_WEIGHTS_A8W4};
constexpr int32_t quantisers[] = {MORUN_WEIGHTS_MINMAX, MORUN_WEIGHTS_MSE, MORUN_WEIGHTS_CALIBRATED,
                                  MORUN_WEIGHTS_LIBRARY};

// Row-major.
struct Matrix {
  uint64_t n_row, n_col;
  std::vector<float> values;

  float at(uint64_t r, uint64_t c) const { return values[r * n_col + c]; }
};

Matrix normal(uint64_t n_row, uint64_t n_col, double mean, double deviation, unsigned seed) {
  return {n_row, n_col, test::normal_values(n_row * n_col, seed, mean, deviation)};
}

// Rows whose columns are correlated, as columns of activations are.
Matrix correlated(uint64_t n_row, uint64_t n_col, unsigned seed) {
  const Matrix few = normal(n_row, 6, 0, 1, seed), mix = normal(6, n_col, 0, 1, seed + 1);
  const auto sums = test::product(few.values, 6, n_col, [&](uint64_t k, uint64_t c) { return mix.at(k, c); });
  Matrix x = normal(n_row, n_col, 0, 0.3, seed + 2);
  for (size_t i = 0; i < sums.size(); ++i) x.values[i] += static_cast<float>(sums[i]);
  return x;
}

struct Calibration {
  explicit Calibration(const Matrix& x, double damping = 0.05) {
    EXPECT_EQ(morun_weights_calibration_create(x.n_col, &handle), 0);
    EXPECT_EQ(morun_weights_calibration_add(handle, x.n_row, x.values.data(), x.n_col), 0);
    EXPECT_EQ(morun_weights_calibration_finish(handle, damping), 0) << morun_weights_error_text();
  }
  ~Calibration() { morun_weights_calibration_free(handle); }
  Calibration(const Calibration&) = delete;
  Calibration& operator=(const Calibration&) = delete;

  morun_weights_calibration* handle = nullptr;
};

struct Packed : test::PackedMatrix {
  const Matrix& source;
  int32_t status;
  morun_weights_recipe recipe;
  morun_weights_statistics statistics;

  // Relative, of a column.
  double error(uint64_t c) const {
    std::vector<double> expected, actual;
    for (uint64_t k = 0; k < source.n_row; ++k) {
      expected.push_back(double{source.at(k, c)});
      actual.push_back(value(k, c));
    }
    return test::relative_error(expected, actual);
  }
};

Packed pack(const Matrix& w, int32_t form, int32_t quantiser, const morun_weights_calibration* calibration = nullptr,
            bool allow_non_finite = false) {
  Packed packed = {{form, {}, {}}, w, 0, {form, quantiser, w.n_row, w.n_col, calibration, allow_non_finite, 0}, {}};
  EXPECT_EQ(morun_weights_layout_of(form, w.n_row, w.n_col, &packed.layout), 0);
  packed.bytes.assign(packed.layout.n_byte, 0xee);
  packed.status = morun_weights_pack_columns(&packed.recipe, 0, w.n_col, w.values.data(), w.n_col, 1,
                                             packed.bytes.data(), packed.bytes.size(), &packed.statistics);
  return packed;
}

double sum_of_squares(const std::vector<double>& values) {
  return std::inner_product(values.begin(), values.end(), values.begin(), 0.0);
}

// ---- Bytes and figures ---------------------------------------------------------------------------------------------

void expect_figures(const Packed& packed, const Matrix& x) {
  const Matrix& w = packed.source;
  const morun_weights_statistics& figures = packed.statistics;
  std::vector<double> expected(w.values.begin(), w.values.end()), actual, columns;
  for (uint64_t i = 0; i < expected.size(); ++i) actual.push_back(packed.value(i / w.n_col, i % w.n_col));
  for (uint64_t c = 0; c < w.n_col; ++c) columns.push_back(packed.error(c));
  const double coarse[] = {0, 0.0005, 0.012, 0.2};
  const double error = test::relative_error(expected, actual), all = sum_of_squares(expected);
  EXPECT_LT(error, coarse[packed.form]);
  EXPECT_EQ(figures.n_value, expected.size());
  EXPECT_NEAR(figures.squared_error, error * error * all, 1e-9 * error * error * all);
  EXPECT_NEAR(figures.sum_of_squares, all, 1e-9 * all);

  const auto exact = test::product(x.values, w.n_row, w.n_col, [&](uint64_t k, uint64_t c) { return w.at(k, c); });
  const auto got = test::product(x.values, w.n_row, w.n_col, [&](auto k, auto c) { return packed.value(k, c); });
  const double products = sum_of_squares(exact), its_error = products * std::pow(test::relative_error(exact, got), 2);
  EXPECT_NEAR(figures.product_squares, products, 1e-6 * products);
  EXPECT_NEAR(figures.product_error, its_error, 1e-6 * its_error);

  ASSERT_EQ(figures.n_worst, 8u);
  EXPECT_NEAR(figures.worst[0].relative_error, *std::max_element(columns.begin(), columns.end()), 1e-9);
  for (const auto& worst : figures.worst) {
    EXPECT_NEAR(worst.relative_error, columns[worst.column], 1e-9);
    EXPECT_GE(figures.worst[0].relative_error, worst.relative_error);
  }
}

TEST(WeightsQuantise, EveryFormHoldsTheValuesItMeasuresInEveryPlaceOfTheLayout) {
  const Matrix w = normal(70, 77, 0.1, 1, 1), x = correlated(90, 70, 2);
  const Calibration calibration(x);
  for (const int32_t form : forms) {
    for (const int32_t quantiser : quantisers) {
      SCOPED_TRACE(testing::Message() << "form " << form << ", quantiser " << quantiser);
      const Packed packed = pack(w, form, quantiser, calibration.handle);
      ASSERT_EQ(packed.status, 0) << morun_weights_error_text();
      expect_figures(packed, x);
      if (form == MORUN_WEIGHTS_F16) {
        for (const auto& [k, c] : {std::pair{70u, 0u}, {95, 76}, {0, 77}, {95, 95}}) EXPECT_EQ(packed.value(k, c), 0);
        continue;
      }
      for (uint64_t c = 0; c < 77; ++c) {
        int32_t sum = 0;
        for (uint64_t k = 0; k < 96; ++k) sum += packed.q(k, c);
        EXPECT_EQ(packed.sum(c), sum);
        const int padding = quantiser == MORUN_WEIGHTS_LIBRARY ? packed.q(0, c) : packed.zero_point(c);
        EXPECT_EQ(packed.q(70, c), padding);
        EXPECT_EQ(packed.q(95, c), padding);
      }
      const auto end_of_sums = static_cast<ptrdiff_t>(packed.layout.sums + 4 * 96);
      EXPECT_TRUE(std::all_of(packed.bytes.begin() + end_of_sums, packed.bytes.end(), [](auto b) { return b == 0; }));
    }
  }
}

TEST(WeightsQuantise, ColumnsOfEveryKindKeepTheirAccuracy) {
  struct Case {
    const char* what;
    double mean, deviation;
    double bounds[2];  // of the relative error, a8w8 and a8w4
    uint64_t n_constant = 0, n_zero = 0;
  };
  const Case cases[] = {
      {"one sign", 3, 0.1, {0.005, 0.05}},
      {"the other", -3, 0.1, {0.005, 0.05}},
      {"both", 0, 1, {0.01, 0.15}},
      {"constant", 0.7, 0, {0.001, 0.001}, 32},
      {"constant and negative", -40, 0, {0.001, 0.001}, 32},
      {"zeros", 0, 0, {0, 0}, 0, 32},
      {"scales below the normal halves", 0, 1e-4, {0.12, 0.16}},
      {"values beyond the halves", 0, 1e5, {0.01, 0.15}},
      {"values beyond what any scale reaches", 1e30, 0, {1, 1}, 32},
  };
  for (const Case& test : cases) {
    const Matrix w = normal(256, 32, test.mean, test.deviation, 5);
    for (const int32_t form : {MORUN_WEIGHTS_A8W8, MORUN_WEIGHTS_A8W4}) {
      for (const int32_t quantiser : {MORUN_WEIGHTS_MINMAX, MORUN_WEIGHTS_MSE}) {
        SCOPED_TRACE(testing::Message() << test.what << ", form " << form << ", quantiser " << quantiser);
        const Packed packed = pack(w, form, quantiser);
        ASSERT_EQ(packed.status, 0);
        EXPECT_LE(packed.statistics.worst[0].relative_error, test.bounds[form == MORUN_WEIGHTS_A8W4]);
        EXPECT_EQ(packed.statistics.n_constant, test.n_constant);
        EXPECT_EQ(packed.statistics.n_zero, test.n_zero);
      }
    }
  }
}

TEST(WeightsQuantise, BytesDoNotDependOnStridesCallsOrThreads) {
  const Matrix w = normal(45, 101, 0, 1, 3), x = correlated(60, 45, 4);
  const Calibration calibration(x);
  std::vector<float> columns(w.values.size());
  for (uint64_t i = 0; i < columns.size(); ++i) columns[i % 101 * 45 + i / 101] = w.values[i];
  for (const int32_t form : forms) {
    for (const int32_t quantiser : quantisers) {
      const Packed whole = pack(w, form, quantiser, calibration.handle);
      std::vector<uint8_t> bytes(whole.bytes.size(), 0x55);
      morun_weights_statistics figures[3];
      std::vector<std::thread> threads;
      const uint64_t first[] = {0, 64, 96}, n[] = {64, 32, 5};
      for (size_t i = 0; i < 3; ++i)
        threads.emplace_back([&, i] {
          EXPECT_EQ(morun_weights_pack_columns(&whole.recipe, first[i], n[i], columns.data() + first[i] * 45, 1, 45,
                                               bytes.data(), bytes.size(), &figures[i]),
                    0);
        });
      for (std::thread& thread : threads) thread.join();
      EXPECT_EQ(bytes, whole.bytes) << "form " << form << ", quantiser " << quantiser;
      for (const size_t i : {1, 2}) morun_weights_statistics_add(&figures[0], &figures[i]);
      EXPECT_NEAR(figures[0].squared_error, whole.statistics.squared_error, 1e-12);
      for (size_t i = 0; i < 8; ++i) EXPECT_EQ(figures[0].worst[i].column, whole.statistics.worst[i].column);
    }
  }
}

// ---- Quantisers ----------------------------------------------------------------------------------------------------

// By the definition: the inverse of the damped covariance is made from one row of the activation after the other, and
// the inverse for the rows of the matrix that are left, from the one before.
TEST(WeightsQuantise, CalibratedFeedsEachRowsErrorIntoTheRowsToCome) {
  constexpr uint64_t n = 75;
  constexpr double damping = 0.03;
  const Matrix w = normal(n, 3, 0, 1, 7), x = correlated(100, n, 8);
  std::vector<double> diagonal(n), inverse(n * n);
  for (uint64_t i = 0; i < n * x.n_row; ++i) diagonal[i % n] += std::pow(double{x.values[i]}, 2);
  for (uint64_t i = 0; i < n; ++i)
    inverse[i * n + i] = n / damping / std::accumulate(diagonal.begin(), diagonal.end(), 0.0);
  const auto subtract = [&](const std::vector<double>& v, double divisor) {
    for (uint64_t i = 0; i < n * n; ++i) inverse[i] -= v[i / n] * v[i % n] / divisor;
  };
  for (uint64_t r = 0; r < x.n_row; ++r) {
    std::vector<double> v(n);
    double divisor = 1;
    for (uint64_t i = 0; i < n * n; ++i) v[i / n] += inverse[i] * double{x.at(r, i % n)};
    for (uint64_t i = 0; i < n; ++i) divisor += v[i] * double{x.at(r, i)};
    subtract(v, divisor);
  }
  std::vector<uint64_t> order(n);
  std::iota(order.begin(), order.end(), 0);
  std::sort(order.begin(), order.end(), [&](uint64_t a, uint64_t b) { return diagonal[a] > diagonal[b]; });

  const Calibration calibration(x, damping);
  const Packed packed = pack(w, MORUN_WEIGHTS_A8W4, MORUN_WEIGHTS_CALIBRATED, calibration.handle);
  std::vector<double> rows(w.values.begin(), w.values.end());
  for (const uint64_t k : order) {
    const double pivot = inverse[k * n + k];
    for (uint64_t c = 0; c < 3; ++c) {
      const double value = rows[k * 3 + c], zero_point = packed.zero_point(c);
      const double q = std::clamp(std::round(value / packed.scale(c)) + zero_point, -8.0, 7.0);
      ASSERT_EQ(packed.q(k, c), q) << "row " << k << ", column " << c;
      const double error = value - (q - zero_point) * packed.scale(c);
      for (uint64_t i = 0; i < n; ++i) rows[i * 3 + c] -= error * inverse[i * n + k] / pivot;
    }
    subtract({inverse.begin() + static_cast<ptrdiff_t>(k * n), inverse.begin() + static_cast<ptrdiff_t>(k * n + n)},
             pivot);
  }
}

// ---- What is no ordinary value -------------------------------------------------------------------------------------

TEST(WeightsQuantise, ValuesThatAreNotFiniteAreNamedOrReplaced) {
  Matrix w = normal(40, 70, 0, 1, 10);
  w.values[3 * 70 + 2] = NAN;
  w.values[1 * 70 + 69] = -INFINITY;
  w.values[5 * 70 + 33] = 70000;
  for (const int32_t form : {MORUN_WEIGHTS_F16, MORUN_WEIGHTS_A8W8}) {
    const Packed refused = pack(w, form, MORUN_WEIGHTS_MINMAX);
    EXPECT_EQ(refused.status, MORUN_WEIGHTS_NON_FINITE);
    EXPECT_STREQ(morun_weights_error_text(), "weight (3, 2) is NaN, and 1 more in columns 0 to 69 are not finite");
    const Packed taken = pack(w, form, MORUN_WEIGHTS_MINMAX, nullptr, true);
    ASSERT_EQ(taken.status, 0);
    for (const Packed* const packed : {&refused, &taken}) {
      EXPECT_EQ(packed->statistics.n_nan, 1u);
      EXPECT_EQ(packed->statistics.n_infinite, 1u);
      EXPECT_EQ(packed->statistics.n_overflow, 1u);
      EXPECT_EQ(packed->statistics.n_value, 40u * 70u);
    }
    if (form == MORUN_WEIGHTS_F16) {
      EXPECT_TRUE(std::isnan(taken.value(3, 2)));
      EXPECT_EQ(taken.value(1, 69), -INFINITY);
      EXPECT_EQ(taken.statistics.squared_error, INFINITY);  // of the value that overflows
      EXPECT_EQ(taken.statistics.worst[0].column, 33u);
      EXPECT_EQ(taken.statistics.worst[0].relative_error, DBL_MAX);
      EXPECT_LT(taken.statistics.worst[1].relative_error, 0.001);  // neither NaN nor infinity counts
    } else {
      EXPECT_NEAR(taken.value(5, 33), 70000, 80);
      EXPECT_TRUE(std::isfinite(taken.statistics.squared_error));
    }
  }
}

TEST(WeightsQuantise, WrongArgumentsAreRefusedAndChangeNothing) {
  const Matrix w = normal(40, 70, 0, 1, 11);
  const Calibration other(correlated(50, 39, 12));
  morun_weights_calibration *unfinished = nullptr, *none = nullptr;
  ASSERT_EQ(morun_weights_calibration_create(40, &unfinished), 0);
  std::vector<uint8_t> bytes(64 * 96 + 3 * 2048, 0x33);
  struct Call {
    morun_weights_recipe recipe = {MORUN_WEIGHTS_A8W8, MORUN_WEIGHTS_MINMAX, 40, 70, nullptr, 0, 0};
    uint64_t first = 0, n = 70, inner_stride = 70, column_stride = 1, size = 64 * 96 + 3 * 2048;
  };
  const std::map<int32_t, std::vector<std::function<void(Call&)>>> cases = {
      {MORUN_WEIGHTS_BAD_ARGUMENT,
       {[](Call& c) { c.recipe.form = MORUN_WEIGHTS_CARRIED; }, [](Call& c) { c.recipe.form = 4; },
        [](Call& c) { c.recipe.quantiser = 4; }, [](Call& c) { c.recipe.quantiser = -1; },
        [&](Call& c) { c.recipe.calibration = unfinished; }, [&](Call& c) { c.recipe.calibration = other.handle; },
        [](Call& c) { c.first = 16; }, [](Call& c) { c.first = 96; }, [](Call& c) { c.n = 0; },
        [](Call& c) { c.n = 33; }, [](Call& c) { c.first = 64, c.n = 32; }, [](Call& c) { c.inner_stride = 0; },
        [](Call& c) { c.column_stride = 0; }, [](Call& c) { --c.size; }}},
      {MORUN_WEIGHTS_NULL_ARGUMENT, {[](Call& c) { c.recipe.quantiser = MORUN_WEIGHTS_CALIBRATED; }}},
      {MORUN_WEIGHTS_EXTENTS,
       {[](Call& c) { c.recipe.n_inner = 0; }, [](Call& c) { c.recipe.n_col = 0; },
        [](Call& c) { c.recipe.n_inner = uint64_t{1} << 58; }}}};
  for (const auto& [status, changes] : cases) {
    for (const auto& change : changes) {
      Call call;
      change(call);
      EXPECT_EQ(morun_weights_pack_columns(&call.recipe, call.first, call.n, w.values.data(), call.inner_stride,
                                           call.column_stride, bytes.data(), call.size, nullptr),
                status)
          << morun_weights_error_text();
    }
  }
  EXPECT_EQ(bytes, std::vector<uint8_t>(bytes.size(), 0x33));

  EXPECT_EQ(morun_weights_calibration_create(0, &none), MORUN_WEIGHTS_BAD_ARGUMENT);
  EXPECT_EQ(morun_weights_calibration_create(65537, &none), MORUN_WEIGHTS_BAD_ARGUMENT);
  std::vector<float> rows(80, 0.0f);
  const auto add = [&](uint64_t n_row, uint64_t stride) {
    return morun_weights_calibration_add(unfinished, n_row, rows.data(), stride);
  };
  const auto finish = [&](double damping) { return morun_weights_calibration_finish(unfinished, damping); };
  EXPECT_EQ(add(2, 39), MORUN_WEIGHTS_BAD_ARGUMENT);
  EXPECT_EQ(add(2, 40), 0);
  EXPECT_EQ(finish(0.05), MORUN_WEIGHTS_ACTIVATION_VALUE);
  rows[0] = 1;
  rows[41] = INFINITY;
  EXPECT_EQ(add(2, 40), MORUN_WEIGHTS_ACTIVATION_VALUE);
  EXPECT_STREQ(morun_weights_error_text(), "the activation is not finite at row 1, column 1");
  EXPECT_EQ(finish(0.05), MORUN_WEIGHTS_ACTIVATION_VALUE) << "no row was added";
  EXPECT_EQ(add(1, 40), 0);
  EXPECT_EQ(finish(0), MORUN_WEIGHTS_COVARIANCE);
  EXPECT_EQ(finish(1.5), MORUN_WEIGHTS_BAD_ARGUMENT);
  EXPECT_EQ(finish(0.01), 0);
  EXPECT_EQ(finish(0.01), MORUN_WEIGHTS_BAD_ARGUMENT);
  EXPECT_EQ(add(1, 40), MORUN_WEIGHTS_BAD_ARGUMENT);
  morun_weights_calibration_free(unfinished);
}

}  // namespace

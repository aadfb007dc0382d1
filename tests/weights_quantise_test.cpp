// Quantisers and packed bytes, read back by the layouts' definitions and compared with independent computations.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "include/morun_weights.h"
#include "simd/scalar.h"
#include "tests/packed_matrix.h"

namespace {

constexpr int32_t quantisers[] = {MORUN_WEIGHTS_MINMAX, MORUN_WEIGHTS_MSE, MORUN_WEIGHTS_CALIBRATED,
                                  MORUN_WEIGHTS_LIBRARY};

// n_inner x n_col, row-major.
struct Matrix {
  uint64_t n_row, n_col;
  std::vector<float> values;

  float at(uint64_t r, uint64_t c) const { return values[r * n_col + c]; }
};

Matrix normal(uint64_t n_row, uint64_t n_col, double mean, double deviation, unsigned seed) {
  std::mt19937 generator(seed);
  std::normal_distribution<double> distribution(mean, deviation);
  Matrix matrix{n_row, n_col, std::vector<float>(n_row * n_col)};
  for (float& value : matrix.values) value = static_cast<float>(distribution(generator));
  return matrix;
}

// Rows whose values go together, as those of activations do.
Matrix correlated(uint64_t n_row, uint64_t n_col, unsigned seed) {
  const Matrix few = normal(n_row, 6, 0, 1, seed), mix = normal(6, n_col, 0, 1, seed + 1);
  Matrix x = normal(n_row, n_col, 0, 0.3, seed + 2);
  for (uint64_t r = 0; r < n_row; ++r)
    for (uint64_t c = 0; c < n_col; ++c)
      for (uint64_t i = 0; i < 6; ++i) x.values[r * n_col + c] += few.at(r, i) * mix.at(i, c);
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
  int32_t status;
  morun_weights_recipe recipe;
  morun_weights_statistics statistics;
};

Packed pack(const Matrix& w, int32_t form, int32_t quantiser, const morun_weights_calibration* calibration = nullptr,
            bool allow_non_finite = false) {
  Packed packed = {};
  packed.form = form;
  packed.recipe = {form, quantiser, w.n_row, w.n_col, calibration, allow_non_finite, 0};
  EXPECT_EQ(morun_weights_layout_of(form, w.n_row, w.n_col, &packed.layout), 0);
  packed.bytes.assign(packed.layout.n_byte, 0xee);
  packed.status = morun_weights_pack_columns(&packed.recipe, 0, w.n_col, w.values.data(), w.n_col, 1,
                                             packed.bytes.data(), packed.bytes.size(), &packed.statistics);
  return packed;
}

double relative_error(const Matrix& w, const Packed& packed, uint64_t c) {
  double error = 0, all = 0;
  for (uint64_t k = 0; k < w.n_row; ++k) {
    error += std::pow(w.at(k, c) - packed.value(k, c), 2);
    all += std::pow(w.at(k, c), 2);
  }
  return error == 0 ? 0 : std::sqrt(error / all);
}

// |X (w - w')|^2 and |X w|^2.
struct ProductError {
  double error = 0, all = 0;
};
ProductError product_error(const Matrix& x, const Matrix& w, const Packed& packed) {
  ProductError sums;
  std::vector<double> stored(w.n_row * w.n_col);
  for (uint64_t i = 0; i < stored.size(); ++i) stored[i] = packed.value(i / w.n_col, i % w.n_col);
  for (uint64_t r = 0; r < x.n_row; ++r) {
    std::vector<double> exact(w.n_col), got(w.n_col);
    for (uint64_t k = 0; k < w.n_row; ++k) {
      for (uint64_t c = 0; c < w.n_col; ++c) {
        exact[c] += double{x.at(r, k)} * w.at(k, c);
        got[c] += double{x.at(r, k)} * stored[k * w.n_col + c];
      }
    }
    for (uint64_t c = 0; c < w.n_col; ++c) {
      sums.error += std::pow(got[c] - exact[c], 2);
      sums.all += exact[c] * exact[c];
    }
  }
  return sums;
}

// ---- Bytes and figures ---------------------------------------------------------------------------------------------

TEST(WeightsQuantise, EveryFormHoldsTheValuesItMeasuresInEveryPlaceOfTheLayout) {
  const Matrix w = normal(70, 77, 0.1, 1, 1), x = correlated(90, 70, 2);
  const Calibration calibration(x);
  for (const int32_t form : {MORUN_WEIGHTS_F16, MORUN_WEIGHTS_A8W8, MORUN_WEIGHTS_A8W4}) {
    for (const int32_t quantiser : quantisers) {
      SCOPED_TRACE(testing::Message() << "form " << form << ", quantiser " << quantiser);
      const Packed packed = pack(w, form, quantiser, calibration.handle);
      ASSERT_EQ(packed.status, 0) << morun_weights_error_text();
      const double coarse[] = {0, 0.0005, 0.012, 0.2};
      double error = 0, all = 0, worst = 0;
      for (uint64_t c = 0; c < 77; ++c) {
        for (uint64_t k = 0; k < 70; ++k) {
          error += std::pow(w.at(k, c) - packed.value(k, c), 2);
          all += std::pow(w.at(k, c), 2);
        }
        worst = std::max(worst, relative_error(w, packed, c));
      }
      EXPECT_LT(std::sqrt(error / all), coarse[form]);
      const morun_weights_statistics& figures = packed.statistics;
      EXPECT_EQ(figures.n_value, 70u * 77u);
      EXPECT_NEAR(figures.squared_error, error, 1e-9 * error);
      EXPECT_NEAR(figures.sum_of_squares, all, 1e-9 * all);
      const ProductError products = product_error(x, w, packed);
      EXPECT_NEAR(figures.product_error, products.error, 1e-6 * products.error);
      EXPECT_NEAR(figures.product_squares, products.all, 1e-6 * products.all);
      ASSERT_EQ(figures.n_worst, 8u);
      EXPECT_NEAR(figures.worst[0].relative_error, worst, 1e-9);
      for (uint32_t i = 0; i < 8; ++i) {
        EXPECT_NEAR(figures.worst[i].relative_error, relative_error(w, packed, figures.worst[i].column), 1e-9);
        EXPECT_GE(figures.worst[0].relative_error, figures.worst[i].relative_error);
      }
      if (form == MORUN_WEIGHTS_F16) {
        for (const auto& [k, c] : {std::pair{70, 0}, {95, 76}, {0, 77}, {95, 95}})
          EXPECT_EQ(packed.value(static_cast<uint64_t>(k), static_cast<uint64_t>(c)), 0);
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
      EXPECT_EQ(
          std::count(packed.bytes.begin() + static_cast<ptrdiff_t>(packed.layout.sums + 4 * 96), packed.bytes.end(), 0),
          static_cast<ptrdiff_t>(packed.layout.n_byte - packed.layout.sums - 4 * 96));
    }
  }
}

TEST(WeightsQuantise, BytesDoNotDependOnStridesCallsOrThreads) {
  const Matrix w = normal(45, 101, 0, 1, 3), x = correlated(60, 45, 4);
  const Calibration calibration(x);
  std::vector<float> columns(w.values.size());
  for (uint64_t i = 0; i < columns.size(); ++i) columns[i % 101 * 45 + i / 101] = w.values[i];
  for (const int32_t form : {MORUN_WEIGHTS_F16, MORUN_WEIGHTS_A8W8, MORUN_WEIGHTS_A8W4}) {
    for (const int32_t quantiser : quantisers) {
      const Packed whole = pack(w, form, quantiser, calibration.handle);
      std::vector<uint8_t> bytes(whole.bytes.size(), 0x55);
      std::vector<morun_weights_statistics> figures(3);
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

TEST(WeightsQuantise, ColumnsOfEveryKindKeepTheirAccuracy) {
  struct Case {
    const char* what;
    double mean, deviation;
    double bounds[2];  // of the relative error, a8w8 and a8w4
    bool is_constant, is_zero;
  };
  const Case cases[] = {
      {"one sign", 3, 0.1, {0.005, 0.05}, false, false},
      {"the other", -3, 0.1, {0.005, 0.05}, false, false},
      {"both", 0, 1, {0.01, 0.15}, false, false},
      {"constant", 0.7, 0, {0.001, 0.001}, true, false},
      {"constant and negative", -40, 0, {0.001, 0.001}, true, false},
      {"zeros", 0, 0, {0, 0}, false, true},
      {"scales below the normal halves", 0, 1e-4, {0.12, 0.16}, false, false},
      {"values beyond the halves", 0, 1e5, {0.01, 0.15}, false, false},
      {"values beyond what any scale reaches", 1e30, 0, {1, 1}, true, false},
  };
  for (const Case& test : cases) {
    const Matrix w = normal(256, 32, test.mean, test.deviation, 5);
    for (const int32_t form : {MORUN_WEIGHTS_A8W8, MORUN_WEIGHTS_A8W4}) {
      for (const int32_t quantiser : {MORUN_WEIGHTS_MINMAX, MORUN_WEIGHTS_MSE}) {
        SCOPED_TRACE(testing::Message() << test.what << ", form " << form << ", quantiser " << quantiser);
        const Packed packed = pack(w, form, quantiser);
        ASSERT_EQ(packed.status, 0);
        EXPECT_LE(packed.statistics.worst[0].relative_error, test.bounds[form == MORUN_WEIGHTS_A8W4]);
        EXPECT_EQ(packed.statistics.n_constant, test.is_constant ? 32u : 0u);
        EXPECT_EQ(packed.statistics.n_zero, test.is_zero ? 32u : 0u);
      }
    }
  }
}

TEST(WeightsQuantise, MinmaxReachesFromTheLeastToTheGreatestValueAndZero) {
  struct Case {
    float low, high;
    double scale;
    int zero_point;
  };
  const Case cases[] = {{-1, 2, 1.0 / 85, -43}, {2.55f, 5.1f, 0.02, -128}, {-255, -1, 1, 127}, {-100, 155, 1, -28}};
  for (const Case& test : cases) {
    const Packed packed = pack({2, 1, {test.low, test.high}}, MORUN_WEIGHTS_A8W8, MORUN_WEIGHTS_MINMAX);
    EXPECT_GE(packed.scale(0), test.scale * (1 - 1e-7));
    EXPECT_LE(packed.scale(0), test.scale * (1 + 1.0 / 1024));
    EXPECT_EQ(packed.zero_point(0), test.zero_point);
  }
}

TEST(WeightsQuantise, MseIsNoWorseThanMinmaxInAnyColumnAndNearTheBestThereIs) {
  Matrix w = normal(128, 40, 0.2, 1, 6);
  for (uint64_t c = 0; c < 40; c += 3) w.values[c] = 9;  // outliers
  for (const int32_t form : {MORUN_WEIGHTS_A8W8, MORUN_WEIGHTS_A8W4}) {
    const Packed minmax = pack(w, form, MORUN_WEIGHTS_MINMAX), mse = pack(w, form, MORUN_WEIGHTS_MSE);
    for (uint64_t c = 0; c < 40; ++c) EXPECT_LE(relative_error(w, mse, c), relative_error(w, minmax, c) * (1 + 1e-6));
    if (form == MORUN_WEIGHTS_A8W8) continue;
    for (uint64_t c = 0; c < 6; ++c) {
      double best = 1;
      for (int zero_point = -8; zero_point <= 7; ++zero_point) {
        for (double scale = 0.05; scale < 1; scale += 0.002) {
          double error = 0, all = 0;
          for (uint64_t k = 0; k < 128; ++k) {
            const double value = w.at(k, c);
            const double q = std::clamp(std::round(value / scale) + zero_point, -8.0, 7.0);
            error += std::pow(value - (q - zero_point) * scale, 2);
            all += value * value;
          }
          best = std::min(best, std::sqrt(error / all));
        }
      }
      EXPECT_LE(relative_error(w, mse, c), 1.04 * best) << "column " << c;
    }
  }
}

// The definition, with an inverse of its own for the rows that are left at each step.
std::vector<std::vector<double>> inverse(std::vector<std::vector<double>> matrix) {
  const size_t n = matrix.size();
  std::vector<std::vector<double>> result(n, std::vector<double>(n));
  for (size_t i = 0; i < n; ++i) result[i][i] = 1;
  for (size_t i = 0; i < n; ++i) {
    const double pivot = matrix[i][i];
    for (size_t j = 0; j < n; ++j) {
      matrix[i][j] /= pivot;
      result[i][j] /= pivot;
    }
    for (size_t r = 0; r < n; ++r) {
      const double factor = r == i ? 0 : matrix[r][i];
      for (size_t j = 0; j < n; ++j) {
        matrix[r][j] -= factor * matrix[i][j];
        result[r][j] -= factor * result[i][j];
      }
    }
  }
  return result;
}

TEST(WeightsQuantise, CalibratedFeedsEachRowsErrorIntoTheRowsToCome) {
  constexpr uint64_t n = 75;
  constexpr double damping = 0.03;
  const Matrix w = normal(n, 3, 0, 1, 7), x = correlated(100, n, 8);
  std::vector<std::vector<double>> covariance(n, std::vector<double>(n));
  double trace = 0;
  for (uint64_t i = 0; i < n; ++i) {
    for (uint64_t j = 0; j < n; ++j)
      for (uint64_t r = 0; r < x.n_row; ++r) covariance[i][j] += double{x.at(r, i)} * x.at(r, j);
    trace += covariance[i][i];
  }
  std::vector<uint64_t> left(n);
  std::iota(left.begin(), left.end(), 0);
  std::sort(left.begin(), left.end(), [&](uint64_t a, uint64_t b) { return covariance[a][a] > covariance[b][b]; });
  for (uint64_t i = 0; i < n; ++i) covariance[i][i] += damping * trace / n;

  const Calibration calibration(x, damping);
  const Packed packed = pack(w, MORUN_WEIGHTS_A8W4, MORUN_WEIGHTS_CALIBRATED, calibration.handle);
  std::vector<double> rows(w.values.begin(), w.values.end());
  for (; !left.empty(); left.erase(left.begin())) {
    std::vector<std::vector<double>> rest(left.size(), std::vector<double>(left.size()));
    for (size_t i = 0; i < left.size(); ++i)
      for (size_t j = 0; j < left.size(); ++j) rest[i][j] = covariance[left[i]][left[j]];
    const std::vector<std::vector<double>> inverted = inverse(rest);
    const uint64_t k = left[0];
    for (uint64_t c = 0; c < 3; ++c) {
      const double value = rows[k * 3 + c], zero_point = packed.zero_point(c);
      const double q = std::clamp(std::round(value / packed.scale(c)) + zero_point, -8.0, 7.0);
      ASSERT_EQ(packed.q(k, c), q) << "row " << k << ", column " << c;
      const double error = (value - (q - zero_point) * packed.scale(c)) / inverted[0][0];
      for (size_t i = 1; i < left.size(); ++i) rows[left[i] * 3 + c] -= error * inverted[i][0];
    }
  }
}

TEST(WeightsQuantise, LibraryIsTheLibrarysOwn) {
  const Matrix w = normal(64, 8, 0.5, 1, 9);
  const Packed bytes = pack(w, MORUN_WEIGHTS_A8W8, MORUN_WEIGHTS_LIBRARY);
  const Packed nibbles = pack(w, MORUN_WEIGHTS_A8W4, MORUN_WEIGHTS_LIBRARY);
  std::vector<uint16_t> halves(w.values.size());
  for (uint64_t i = 0; i < halves.size(); ++i) halves[i % 8 * 64 + i / 8] = morun::simd::narrow_bits(w.values[i]);
  std::vector<int8_t> q(halves.size()), zero_points(8);
  std::vector<uint32_t> words(halves.size() / 8), packed_points(1);
  std::vector<uint16_t> scales(8), scales_4(8);
  std::vector<int32_t> sums(8), sums_4(8);
  tavik_f16_rm_to_i8_rm(8, 64, halves.data(), q.data(), zero_points.data(), scales.data(), sums.data());
  tavik_f16_rm_to_i4_rm(8, 64, halves.data(), words.data(), packed_points.data(), scales_4.data(), sums_4.data());
  for (uint64_t c = 0; c < 8; ++c) {
    EXPECT_EQ(bytes.zero_point(c), zero_points[c]);
    EXPECT_EQ(bytes.half(bytes.layout.scales + 2 * c), scales[c]);
    EXPECT_EQ(nibbles.zero_point(c), int4_to_int8(static_cast<uint8_t>(packed_points[0] >> 4 * c)));
    EXPECT_EQ(nibbles.half(nibbles.layout.scales + 2 * c), scales_4[c]);
    EXPECT_EQ(bytes.sum(c), sums[c]);
    EXPECT_EQ(nibbles.sum(c), sums_4[c]);
    for (uint64_t k = 0; k < 64; ++k) {
      ASSERT_EQ(bytes.q(k, c), q[c * 64 + k]);
      ASSERT_EQ(nibbles.q(k, c), int4_to_int8(static_cast<uint8_t>(words[(c * 64 + k) / 8] >> 4 * (k % 8))));
    }
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
    EXPECT_STREQ(morun_weights_error_text(), "weight (3, 2) is NaN, and 1 more are not finite");
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
    } else {
      EXPECT_EQ(taken.value(3, 2), 0);
      EXPECT_NEAR(taken.value(1, 69), -65504, 32);
      EXPECT_NEAR(taken.value(5, 33), 70000, 80);
      EXPECT_LT(relative_error(w, taken, 0), 0.01);
      EXPECT_TRUE(std::isfinite(taken.statistics.squared_error));
    }
  }
}

TEST(WeightsQuantise, WrongArgumentsAreRefusedAndChangeNothing) {
  const Matrix w = normal(40, 70, 0, 1, 11), x = correlated(50, 40, 12), short_x = correlated(50, 39, 12);
  const Calibration calibration(x), other(short_x);
  morun_weights_calibration* unfinished = nullptr;
  ASSERT_EQ(morun_weights_calibration_create(40, &unfinished), 0);
  const morun_weights_recipe good = {MORUN_WEIGHTS_A8W8, MORUN_WEIGHTS_MINMAX, 40, 70, nullptr, 0, 0};
  std::vector<uint8_t> bytes(64 * 96 + 3 * 2048, 0x33);
  struct Case {
    int32_t status;
    void (*change)(morun_weights_recipe&);
    uint64_t first = 0, n = 70, inner_stride = 70, column_stride = 1, size = 64 * 96 + 3 * 2048;
  };
  const auto nothing = [](morun_weights_recipe&) {};
  static morun_weights_calibration *a, *b;
  a = unfinished;
  b = other.handle;
  const Case cases[] = {
      {MORUN_WEIGHTS_BAD_ARGUMENT, [](morun_weights_recipe& r) { r.form = MORUN_WEIGHTS_CARRIED; }},
      {MORUN_WEIGHTS_BAD_ARGUMENT, [](morun_weights_recipe& r) { r.form = 4; }},
      {MORUN_WEIGHTS_BAD_ARGUMENT, [](morun_weights_recipe& r) { r.quantiser = 4; }},
      {MORUN_WEIGHTS_BAD_ARGUMENT, [](morun_weights_recipe& r) { r.quantiser = -1; }},
      {MORUN_WEIGHTS_NULL_ARGUMENT, [](morun_weights_recipe& r) { r.quantiser = MORUN_WEIGHTS_CALIBRATED; }},
      {MORUN_WEIGHTS_BAD_ARGUMENT, [](morun_weights_recipe& r) { r.calibration = a; }},
      {MORUN_WEIGHTS_BAD_ARGUMENT, [](morun_weights_recipe& r) { r.calibration = b; }},
      {MORUN_WEIGHTS_EXTENTS, [](morun_weights_recipe& r) { r.n_inner = 0; }},
      {MORUN_WEIGHTS_EXTENTS, [](morun_weights_recipe& r) { r.n_inner = uint64_t{1} << 58; }},
      {MORUN_WEIGHTS_BAD_ARGUMENT, nothing, 16},
      {MORUN_WEIGHTS_BAD_ARGUMENT, nothing, 96},
      {MORUN_WEIGHTS_BAD_ARGUMENT, nothing, 0, 0},
      {MORUN_WEIGHTS_BAD_ARGUMENT, nothing, 0, 33},
      {MORUN_WEIGHTS_BAD_ARGUMENT, nothing, 64, 32},
      {MORUN_WEIGHTS_BAD_ARGUMENT, nothing, 0, 70, 0},
      {MORUN_WEIGHTS_BAD_ARGUMENT, nothing, 0, 70, 70, 0},
      {MORUN_WEIGHTS_BAD_ARGUMENT, nothing, 0, 70, 70, 1, 64 * 96 + 3 * 2048 - 1},
  };
  for (const Case& test : cases) {
    morun_weights_recipe recipe = good;
    test.change(recipe);
    EXPECT_EQ(morun_weights_pack_columns(&recipe, test.first, test.n, w.values.data(), test.inner_stride,
                                         test.column_stride, bytes.data(), test.size, nullptr),
              test.status)
        << &test - cases;
  }
  EXPECT_EQ(std::count(bytes.begin(), bytes.end(), 0x33), static_cast<ptrdiff_t>(bytes.size()));

  std::vector<float> rows(80, 0.0f);
  morun_weights_calibration* none = nullptr;
  EXPECT_EQ(morun_weights_calibration_create(0, &none), MORUN_WEIGHTS_BAD_ARGUMENT);
  EXPECT_EQ(morun_weights_calibration_create(65537, &none), MORUN_WEIGHTS_BAD_ARGUMENT);
  EXPECT_EQ(morun_weights_calibration_add(unfinished, 2, rows.data(), 39), MORUN_WEIGHTS_BAD_ARGUMENT);
  EXPECT_EQ(morun_weights_calibration_add(unfinished, 2, rows.data(), 40), 0);
  EXPECT_EQ(morun_weights_calibration_finish(unfinished, 0.05), MORUN_WEIGHTS_ACTIVATION_VALUE);
  rows[0] = 1;
  rows[41] = INFINITY;
  EXPECT_EQ(morun_weights_calibration_add(unfinished, 2, rows.data(), 40), MORUN_WEIGHTS_ACTIVATION_VALUE);
  EXPECT_STREQ(morun_weights_error_text(), "the activation is not finite at row 1, column 1");
  EXPECT_EQ(morun_weights_calibration_finish(unfinished, 0.05), MORUN_WEIGHTS_ACTIVATION_VALUE) << "no row was added";
  EXPECT_EQ(morun_weights_calibration_add(unfinished, 1, rows.data(), 40), 0);
  EXPECT_EQ(morun_weights_calibration_finish(unfinished, 0), MORUN_WEIGHTS_COVARIANCE);
  EXPECT_EQ(morun_weights_calibration_finish(unfinished, 1.5), MORUN_WEIGHTS_BAD_ARGUMENT);
  EXPECT_EQ(morun_weights_calibration_finish(unfinished, 0.01), 0);
  EXPECT_EQ(morun_weights_calibration_finish(unfinished, 0.01), MORUN_WEIGHTS_BAD_ARGUMENT);
  EXPECT_EQ(morun_weights_calibration_add(unfinished, 1, rows.data(), 40), MORUN_WEIGHTS_BAD_ARGUMENT);
  morun_weights_calibration_free(unfinished);
}

}  // namespace

// Query, key and value of an attention layer: three products of one activation in one call of the DSP, with weights
// quantised to 8 bits.
//
// The weights come as frameworks store them, a row for each output feature. Packing quantises them and lays them out;
// each output feature gets a scale and a zero point. What packing returns is of the type of its form, and the product
// of three weight matrices takes one form alone. Failures become exceptions by or_throw.

#include <morun.hpp>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <random>
#include <vector>

namespace {

using morun::or_throw;

// Grouped-query attention: four query heads share a head of keys and values. Any number of tokens.
constexpr uint64_t n_token = 40, n_inner = 512, n_col_q = 512, n_col_kv = 128;

std::vector<float> random_values(uint64_t n, std::mt19937& generator) {
  std::normal_distribution<float> distribution;
  std::vector<float> values(n);
  for (float& value : values) value = distribution(generator);
  return values;
}

struct Projection {
  const char* name;
  uint64_t n_col;
  std::vector<float> values;  // of the weights, n_col rows of n_inner
  morun::Weights<morun::a8w8> weights;
  std::vector<float> result;  // n_token x n_col

  morun::Matrix<float> view() { return {result, n_token, n_col}; }
};

Projection make_projection(const morun::Context& context, const char* name, uint64_t n_col, std::mt19937& generator) {
  std::vector<float> values = random_values(n_col * n_inner, generator);
  auto weights = or_throw(morun::pack<morun::a8w8>(context, morun::transposed({values, n_col, n_inner})));
  return {name, n_col, std::move(values), std::move(weights), std::vector<float>(n_token * n_col)};
}

// From the product in double precision: root of the sum of squared differences, relative to that of the values.
double deviation(const Projection& p, const std::vector<float>& x) {
  double squared_differences = 0, squared_values = 0;
  for (size_t i = 0; i < p.result.size(); ++i) {
    const size_t row = i / p.n_col, column = i % p.n_col;
    double sum = 0;
    for (size_t k = 0; k < n_inner; ++k) sum += double{x[row * n_inner + k]} * double{p.values[column * n_inner + k]};
    squared_differences += std::pow(double{p.result[i]} - sum, 2);
    squared_values += sum * sum;
  }
  return std::sqrt(squared_differences / squared_values);
}

}  // namespace

int main() try {
  std::mt19937 generator(1);
  const morun::Context context = or_throw(morun::Context::open(morun::Limits::up_to(n_token, n_inner, n_col_q)));
  Projection q = make_projection(context, "query", n_col_q, generator);
  Projection k = make_projection(context, "key", n_col_kv, generator);
  Projection v = make_projection(context, "value", n_col_kv, generator);

  const std::vector<float> x = random_values(n_token * n_inner, generator);
  or_throw(morun::multiply({x, n_token, n_inner}, q.weights, k.weights, v.weights, q.view(), k.view(), v.view()));

  // A step of a weight is 1/255 of its row's range, a step of an activation 1/127 of its row's largest value.
  constexpr double bound = 0.02;
  bool passed = true;
  for (const Projection* const p : {&q, &k, &v}) {
    const double found = deviation(*p, x);
    std::printf("%-5s %lu x %lu: relative deviation %.4f, bound %.2f\n", p->name, n_token, p->n_col, found, bound);
    passed = passed && found < bound;
  }
  return passed ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}

// A model larger than the address space of one session on the DSP.
//
// A session is a protection domain with an address space of its own, of a few GiB, for weights and for the buffers of
// activations and results, which every session maps. tavik_buffer_alloc maps a new buffer into the first session that
// has room and opens one more when none has, up to four. A product runs in the session of its weights; when that is
// another than the last one's, the library moves the DSP's resources and the matrix unit over. So allocate the weights
// in the order in which the model uses them: a pass then switches once a session, not once a product.
//
// On a device nothing is set for this. Here the emulated platform gets small sessions, for a small model to fill.

#include <parlo_emulator.h>
#include <morun.hpp>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <random>
#include <utility>
#include <vector>

namespace {

using morun::or_throw;

constexpr uint64_t n_token = 32, n_feature = 512, n_layer = 7, n_layer_in_session = 2;
constexpr uint64_t activation_size = n_token * n_feature;
constexpr uint64_t weights_bytes = n_feature * n_feature * sizeof(uint16_t);

// Counts for sessions that are opened afterwards. Beside the layers there is room for what every session maps.
void make_sessions_small() {
  parlo_emulator_config config;
  parlo_emulator_get_config(&config);
  config.session_bytes = (n_layer_in_session + 1) * weights_bytes - 1;
  parlo_emulator_set_config(&config);
}

// A layer's weights, n_feature x n_feature, in a shared buffer of their own.
class Layer {
 public:
  Layer(const morun::Context& context, std::mt19937& generator)
      : values_(random_values(generator)),
        weights_(or_throw(morun::pack<morun::f16>(context, {values_, n_feature, n_feature}))) {}

  uint64_t session() const { return weights_.session(); }

  std::vector<float> multiply(const std::vector<float>& x) const {
    std::vector<float> y(activation_size);
    or_throw(morun::multiply({x, n_token, n_feature}, weights_, {y, n_token, n_feature}));
    return y;
  }

  // Of y from x * weights in double precision: root of the sum of squared differences, relative to that of the values.
  double deviation(const std::vector<float>& x, const std::vector<float>& y) const {
    double squared_differences = 0, squared_values = 0;
    for (size_t i = 0; i < y.size(); ++i) {
      const float* const row = &x[i / n_feature * n_feature];
      double sum = 0;
      for (size_t k = 0; k < n_feature; ++k) sum += double{row[k]} * double{values_[k * n_feature + i % n_feature]};
      squared_differences += std::pow(double{y[i]} - sum, 2);
      squared_values += sum * sum;
    }
    return std::sqrt(squared_differences / squared_values);
  }

 private:
  static std::vector<float> random_values(std::mt19937& generator) {
    std::normal_distribution<float> distribution(0, 1 / std::sqrt(float{n_feature}));  // activations stay near 1
    std::vector<float> values(n_feature * n_feature);
    for (float& value : values) value = distribution(generator);
    return values;
  }

  std::vector<float> values_;  // to compare with
  morun::Weights<morun::f16> weights_;
};

}  // namespace

int main() try {
  make_sessions_small();
  const morun::Context context = or_throw(morun::Context::open(morun::Limits::up_to(n_token, n_feature, n_feature)));
  const tavik_context& state = *context.get();
  std::mt19937 generator(1);
  std::vector<Layer> layers;
  while (layers.size() < n_layer) layers.emplace_back(context, generator);
  std::printf("%lu layers of %lu KiB in %lu sessions\n", n_layer, weights_bytes / 1024, state.n_sessions);

  constexpr double bound = 0.001;  // activations, weights and results are rounded to halves, of 11 significant bits
  bool passed = state.n_sessions == (n_layer + n_layer_in_session - 1) / n_layer_in_session;
  std::vector<float> x(activation_size);
  for (float& value : x) value = std::normal_distribution<float>()(generator);
  for (const Layer& layer : layers) {
    std::vector<float> y = layer.multiply(x);
    const double found = layer.deviation(x, y);
    std::printf("weights in session %lu, active session %lu, relative deviation %.5f, bound %.3f\n", layer.session(),
                state.active_session, found, bound);
    passed = passed && found < bound && layer.session() == state.active_session;
    x = std::move(y);
  }
  return passed ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}

// A model larger than the address space of one session on the DSP.
//
// A session is a protection domain with an address space of its own, of a few GiB. The address space holds weights, and
// the buffers for activations and results, which every session maps. tavik_buffer_alloc maps a new buffer into the
// first session that has room. When no session has room, it opens one more, up to four. A product runs in the session
// of its weights. When the last product ran in another session, the library first moves the DSP's resources and the
// matrix unit. Allocate the weights in the order in which the model uses them: a pass through the model then switches
// once for each session, not once for each product.
//
// On a device the program needs no settings for this. Here the emulated platform gets small sessions that a small model
// fills.

#include <parlo_emulator.h>
#include <tavik.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <exception>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr uint64_t n_token = 32, n_feature = 512, n_layer = 7, n_layer_in_session = 2;
constexpr uint64_t activation_size = n_token * n_feature;
constexpr uint64_t weights_bytes = n_feature * n_feature * sizeof(uint16_t);

void check(int64_t status, const char* what) {
  if (status != TAVIK_SUCCESS) throw std::runtime_error(what + (": " + std::string(tavik_error_get_last()->message)));
}

// Destructors report a failed release by a line, because they cannot throw.
bool released(int32_t status) {
  if (status != TAVIK_SUCCESS) tavik_error_print(tavik_error_get_last());
  return status == TAVIK_SUCCESS;
}

void close_context(tavik_context* context) {
  if (!released(tavik_cleanup(context))) tavik_context_free(context);
}
using Context = std::unique_ptr<tavik_context, void (*)(tavik_context*)>;

Context open_context() {
  const tavik_options options{.output_matrix_size_max = activation_size,
                              .n_row_max = n_token,
                              .input_matrix_size_max = activation_size,
                              .reserved = 0};
  tavik_context* context = nullptr;
  check(tavik_init(&options, &context), "tavik_init");
  return Context(context, close_context);
}

// Applies to sessions that are opened afterwards. Besides the layers, a session has room for the buffers that every
// session maps.
void make_sessions_small() {
  parlo_emulator_config config;
  parlo_emulator_get_config(&config);
  config.session_bytes = (n_layer_in_session + 1) * weights_bytes - 1;
  parlo_emulator_set_config(&config);
}

// A layer's weights, n_feature x n_feature, in a shared buffer of their own.
class Layer {
 public:
  Layer(tavik_context* context, std::mt19937& generator) : context_(context), weights_(n_feature * n_feature) {
    std::normal_distribution<float> distribution(0, 1 / std::sqrt(float{n_feature}));  // activations stay near 1
    for (float& weight : weights_) weight = distribution(generator);
    void* data = nullptr;
    check(tavik_buffer_alloc(context_, weights_bytes, &data, &fd_), "tavik_buffer_alloc");
    auto* const halves = static_cast<uint16_t*>(data);
    tavik_f32_to_f16(weights_.size(), weights_.data(), halves);
    tavik_f16_rm_to_f16_wh_inplace(n_feature, n_feature, halves);
  }
  ~Layer() { released(tavik_buffer_free(context_, fd_)); }
  Layer(const Layer&) = delete;
  Layer& operator=(const Layer&) = delete;

  uint64_t session() const { return static_cast<uint64_t>(context_->fd_to_session[fd_]); }

  std::vector<float> multiply(const std::vector<float>& x) const {
    std::vector<float> y(activation_size);
    check(tavik_npu_mm_f32_rm_f32_rm_f16_wh(context_, n_token, n_feature, n_feature, y.data(), x.data(),
                                            static_cast<uint32_t>(fd_), 0),
          "tavik_npu_mm_f32_rm_f32_rm_f16_wh");
    return y;
  }

  // Returns the relative deviation of y from x * weights in double precision: the root of the sum of squared
  // differences, divided by the root of the sum of squared values.
  double deviation(const std::vector<float>& x, const std::vector<float>& y) const {
    double squared_differences = 0, squared_values = 0;
    for (size_t i = 0; i < y.size(); ++i) {
      const float* const row = &x[i / n_feature * n_feature];
      double sum = 0;
      for (size_t k = 0; k < n_feature; ++k) sum += double{row[k]} * double{weights_[k * n_feature + i % n_feature]};
      squared_differences += std::pow(double{y[i]} - sum, 2);
      squared_values += sum * sum;
    }
    return std::sqrt(squared_differences / squared_values);
  }

 private:
  tavik_context* context_;
  int32_t fd_ = -1;
  std::vector<float> weights_;  // for the comparison
};

}  // namespace

int main() try {
  make_sessions_small();
  const Context context = open_context();
  std::mt19937 generator(1);
  std::deque<Layer> layers;
  while (layers.size() < n_layer) layers.emplace_back(context.get(), generator);
  std::printf("%lu layers of %lu KiB in %lu sessions\n", n_layer, weights_bytes / 1024, context->n_sessions);

  constexpr double bound = 0.001;  // activations, weights and results are rounded to halves, of 11 significant bits
  bool passed = context->n_sessions == (n_layer + n_layer_in_session - 1) / n_layer_in_session;
  std::vector<float> x(activation_size);
  for (float& value : x) value = std::normal_distribution<float>()(generator);
  for (const Layer& layer : layers) {
    std::vector<float> y = layer.multiply(x);
    const double found = layer.deviation(x, y);
    std::printf("weights in session %lu, active session %lu, relative deviation %.5f, bound %.3f\n", layer.session(),
                context->active_session, found, bound);
    passed = passed && found < bound && layer.session() == context->active_session;
    x = std::move(y);
  }
  return passed ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}

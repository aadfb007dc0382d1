// A network of two layers from a packed file: y = down * relu(up * x), with 8-bit weights.
//
// A checkpoint is packed once, by `morun pack` or, as here, by the packer of libmorun_weights; the program that uses it
// then reads the weights straight into the memory that the DSP sees. This example writes a checkpoint of random
// weights, as a framework would, packs it, and runs the network from the packed file. It is compiled without
// exceptions: every function that can fail returns a result that says why.

#include <morun_weights.hpp>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace {

// Any extents: packing pads the weights to whole tiles, and the products pad activations and results.
constexpr uint64_t n_token = 10, n_feature = 200, n_hidden = 500;

using Values = std::vector<float>;

Values random_values(uint64_t n, float deviation, std::mt19937& generator) {
  std::normal_distribution<float> distribution(0, deviation);
  Values values(n);
  for (float& value : values) value = distribution(generator);
  return values;
}

struct Model {
  Values up;    // n_hidden rows of n_feature, as frameworks store linear layers
  Values down;  // n_feature rows of n_hidden
};

// A safetensors file: the length of the header, the header, the values.
bool write_checkpoint(const std::string& path, const Model& model) {
  constexpr uint64_t n_byte = n_hidden * n_feature * sizeof(float);
  const auto entry = [](const std::string& name, uint64_t n_row, uint64_t n_col, uint64_t begin) {
    return '"' + name + R"(":{"dtype":"F32","shape":[)" + std::to_string(n_row) + ',' + std::to_string(n_col) +
           R"(],"data_offsets":[)" + std::to_string(begin) + ',' + std::to_string(begin + n_byte) + "]}";
  };
  const std::string header =
      '{' + entry("up.weight", n_hidden, n_feature, 0) + ',' + entry("down.weight", n_feature, n_hidden, n_byte) + '}';
  const uint64_t length = header.size();
  std::ofstream file(path, std::ios::binary);
  file.write(reinterpret_cast<const char*>(&length), sizeof length) << header;
  for (const Values* const values : {&model.up, &model.down})
    file.write(reinterpret_cast<const char*>(values->data()), n_byte);
  return file.flush().good();
}

// As `morun pack CHECKPOINT -o PACKED --weights a8w8` does.
morun::Result<void> pack_checkpoint(const std::string& checkpoint, const std::string& packed) {
  morun_weights_pack_options options = morun::Packer::default_options();
  options.form = MORUN_WEIGHTS_A8W8;
  morun::Result<morun::Packer> packer = morun::Packer::create(options);
  if (!packer) return packer.error();
  if (morun::Result<void> added = packer->add_source(checkpoint); !added) return added;
  return packer->run(packed);
}

void apply_relu(Values& values) {
  for (float& value : values) value = std::fmax(value, 0.0f);
}

morun::Result<Values> run_network(const std::string& packed, const Values& x) {
  morun::Result<morun::Context> context = morun::Context::open(morun::Limits::up_to(n_token, n_hidden, n_hidden));
  if (!context) return context.error();
  morun::Result<morun::WeightFile> file = morun::WeightFile::open(packed);
  if (!file) return file.error();
  const std::array<morun::Request, 2> requests{{{.name = "up.weight"}, {.name = "down.weight"}}};
  morun::Result<morun::LoadedWeights> loaded = morun::load(*file, *context, requests);
  if (!loaded) return loaded.error();
  const morun::Result<morun::Weights<morun::a8w8>> up = loaded->weights<morun::a8w8>(0);
  if (!up) return up.error();
  const morun::Result<morun::Weights<morun::a8w8>> down = loaded->weights<morun::a8w8>(1);
  if (!down) return down.error();

  Values hidden(n_token * n_hidden), y(n_token * n_feature);
  if (auto done = morun::multiply({x, n_token, n_feature}, *up, {hidden, n_token, n_hidden}); !done)
    return done.error();
  apply_relu(hidden);
  if (auto done = morun::multiply({hidden, n_token, n_hidden}, *down, {y, n_token, n_feature}); !done)
    return done.error();
  return y;
}

// x * weights^T in double precision.
Values multiply_plainly(const Values& x, const Values& weights, uint64_t n_inner, uint64_t n_col) {
  Values y(n_token * n_col);
  for (uint64_t i = 0; i < y.size(); ++i) {
    double sum = 0;
    for (uint64_t k = 0; k < n_inner; ++k)
      sum += double{x[i / n_col * n_inner + k]} * double{weights[i % n_col * n_inner + k]};
    y[i] = static_cast<float>(sum);
  }
  return y;
}

// Root of the sum of squared differences, relative to that of the values expected.
double deviation(const Values& expected, const Values& actual) {
  double squared_differences = 0, squared_values = 0;
  for (size_t i = 0; i < expected.size(); ++i) {
    squared_differences += std::pow(double{actual[i]} - double{expected[i]}, 2);
    squared_values += std::pow(double{expected[i]}, 2);
  }
  return std::sqrt(squared_differences / squared_values);
}

bool report(const char* what, const morun::Error& error) {
  std::fprintf(stderr, "%s: %s\n", what, error.text.c_str());
  return false;
}

bool pack_and_run(const std::string& folder) {
  std::mt19937 generator(1);
  const Model model{random_values(n_hidden * n_feature, 0.07f, generator),
                    random_values(n_feature * n_hidden, 0.06f, generator)};
  const Values x = random_values(n_token * n_feature, 1, generator);
  const std::string checkpoint = folder + "/model.safetensors", packed = folder + "/packed.safetensors";
  if (!write_checkpoint(checkpoint, model)) {
    std::perror(checkpoint.c_str());
    return false;
  }
  if (const auto done = pack_checkpoint(checkpoint, packed); !done) return report("packing", done.error());
  const morun::Result<Values> y = run_network(packed, x);
  if (!y) return report("running", y.error());

  Values hidden = multiply_plainly(x, model.up, n_feature, n_hidden);
  apply_relu(hidden);
  constexpr double bound = 0.03;  // two layers of 8-bit weights and activations
  const double found = deviation(multiply_plainly(hidden, model.down, n_hidden, n_feature), *y);
  std::printf("%lu x %lu -> %lu -> %lu from a packed file, relative deviation %.4f, bound %.2f\n", n_token, n_feature,
              n_hidden, n_feature, found, bound);
  return found < bound;
}

}  // namespace

int main() {
  std::string folder = std::filesystem::temp_directory_path() / "two_layers_XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) {
    std::perror(folder.c_str());
    return 1;
  }
  const bool passed = pack_and_run(folder);
  std::filesystem::remove_all(folder);
  return passed ? 0 : 1;
}

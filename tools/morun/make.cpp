#include <random>

#include "tools/morun/commands.h"
#include "tools/morun/npy.h"
#include "tools/morun/output_file.h"

void tool::make(const MakeArguments& arguments) {
  const OutputFile output(arguments.output);
  Matrix matrix(arguments.n_row, arguments.n_col);
  std::mt19937_64 generator(arguments.seed);
  std::uniform_real_distribution<float> uniform(-1, 1);
  for (float& value : matrix.values) value = uniform(generator);
  output.write([&](std::ostream& stream) { write_npy(stream, matrix, arguments.f16 ? NpyType::f16 : NpyType::f32); });
}

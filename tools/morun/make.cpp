#include <algorithm>
#include <random>
#include <vector>

#include "tools/morun/commands.h"
#include "tools/morun/files/npy.h"
#include "tools/morun/files/output_file.h"
#include "tools/morun/progress.h"

void tool::make(const MakeArguments& arguments) {
  OutputFile output(arguments.output);
  const ByteSink sink = [&](const void* bytes, size_t n_byte) { output.write(bytes, n_byte); };
  write_npy_header(sink, arguments.n_row, arguments.n_col, arguments.f16);

  constexpr size_t n_value_at_a_time = 1 << 16;
  const size_t n_value = size_t{arguments.n_row} * arguments.n_col;
  std::mt19937_64 generator(arguments.seed);
  std::uniform_real_distribution<float> uniform(-1, 1);
  std::vector<float> values;
  Progress progress;
  for (size_t n_done = 0; n_done < n_value; n_done += values.size()) {
    values.resize(std::min(n_value_at_a_time, n_value - n_done));
    for (float& value : values) value = uniform(generator);
    write_npy_values(sink, values.data(), values.size(), arguments.f16);
    progress.show(n_done, n_value, "values");
  }
  output.commit();
}

#include <dlfcn.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>
#include <thread>

#include "tools/morun/commands.h"
#include "tools/morun/error.h"
#include "tools/morun/files/output_file.h"
#include "tools/morun/layouts.h"
#include "tools/morun/operands.h"
#include "tools/morun/progress.h"
#include "tools/morun/session_regions.h"
#include "tools/morun/standard_streams.h"

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::chrono::milliseconds time_per_kernel(500);
constexpr size_t n_iteration_min = 5;
constexpr size_t n_iteration_max = 2000;

// ---- Conversions alone ---------------------------------------------------------------------------------------------

// The conversions that a kernel makes on the host, on the memory that its call uses. Row scales and sums go to separate
// memory.
class Conversions {
 public:
  Conversions(const Kernel& kernel, const Call& call)
      : kernel_(kernel), call_(call), scales_(n_row()), sums_(n_row()), x_(static_cast<const float*>(call.x)) {}

  bool are_any() const { return kernel_.operands == Operands::converted || kernel_.operands == Operands::host_f32; }

  void run() {
    if (kernel_.operands == Operands::host_f32) {
      tavik_f32_to_f16(n_row() * n_inner(), x_, static_cast<uint16_t*>(call_.context->X));
      return;
    }
    stage();
    void* const buffers[] = {call_.context->A0, call_.context->A1, call_.context->A2};
    for (size_t i = 0; i < kernel_.n_weights; ++i) bring_back(call_.products[i], buffers[i]);
  }

 private:
  uint64_t n_row() const { return static_cast<uint64_t>(call_.n_row); }
  uint64_t n_inner() const { return static_cast<uint64_t>(call_.n_inner); }

  void stage() {
    if (kernel_.weights == WeightKind::f16) {
      tavik_f32_rm_to_f16_ah(n_row(), n_inner(), x_, static_cast<uint16_t*>(call_.context->X));
    } else {
      tavik_f32_rm_to_u8_ah(n_row(), n_inner(), x_, static_cast<uint8_t*>(call_.context->X), scales_.data(),
                            sums_.data());
    }
  }

  void bring_back(const Product& product, const void* from) {
    if (kernel_.weights == WeightKind::f16) {
      tavik_f16_ah_to_f32_rm(n_row(), static_cast<uint64_t>(product.n_col), static_cast<const uint16_t*>(from),
                             product.result);
    } else if (kernel_.weights == WeightKind::a8w8) {
      dequantise<int8_t>(tavik_a8w8_output_to_f32_rm, product, from);
    } else {
      dequantise<uint32_t>(tavik_a8w4_output_to_f32_rm, product, from);
    }
  }

  template <typename ZeroPoints, typename Function>
  void dequantise(const Function& function, const Product& product, const void* from) {
    void* address = nullptr;
    require(tavik_context_get_pointer_from_fd(call_.context, static_cast<int32_t>(product.weights.fd), &address),
            "no shared buffer");
    const auto* const base = static_cast<const std::byte*>(address);
    function(call_.n_row, product.n_col, call_.n_inner, product.result, static_cast<const int32_t*>(from),
             scales_.data(), reinterpret_cast<const int32_t*>(sums_.data()),
             reinterpret_cast<const ZeroPoints*>(base + product.weights.zero_points),
             reinterpret_cast<const uint16_t*>(base + product.weights.scales),
             reinterpret_cast<const int32_t*>(base + product.weights.sums));
  }

  const Kernel& kernel_;
  const Call& call_;
  std::vector<float> scales_;
  std::vector<uint32_t> sums_;
  const float* x_;
};

// ---- Timeline ------------------------------------------------------------------------------------------------------

// Spans of kernels in the timeline of the emulated platform. Another platform has none.
class Spans {
 public:
  // Must be called before the first call of the platform, which reads the environment then.
  explicit Spans(const std::string& file) {
    if (file.empty()) return;
    begin_ = reinterpret_cast<Begin*>(dlsym(RTLD_DEFAULT, "parlo_emulator_begin_span"));
    end_ = reinterpret_cast<End*>(dlsym(RTLD_DEFAULT, "parlo_emulator_end_span"));
    if (begin_ == nullptr || end_ == nullptr) throw Error("--timeline: this platform writes no timeline");
    if (file == "1" || setenv("PARLO_TRACE", file.c_str(), 1) != 0) throw Misuse("--timeline: {} names no file", file);
    refuse_unwritable(file);
  }

  template <typename Work>
  void run(const char* name, const Work& work) const {
    if (begin_ != nullptr) begin_(name);
    work();
    if (end_ != nullptr) end_();
  }

 private:
  // The platform opens the file at its first call, and goes on without a timeline where it cannot. A pipe is not opened
  // here, because its reader would take the closing for the end.
  static void refuse_unwritable(std::string name) {
    for (size_t at = 0; (at = name.find("%p", at)) != name.npos;) name.replace(at, 2, std::to_string(getpid()));
    std::error_code ignored;
    if (!std::filesystem::is_fifo(name, ignored)) OutputFile{name};
  }

  using Begin = void(const char*);
  using End = void();
  Begin* begin_ = nullptr;
  End* end_ = nullptr;
};

// ---- Times ---------------------------------------------------------------------------------------------------------

struct Time {
  double real = 0;  // milliseconds
  double cpu = 0;   // CPU time of this thread
};

double cpu_milliseconds() {
  timespec time = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) * 1e-6;
}

class Samples {
 public:
  template <typename Work>
  void add(const Work& work) {
    const auto start = std::chrono::steady_clock::now();
    const double cpu_start = cpu_milliseconds();
    work();
    cpu_.push_back(cpu_milliseconds() - cpu_start);
    real_.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
  }
  size_t count() const { return real_.size(); }
  Time best() const { return {*std::ranges::min_element(real_), *std::ranges::min_element(cpu_)}; }

 private:
  std::vector<double> real_, cpu_;
};

struct Measurement {
  const Kernel* kernel;
  size_t n_iteration;
  Time call;
  std::optional<Time> convert;  // none when the kernel makes no such call
  std::optional<Time> remote;
};

// Times the three parts in turn, so that a disturbance affects all of them.
Measurement measure(tavik_context* context, const Kernel& kernel, const PreparedCall& prepared, const Spans& spans) {
  const Call& call = prepared.call();
  Conversions conversions(kernel, call);
  uint64_t handle = 0;
  if (!kernel.is_on_host()) {
    const auto fd = static_cast<int32_t>(call.products[0].weights.fd);
    require(tavik_context_get_handle_from_fd(context, fd, &handle), kernel.name);
  }
  const auto run = [&] { require(kernel.run(call), kernel.name); };
  const auto run_remote = [&] {
    const int status = kernel.run_remote(handle, call);
    if (status != 0) throw Error("the remote method of {} failed: status {}", kernel.name, status);
  };

  run();  // touches all memory once
  Samples whole, convert, remote;
  const auto end = std::chrono::steady_clock::now() + time_per_kernel;
  while (whole.count() < n_iteration_min ||
         (whole.count() < n_iteration_max && std::chrono::steady_clock::now() < end)) {
    spans.run(kernel.name, [&] { whole.add(run); });
    if (conversions.are_any()) convert.add([&] { conversions.run(); });
    if (!kernel.is_on_host()) remote.add(run_remote);
  }
  const auto best_if_any = [](const Samples& samples) {
    return samples.count() == 0 ? std::nullopt : std::optional(samples.best());
  };
  return {&kernel, whole.count(), whole.best(), best_if_any(convert), best_if_any(remote)};
}

double operations(const Kernel& kernel, const BenchArguments& arguments) {
  return 2.0 * arguments.n_row * arguments.n_col * arguments.n_inner * static_cast<double>(kernel.n_weights);
}

double share(const Measurement& measurement, const std::optional<Time>& part) {
  return part ? part->real / measurement.call.real : 0;
}

// ---- Report --------------------------------------------------------------------------------------------------------

constexpr char row_format[] = "{:<42} {:>10} {:>9} {:<8} {:>10} {:>5} {:>10} {:>5}\n";

void print_row(const Measurement& measurement, const BenchArguments& arguments) {
  const auto time = [](const std::optional<Time>& part) { return part ? fmt::format("{:.3f}", part->real) : "-"; };
  const auto percent = [&](const std::optional<Time>& part) {
    return part ? fmt::format("{:.0f} %", 100 * share(measurement, part)) : "-";
  };
  const Kernel& kernel = *measurement.kernel;
  fmt::print(row_format, kernel.name, time(measurement.call),
             fmt::format("{:.2f}", operations(kernel, arguments) / measurement.call.real * 1e-6),
             kernel.weights == WeightKind::f16 ? "GFLOP/s" : "GOP/s", time(measurement.convert),
             percent(measurement.convert), time(measurement.remote), percent(measurement.remote));
  std::fflush(stdout);
}

std::string local_time() {
  const std::time_t now = std::time(nullptr);
  char text[32] = "";
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", std::localtime(&now));
  return text;
}

Json context_entry() {
  char host_name[256] = "";
  gethostname(host_name, sizeof host_name - 1);
  std::array<double, 3> load = {};
  getloadavg(load.data(), 3);
  return {{"date", local_time()},
          {"host_name", host_name},
          {"executable", "morun bench"},
          {"num_cpus", std::thread::hardware_concurrency()},
          {"load_avg", load},
          {"library_version", MORUN_VERSION}};
}

// A part of a measurement, in the form in which Google Benchmark reports a benchmark.
Json entry(const Measurement& measurement, size_t family, const std::string& shape, size_t part_index,
           const char* part_name, const Time& time) {
  const std::string name = fmt::format("{}/{}/{}", measurement.kernel->name, shape, part_name);
  return {{"name", name},
          {"family_index", family},
          {"per_family_instance_index", part_index},
          {"run_name", name},
          {"run_type", "iteration"},
          {"repetitions", 1},
          {"repetition_index", 0},
          {"threads", 1},
          {"iterations", measurement.n_iteration},
          {"real_time", time.real * 1e3},
          {"cpu_time", time.cpu * 1e3},
          {"time_unit", "us"}};
}

Json document(const std::vector<Measurement>& measurements, const BenchArguments& arguments) {
  const std::string shape = fmt::format("{}x{}x{}", arguments.n_row, arguments.n_col, arguments.n_inner);
  Json benchmarks = Json::array();
  for (size_t family = 0; family < measurements.size(); ++family) {
    const Measurement& measurement = measurements[family];
    Json call = entry(measurement, family, shape, 0, "call", measurement.call);
    call["operations_per_second"] = operations(*measurement.kernel, arguments) / measurement.call.real * 1e3;
    call["convert_share"] = share(measurement, measurement.convert);
    call["remote_share"] = share(measurement, measurement.remote);
    benchmarks.push_back(std::move(call));
    if (measurement.convert)
      benchmarks.push_back(entry(measurement, family, shape, 1, "convert", *measurement.convert));
    if (measurement.remote) benchmarks.push_back(entry(measurement, family, shape, 2, "remote", *measurement.remote));
  }
  return {{"context", context_entry()}, {"benchmarks", benchmarks}};
}

std::vector<const Kernel*> products_named(const std::string& part) {
  std::vector<const Kernel*> found = kernels_named(part);
  std::erase_if(found, [](const Kernel* kernel) { return !kernel->is_timed(); });
  if (found.empty()) throw Misuse("{} names no product to be timed", part);
  return found;
}

ProductShape checked_shape(const BenchArguments& arguments) {
  if (arguments.n_row == 0 || arguments.n_col == 0 || arguments.n_inner == 0 || arguments.n_col % tile != 0 ||
      arguments.n_inner % tile != 0) {
    throw Misuse("--shape: columns and inner dimension are multiples of 32, and no number is 0");
  }
  return {arguments.n_row, arguments.n_inner, std::vector<size_t>(3, arguments.n_col)};
}

}  // namespace

void bench(const BenchArguments& arguments) {
  const std::vector<const Kernel*> chosen = products_named(arguments.kernel);
  const ProductShape shape = checked_shape(arguments);
  std::optional<OutputFile> json;
  std::optional<StandardOutputAside> report_aside;
  if (!arguments.json.empty()) json.emplace(arguments.json);
  if (arguments.json == "-") report_aside.emplace();
  const Spans spans(arguments.timeline);
  const Context context = open_context(options_for(shape));
  SessionRegions regions(context.get(), region_bytes(shape), 1);

  fmt::print(row_format, "kernel", "call ms", "speed", "", "convert ms", "", "remote ms", "");
  std::vector<Measurement> measurements;
  Progress progress;
  for (const Kernel* const kernel : chosen) {
    progress.show(measurements.size(), chosen.size(), "kernels");
    ProductShape own_shape = shape;
    own_shape.n_col.resize(kernel->n_weights);
    const PreparedCall prepared(context.get(), *kernel, make_operands(*kernel, own_shape, Values::random, 1),
                                {&regions.region(0, 0), &regions.region(0, 1), &regions.region(0, 2)});
    measurements.push_back(measure(context.get(), *kernel, prepared, spans));
    progress.clear();
    print_row(measurements.back(), arguments);
  }
  if (!json) return;
  const std::string text = document(measurements, arguments).dump(2) + "\n";
  json->write(text.data(), text.size());
  json->commit();
}

}  // namespace tool

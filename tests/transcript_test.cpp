// What the runtime, the stub, the products and both interfaces do, say and leave: the scenarios of tests/transcripts.
#include <dlfcn.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "include/dsp_capability.h"
#include "include/morun.h"
#include "include/tavik_remote.h"
#include "platform/parlo.h"
#include "tests/products.h"
#include "tests/transcript.h"
#include "tests/upper.h"

// Sizes that no allocator can give are refused under instrumentation, too.
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}

namespace {

bool open_fails_late = false;    // after it has given a handle
bool domains_are_wrong = false;  // of another type than was asked for

}  // namespace

// These stand before the platform's.
extern "C" int parlo_system_request(parlo_system_domains* record) {
  static const auto request =
      reinterpret_cast<int (*)(parlo_system_domains*)>(dlsym(RTLD_NEXT, "parlo_system_request"));
  const int status = request(record);
  if (domains_are_wrong && record->domains != nullptr) record->domains[0].type = 9;
  return status;
}
extern "C" int parlo_handle_open(const char* uri, uint64_t* handle) {
  static const auto open = reinterpret_cast<int (*)(const char*, uint64_t*)>(dlsym(RTLD_NEXT, "parlo_handle_open"));
  const int status = open(uri, handle);
  return open_fails_late ? 0x77 : status;
}

namespace {

using products::f16, products::a8w8, products::a8w4, products::Kind, products::WeightPlace;

using Calls = std::map<std::string, test::Call>;
Calls calls_of(const auto&... calls) {
  return {calls...};
}
#define CALL(function) Calls::value_type(#function, test::by_words(function))
const Calls library = calls_of(
    CALL(tavik_options_alloc), CALL(tavik_options_print), CALL(tavik_options_free), CALL(tavik_context_alloc),
    CALL(tavik_context_print), CALL(tavik_context_free), CALL(tavik_context_get_handle_from_fd),
    CALL(tavik_context_get_pointer_from_fd), CALL(tavik_context_get_session_from_fd), CALL(tavik_init),
    CALL(tavik_cleanup), CALL(tavik_lock_compute_device), CALL(tavik_unlock_compute_device), CALL(tavik_hello_host),
    CALL(tavik_hello_veyra), CALL(tavik_buffer_alloc), CALL(tavik_buffer_free), CALL(tavik_malloc),
    CALL(tavik_malloc_zero), CALL(tavik_realloc), CALL(tavik_rpcmem_alloc), CALL(tavik_rpcmem_alloc_zero),
    CALL(tavik_rpcmem_free), CALL(tavik_rpcmem_to_fd), CALL(tavik_rpcmem_mmap), CALL(tavik_rpcmem_munmap),
    CALL(tavik_error_print), CALL(tavik_npu_test), CALL(tavik_npu_mm_f16_ah_f16_ah_f16_wh),
    CALL(tavik_npu_mm_f32_rm_f32_rm_f16_wh), CALL(tavik_align_offset), CALL(tavik_apply_padding),
    CALL(tavik_veyra_1mm_ui8i8_i32_tessel), CALL(tavik_veyra_1mm_ui8i4_i32_tessel),
    CALL(tavik_cpu_mm_fp32_rm_fp16_rm_fp16_zb), CALL(tavik_cpu_mm_fp32_rm_fp32_rm_fp16_zb), CALL(tavik_open),
    CALL(tavik_close), CALL(tavik_veyra_clear_cache), CALL(tavik_veyra_mmap_get_AX), CALL(tavik_veyra_mmap_put_AX),
    CALL(tavik_veyra_ressource_acquire), CALL(tavik_veyra_ressource_release), CALL(tavik_veyra_lock_tessel),
    CALL(tavik_veyra_unlock_tessel), CALL(tavik_veyra_mm_f16), CALL(tavik_veyra_1mm_f16), CALL(tavik_veyra_2mm_f16),
    CALL(tavik_veyra_3mm_f16), CALL(tavik_veyra_test), CALL(tavik_veyra_mm_a8w8), CALL(tavik_veyra_1mm_a8w8),
    CALL(tavik_veyra_2mm_a8w8), CALL(tavik_veyra_3mm_a8w8), CALL(tavik_veyra_mm_a8w4), CALL(tavik_veyra_1mm_a8w4),
    CALL(tavik_veyra_2mm_a8w4), CALL(tavik_veyra_3mm_a8w4), CALL(tavik_veyra_get_version), CALL(get_dsp_support),
    CALL(get_vtcm_info), CALL(get_tessel_support_info), CALL(get_veyra_arch_ver), CALL(get_ondra_support_info),
    CALL(is_unsignedpd_supported), CALL(get_unsignedpd_support), CALL(is_async_parlo_supported),
    CALL(is_status_notification_supported), CALL(get_effective_domain_id), CALL(get_domains_info),
    CALL(morun_npu_initialize), CALL(morun_npu_finalize), CALL(morun_npu_lock_tessel), CALL(morun_npu_unlock_tessel),
    CALL(morun_npu_alloc), CALL(morun_npu_free), CALL(morun_parlo_find_fd), CALL(morun_npu_get_version),
    CALL(morun_mm_tensor), CALL(morun_tensor_validate), CALL(morun_mm_tensor_validate), CALL(morun_npu_mm_f16),
    CALL(morun_npu_mm_f16f16_f16), CALL(morun_npu_mm_f32f16_f32), CALL(morun_npu_mm_u8i8_i32),
    CALL(morun_npu_mm_u8i4_i32), CALL(morun_cpu_rm_to_ah_f16_inplace), CALL(morun_cpu_ah_to_rm_f16_inplace),
    CALL(morun_cpu_rm_to_wh_f16_inplace), CALL(morun_cpu_rm_to_wh_i8_inplace), CALL(morun_cpu_rm_to_wh_i8),
    CALL(morun_cpu_rm_to_wh_i4), CALL(morun_cpu_ui8i4_ah_to_i32_rm), CALL(morun_cpu_ui8i8_ah_to_i32_rm),
    CALL(tavik_vector_print_u8), CALL(tavik_vector_print_i8), CALL(tavik_vector_print_f16),
    CALL(tavik_vector_print_i32), CALL(tavik_vector_print_u32), CALL(tavik_vector_print_f32),
    CALL(tavik_vector_check_u8), CALL(tavik_vector_check_i8), CALL(tavik_vector_check_f16),
    CALL(tavik_vector_check_i32), CALL(tavik_vector_check_u32), CALL(tavik_vector_check_f32));
#undef CALL

class Transcripts : public test::Transcript {
 protected:
  void SetUp() override {
    mallopt(M_PERTURB, 1);  // new memory is not zero
    calls_ = library;
    add_commands_of_the_runtime();
    add_commands_of_products();
    add_commands_of_the_upper_interface();
    commands_["array"] = [this](const Words& w) { return make_array(w), 0; };
    commands_["fill"] = [this](const Words& w) {  // address, number of bytes, and the values that repeat in them
      for (uint64_t i = 0; i < value(w[1]); ++i)
        address<uint8_t>(w[0])[i] = static_cast<uint8_t>(value(w[2 + i % (w.size() - 2)]));
      return 0;
    };
    commands_["reserve"] = [this](const Words& w) {
      constexpr int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
      return variable(w[0]) = reinterpret_cast<uintptr_t>(mmap(nullptr, value(w[1]), PROT_READ, flags, -1, 0)), 0;
    };
    commands_["words"] = [this](const Words& w) {
      char told[16];
      std::string all = "words";
      for (const std::string& at : w) snprintf(told, sizeof told, " 0x%08x", *address<uint32_t>(at)), all += told;
      return tell(all), 0;
    };
    commands_["bytes"] = [this](const Words& w) { return tell_bytes(address(w[0]), value(w[1])), 0; };
    Transcript::SetUp();
  }
  // Makes an array. Arguments: its name, its type, and its values, where 8*3 stands for eight values of 3.
  void make_array(const Words& words) {
    std::string bytes;
    const auto add = [&]<class T>(T) {
      for (size_t i = 2; i < words.size(); ++i) {
        const size_t star = words[i].find('*');
        const auto one = static_cast<T>(std::stod(words[i].substr(star + 1)));
        for (uint64_t n = star == std::string::npos ? 1 : value(words[i].substr(0, star)); n > 0; --n)
          bytes.append(reinterpret_cast<const char*>(&one), sizeof one);
      }
    };
    if (words[1] == "i8") add(int8_t{});
    if (words[1] == "u8") add(uint8_t{});
    if (words[1] == "u16") add(uint16_t{});
    if (words[1] == "i32") add(int32_t{});
    if (words[1] == "u32") add(uint32_t{});
    if (words[1] == "f32") add(float{});
    variable(words[0]) = reinterpret_cast<uintptr_t>(arrays_.emplace_back(bytes).data());
  }

  // ---- The runtime, the stub and the capabilities

  // Limits that all differ: a result of 8192 elements, an activation of 16384, 256 rows. Sessions with room for one large
  // buffer.
  static constexpr tavik_options limits = {8192, 256, 16384, 0};
  static constexpr uint64_t large = 1 << 20;

  void add_commands_of_the_runtime() {
    commands_["options"] = [this](const Words& w) {
      const auto n = values(w, 1);
      options_.push_back({n[0], n[1], n[2], n[3]});
      return variable(w[0]) = reinterpret_cast<uintptr_t>(&options_.back()), 0;
    };
    commands_["start"] = [this](const Words& w) { return start(w.empty() ? 0 : value(w[0])), 0; };
    commands_["clean_up"] = [this](const Words&) {
      const int32_t status = tavik_cleanup(c());
      if (status == 0) variable("c") = 0;
      return status;
    };
    commands_["buffers"] = [this](const Words& w) {
      int32_t fd;
      for (uint64_t i = value(w[0]); i > 0; --i) tavik_buffer_alloc(c(), 1, nullptr, &fd);
      return 0;
    };
    commands_["no_buffers"] = [this](const Words&) {
      for (uint64_t i = c()->n_buffers; i > 0; --i) tavik_buffer_free(c(), c()->buffer_fd[0]);
      return 0;
    };
    commands_["long"] = [this](const Words& w) { return *address<uint64_t>(w[0]); };
    commands_["byte"] = [this](const Words& w) { return *address<uint8_t>(w[0]); };
    commands_["file"] = [this](const Words& w) {
      struct stat file = {};
      fstat(static_cast<int>(value(w[0])), &file);
      return tell(std::to_string(file.st_size) + " bytes in " + std::to_string(file.st_blocks) + " blocks"), 0;
    };
    commands_["late_open"] = [this](const Words& w) { return open_fails_late = value(w[0]) != 0, 0; };
    commands_["wrong_domains"] = [this](const Words& w) { return domains_are_wrong = value(w[0]) != 0, 0; };
    commands_["list_domains"] = [this](const Words& w) { return list_domains(w); };
    commands_["every_domain"] = [this](const Words&) { return tell_every_domain(), 0; };
    commands_["description"] = [this](const Words&) { return tell_description(), 0; };
    commands_["error"] = [this](const Words& w) {
      tavik_set_error(std::stoi(w[0]), address<char>(w[1]), address<char>(w[2]), std::stoi(w[3]), "%s",
                      address<char>(w[4]));
      return 0;
    };
    commands_["print_error"] = [](const Words&) { return tavik_error_print(tavik_error_get_last()), 0; };
  }
  tavik_context* c() { return address<tavik_context>("c"); }
  void start(uint64_t n_session) {
    configure("session_bytes", std::to_string(3 << 19));
    variable("large") = large;
    variable("limits") = reinterpret_cast<uintptr_t>(&limits);
    run("tavik_init(limits, &c)");
    for (uint64_t i = 0; i < n_session; ++i) {
      const std::string index = "[" + std::to_string(i) + "]";
      run("tavik_buffer_alloc(c, large, &pointer" + index + ", &fd" + index + ")");
    }
  }
  int64_t list_domains(const Words& words) {
    int count = 9;
    parlo_domain* domains = nullptr;
    const int status = get_domains_info(address<char>(words[0]), &count, &domains);
    std::string told = std::to_string(count) + " domains";
    for (int i = 0; domains != nullptr && i < count; ++i)
      told += std::string(" ") + domains[i].name + "=" + std::to_string(domains[i].type);
    free(domains);
    return tell(told), status;
  }
  void tell_every_domain() {
    for (int id = -1; id <= DSP_N_DOMAINS; ++id) {
      const dsp_domain* const found = get_domain(id);
      tell(std::to_string(id) + (found == nullptr ? " none" : std::string(" ") + found->uri_suffix) +
           (is_CDSP(id) ? ", compute" : "") + (is_valid_domain_id(id, true) ? ", valid to compute" : "") +
           (is_valid_domain_id(id, false) ? ", valid" : ""));
    }
  }
  void tell_description() {
    const auto& slim = tavik_slim;
    std::ostringstream told;
    told << slim.n_methods << " methods, " << slim.n_interface_ids << " interface ids, "
         << (slim.interface_ids == nullptr ? "none" : "some");
    for (uint32_t i = 0; i < slim.n_methods; ++i) {
      const tavik_slim_method& method = slim.methods[i];
      const uint16_t* name = slim.names + slim.method_names[i];
      told << "\n" << i << " " << slim.characters + *name++ << "(";
      for (int k = 0; k < method.n_parameters; ++k) {
        const tavik_slim_parameter& p = *method.parameters[k];
        constexpr const char* types[] = {"string", "handle", "u32", "characters"};
        told << (k == 0 ? "" : ", ") << slim.characters + *name++ << (p.direction == TAVIK_SLIM_IN ? ": in " : ": out ")
             << types[p.type] << " " << p.size << "/" << p.alignment;
      }
      told << ") counts 0x" << std::hex << method.buffer_counts << std::dec << ", in " << method.primitive_in_size
           << "/" << int{method.primitive_in_alignment} << ", out " << method.primitive_out_size << "/"
           << int{method.primitive_out_alignment} << ", at most " << method.max_arguments << " arguments";
    }
    tell(told.str());
  }

  // ---- Products

  // All weights of a matrix have one value, and the activations are 0 and 1 in turn: every element of a result is the value
  // n_inner / 2 times.
  static constexpr int32_t n_row = 67, n_col = 64, n_inner = 96;

  void add_commands_of_products() {
    commands_["begin"] = [this](const Words& w) { return begin(w[0]), 0; };
    commands_["clear"] = [this](const Words&) { return clear(), 0; };
    commands_["multiply"] = [this](const Words& w) { return multiply(w); };
    commands_["results"] = [this](const Words&) { return tell(results()), 0; };
    commands_["last_row_of_X"] = [this](const Words&) {
      const auto* const staged = static_cast<const char*>(c()->X) + 12288 + 4 * (n_row - 1);
      return tell("scale one in " + std::to_string(1 / *reinterpret_cast<const float*>(staged)) + ", sum " +
                  std::to_string(*reinterpret_cast<const uint32_t*>(staged + 2048))),
             0;
    };
  }
  // Opens two sessions and locks the matrix unit. Each session has a large buffer with three matrices; the values of the
  // six matrices are 1 to 6.
  void begin(const std::string& kind) {
    kind_ = kind == "f16" ? f16 : kind == "a8w8" ? a8w8 : a8w4;
    start(2);
    tavik_lock_compute_device(c());
    for (int i = 0; i < 6; ++i) fill(matrix(i), address<char>(i < 3 ? "pointer[0]" : "pointer[1]"), i + 1);
    variable("X") = reinterpret_cast<uintptr_t>(c()->X), variable("A0") = reinterpret_cast<uintptr_t>(c()->A0);
    clear();
  }
  void clear() {
    for (std::vector<float>& a : A_) a.assign(n_row * n_col, -7);
    memset(c()->X, 0x5a, c()->X_size);
  }
  static WeightPlace place(uint64_t of, uint64_t q = 0) {
    return {static_cast<uint32_t>(of), static_cast<uint32_t>(q), q + 16384, q + 18432, q + 20480};
  }
  WeightPlace matrix(int i) {
    return place(value(i < 3 ? "fd[0]" : "fd[1]"), static_cast<uint64_t>(i) % 3 * 65536 + 2048);
  }
  void fill(const WeightPlace& w, char* base, int value) const {
    const auto at = [&]<class T>(T, uint64_t offset) { return reinterpret_cast<T*>(base + offset); };
    constexpr uint16_t halves[] = {0, 0x3c00, 0x4000, 0x4200, 0x4400, 0x4500, 0x4600};
    if (kind_ == f16) std::fill_n(at(uint16_t{}, w.q), n_inner * n_col, halves[value]);
    if (kind_ == a8w8) memset(at(uint8_t{}, w.q), value, n_inner * n_col);
    if (kind_ == a8w4) memset(at(uint8_t{}, w.q), value * 0x11, n_inner * n_col / 2);
    if (kind_ == f16) return;
    memset(at(uint8_t{}, w.z), 0, n_col);
    std::fill_n(at(uint16_t{}, w.s), n_col, halves[1]);
    std::fill_n(at(int32_t{}, w.sum), n_col, n_inner * value);
  }
  // Arguments: one to three weight matrices by number or as descriptor@offset; z=, s= or sum= and another offset of the
  // last one's side data; "as" and rows, columns, inner dimension, and columns of the second and third.
  int64_t multiply(const Words& words) {
    std::vector<WeightPlace> w;
    std::vector<int32_t> n = {n_row, n_col, n_inner, n_col};
    for (size_t i = 0; i < words.size(); ++i) {
      const size_t at = words[i].find_first_of("@=");
      const std::string front = words[i].substr(0, at), behind = words[i].substr(at + 1);
      if (front == "as") {
        n = values<int32_t>(words, i + 1);
        break;
      } else if (at == std::string::npos) {
        w.push_back(matrix(std::stoi(front)));
      } else if (words[i][at] == '@') {
        w.push_back(place(value(front), value(behind)));
      } else {
        (front == "z" ? w.back().z : front == "s" ? w.back().s : w.back().sum) = value(behind);
      }
    }
    const int64_t size = int64_t{n[0]} * n[1];
    if (size > 0 && size < 1 << 20 && size != static_cast<int64_t>(A_[0].size()))
      A_[0].assign(static_cast<size_t>(size), -7);
    return products::multiply(c(), kind_,
                              {n[0], n[1], n[3], n[2], {A_[0].data(), A_[1].data(), A_[2].data()}, X_.data()}, w);
  }
  // What stands in the results, and whether X was written.
  std::string results() {
    std::ostringstream told;
    told << "results";
    for (const std::vector<float>& a : A_) {
      const bool same = std::count(a.begin(), a.end(), a[0]) == static_cast<ptrdiff_t>(a.size());
      if (a[0] != -7 || !same) told << " " << (same ? "" : "from ") << a[0];
      if (a[0] == -7 && same) told << " -";
    }
    told << "; X " << (*static_cast<uint8_t*>(c()->X) == 0x5a ? "untouched" : "staged");
    return told.str();
  }

  // ---- The upper interface and its tensors

  void add_commands_of_the_upper_interface() {
    commands_["start_upper"] = [this](const Words& w) { return start_upper(value(w[0])), 0; };
    commands_["finalise"] = [](const Words&) {
      const void* const before = context;  // the dead address that stays behind is not looked at
      const int32_t status = morun_npu_finalize(3);
      if (context != before) return -99;
      if (status == 0) context = nullptr;
      return status;
    };
    commands_["versions"] = [this](const Words& w) {
      const std::string versions = address<char>(w[0]) + std::string(npu_version[0] == 0 ? "" : " ") + npu_version;
      return versions.empty() ? 0 : (tell(versions), 0);
    };
    commands_["no_versions"] = [](const Words&) { return npu_version[0] = version_prerel[0] = '\0', 0; };
    commands_["copy_entry"] = [this](const Words& w) {
      return morun_map_db[value(w[0])].address = morun_map_db[value(w[1])].address, 0;
    };
    commands_["without_registry"] = [this](const Words&) { return shows_registry_ = false, 0; };
    commands_["tensors"] = [this](const Words& w) { return multiply_tensors(w); };
    commands_["tensor"] = [this](const Words& w) { return tensors_[w[0]] = tensor({w.begin() + 1, w.end()}), 0; };
    commands_["validate"] = [this](const Words& w) {
      const morun_tensor t = tensor(w);
      return morun_tensor_validate(&t);
    };
    commands_["validate_product"] = [this](const Words& w) {
      morun_tensor t[3];
      for (size_t i = 0; i < 3; ++i) t[i] = tensors_.at(w[i]);
      for (size_t i = 3; i < w.size(); ++i) t[i - 3].layout = static_cast<uint32_t>(value(w[i]));
      return morun_mm_tensor_validate(&t[0], &t[1], &t[2]);
    };
  }
  void start_upper(uint64_t n_buffer) {
    morun_npu_initialize(3);
    for (uint64_t i = 0; i < n_buffer; ++i) {
      void* shared;
      morun_npu_alloc(1 << 16, &shared);
      // Every half 1, as an activation, weights or a result; two to a value, one as a float in a row-major activation.
      std::fill_n(static_cast<uint16_t*>(shared), 1 << 15, uint16_t{0x3c00});
      variable("shared[" + std::to_string(i) + "]") = reinterpret_cast<uintptr_t>(shared);
    }
    std::fill(std::begin(heap_), std::end(heap_), 0);
    variable("heap") = reinterpret_cast<uintptr_t>(heap_);
    know("heap", heap_);
    if (n_buffer != 0) know("inside", address("shared[0]+2"));
  }
  // Sets a field of a tensor.
  void change(morun_tensor& t, const std::string& field, uint64_t value) {
    const auto set = [&]<class T>(const char* name, T& member) {
      if (field == name) member = static_cast<T>(value);
    };
    if (field == "data") t.data = reinterpret_cast<void*>(value);
    set("dims[0]", t.dims[0]), set("dims[1]", t.dims[1]);
    set("strides[0]", t.strides[0]), set("strides[1]", t.strides[1]);
    set("num_elements", t.num_elements), set("data_offset", t.data_offset);
    set("data_dtype", t.data_dtype), set("quantization", t.quantization), set("layout", t.layout);
    set("ndims", t.ndims), set("is_contiguous", t.is_contiguous);
  }
  // Returns a tensor of halves: "matrix" with rows and columns or "vector" with a length, and fields with other values as
  // name=value.
  morun_tensor tensor(const Words& words) {
    const bool is_matrix = words[0] == "matrix";
    morun_tensor t = morun_tensor_matrix(value(words[1]), is_matrix ? value(words[2]) : 1, MORUN_DTYPE_F16,
                                         is_matrix ? MORUN_LAYOUT_2D_RM : MORUN_LAYOUT_1D_LINEAR, heap_);
    if (!is_matrix) t.ndims = 1, t.dims[1] = t.strides[1] = 0;  // not read
    for (size_t i = is_matrix ? 3 : 2; i < words.size(); ++i)
      change(t, words[i].substr(0, words[i].find('=')), value(words[i].substr(words[i].find('=') + 1)));
    return t;
  }
  // Arguments: a path, the platform, rows, columns and inner dimension, the addresses of result, left and right, and
  // fields of these with other values, as left.layout=6.
  int64_t multiply_tensors(const Words& words) {
    const test::TensorFormats& f = test::paths::every[static_cast<size_t>(words[0][1] - '1')];
    const auto n = values(Words(words.begin(), words.begin() + 8), 1);
    const auto matrix = [&](uint64_t rows, uint64_t columns, size_t i, uint64_t data) {
      return morun_tensor_matrix(rows, columns, f.types[i], f.layouts[i], reinterpret_cast<void*>(data));
    };
    std::map<std::string, morun_tensor> t = {{"result", matrix(n[1], n[2], 2, n[4])},
                                             {"left", matrix(n[1], n[3], 0, n[5])},
                                             {"right", matrix(n[3], n[2], 1, n[6])}};
    for (size_t i = 8; i < words.size(); ++i) {
      const size_t dot = words[i].find('.'), equals = words[i].find('=');
      change(t.at(words[i].substr(0, dot)), words[i].substr(dot + 1, equals - dot - 1),
             value(words[i].substr(equals + 1)));
    }
    return morun_mm_tensor(static_cast<uint32_t>(n[0]), &t["result"], &t["left"], &t["right"]);
  }

  std::list<tavik_options> options_;
  std::list<std::string> arrays_;
  std::map<std::string, morun_tensor> tensors_;
  Kind kind_ = f16;
  const std::vector<float> X_ = [] {
    std::vector<float> x(16384);
    for (size_t i = 1; i < x.size(); i += 2) x[i] = 1;
    return x;
  }();
  std::vector<float> A_[3];
  alignas(64) uint32_t heap_[64 * 96] = {};
};

TEST_P(Transcripts, Plays) {
  play();
}
INSTANTIATE_TEST_SUITE_P(, Transcripts,
                         testing::Values("BuffersAndSessions", "Capabilities", "CheckedLayouts", "ErrorRecords",
                                         "FailuresOfTheRuntime", "FailuresOfTheUpperInterface", "MemoryWrappers",
                                         "ProductsCalls_a8w4", "ProductsCalls_a8w8", "ProductsCalls_f16",
                                         "ProductsFailures_a8w4", "ProductsFailures_a8w8", "ProductsFailures_f16",
                                         "ProductsOfTilesAndIntegers", "ProductsRefusals_a8w4", "ProductsRefusals_a8w8",
                                         "ProductsRefusals_f16", "ProductsSideData", "ReferenceProducts", "SecondTries",
                                         "SideBySide", "StartAndStop", "StubAndDescription", "TensorProducts",
                                         "TensorRecords", "UpperProducts", "UpperRefusals", "UpperRuntime",
                                         "VectorAids"),
                         [](const auto& name) { return std::string(name.param); });

}  // namespace

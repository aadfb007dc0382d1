// Packed matrices in shared buffers: what is planned, that products of what is loaded are right, every refusal, and that
// a failure leaves nothing.
#include <malloc.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <numeric>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "include/morun_weights.h"
#include "tests/data.h"
#include "tests/packed_matrix.h"
#include "tests/support.h"

namespace {

namespace fs = std::filesystem;

// What the nth read from now on does; 0: none.
uint64_t nth_read;
enum { whole, short_read, interrupted, input_output_error, end_of_file } read_result;

}  // namespace

extern "C" ssize_t pread(int file, void* bytes, size_t n_byte, off_t offset) {
  const auto result = nth_read != 0 && --nth_read == 0 ? read_result : whole;
  if (result == end_of_file) return 0;
  if (result == short_read) n_byte = (n_byte + 1) / 2;
  if (result != interrupted && result != input_output_error) return syscall(SYS_pread64, file, bytes, n_byte, offset);
  errno = result == interrupted ? EINTR : EIO;
  return -1;
}

namespace {

struct Matrix {
  const char* name;
  int32_t form;
  uint64_t n_inner, n_col;
};
constexpr int32_t f16 = MORUN_WEIGHTS_F16, a8w8 = MORUN_WEIGHTS_A8W8, a8w4 = MORUN_WEIGHTS_A8W4,
                  carried = MORUN_WEIGHTS_CARRIED;
constexpr uint64_t kib = 1024;

std::vector<std::string> numbered_names(size_t count) {
  std::vector<std::string> names(count, "m");
  for (size_t i = 0; i < count; ++i) names[i] += std::to_string(i);
  return names;
}

class WeightsLoad : public test::PlatformTest {
 protected:
  WeightsLoad() : folder_(fs::path(testing::TempDir()) / ("weights_load_test." + std::to_string(getpid()))) {
    fs::create_directories(folder_);
  }
  ~WeightsLoad() override { fs::remove_all(folder_); }
  void TearDown() override {
    morun_weights_file_close(file_);
    test::PlatformTest::TearDown();
  }

  // Packs matrices of random values, and opens the file.
  void open(const std::vector<Matrix>& matrices) {
    morun_weights_packer* packer = nullptr;
    ASSERT_EQ(morun_weights_packer_create(nullptr, &packer), 0) << morun_weights_error_text();
    for (const Matrix& m : matrices) {
      const std::string source = folder_ / (std::string(m.name) + ".npy");
      std::string header = "{'descr': '<f4', 'fortran_order': False, 'shape': (" + std::to_string(m.n_inner) + ", " +
                           std::to_string(m.n_col) + "), }";
      header.resize(118, ' ');
      const auto values = test::Random(m.n_col).values(m.n_inner * m.n_col);
      std::ofstream(source, std::ios::binary)
          << std::string("\x93NUMPY\x01\0\x76\0", 10) << header
          << std::string_view(reinterpret_cast<const char*>(values.data()), 4 * values.size());
      ASSERT_EQ(morun_weights_packer_add_source(packer, source.c_str()), 0) << morun_weights_error_text();
      ASSERT_EQ(morun_weights_packer_add_rule(packer, m.name, m.form), 0) << morun_weights_error_text();
    }
    ASSERT_EQ(morun_weights_packer_run(packer, path_.c_str()), 0) << morun_weights_error_text();
    morun_weights_packer_free(packer);
    reopen();
  }
  void reopen() {
    morun_weights_file_close(std::exchange(file_, nullptr));
    ASSERT_EQ(morun_weights_file_open(path_.c_str(), &file_), 0) << morun_weights_error_text();
  }
  // For so many bytes in each session.
  static tavik_context* initialise_with_room(uint64_t n_byte) {
    test::configure([&](auto& c) { c.session_bytes = 3 * (4 << 16) + 3 * 1024 + 2 * (1 << 16) + n_byte; });
    return initialise();
  }
  morun_weights_request request(const char* name, uint32_t group = 0, uint32_t alone = 0) const {
    morun_weights_request request = {0, group, alone};
    EXPECT_EQ(morun_weights_file_find(file_, name, &request.tensor), 0) << morun_weights_error_text();
    return request;
  }
  morun_weights_tensor tensor(uint64_t index) const {
    morun_weights_tensor tensor;
    EXPECT_EQ(morun_weights_file_tensor(file_, index, &tensor), 0);
    return tensor;
  }
  // Loads, and expects a failure that leaves nothing but sessions, with `text` in its text.
  void expect_failure(tavik_context* context, const std::vector<morun_weights_request>& requests, int32_t status,
                      const std::string& text, uint64_t largest_buffer = 0) {
    const parlo_emulator_usage before = test::usage();
    const uint64_t n_buffers = context->n_buffers;
    const morun_weights_load_options options = {largest_buffer, 0, 0};
    morun_weights_loaded* loaded = nullptr;
    EXPECT_EQ(morun_weights_load(file_, context, requests.size(), requests.data(), &options, &loaded), status);
    EXPECT_NE(std::string(morun_weights_error_text()).find(text), std::string::npos) << morun_weights_error_text();
    EXPECT_EQ(loaded, nullptr);
    EXPECT_EQ(context->n_buffers, n_buffers);
    EXPECT_EQ(test::usage().n_allocations, before.n_allocations);
    EXPECT_EQ(test::usage().n_bytes, before.n_bytes);
  }
  void expect_success(tavik_context* context, const std::vector<morun_weights_request>& requests) {
    morun_weights_loaded* loaded = nullptr;
    ASSERT_EQ(morun_weights_load(file_, context, requests.size(), requests.data(), nullptr, &loaded), 0)
        << morun_weights_error_text();
    for (size_t i = 0; i < requests.size(); ++i) {
      morun_weights_operand operand;
      EXPECT_EQ(morun_weights_operand_of(loaded, i, &operand), 0);
      const std::vector<uint8_t> expected = matrix(requests[i]).bytes;
      EXPECT_EQ(memcmp(operand.bytes, expected.data(), expected.size()), 0);
    }
    EXPECT_EQ(morun_weights_release(loaded), 0) << morun_weights_error_text();
  }
  test::PackedMatrix matrix(const morun_weights_request& request) const {
    const morun_weights_tensor t = tensor(request.tensor);
    test::PackedMatrix matrix = {t.form, t.layout, std::vector<uint8_t>(t.n_byte)};
    EXPECT_EQ(morun_weights_file_read(file_, request.tensor, 0, t.n_byte, matrix.bytes.data()), 0);
    return matrix;
  }

  const fs::path folder_;
  const std::string path_ = folder_ / "packed.safetensors";
  morun_weights_file* file_ = nullptr;
};

// ---- Plans ---------------------------------------------------------------------------------------------------------

// In 2048 bytes: "SIZES of the buffers / of which in session 0: BUFFER+OFFSET of each request".
std::string told(const morun_weights_plan& plan, const std::vector<morun_weights_place>& places) {
  std::ostringstream text;
  for (uint32_t i = 0; i < plan.n_buffer; ++i) text << plan.buffer_size[i] / 2048 << ' ';
  text << "/ " << plan.n_first_session << ':';
  for (const auto& place : places) text << ' ' << place.buffer << '+' << place.offset / 2048;
  return text.str();
}

TEST_F(WeightsLoad, PlansKeepGroupsTogetherAndPutFourBitMatricesFirst) {
  // f of N takes N times 2048 bytes, q4 and q5 of 4 bits 4 and 5 times.
  open({{"f1", f16, 32, 32},
        {"f2", f16, 32, 64},
        {"f3", f16, 96, 32},
        {"f4", f16, 64, 64},
        {"f5", f16, 32, 160},
        {"f6", f16, 96, 64},
        {"q4", a8w4, 32, 32},
        {"q5", a8w4, 32, 256},
        {"plain", carried, 1, 1}});
  struct Request {
    const char* name;
    uint32_t group = 0, alone = 0;
  };
  struct Case {
    std::vector<Request> requests;
    uint64_t largest;  // in 2048 bytes; 0: the default
    uint32_t n_free;
    int32_t status;
    const char* expected;
  };
  const Case cases[] = {
      {{}, 1, 0, 0, "/ 0:"},
      // In the order of the requests, while that takes few buffers enough.
      {{{"f3"}, {"f1"}, {"f4"}, {"f2"}}, 0, 32, 0, "10 / 0: 0+0 0+3 0+4 0+8"},
      {{{"f3"}, {"f2"}, {"f4"}, {"f1"}}, 6, 2, 0, "5 5 / 0: 0+0 0+3 1+0 1+4"},
      {{{"f3"}, {"f5"}, {"f4"}, {"f1"}, {"f2"}}, 6, 4, 0, "3 5 5 2 / 0: 0+0 1+0 2+0 2+4 3+0"},
      // Fewer by putting the largest first.
      {{{"f3"}, {"f5"}, {"f4"}, {"f1"}, {"f2"}}, 6, 3, 0, "6 6 3 / 0: 2+0 0+0 1+0 0+5 1+4"},
      // Groups are one piece, whatever stands between their tensors.
      {{{"f3", 7}, {"f5"}, {"f1", 9}, {"f2", 7}}, 6, 4, 0, "5 6 / 0: 0+0 1+0 1+5 0+3"},
      // 4 bits: alone first; of a group only where it is said.
      {{{"f1"}, {"q4"}, {"f2"}, {"q5"}}, 9, 32, 0, "9 3 / 1: 1+0 0+0 1+1 0+4"},
      {{{"f1"}, {"q4", 1}, {"f2"}, {"q5", 1}}, 12, 32, 0, "12 / 0: 0+0 0+1 0+10 0+5"},
      {{{"f1"}, {"q4", 1}, {"f2", 2}, {"q5", 1, 1}, {"f3", 2, 1}}, 12, 32, 0, "9 6 / 1: 1+0 0+0 1+1 0+4 1+3"},
      // Buffers of session 0 take other matrices only where there are too few.
      {{{"f3"}, {"q5"}}, 8, 2, 0, "5 3 / 1: 1+0 0+0"},
      {{{"f3"}, {"q5"}}, 8, 1, 0, "8 / 1: 0+5 0+0"},
      {{{"f1"}, {"plain"}}, 0, 32, MORUN_WEIGHTS_NOT_PACKED, "tensor \"plain\" is not packed"},
      {{{"f1"}, {"f2"}, {"f1", 1}}, 0, 32, MORUN_WEIGHTS_REQUESTED_TWICE, "tensor \"f1\" is requested twice"},
      {{{"f1"}, {"f4"}},
       3,
       32,
       MORUN_WEIGHTS_GROUP_TOO_LARGE,
       "tensor \"f4\" takes 8192 bytes in one buffer, and the largest buffer has 6144"},
      {{{"f1", 5}, {"f4"}, {"f4", 5}}, 0, 32, MORUN_WEIGHTS_REQUESTED_TWICE, "tensor \"f4\""},
      {{{"f2"}, {"f1", 5}, {"f4", 5}},
       4,
       32,
       MORUN_WEIGHTS_GROUP_TOO_LARGE,
       "group 5, of 2 tensors from tensor \"f1\" on, takes 10240 bytes in one buffer, and the largest buffer has 8192"},
      {{{"f3"}, {"f5"}, {"f4"}, {"f6"}},
       6,
       3,
       MORUN_WEIGHTS_TOO_MANY_BUFFERS,
       "take 4 buffers of at most 12288 bytes, and 3 are free; a largest buffer of 14336 bytes would do"},
      {{{"f1"}},
       1,
       0,
       MORUN_WEIGHTS_TOO_MANY_BUFFERS,
       "take 1 buffers of at most 2048 bytes, and 0 are free; no largest"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected);
    std::vector<morun_weights_request> requests;
    for (const Request& r : c.requests) requests.push_back(request(r.name, r.group, r.alone));
    std::vector<morun_weights_place> places(requests.size(), {77, 77});
    morun_weights_plan plan = {};
    EXPECT_EQ(morun_weights_plan_places(file_, requests.size(), requests.data(), 2048 * c.largest, c.n_free, &plan,
                                        places.data()),
              c.status);
    if (c.status == 0) {
      EXPECT_EQ(told(plan, places), c.expected);
      continue;
    }
    EXPECT_NE(std::string(morun_weights_error_text()).find(c.expected), std::string::npos)
        << morun_weights_error_text();
    EXPECT_EQ(plan.n_buffer + places[0].buffer + places[0].offset, 154u) << "unchanged";
  }

  const morun_weights_request any = request("f1"), none = {9, 0, 0};
  morun_weights_plan plan;
  morun_weights_place place;
  const auto status = [&](auto... arguments) { return morun_weights_plan_places(arguments...); };
  for (const uint64_t largest : {uint64_t{2047}, (uint64_t{1} << 32) - 2047})
    EXPECT_EQ(status(file_, 1, &any, largest, 32, &plan, &place), MORUN_WEIGHTS_BAD_ARGUMENT);
  EXPECT_EQ(status(file_, 1, &any, (uint64_t{1} << 32) - 2048, 32, &plan, &place), 0);
  EXPECT_EQ(status(file_, 1, &any, 0, 33, &plan, &place), MORUN_WEIGHTS_BAD_ARGUMENT);
  EXPECT_EQ(status(file_, 1, &none, 0, 32, &plan, &place), MORUN_WEIGHTS_BAD_ARGUMENT);
  EXPECT_EQ(status(nullptr, 1, &any, 0, 32, &plan, &place), MORUN_WEIGHTS_NULL_ARGUMENT);
  EXPECT_EQ(status(file_, 1, nullptr, 0, 32, &plan, &place), MORUN_WEIGHTS_NULL_ARGUMENT);
  EXPECT_EQ(status(file_, 1, &any, 0, 32, nullptr, &place), MORUN_WEIGHTS_NULL_ARGUMENT);
  EXPECT_EQ(status(file_, 1, &any, 0, 32, &plan, nullptr), MORUN_WEIGHTS_NULL_ARGUMENT);
  EXPECT_EQ(status(file_, 0, nullptr, 0, 32, &plan, nullptr), 0);
}

TEST_F(WeightsLoad, PlansOfAnythingAreSound) {
  const std::vector<std::string> names = numbered_names(60);
  std::vector<Matrix> matrices;
  for (uint64_t i = 0; i < 60; ++i) matrices.push_back({names[i].c_str(), i % 5 == 0 ? a8w4 : f16, 32, 32 + i * i / 2});
  open(matrices);
  test::Random random(1);
  int n_planned = 0, n_refused = 0;
  for (int n = 0; n < 2000; ++n) {
    std::vector<morun_weights_request> requests;
    for (const std::string& name : names)
      if (random.bits() % 2 == 0)
        requests.push_back(request(name.c_str(), static_cast<uint32_t>(random.bits() % 9), random.bits() % 8 == 0));
    std::vector<morun_weights_place> places(requests.size());
    morun_weights_plan plan;
    const auto largest = 2048 * (50 + random.bits() % 500);
    const auto n_free = static_cast<uint32_t>(random.bits() % 33);
    const auto make = [&](uint64_t most) {
      return morun_weights_plan_places(file_, requests.size(), requests.data(), most, n_free, &plan, places.data());
    };
    int32_t status = make(largest);
    if (status == MORUN_WEIGHTS_TOO_MANY_BUFFERS && n_free > 0) {
      const std::string text = morun_weights_error_text();
      uint64_t sufficient = 0;
      ASSERT_EQ(sscanf(text.c_str() + text.find("; ") + 2, "a largest buffer of %ju", &sufficient), 1) << text;
      ASSERT_GT(sufficient, largest);
      status = make(sufficient);
      ASSERT_EQ(status, 0) << text;
      ++n_refused;
    }
    if (status != 0) continue;
    ++n_planned;
    ASSERT_LE(plan.n_buffer, n_free);
    // Everything has a place, nothing overlaps, and no byte of a buffer is left over.
    std::vector<std::set<std::pair<uint64_t, uint64_t>>> ranges(plan.n_buffer);
    std::map<uint32_t, uint32_t> buffer_of_group;
    for (size_t i = 0; i < requests.size(); ++i) {
      const morun_weights_tensor t = tensor(requests[i].tensor);
      ranges.at(places[i].buffer).insert({places[i].offset, places[i].offset + t.n_byte});
      const bool is_alone = requests[i].group == 0 || requests[i].alone != 0;
      if (t.form == a8w4 && is_alone) {
        ASSERT_LT(places[i].buffer, plan.n_first_session);
      }
      if (requests[i].group != 0) {
        ASSERT_EQ(buffer_of_group.emplace(requests[i].group, places[i].buffer).first->second, places[i].buffer);
      }
    }
    for (uint32_t b = 0; b < plan.n_buffer; ++b) {
      uint64_t end = 0;
      for (const auto& [begin, next] : ranges[b]) ASSERT_EQ(std::exchange(end, next), begin);
      ASSERT_EQ(end, plan.buffer_size[b]);
    }
  }
  EXPECT_GT(n_planned, 1000);
  EXPECT_GT(n_refused, 50);
}

// ---- Products ------------------------------------------------------------------------------------------------------

struct Product {
  const test::PackedMatrix& matrix;
  const morun_weights_operand& operand;
  std::vector<float> result;
};

constexpr int32_t n_row = 3;

void expect_product(const Product& p, const std::vector<float>& X) {
  const auto n_inner = static_cast<size_t>(p.operand.padded_n_inner),
             n_col = static_cast<size_t>(p.operand.padded_n_col);
  for (size_t r = 0; r < n_row; ++r) {
    for (size_t c = 0; c < n_col; ++c) {
      double exact = 0, size = 0;
      for (size_t k = 0; k < n_inner; ++k) {
        const double term = X[r * n_inner + k] * p.matrix.value(k, c);
        exact += term;
        size += std::abs(term);
      }
      ASSERT_NEAR(p.result[r * n_col + c], exact, size * (p.operand.form == f16 ? 1e-3 : 1e-6)) << r << ", " << c;
    }
  }
}

using Single = uint32_t (*)(tavik_context*, int32_t, int32_t, int32_t, float*, const float*, uint32_t, uint32_t,
                            uint64_t, uint64_t, uint64_t);

uint32_t multiply(tavik_context* context, const morun_weights_operand& o, float* A, const float* X) {
  const auto fd = static_cast<uint32_t>(o.fd);
  if (o.form == f16)
    return tavik_npu_mm_f32_rm_f32_rm_f16_wh(context, n_row, o.padded_n_col, o.padded_n_inner, A, X, fd, o.q_offset);
  uint64_t handle;
  if (o.form == a8w4)
    tavik_context_get_handle_from_fd(context, o.fd, &handle);  // the product itself changes no session
  const Single product =
      o.form == a8w4 ? tavik_npu_mm_a8w4_f32_rm_f32_rm_i4f16_wh : tavik_npu_mm_a8w8_f32_rm_f32_rm_i8f16_wh;
  return product(context, n_row, o.padded_n_col, o.padded_n_inner, A, X, fd, o.q_offset, o.z_offset, o.s_offset,
                 o.sum_offset);
}

uint32_t multiply_pair(tavik_context* context, const morun_weights_operand& u, const morun_weights_operand& f,
                       float* A_U, float* A_F, const float* X) {
  return tavik_npu_2mm_a8w4_f32_rm_f32_rm_i4f16_wh(context, n_row, u.padded_n_col, u.padded_n_inner, A_U, A_F, X,
                                                   static_cast<uint32_t>(u.fd), static_cast<uint32_t>(f.fd), u.q_offset,
                                                   u.z_offset, u.s_offset, u.sum_offset, f.q_offset, f.z_offset,
                                                   f.s_offset, f.sum_offset);
}

TEST_F(WeightsLoad, ProductsOfLoadedMatricesAreThoseOfWhatWasPacked) {
  open({{"k", a8w8, 70, 45},
        {"out", f16, 70, 45},
        {"gate", a8w4, 70, 90},
        {"up", a8w4, 70, 90},
        {"q", a8w8, 70, 64},
        {"down", f16, 33, 64},
        {"head", a8w4, 70, 31},
        {"big", a8w8, 96, 256}});
  // The last one has to be in session 0, which has not room for everything.
  const std::vector<morun_weights_request> requests = {request("big"),     request("out"),  request("q", 3),
                                                       request("gate", 1), request("k", 3), request("up", 1),
                                                       request("down"),    request("head")};
  tavik_context* const context = initialise_with_room(60 * kib);
  for (const int32_t skip_checksums : {0, 1}) {
    const morun_weights_load_options options = {32 * kib, skip_checksums, 0};
    morun_weights_loaded* loaded = nullptr;
    ASSERT_EQ(morun_weights_load(file_, context, requests.size(), requests.data(), &options, &loaded), 0)
        << morun_weights_error_text();
    std::vector<test::PackedMatrix> matrices;
    for (const auto& r : requests) matrices.push_back(matrix(r));
    if (skip_checksums != 0) morun_weights_file_close(std::exchange(file_, nullptr));  // which is not needed any more
    std::vector<morun_weights_operand> operands(requests.size());
    std::vector<std::vector<float>> activations;
    std::set<uint64_t> sessions;
    for (size_t i = 0; i < requests.size(); ++i) {
      ASSERT_EQ(morun_weights_operand_of(loaded, i, &operands[i]), 0);
      const morun_weights_operand& o = operands[i];
      EXPECT_EQ(memcmp(o.bytes, matrices[i].bytes.data(), matrices[i].bytes.size()), 0);
      EXPECT_EQ(o.n_inner, i == 6 ? 33 : i == 0 ? 96 : 70);
      sessions.insert(o.session);
      uint64_t session = 77;
      EXPECT_EQ(tavik_context_get_session_from_fd(context, o.fd, &session), 0);
      EXPECT_EQ(session, o.session);
      // Integers up to 127, which 127 makes exact in 8 bits; the padding is 0.
      std::vector<float>& X = activations.emplace_back(n_row * static_cast<size_t>(o.padded_n_inner));
      test::Random random(5);
      for (size_t at = 0; at < X.size(); ++at) {
        const size_t k = at % static_cast<size_t>(o.padded_n_inner);
        if (k < static_cast<size_t>(o.n_inner)) X[at] = k == 3 ? 127 : static_cast<float>(random.bits() % 255) - 127;
      }
    }
    EXPECT_EQ(operands[7].session, 0u);
    EXPECT_GT(sessions.size(), 1u);
    EXPECT_EQ(operands[2].fd, operands[4].fd);
    EXPECT_EQ(operands[3].fd, operands[5].fd);
    std::vector<Product> products;
    for (size_t i = 0; i < requests.size(); ++i) {
      SCOPED_TRACE(i);
      Product p = {matrices[i], operands[i], std::vector<float>(n_row * static_cast<size_t>(operands[i].padded_n_col))};
      if (i != 3 && i != 5) {
        ASSERT_EQ(multiply(context, operands[i], p.result.data(), activations[i].data()), 0u) << test::last_error();
        expect_product(p, activations[i]);
      }
      products.push_back(std::move(p));
    }
    ASSERT_EQ(multiply_pair(context, operands[3], operands[5], products[3].result.data(), products[5].result.data(),
                            activations[3].data()),
              0u)
        << test::last_error();
    expect_product(products[3], activations[3]);
    expect_product(products[5], activations[5]);
    morun_weights_operand operand = {};
    EXPECT_EQ(morun_weights_operand_of(loaded, requests.size(), &operand), MORUN_WEIGHTS_BAD_ARGUMENT);
    EXPECT_EQ(morun_weights_operand_of(nullptr, 0, &operand), MORUN_WEIGHTS_NULL_ARGUMENT);
    EXPECT_EQ(morun_weights_operand_of(loaded, 0, nullptr), MORUN_WEIGHTS_NULL_ARGUMENT);
    EXPECT_EQ(morun_weights_release(loaded), 0) << morun_weights_error_text();
    EXPECT_EQ(context->n_buffers, 0u);
  }
  clean_up(context);
}

// ---- Failures ------------------------------------------------------------------------------------------------------

TEST_F(WeightsLoad, WhatDoesNotFitIsRefusedAndLeavesNothing) {
  open({{"a", a8w4, 32, 32}, {"b", a8w4, 64, 1024}, {"c", f16, 64, 128}, {"plain", carried, 1, 1}});  // 8, 40, 16 KiB
  const auto a = request("a"), b = request("b"), c = request("c"), plain = request("plain");
  tavik_context* context = initialise_with_room(50 * kib);
  expect_success(context, {});
  expect_success(context, {c, b, a});
  const int32_t taken = allocate(context, 8 * kib);
  expect_failure(
      context, {c, b, a}, MORUN_WEIGHTS_SESSION,
      "have to be in session 0 and take 49152 bytes; session 0 has no room for 49152 bytes beside 0 of them");
  expect_failure(context, {c, b, a}, MORUN_WEIGHTS_SESSION,
                 "take 49152 bytes; session 0 has no room for 8192 bytes beside 40960 of them", 40 * kib);
  expect_success(context, {c, b});
  expect_failure(context, {plain}, MORUN_WEIGHTS_NOT_PACKED, "\"plain\" is not packed");
  expect_failure(context, {b}, MORUN_WEIGHTS_GROUP_TOO_LARGE, "takes 40960 bytes", 36 * kib);
  expect_failure(context, {c}, MORUN_WEIGHTS_BAD_ARGUMENT, "largest_buffer", 2047);
  const uint64_t n_allocated = test::usage().n_bytes;
  test::configure([&](auto& config) { config.allocation_bytes = n_allocated + 20 * kib; });
  expect_failure(context, {c, a}, MORUN_WEIGHTS_BUFFER,
                 "buffer 2 of 2, of 16384 bytes, cannot be had beside 8192 bytes in those before it; the context has 2 "
                 "sessions: failed to allocate shared buffer of size 16384");
  release(context, taken);
  clean_up(context);

  parlo_emulator_reset();
  context = initialise();
  std::vector<int32_t> fds;
  while (fds.size() < 31) fds.push_back(allocate(context, 2048));
  expect_failure(context, {c, a}, MORUN_WEIGHTS_TOO_MANY_BUFFERS,
                 "take 2 buffers of at most 16384 bytes, and 1 are free", 16 * kib);
  expect_success(context, {c, a});
  for (const int32_t fd : fds) release(context, fd);
  morun_weights_loaded* loaded = nullptr;
  EXPECT_EQ(morun_weights_load(nullptr, context, 1, &c, nullptr, &loaded), MORUN_WEIGHTS_NULL_ARGUMENT);
  EXPECT_EQ(morun_weights_load(file_, nullptr, 1, &c, nullptr, &loaded), MORUN_WEIGHTS_NULL_ARGUMENT);
  EXPECT_EQ(morun_weights_load(file_, context, 1, nullptr, nullptr, &loaded), MORUN_WEIGHTS_NULL_ARGUMENT);
  EXPECT_EQ(morun_weights_load(file_, context, 1, &c, nullptr, nullptr), MORUN_WEIGHTS_NULL_ARGUMENT);
  EXPECT_EQ(morun_weights_release(nullptr), 0);
  morun_weights_load_options options = {1, 2, 3};
  morun_weights_load_options_init(&options);
  EXPECT_EQ(options.largest_buffer, 1u << 28);
  EXPECT_EQ(options.skip_checksums, 0);
  clean_up(context);
}

TEST_F(WeightsLoad, ReadsThatFailLeaveNothingAndShortOnesGoOn) {
  open({{"a", a8w8, 512, 1024}, {"b", f16, 64, 128}, {"c", a8w4, 64, 64}});  // the first takes several reads
  const std::vector<morun_weights_request> requests = {request("c"), request("b"), request("a")};
  tavik_context* const context = initialise();
  uint64_t n_read = 0;
  for (const auto result : {short_read, interrupted, input_output_error, end_of_file}) {
    read_result = result;
    for (uint64_t nth = 1;; ++nth) {
      SCOPED_TRACE(std::to_string(result) + ", read " + std::to_string(nth));
      nth_read = nth;
      const morun_weights_load_options options = {0, 0, 0};
      morun_weights_loaded* loaded = nullptr;
      const int32_t status = morun_weights_load(file_, context, requests.size(), requests.data(), &options, &loaded);
      const bool fired = std::exchange(nth_read, 0) == 0;
      const bool fails = fired && (result == input_output_error || result == end_of_file);
      EXPECT_EQ(status, !fails ? 0 : result == end_of_file ? MORUN_WEIGHTS_SHRUNK : MORUN_WEIGHTS_READ);
      EXPECT_EQ(loaded == nullptr, fails);
      EXPECT_EQ(context->n_buffers == 0, fails);
      EXPECT_EQ(morun_weights_release(loaded), 0);
      if (!fired) break;
      n_read = nth;
    }
  }
  EXPECT_GE(n_read, 5u);

  // A file that shrinks under the reader, by as little as a byte; one that changes; and as it was.
  const uint64_t size = fs::file_size(path_);
  const morun_weights_tensor b = tensor(requests[1].tensor), c = tensor(requests[0].tensor);
  for (const uint64_t less : {uint64_t{1}, c.n_byte, c.n_byte + 1, size - b.file_offset, size - 1}) {
    fs::resize_file(path_, size - less);
    expect_failure(context, requests, MORUN_WEIGHTS_SHRUNK, "has become shorter and ends before byte ");
  }
  fs::resize_file(path_, size);
  expect_failure(context, requests, MORUN_WEIGHTS_CHECKSUM, "tensor \"a\"");
  expect_failure(context, {requests[0]}, MORUN_WEIGHTS_CHECKSUM, "tensor \"c\"");
  const morun_weights_load_options unchecked = {0, 1, 0};
  morun_weights_loaded* loaded = nullptr;
  EXPECT_EQ(morun_weights_load(file_, context, requests.size(), requests.data(), &unchecked, &loaded), 0);
  EXPECT_EQ(morun_weights_release(loaded), 0);
  open({{"a", a8w8, 512, 1024}, {"b", f16, 64, 128}, {"c", a8w4, 64, 64}});
  std::fstream(path_, std::ios::in | std::ios::out | std::ios::binary).seekp(static_cast<int64_t>(size) - 1).put('\1');
  expect_success(context, {requests[1], requests[2]});
  expect_failure(context, requests, MORUN_WEIGHTS_CHECKSUM, "tensor \"c\": the bytes have checksum");
  clean_up(context);
}

TEST_F(WeightsLoad, BuffersThatTheDspKeepsAreReleasedLater) {
  open({{"a", f16, 32, 32}, {"b", f16, 32, 64}});
  const std::vector<morun_weights_request> requests = {request("a"), request("b")};
  const morun_weights_load_options options = {4 * kib, 0, 0};
  tavik_context* const context = initialise();
  morun_weights_loaded* loaded = nullptr;
  ASSERT_EQ(morun_weights_load(file_, context, 2, requests.data(), &options, &loaded), 0) << morun_weights_error_text();
  for (const uint64_t left : {2, 1}) {  // neither of them; then the second alone
    parlo_emulator_fail(PARLO_EMULATOR_MUNMAP, -1, left == 2 ? 0 : 2, 0x77, EIO);
    EXPECT_EQ(morun_weights_release(loaded), MORUN_WEIGHTS_BUFFER);
    EXPECT_EQ(context->n_buffers, left);
    EXPECT_EQ(
        std::string(morun_weights_error_text()).find(std::to_string(left) + " buffers cannot be freed: Failed to "), 0u)
        << morun_weights_error_text();
    parlo_emulator_clear_fault();
  }
  EXPECT_EQ(morun_weights_release(loaded), 0);
  EXPECT_EQ(context->n_buffers, 0u);

  // A failure half-way, and a DSP that keeps a buffer.
  fs::resize_file(path_, fs::file_size(path_) - 1);
  parlo_emulator_fail(PARLO_EMULATOR_MUNMAP, -1, 1, 0x77, EIO);
  EXPECT_EQ(morun_weights_load(file_, context, 2, requests.data(), &options, &loaded), MORUN_WEIGHTS_SHRUNK);
  EXPECT_EQ(std::string(morun_weights_error_text()).find("1 buffers stay in the context, because the DSP refuses"), 0u);
  EXPECT_NE(std::string(morun_weights_error_text()).find("ends before byte"), std::string::npos);
  EXPECT_EQ(context->n_buffers, 1u);
  release(context, context->buffer_fd[0]);

  // What the program has freed is gone, and nobody else's buffer with it.
  ASSERT_EQ(morun_weights_load(file_, context, 1, requests.data(), &options, &loaded), 0) << morun_weights_error_text();
  release(context, context->buffer_fd[0]);
  EXPECT_EQ(morun_weights_release(loaded), 0);
  clean_up(context);
}

TEST_F(WeightsLoad, LoadingTakesLittleMemoryBesideTheBuffers) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the address sanitizer maps memory of its own";
#endif
  const std::vector<std::string> names = numbered_names(400);
  std::vector<Matrix> matrices = {{"large", f16, 2048, 2048}};
  for (const std::string& name : names) matrices.push_back({name.c_str(), f16, 32, 32});
  open(matrices);
  std::vector<morun_weights_request> requests = {request("large")};
  for (const std::string& name : names) requests.push_back(request(name.c_str()));
  tavik_context* const context = initialise();
  // Private writable memory, which shared buffers are not. What the heap has already counts as taken.
  malloc_trim(0);
  std::ifstream status("/proc/self/status");
  std::string word;
  rlim_t held_kib = 0;
  while (status >> word && word != "VmData:") continue;
  status >> held_kib;
  rlimit limit;
  getrlimit(RLIMIT_DATA, &limit);
  const rlimit small = {held_kib * kib + (1 << 20) - mallinfo2().fordblks, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_DATA, &small), 0);
  morun_weights_loaded* loaded = nullptr;
  const int32_t result = morun_weights_load(file_, context, requests.size(), requests.data(), nullptr, &loaded);
  setrlimit(RLIMIT_DATA, &limit);
  EXPECT_EQ(result, 0) << morun_weights_error_text();
  EXPECT_EQ(morun_weights_release(loaded), 0);
  clean_up(context);
}

}  // namespace

// The emulated platform, call by call: what it refuses and with which status, what it keeps apart, what it computes.
#include "platform/emulator/parlo_emulator.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "platform/parlo.h"
#include "source/simd/simd.h"

namespace {

namespace simd = morun::simd;

constexpr uint64_t page = 4096;
const std::string module_uri = "file:///libtavik_skel.so?tavik_skel_handle_invoke&_modver=1.0";
const std::string session_0_uri = module_uri + "&_dom=cdsp";

enum Method : uint32_t {
  clear_cache = 2,
  get_AX,
  put_AX,
  acquire,
  release,
  lock_unit,
  unlock_unit,
  mm_f16,
  one_mm_f16
};
constexpr uint32_t self_test = 13, mm_a8w8 = 14;

struct Shared {
  void* address;
  int fd;
  uint64_t size;
};

Shared allocate(uint64_t size) {
  void* address = parlo_mem_alloc2(25, 1, size);
  return {address, parlo_mem_to_fd(address), size};
}

int control(uint32_t request, auto& record) {
  return parlo_session_control(request, &record, sizeof record);
}

// A session on the host's side, session 0 unless it is reserved; the operations return the platform's statuses.
struct Session {
  uint32_t id = 0;
  int domain = 3;
  uint64_t handle = 0;

  int reserve() {
    parlo_session_reserve record{"cdsp", 4, "Tavik_1", 7, 0, 0};
    const int status = control(PARLO_SESSION_RESERVE, record);
    *this = {record.session_id, static_cast<int>(record.effective_domain_id), 0};
    return status;
  }
  int get_uri(char* uri, uint32_t length) const {
    const auto module_length = static_cast<uint32_t>(module_uri.size());
    parlo_session_uri record{"cdsp", 4, id, module_uri.data(), module_length, uri, length};
    return control(PARLO_SESSION_GET_URI, record);
  }
  int allow_unsigned() const {
    parlo_session_unsigned_module record{domain, 1};
    return control(PARLO_SESSION_UNSIGNED_MODULE, record);
  }
  int open() {
    char uri[256] = "";
    const int status = get_uri(uri, sizeof uri) | allow_unsigned();
    return status != 0 ? status : parlo_handle_open(uri, &handle);
  }
  int close() const { return parlo_handle_close(handle); }
  int map(const Shared& s) const { return parlo_mmap(domain, s.fd, s.address, 0, s.size, 2); }
  int unmap(const Shared& s) const { return parlo_munmap(domain, s.fd, s.address, s.size); }
  int invoke(uint32_t method, std::vector<uint32_t> words = {}) const {
    parlo_argument argument{words.data(), 4 * words.size()};
    const bool has_input = !words.empty();
    return parlo_handle_invoke(handle, PARLO_SCALARS(method, has_input, 0), has_input ? &argument : nullptr);
  }
};

parlo_emulator_usage usage() {
  parlo_emulator_usage alive;
  parlo_emulator_get_usage(&alive);
  return alive;
}

void configure(auto change) {
  parlo_emulator_config config;
  parlo_emulator_get_config(&config);
  change(config);
  parlo_emulator_set_config(&config);
}

parlo_emulator_call last_call() {
  parlo_emulator_call call{};
  EXPECT_EQ(parlo_emulator_trace_get(parlo_emulator_trace_length() - 1, &call), 0);
  return call;
}

class Emulator : public testing::Test {
 protected:
  static long count_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
  }
  void TearDown() override {
    parlo_emulator_reset();
    const parlo_emulator_usage alive = usage();
    EXPECT_EQ(alive.n_allocations + alive.n_bytes + alive.n_sessions + alive.n_handles + alive.n_mappings, 0u);
    EXPECT_EQ(parlo_emulator_trace_length(), 0u);
    EXPECT_EQ(count_descriptors(), n_descriptor);
  }
  void open_first() { ASSERT_EQ(first.open(), 0); }
  void open_second() {
    ASSERT_EQ(second.reserve(), 0);
    ASSERT_EQ(second.open(), 0);
  }

  const long n_descriptor = count_descriptors();
  Session first, second;
};

// ---- Shared memory -----------------------------------------------------------------------------------------------

TEST_F(Emulator, DescriptorsAreTheLowestFreeOnesAndReal) {
  const int lowest = dup(0);
  close(lowest);
  const Shared a = allocate(page), b = allocate(page + 1);
  EXPECT_EQ(a.fd, lowest);
  EXPECT_EQ(lseek(b.fd, 0, SEEK_END), static_cast<off_t>(page + 1));
  parlo_mem_free(a.address);
  EXPECT_EQ(lseek(a.fd, 0, SEEK_END), -1);
  EXPECT_EQ(allocate(page).fd, lowest);
  configure([](auto& config) { config.lowest_descriptor = 1024; });
  EXPECT_EQ(allocate(page).fd, 1024);
  EXPECT_EQ(allocate(page).fd, 1025);
}

TEST_F(Emulator, MemoryIsRefusedAndFoundByItsFirstByteOnly) {
  EXPECT_EQ(parlo_mem_alloc(25, 1, 0), nullptr);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_EQ(parlo_mem_alloc(25, 1, -4096), nullptr);
  EXPECT_EQ(errno, EINVAL);
  const Shared shared = allocate((uint64_t{2} << 30) + page);
  ASSERT_NE(shared.address, nullptr);
  std::memset(static_cast<char*>(shared.address) + shared.size - 1, 1, 1);
  EXPECT_EQ(parlo_mem_to_fd(static_cast<char*>(shared.address) + 1), -1);
  parlo_mem_free(static_cast<char*>(shared.address) + 1);
  parlo_mem_free(nullptr);
  configure([&](auto& config) { config.allocation_bytes = shared.size + page; });
  EXPECT_EQ(parlo_mem_alloc2(25, 1, page + 1), nullptr);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_NE(parlo_mem_alloc2(25, 1, page), nullptr);
  EXPECT_EQ(usage().n_bytes, shared.size + page);
}

// ---- Sessions ----------------------------------------------------------------------------------------------------

TEST_F(Emulator, OpeningChecksTheUri) {
  const struct {
    std::string uri;
    int status;
  } cases[] = {
      {"libtavik_skel.so", PARLO_EMULATOR_BAD_URI},
      {module_uri, PARLO_EMULATOR_BAD_URI},
      {session_0_uri + "&_session=x", PARLO_EMULATOR_BAD_URI},
      {"file:///libother_skel.so?tavik_skel_handle_invoke&_modver=1.0&_dom=cdsp", PARLO_EMULATOR_NO_SUCH_MODULE},
      {"file:///libtavik_skel.so?tavik_skel_handle_invoke&_modver=1.1&_dom=cdsp", PARLO_EMULATOR_NO_SUCH_MODULE},
      {module_uri + "&_dom=adsp", PARLO_EMULATOR_UNSUPPORTED_DOMAIN},
      {session_0_uri + "&_session=1", PARLO_EMULATOR_NO_SUCH_SESSION},
      {session_0_uri, PARLO_EMULATOR_UNSIGNED_REFUSED},
  };
  for (const auto& c : cases) {
    uint64_t handle = 77;
    EXPECT_EQ(parlo_handle_open(c.uri.c_str(), &handle), c.status) << c.uri;
    EXPECT_EQ(handle, 77u);
  }
  EXPECT_EQ(parlo_handle_open(session_0_uri.c_str(), nullptr), PARLO_EMULATOR_BAD_ARGUMENT);
  EXPECT_EQ((Session{.domain = 0}.allow_unsigned()), PARLO_EMULATOR_UNSUPPORTED_DOMAIN);
  EXPECT_EQ(first.allow_unsigned(), 0);
  uint64_t handle;
  EXPECT_EQ(parlo_handle_open(session_0_uri.c_str(), &handle), 0);
  EXPECT_EQ(first.open(), PARLO_EMULATOR_SESSION_OPEN);
  EXPECT_EQ(errno, EBUSY);
}

TEST_F(Emulator, SessionsOpenAndEndAnyNumberOfTimes) {
  const Shared shared = allocate(page);
  uint64_t stale = 0;
  for (int round = 0; round < 20; ++round) {
    uint64_t handle;
    EXPECT_EQ(parlo_handle_open(session_0_uri.c_str(), &handle), PARLO_EMULATOR_UNSIGNED_REFUSED);
    open_first();
    open_second();
    EXPECT_EQ(second.id, 1u);
    EXPECT_GT(second.domain, 4);
    EXPECT_EQ(first.map(shared) + second.map(shared), 0);
    EXPECT_EQ(first.invoke(get_AX, std::vector<uint32_t>(4, static_cast<uint32_t>(shared.fd))), 0);
    EXPECT_EQ(first.invoke(acquire) + first.invoke(lock_unit), 0);
    EXPECT_EQ(usage().n_mappings, 2u);
    EXPECT_EQ(second.close() + first.close(), 0);
    EXPECT_EQ(usage().n_sessions + usage().n_mappings, 0u);
    for (const uint64_t handle_gone : {stale, first.handle, second.handle, uint64_t{0}, ~uint64_t{0}}) {
      EXPECT_EQ(parlo_handle_close(handle_gone), PARLO_EMULATOR_BAD_HANDLE);
      EXPECT_EQ((Session{0, 3, handle_gone}).invoke(clear_cache), PARLO_EMULATOR_BAD_HANDLE);
    }
    EXPECT_EQ(first.map(shared), PARLO_EMULATOR_UNSUPPORTED_DOMAIN);
    stale = first.handle;
  }
}

TEST_F(Emulator, SessionsAreLimitedAndKnowTheirDomain) {
  configure([](auto& config) { config.n_sessions = 3; });
  Session third, fourth;
  EXPECT_EQ(second.reserve() + third.reserve(), 0);
  EXPECT_NE(second.id, third.id);
  EXPECT_NE(second.domain, third.domain);
  EXPECT_EQ(fourth.reserve(), PARLO_EMULATOR_NO_MORE_SESSIONS);
  parlo_session_effective_domain record{"cdsp", 4, third.id, 0};
  EXPECT_EQ(control(PARLO_SESSION_EFFECTIVE_DOMAIN, record), 0);
  EXPECT_EQ(static_cast<int>(record.effective_domain_id), third.domain);
  EXPECT_EQ(parlo_session_control(PARLO_SESSION_EFFECTIVE_DOMAIN, &record, 20), PARLO_EMULATOR_BAD_ARGUMENT);
  record.session_id = 7;
  EXPECT_EQ(control(PARLO_SESSION_EFFECTIVE_DOMAIN, record), PARLO_EMULATOR_NO_SUCH_SESSION);
  EXPECT_EQ(control(99, record), PARLO_EMULATOR_BAD_ARGUMENT);
  char uri[80];
  EXPECT_EQ(first.get_uri(uri, static_cast<uint32_t>(session_0_uri.size())), PARLO_EMULATOR_BAD_ARGUMENT);
  EXPECT_EQ(first.get_uri(uri, static_cast<uint32_t>(session_0_uri.size() + 1)), 0);
  EXPECT_EQ(uri, session_0_uri);
}

// ---- Mappings ----------------------------------------------------------------------------------------------------

TEST_F(Emulator, MappingsAreChecked) {
  open_first();
  const Shared a = allocate(3 * page), b = allocate(page);
  configure([](auto& config) { config.session_bytes = 4 * page; });
  const struct {
    int status, domain, fd;
    void* address;
    int offset;
    uint64_t length;
  } refused[] = {
      {PARLO_EMULATOR_UNSUPPORTED_DOMAIN, 9, a.fd, a.address, 0, a.size},
      {PARLO_EMULATOR_UNKNOWN_DESCRIPTOR, 3, 0, a.address, 0, a.size},
      {PARLO_EMULATOR_UNKNOWN_DESCRIPTOR, 3, b.fd, a.address, 0, a.size},
      {PARLO_EMULATOR_WRONG_SIZE, 3, a.fd, a.address, 0, a.size - 1},
      {PARLO_EMULATOR_BAD_ARGUMENT, 3, a.fd, a.address, static_cast<int>(page), a.size},
  };
  for (const auto& c : refused)
    EXPECT_EQ(parlo_mmap(c.domain, c.fd, c.address, c.offset, c.length, 2), c.status) << std::hex << c.status;
  EXPECT_EQ(first.unmap(a), PARLO_EMULATOR_NOT_MAPPED);
  EXPECT_EQ(first.map(a), 0);
  EXPECT_EQ(first.map(a), PARLO_EMULATOR_ALREADY_MAPPED);
  EXPECT_EQ(parlo_munmap(3, a.fd, a.address, page), PARLO_EMULATOR_WRONG_SIZE);
  EXPECT_EQ(parlo_munmap(3, 0, a.address, a.size), PARLO_EMULATOR_UNKNOWN_DESCRIPTOR);
}

TEST_F(Emulator, AddressSpacesAreLimitedOneByOne) {
  configure([](auto& config) { config.session_bytes = 4 * page; });
  open_first();
  open_second();
  const Shared a = allocate(3 * page), b = allocate(2 * page), c = allocate(page);
  EXPECT_EQ(first.map(a), 0);
  EXPECT_EQ(first.map(b), PARLO_EMULATOR_ADDRESS_SPACE_FULL);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(first.map(c), 0);
  EXPECT_EQ(second.map(b) + second.map(c), 0);
  EXPECT_EQ(first.unmap(a) + first.map(b), 0);
  EXPECT_EQ(usage().n_mappings, 4u);
}

TEST_F(Emulator, FreedMemoryStaysMappedBesideItsSuccessor) {
  open_first();
  const Shared old = allocate(page);
  EXPECT_EQ(first.map(old), 0);
  parlo_mem_free(old.address);
  EXPECT_EQ(first.invoke(self_test, {16, static_cast<uint32_t>(old.fd)}), 0);
  const Shared young = allocate(page);
  ASSERT_EQ(young.fd, old.fd);
  EXPECT_EQ(first.map(young), 0);
  EXPECT_EQ(first.invoke(self_test, {1, static_cast<uint32_t>(young.fd)}), 0);
  EXPECT_EQ(*static_cast<uint8_t*>(young.address), 1);
  EXPECT_EQ(first.unmap(young) + first.unmap(old), 0);
  EXPECT_NE(first.unmap(old), 0);
}

// ---- Methods -----------------------------------------------------------------------------------------------------

TEST_F(Emulator, InvokeChecksScalarsAndBuffers) {
  open_first();
  uint32_t words[9] = {};
  parlo_argument good{words, 8}, too_short{words, 4}, null{nullptr, 8};
  const uint32_t scalars = PARLO_SCALARS(self_test, 1, 0);
  EXPECT_EQ(parlo_handle_invoke(first.handle, scalars, nullptr), PARLO_EMULATOR_BAD_ARGUMENT);
  EXPECT_EQ(parlo_handle_invoke(first.handle, scalars, &too_short), PARLO_EMULATOR_BAD_SCALARS);
  EXPECT_EQ(parlo_handle_invoke(first.handle, scalars, &null), PARLO_EMULATOR_BAD_SCALARS);
  EXPECT_EQ(parlo_handle_invoke(first.handle, scalars | 1, &good), PARLO_EMULATOR_BAD_SCALARS);
  for (const uint32_t method : {0u, 1u, 23u, 31u}) EXPECT_EQ(first.invoke(method), PARLO_EMULATOR_BAD_SCALARS);
  EXPECT_EQ(first.invoke(clear_cache, {1}), PARLO_EMULATOR_BAD_SCALARS);
  EXPECT_EQ(first.invoke(mm_a8w8, std::vector<uint32_t>(9)), PARLO_EMULATOR_NOT_IMPLEMENTED);
}

TEST_F(Emulator, SelfTestAddsOneWithinTheBuffer) {
  open_first();
  const Shared shared = allocate(100);
  const auto fd = static_cast<uint32_t>(shared.fd);
  auto* bytes = static_cast<uint8_t*>(shared.address);
  bytes[0] = 41, bytes[1] = 255;
  EXPECT_EQ(first.invoke(self_test, {2, fd}), PARLO_EMULATOR_DSP_NOT_MAPPED);
  EXPECT_EQ(first.map(shared), 0);
  EXPECT_EQ(first.invoke(self_test, {101, fd}), PARLO_EMULATOR_DSP_OUT_OF_RANGE);
  EXPECT_EQ(bytes[0], 41);
  EXPECT_EQ(first.invoke(self_test, {2, fd}), 0);
  EXPECT_EQ(bytes[0], 42);
  EXPECT_EQ(bytes[1], 0);
  EXPECT_EQ(bytes[2], 0);
}

// The order in which a session switch gives things up and takes them is the host library's.
TEST_F(Emulator, ResourcesAndMatrixUnitAreHeldByOneSession) {
  open_first();
  open_second();
  const struct {
    const Session& session;
    Method method;
    int status;
  } steps[] = {
      {first, release, 0},
      {first, lock_unit, PARLO_EMULATOR_DSP_NO_RESOURCE},
      {first, acquire, 0},
      {first, acquire, 0},
      {second, acquire, 0},
      {first, unlock_unit, PARLO_EMULATOR_DSP_NOT_LOCKED},
      {first, lock_unit, 0},
      {first, lock_unit, 0},
      {second, lock_unit, PARLO_EMULATOR_DSP_BUSY},
      {second, unlock_unit, PARLO_EMULATOR_DSP_NOT_LOCKED},
      {first, release, 0},
      {second, lock_unit, PARLO_EMULATOR_DSP_BUSY},
      {first, unlock_unit, 0},
      {second, lock_unit, 0},
      {first, put_AX, PARLO_EMULATOR_DSP_NO_AX},
  };
  for (const auto& step : steps) EXPECT_EQ(step.session.invoke(step.method), step.status) << "step " << &step - steps;
  EXPECT_EQ(second.close(), 0);
  EXPECT_EQ(first.invoke(acquire) + first.invoke(lock_unit), 0);
}

// ---- Products ----------------------------------------------------------------------------------------------------

struct Matrix {
  size_t n_row, n_col;
  std::vector<uint16_t> halves = std::vector<uint16_t>(n_row * n_col);
  uint16_t& at(size_t r, size_t c) { return halves[r * n_col + c]; }
};

Matrix random_matrix(size_t n_row, size_t n_col, uint32_t largest_exponent) {
  static std::mt19937 random(1);
  Matrix matrix{n_row, n_col};
  for (uint16_t& half : matrix.halves) {
    const uint32_t bits = static_cast<uint32_t>(random());
    half = static_cast<uint16_t>((bits & 0x83ffu) | (bits >> 16) % (largest_exponent + 1) << 10);
  }
  return matrix;
}

std::vector<float> widen(const std::vector<uint16_t>& halves) {
  std::vector<float> floats(halves.size());
  for (size_t i = 0; i < halves.size(); i += 8) simd::store(&floats[i], simd::widen(simd::load(&halves[i])));
  return floats;
}
bool is_nan(uint16_t half) {
  return (half & 0x7fff) > 0x7c00;
}

size_t position_ah(size_t r, size_t c, size_t n_col) {
  return (r / 32 * (n_col / 32) + c / 32) * 1024 + r % 32 / 2 * 64 + c % 32 * 2 + r % 2;
}
size_t position_wh(size_t r, size_t c, size_t n_col) {
  return (r / 32 * (n_col / 32) + c / 32) * 1024 + c % 32 / 2 * 64 + r % 32 * 2 + c % 2;
}

Matrix reference_product(const Matrix& X, const Matrix& W) {
  const std::vector<float> x = widen(X.halves), w = widen(W.halves);
  Matrix A{X.n_row, W.n_col};
  for (size_t r = 0; r < A.n_row; ++r) {
    std::vector<float> sums(A.n_col);
    for (size_t k = 0; k < X.n_col; ++k)
      for (size_t c = 0; c < A.n_col; ++c) sums[c] += x[r * X.n_col + k] * w[k * A.n_col + c];
    for (size_t c = 0; c < A.n_col; c += 8) simd::store(&A.at(r, c), simd::narrow(simd::load(&sums[c])));
  }
  return A;
}

class EmulatorProduct : public Emulator {
 protected:
  void SetUp() override {
    open_first();
    ASSERT_EQ(first.invoke(acquire) + first.invoke(lock_unit), 0);
  }
  Shared mapped(uint64_t size) {
    const Shared shared = allocate(size);
    EXPECT_EQ(first.map(shared), 0);
    return shared;
  }
  static void fill(Matrix& matrix, size_t (*position)(size_t, size_t, size_t), const Shared& shared, size_t offset) {
    auto* halves = reinterpret_cast<uint16_t*>(static_cast<char*>(shared.address) + offset);
    for (size_t r = 0; r < matrix.n_row; ++r)
      for (size_t c = 0; c < matrix.n_col; ++c) halves[position(r, c, matrix.n_col)] = matrix.at(r, c);
  }
  static size_t count_differences(Matrix& expected, const Shared& shared, size_t offset) {
    auto* halves = reinterpret_cast<uint16_t*>(static_cast<char*>(shared.address) + offset);
    size_t n = 0;
    for (size_t r = 0; r < expected.n_row; ++r)
      for (size_t c = 0; c < expected.n_col; ++c) {
        const uint16_t a = expected.at(r, c), b = halves[position_ah(r, c, expected.n_col)];
        n += a != b && !(is_nan(a) && is_nan(b));
      }
    return n;
  }
  // Through buffers of its own for each matrix, at offsets.
  void check(Matrix X, Matrix W) {
    const Shared a = mapped(2 * X.n_row * W.n_col + 6), x = mapped(2 * X.halves.size() + 2),
                 w = mapped(2 * W.halves.size() + 4);
    fill(X, position_ah, x, 2);
    fill(W, position_wh, w, 4);
    std::memset(a.address, 0x5a, a.size);
    EXPECT_EQ(first.invoke(mm_f16, words(X.n_row, W.n_col, X.n_col, a, x, w, 4, 2, 4)), 0);
    Matrix expected = reference_product(X, W);
    EXPECT_EQ(count_differences(expected, a, 4), 0u) << X.n_row << " x " << W.n_col << " x " << X.n_col;
    const auto* bytes = static_cast<const uint8_t*>(a.address);
    EXPECT_TRUE(bytes[3] == 0x5a && bytes[a.size - 2] == 0x5a && bytes[a.size - 1] == 0x5a);
  }
  static std::vector<uint32_t> words(size_t n_row, size_t n_col, size_t n_inner, const Shared& a, const Shared& x,
                                     const Shared& w, uint32_t a_offset, uint32_t x_offset, uint32_t w_offset) {
    const auto fd = [](const Shared& shared) { return static_cast<uint32_t>(shared.fd); };
    const auto word = [](size_t n) { return static_cast<uint32_t>(n); };
    return {word(n_row), word(n_col), word(n_inner), fd(a), fd(x), fd(w), a_offset, x_offset, w_offset};
  }
};

TEST_F(EmulatorProduct, HasTheBitsOfOrderedSumsOnAnyNumberOfThreads) {
  const size_t shapes[][3] = {{32, 32, 32}, {96, 160, 64}, {224, 288, 352}, {288, 320, 160}};
  cpu_set_t all, one;
  ASSERT_EQ(sched_getaffinity(0, sizeof all, &all), 0);
  CPU_ZERO(&one);
  CPU_SET(static_cast<size_t>(sched_getcpu()), &one);
  for (const auto& mask : {all, one}) {
    ASSERT_EQ(sched_setaffinity(0, sizeof mask, &mask), 0);
    for (const auto& [n_row, n_col, n_inner] : shapes)
      check(random_matrix(n_row, n_inner, 17), random_matrix(n_inner, n_col, 17));
  }
  ASSERT_EQ(sched_setaffinity(0, sizeof all, &all), 0);
}

TEST_F(EmulatorProduct, KeepsSubnormalsInfinitiesAndNaNs) {
  Matrix X = random_matrix(64, 96, 30), W = random_matrix(96, 64, 15);
  for (size_t k = 0; k < 96; ++k) {
    X.at(1, k) = static_cast<uint16_t>(k % 7);  // subnormal results
    X.at(2, k) = 0x8000;
    W.at(k, 3) = 0x3c00;
  }
  X.at(5, 8) = 0x7c00;
  X.at(6, 9) = 0x7d01;  // signalling
  X.at(7, 10) = 0;
  W.at(10, 11) = 0xfc00;  // meets that 0
  check(X, W);
}

TEST_F(EmulatorProduct, UsesTheHandedOverBuffers) {
  Matrix X = random_matrix(32, 64, 16), W = random_matrix(64, 32, 16);
  const Shared a0 = mapped(2048), a1 = mapped(64), x = mapped(4096), w = mapped(4096 + 64), other = allocate(64);
  const auto fd = [](const Shared& shared) { return static_cast<uint32_t>(shared.fd); };
  fill(X, position_ah, x, 0);
  fill(W, position_wh, w, 64);
  const std::vector<uint32_t> product = {32, 32, 64, fd(w), 64};
  EXPECT_EQ(first.invoke(one_mm_f16, product), PARLO_EMULATOR_DSP_NO_AX);
  EXPECT_EQ(first.invoke(get_AX, {fd(a0), fd(a1), fd(other), fd(x)}), PARLO_EMULATOR_DSP_NOT_MAPPED);
  EXPECT_EQ(first.invoke(get_AX, {fd(a0), fd(a1), fd(a1), fd(x)}), 0);
  EXPECT_EQ(first.invoke(get_AX, {fd(a0), fd(a1), fd(a1), fd(x)}), PARLO_EMULATOR_DSP_NO_AX);
  EXPECT_EQ(first.invoke(one_mm_f16, product), 0);
  Matrix expected = reference_product(X, W);
  EXPECT_EQ(count_differences(expected, a0, 0), 0u);
  EXPECT_EQ(first.unmap(x), 0);
  EXPECT_EQ(first.invoke(one_mm_f16, product), PARLO_EMULATOR_DSP_NOT_MAPPED);
  EXPECT_EQ(first.invoke(put_AX), 0);
  EXPECT_EQ(first.invoke(one_mm_f16, product), PARLO_EMULATOR_DSP_NO_AX);
}

TEST_F(EmulatorProduct, RefusalsLeaveTheResultUntouched) {
  const Shared a = mapped(2048 + 2), x = mapped(2048), w = mapped(2048 + 2), stranger = allocate(2048);
  std::memset(a.address, 0x5a, a.size);
  const std::vector<uint8_t> before(static_cast<uint8_t*>(a.address), static_cast<uint8_t*>(a.address) + a.size);
  const uint32_t huge = 0xffffffe0;
  const struct {
    int status;
    std::vector<uint32_t> words;
  } cases[] = {
      {PARLO_EMULATOR_DSP_NOT_MAPPED, words(32, 32, 32, stranger, x, w, 0, 0, 0)},
      {PARLO_EMULATOR_DSP_NOT_MAPPED, words(32, 32, 32, a, stranger, w, 0, 0, 0)},
      {PARLO_EMULATOR_DSP_NOT_MAPPED, words(32, 32, 32, a, x, stranger, 0, 0, 0)},
      {PARLO_EMULATOR_DSP_BAD_DIMENSION, words(31, 32, 32, a, x, w, 0, 0, 0)},
      {PARLO_EMULATOR_DSP_BAD_DIMENSION, words(32, 48, 32, a, x, w, 0, 0, 0)},
      {PARLO_EMULATOR_DSP_BAD_DIMENSION, words(32, 32, 1, a, x, w, 0, 0, 0)},
      {PARLO_EMULATOR_DSP_MISALIGNED, words(32, 32, 32, a, x, w, 1, 0, 0)},
      {PARLO_EMULATOR_DSP_MISALIGNED, words(32, 32, 32, a, x, w, 0, 0, 1)},
      {PARLO_EMULATOR_DSP_OUT_OF_RANGE, words(32, 32, 32, a, x, w, 4, 0, 0)},
      {PARLO_EMULATOR_DSP_OUT_OF_RANGE, words(32, 32, 32, a, x, w, 0, 2, 0)},
      {PARLO_EMULATOR_DSP_OUT_OF_RANGE, words(32, 32, 32, a, x, w, 0, 0, 0xfffffffe)},
      {PARLO_EMULATOR_DSP_OUT_OF_RANGE, words(64, 32, 32, a, x, w, 0, 0, 0)},
      {PARLO_EMULATOR_DSP_OUT_OF_RANGE, words(huge, huge, 32, a, x, w, 0, 0, 0)},
      {PARLO_EMULATOR_DSP_OUT_OF_RANGE, words(32, huge, huge, a, x, w, 0, 0, 0)},
      {0, words(0, 32, 32, a, x, w, 0, 0, 0)},
  };
  for (const auto& c : cases) EXPECT_EQ(first.invoke(mm_f16, c.words), c.status) << "case " << &c - cases;
  EXPECT_EQ(first.invoke(unlock_unit), 0);
  EXPECT_EQ(first.invoke(mm_f16, words(32, 32, 32, a, x, w, 0, 0, 0)), PARLO_EMULATOR_DSP_NOT_LOCKED);
  EXPECT_EQ(first.invoke(release), 0);
  EXPECT_EQ(first.invoke(mm_f16, words(32, 32, 32, a, x, w, 0, 0, 0)), PARLO_EMULATOR_DSP_NO_RESOURCE);
  EXPECT_EQ(std::memcmp(a.address, before.data(), before.size()), 0);
}

TEST_F(EmulatorProduct, MayOverwriteItsOperands) {
  Matrix X = random_matrix(64, 64, 16), W = random_matrix(64, 64, 16);
  const Shared all = mapped(3 * 8192);
  fill(X, position_ah, all, 0);
  fill(W, position_wh, all, 8192);
  EXPECT_EQ(first.invoke(mm_f16, words(64, 64, 64, all, all, all, 4096, 0, 8192)), 0);
  Matrix expected = reference_product(X, W);
  EXPECT_EQ(count_differences(expected, all, 4096), 0u);
}

// ---- Faults and trace --------------------------------------------------------------------------------------

TEST_F(Emulator, FaultsStrikeTheChosenCall) {
  open_first();
  parlo_emulator_fail(PARLO_EMULATOR_HANDLE_INVOKE, clear_cache, 2, 0x123, EIO);
  EXPECT_EQ(first.invoke(clear_cache) + first.invoke(acquire), 0);
  EXPECT_EQ(first.invoke(clear_cache), 0x123);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(last_call().result, 0x123);
  EXPECT_EQ(last_call().method, clear_cache);
  EXPECT_EQ(first.invoke(clear_cache), 0);
  EXPECT_EQ(parlo_emulator_faults_fired(), 1u);

  parlo_emulator_fail(PARLO_EMULATOR_ANY_OPERATION, -1, 0, 5, ENOMEM);
  parlo_mem_free(nullptr);
  EXPECT_EQ(parlo_mem_alloc(25, 1, 4096), nullptr);
  EXPECT_EQ(parlo_mem_to_fd(nullptr), -1);
  EXPECT_EQ(first.invoke(release), 5);
  EXPECT_EQ(first.close(), 5);
  EXPECT_EQ(parlo_emulator_faults_fired(), 4u);
  parlo_emulator_clear_fault();
  EXPECT_EQ(first.invoke(release) + first.close(), 0);
}

TEST_F(Emulator, TraceTellsEveryCall) {
  setenv("PARLO_TRACE", "1", 1);
  parlo_emulator_reset();
  testing::internal::CaptureStderr();
  open_first();
  const Shared shared = allocate(page);
  EXPECT_EQ(first.map(shared), 0);
  EXPECT_EQ(first.invoke(self_test, {1, 999}), PARLO_EMULATOR_DSP_NOT_MAPPED);
  platform_debug_log(3, "build/tavik_stub", 453, "ERROR 0x%x\n", 7);
  platform_debug_log(2, "build/tavik_stub", 453, "not asked for");
  const std::string printed = testing::internal::GetCapturedStderr();
  unsetenv("PARLO_TRACE");

  const auto fd = static_cast<uint64_t>(shared.fd), address = reinterpret_cast<uint64_t>(shared.address);
  const struct {
    int operation, result, method;
    std::vector<uint64_t> arguments;
    std::string text;
  } expected[] = {
      {PARLO_EMULATOR_SESSION_CONTROL, 0, -1, {PARLO_SESSION_GET_URI, 0, session_0_uri.size()}, session_0_uri},
      {PARLO_EMULATOR_SESSION_CONTROL, 0, -1, {PARLO_SESSION_UNSIGNED_MODULE, 3, 1}, ""},
      {PARLO_EMULATOR_HANDLE_OPEN, 0, -1, {first.handle}, session_0_uri},
      {PARLO_EMULATOR_MEM_ALLOC2, 0, -1, {25, 1, page, address}, ""},
      {PARLO_EMULATOR_MEM_TO_FD, shared.fd, -1, {address}, ""},
      {PARLO_EMULATOR_MMAP, 0, -1, {3, fd, address, 0, page, 2}, ""},
      {PARLO_EMULATOR_HANDLE_INVOKE, PARLO_EMULATOR_DSP_NOT_MAPPED, 13, {first.handle, 0x0d010000, 1, 999}, ""},
      {PARLO_EMULATOR_DEBUG_LOG, 0, -1, {3, 453}, "ERROR 0x7\n"},
  };
  ASSERT_EQ(parlo_emulator_trace_length(), std::size(expected));
  for (size_t i = 0; i < std::size(expected); ++i) {
    parlo_emulator_call call;
    ASSERT_EQ(parlo_emulator_trace_get(i, &call), 0);
    EXPECT_EQ(call.operation, expected[i].operation);
    EXPECT_EQ(call.result, expected[i].result);
    EXPECT_EQ(call.method, expected[i].method);
    EXPECT_EQ(std::vector(call.arguments, call.arguments + call.n_arguments), expected[i].arguments) << i;
    EXPECT_EQ(call.text, expected[i].text);
  }
  EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 8);
  EXPECT_NE(printed.find("veyra_test(size=1, v_fd=999)) = 0x401"), printed.npos) << printed;
  EXPECT_NE(printed.find("build/tavik_stub:453: ERROR 0x7\n"), printed.npos);
}

TEST_F(Emulator, TraceForgetsTheOldest) {
  for (int i = 0; i < PARLO_EMULATOR_TRACE_CAPACITY + 1; ++i)
    parlo_mem_free(reinterpret_cast<void*>(static_cast<uintptr_t>(i)));
  parlo_emulator_call call;
  EXPECT_EQ(parlo_emulator_trace_length(), size_t{PARLO_EMULATOR_TRACE_CAPACITY + 1});
  EXPECT_EQ(parlo_emulator_trace_get(0, &call), -1);
  EXPECT_EQ(parlo_emulator_trace_get(1, &call), 0);
  EXPECT_EQ(call.arguments[0], 1u);
  EXPECT_EQ(last_call().arguments[0], uint64_t{PARLO_EMULATOR_TRACE_CAPACITY});
}

TEST_F(Emulator, DebugLogPrintsWhatWasChosen) {
  const char* files[] = {"build/tavik_stub"};
  EXPECT_EQ(platform_debug_log_configure(1u << 1, files, 1), 0);
  testing::internal::CaptureStderr();
  platform_debug_log(1, files[0], 1, "chosen");
  platform_debug_log(2, files[0], 1, "other level");
  platform_debug_log(1, "other", 1, "other file");
  platform_debug_log(3, files[0], 1, "error, traced only");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "[parlo] level 1, build/tavik_stub:1: chosen\n");
  EXPECT_EQ(parlo_emulator_trace_length(), 2u);
}

}  // namespace

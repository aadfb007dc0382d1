// What the tests of the emulated platform share: a session as its host sees it, and a fresh platform for each test.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "platform/parlo.h"
#include "tests/support.h"

namespace test {

constexpr uint64_t page = 4096;
inline const std::string module_uri = "file:///libtavik_skel.so?tavik_skel_handle_invoke&_modver=1.0";
inline const std::string session_0_uri = module_uri + "&_dom=cdsp";

enum Method : uint32_t { clear_cache = 2, get_AX, put_AX, acquire, release, lock_unit, unlock_unit, self_test = 13 };

struct Shared {
  void* address;
  int fd;
  uint64_t size;
};

inline Shared allocate(uint64_t size) {
  void* address = parlo_mem_alloc2(25, 1, size);
  return {address, parlo_mem_to_fd(address), size};
}

inline int control(uint32_t request, auto& record) {
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
  int allow_unsigned(bool is_allowed = true) const {
    parlo_session_unsigned_module record{domain, is_allowed};
    return control(PARLO_SESSION_UNSIGNED_MODULE, record);
  }
  int open() {
    char uri[256] = "";
    const int status = get_uri(uri, sizeof uri) | allow_unsigned();
    return status != 0 ? status : parlo_handle_open(uri, &handle);
  }
  int close() const { return parlo_handle_close(handle); }
  int process() const { return parlo_emulator_process_of(handle); }
  int map(const Shared& s) const { return parlo_mmap(domain, s.fd, s.address, 0, s.size, 2); }
  int unmap(const Shared& s) const { return parlo_munmap(domain, s.fd, s.address, s.size); }
  int invoke(uint32_t method, std::vector<uint32_t> words = {}) const {
    parlo_argument argument{words.data(), 4 * words.size()};
    const bool has_input = !words.empty();
    return parlo_handle_invoke(handle, PARLO_SCALARS(method, has_input, 0), has_input ? &argument : nullptr);
  }
};

// Buffers, their bytes, sessions, handles, mappings.
using Alive = std::array<uint64_t, 5>;
inline Alive alive() {
  const parlo_emulator_usage u = usage();
  return {u.n_allocations, u.n_bytes, u.n_sessions, u.n_handles, u.n_mappings};
}

class Emulator : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(usage().n_double_frees + usage().n_foreign_frees, 0u);
    parlo_emulator_reset();
    EXPECT_EQ(alive(), (Alive{}));
    EXPECT_EQ(open_descriptors(), n_descriptor);
  }
  void open_first() { ASSERT_EQ(first.open(), 0); }
  void open_second() {
    ASSERT_EQ(second.reserve(), 0);
    ASSERT_EQ(second.open(), 0);
  }

  const size_t n_descriptor = open_descriptors();
  Session first, second;
};

}  // namespace test

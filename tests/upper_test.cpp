// Runtime, registry and version of the upper interface: statuses and lines, and the order of the checks.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include "tests/upper.h"

namespace {

bool ranges_cannot_be_kept = false;

}  // namespace

// Stands before the C library's for this program and the libraries it loads.
extern "C" void* mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
  if (ranges_cannot_be_kept && protection == PROT_NONE) return MAP_FAILED;
  return reinterpret_cast<void*>(syscall(SYS_mmap, address, size, protection, flags, fd, offset));
}

namespace {

using test::not_shared;

char text[64];

class Upper : public test::UpperTest {
 protected:
  static void reinitialise(auto change) {
    test::configure(change);
    ASSERT_EQ(morun_npu_finalize(3) | morun_npu_initialize(3), 0);
  }
};

TEST_F(Upper, InitialisationReservesTheFixedSizesAndCallsBeforeItAreRefused) {
  EXPECT_EQ((std::array{context->output_matrix_size_max, context->n_row_max, context->input_matrix_size_max}),
            (std::array<uint64_t, 3>{32768000, 3200, 486592000}));
  EXPECT_TRUE(context->tessel_locked);
  tavik_context* const initialised = std::exchange(context, nullptr);
  void* pointer = text;
  const std::string domain = ": Unsupported domain 2. The only supported domains are: 3 ";
  EXPECT_OUTCOME(morun_npu_initialize(2), "57 npu_initialize" + domain);
  EXPECT_OUTCOME(morun_npu_finalize(2), "57 npu_initialize.npu_finalize" + domain);
  EXPECT_OUTCOME(morun_npu_lock_tessel(2), "57 npu_lock_tessel" + domain);
  EXPECT_OUTCOME(morun_npu_unlock_tessel(2), "57 npu_lock_tessel.npu_unlock_tessel" + domain);
  EXPECT_OUTCOME(morun_npu_finalize(3), "1 npu_initialize.npu_finalize: Err = 1");
  EXPECT_OUTCOME(morun_npu_lock_tessel(3), "1 npu_lock_tessel: Err = 1");
  EXPECT_OUTCOME(morun_npu_unlock_tessel(3), "1 npu_lock_tessel.npu_unlock_tessel: Err = 1");
  EXPECT_OUTCOME(morun_npu_alloc(8, nullptr), "10 npu_alloc: NULL ptr provided");
  EXPECT_OUTCOME(morun_npu_alloc(8, &pointer), "107 npu_alloc: MORUN is not initialized");
  EXPECT_OUTCOME(morun_npu_free(nullptr), "0");
  EXPECT_OUTCOME(morun_npu_free(text), "14 npu_alloc.npu_free: " + not_shared("addr", text));
  EXPECT_OUTCOME(morun_npu_get_version(0, nullptr), "10");
  const std::string before = "107 npu_get_version: Do not use morun_npu_get_version() before initialization";
  EXPECT_OUTCOME(morun_npu_get_version(0, text), before);
  context = initialised;
  for (const uint64_t handle : {uint64_t{0}, ~uint64_t{0}}) {
    const uint64_t valid = std::exchange(context->session_handle[0], handle);
    EXPECT_OUTCOME(morun_npu_get_version(0, text), before);
    context->session_handle[0] = valid;
  }
}

TEST_F(Upper, RegistryKnowsBuffersByTheirStartAndForgetsNone) {
  reinitialise([](auto& config) { config.session_bytes = ~uint64_t{0}; });
  EXPECT_EQ(morun_parlo_find_fd(nullptr), 0);  // the first unused entry
  void *large = nullptr, *none = text;
  ASSERT_EQ(morun_npu_alloc((uint64_t{1} << 32) + 5, &large), 0);
  const int32_t fd = morun_parlo_find_fd(large);
  EXPECT_EQ(fd, context->buffer_fd[0]);
  EXPECT_EQ(morun_map_db[fd].size, 5u);
  void* const inside = static_cast<char*>(large) + 1;
  EXPECT_OUTCOME(morun_npu_free(inside), "14 npu_alloc.npu_free: " + not_shared("addr", inside));
  EXPECT_OUTCOME(morun_npu_alloc(0, &none), "1 npu_alloc: Err = 1");
  EXPECT_EQ(none, nullptr);
  morun_map_db[1].address = morun_map_db[fd].address;  // an older entry at a lower descriptor hides the buffer
  EXPECT_OUTCOME(morun_npu_free(large), "1 npu_alloc.npu_free: Err = 1");
  morun_map_db[1].address = 0;
  EXPECT_OUTCOME(morun_npu_free(large), "0");
  EXPECT_OUTCOME(morun_npu_free(large), "1 npu_alloc.npu_free: Err = 1");
  reinitialise([](auto&) {});
  EXPECT_EQ(morun_parlo_find_fd(large), fd);
}

TEST_F(Upper, RegistryNeverGivesOutTheAddressOfAnOlderEntry) {
  constexpr uint64_t size = 10000;
  const auto is_empty = [](void* address) {
    constexpr int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE;
    void* const mapped = mmap(address, size, PROT_READ, flags, -1, 0);
    return mapped != MAP_FAILED && munmap(mapped, size) == 0 && mapped == address;
  };
  void *first = share(size), *second = nullptr;
  const int32_t fd = morun_parlo_find_fd(first);
  release_shared();
  EXPECT_EQ(share(size), first);  // by the same descriptor, so that the entry is written anew
  release_shared();
  const int file = fcntl(0, F_DUPFD, fd);
  ASSERT_EQ(file, fd);

  ranges_cannot_be_kept = true;
  EXPECT_OUTCOME(morun_npu_alloc(size, &second),
                 "1 npu_alloc: Every address that the platform gives belonged to a freed buffer");
  EXPECT_EQ(second, nullptr);
  ranges_cannot_be_kept = false;
  EXPECT_EQ(context->n_buffers, 0u);

  parlo_emulator_fail(PARLO_EMULATOR_MUNMAP, -1, 1, 0x77, EIO);  // the buffer at the old address cannot be given back
  EXPECT_OUTCOME(morun_npu_alloc(size, &second), "1 npu_alloc: Err = 1");
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(tavik_buffer_free(context, context->buffer_fd[0]), 0);

  second = share(size);
  EXPECT_NE(second, first);
  EXPECT_EQ(morun_parlo_find_fd(first), fd);
  EXPECT_EQ(morun_parlo_find_fd(second), context->buffer_fd[0]);
  EXPECT_FALSE(is_empty(first));
  release_shared();
  close(file);
  share(size);
  EXPECT_EQ(context->buffer_fd[0], fd);
  EXPECT_TRUE(is_empty(first));  // its entry is another buffer's
}

TEST_F(Upper, VersionOfTheModuleIsComparedAndItsArchitectureToo) {
  struct Case {
    uint32_t major, minor, patch, compiled_for, runtime;
    const char* label;
    std::string module, outcome = "";
  };
  const Case cases[] = {{1, 0, 0, 79, 0x79, "beta1", "1_0_0_beta1_VEYRA_V79", "0"},
                        {1, 0, 0, 79, 0xffffff79, "beta1-rc", "1_0_0_beta1-rc_VEYRA_V79", "0"},
                        {1, 0, 1, 75, 0x79, "beta1", "1_0_1_beta1_VEYRA_V75"},
                        {1, 2, 0, 75, 0x79, "beta1", "1_2_0_beta1_VEYRA_V75"},
                        {2, 0, 0, 75, 0x79, "beta1", "2_0_0_beta1_VEYRA_V75"},
                        {1, 0, 0, 75, 0x79, "beta", "1_0_0_beta_VEYRA_V75"},
                        {1, 0, 0, 75, 0x79, "beta1", "1_0_0_beta1_VEYRA_V75",
                         "0 | [MORUN][WARNING] func = morun_npu_get_version: Arch mismatch. Runtime NPU = V79, Loaded "
                         "library compiled for V75\n"}};
  for (const Case& c : cases) {
    reinitialise([&](auto& config) {
      config.module_major = c.major, config.module_minor = c.minor, config.module_patch = c.patch;
      config.module_architecture = c.compiled_for, config.architecture = c.runtime;
      strcpy(config.module_label, c.label);
    });
    const std::string own = "1_0_0_beta1_VEYRA_V" + std::to_string(c.compiled_for),
                      versions = own + "\nTAVIK Version: " + c.module + "\n";
    EXPECT_OUTCOME(
        morun_npu_get_version(99, text),
        c.outcome.empty() ? "404 npu_get_version: Versions mismatch:\nMORUN Version: " + versions : c.outcome);
    EXPECT_EQ(text + std::string(" ") + npu_version + " " + version_prerel, own + " " + c.module + " " + c.label);
  }
  parlo_emulator_call query = {};
  parlo_emulator_trace_get(parlo_emulator_trace_length() - 1, &query);
  EXPECT_EQ((std::array{query.arguments[0], query.arguments[1], query.arguments[2]}),
            (std::array<uint64_t, 3>{2, 3, 6}));
}

}  // namespace

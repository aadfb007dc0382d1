// What starting reserves, and contexts side by side. What each call does and says stands in the transcripts.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "include/morun.h"
#include "platform/parlo.h"
#include "tests/support.h"

namespace {

using test::last_error;

class Lifecycle : public test::PlatformTest {};

TEST_F(Lifecycle, ReservesMemoryWithoutTouchingIt) {
  tavik_options* options = nullptr;
  ASSERT_EQ(tavik_options_alloc(&options), TAVIK_SUCCESS);
  tavik_context* const context = initialise(*options);
  for (const int32_t fd : {context->A0_fd, context->A1_fd, context->A2_fd, context->X_fd}) {
    struct stat file;
    ASSERT_EQ(fstat(fd, &file), 0);
    EXPECT_GT(file.st_size, (1 << 26) - 1);
    EXPECT_EQ(file.st_blocks, 0);
  }
  clean_up(context);
  tavik_options_free(options);
}

// A result row of n_inner times X where all weights are 1, which lie in any layout alike.
constexpr int32_t n_inner = 64, n_col = 32;
class Weights {
 public:
  explicit Weights(tavik_context* context) : context_(context) {
    void* pointer = nullptr;
    EXPECT_EQ(tavik_buffer_alloc(context, 2 * n_inner * n_col, &pointer, &fd_), TAVIK_SUCCESS) << last_error();
    std::fill_n(static_cast<uint16_t*>(pointer), n_inner * n_col, uint16_t{0x3c00});
  }
  ~Weights() { EXPECT_EQ(tavik_buffer_free(context_, fd_), TAVIK_SUCCESS) << last_error(); }
  // The product of one row of `x`, or the status that it fails with, negative.
  float multiply(float x) const {
    const std::vector<float> X(n_inner, x);
    std::vector<float> A(n_col);
    const uint32_t status = tavik_npu_mm_f32_rm_f32_rm_f16_wh(context_, 1, n_col, n_inner, A.data(), X.data(),
                                                              static_cast<uint32_t>(fd_), 0);
    return status == 0 && A[0] == A[n_col - 1] ? A[0] : -static_cast<float>(status);
  }

 private:
  tavik_context* context_;
  int32_t fd_ = -1;
};

class Contexts : public test::PlatformTest {};

TEST_F(Contexts, AndBothInterfacesWorkSideBySide) {
  tavik_context* const one = initialise();
  tavik_context* const two = initialise();
  ASSERT_EQ(morun_npu_initialize(MORUN_DOMAIN_NPU0), 0);
  void* W = nullptr;
  ASSERT_EQ(morun_npu_alloc(2 * n_inner * n_col, &W), 0);
  std::fill_n(static_cast<uint16_t*>(W), n_inner * n_col, uint16_t{0x3c00});
  {
    const Weights w1(one), w2(two);
    for (float x = 1; x < 4; ++x) {
      EXPECT_EQ(w1.multiply(x), 64 * x);
      EXPECT_EQ(w2.multiply(x + 1), 64 * (x + 1));
      std::vector<float> X(32 * n_inner, x), A(32 * n_col);
      EXPECT_EQ(morun_npu_mm_f32f16_f32(MORUN_DOMAIN_NPU0, 32, n_col, n_inner, A.data(), X.data(),
                                        static_cast<const uint16_t*>(W)),
                0);
      EXPECT_EQ(A, std::vector<float>(32 * n_col, 64 * x));
    }
    EXPECT_TRUE(one->tessel_locked && two->tessel_locked);
  }
  clean_up(one);
  {
    const Weights w(two);
    EXPECT_EQ(w.multiply(3), 192);
  }
  EXPECT_EQ(morun_npu_free(W), 0);
  EXPECT_EQ(morun_npu_finalize(MORUN_DOMAIN_NPU0), 0);
  clean_up(two);
}

TEST_F(Contexts, AForkedChildNeedsOneOfItsOwn) {
  tavik_context* const context = initialise();
  {
    const Weights w(context);
    EXPECT_EQ(w.multiply(1), 64);
    int to_child[2], status = -1;
    ASSERT_EQ(pipe(to_child), 0);
    const pid_t child = fork();
    if (child == 0) {
      char go;
      close(to_child[1]);
      for (int i = 0; i < 100; ++i)
        if (w.multiply(5) != -1) _exit(1);
      if (tavik_cleanup(context) != TAVIK_ERROR_FAILURE) _exit(2);
      const tavik_options options = small_options();
      tavik_context* own = nullptr;
      if (tavik_init(&options, &own) != TAVIK_SUCCESS) _exit(3);
      if (Weights(own).multiply(7) != 448) _exit(4);
      if (tavik_cleanup(own) != TAVIK_SUCCESS) _exit(6);
      _exit(read(to_child[0], &go, 1) == 0 ? 0 : 5);
    }
    close(to_child[0]);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(w.multiply(2), 128);
    close(to_child[1]);
    waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
  }
  clean_up(context);
}

}  // namespace

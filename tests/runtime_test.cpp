// The error record, and what starting reserves. All else that the runtime does stands in the transcripts.
#include <sys/stat.h>

#include <thread>

#include "tests/support.h"

namespace {

using test::last_error;

TEST(ErrorRecord, CutsItsTextsAndOutlivesSuccess) {
  const std::string text(200, 'x');
  tavik_set_error(3, text.c_str(), text.c_str(), 7, "%s", text.c_str());
  void* pointer = nullptr;
  EXPECT_EQ(tavik_malloc(&pointer, 0), TAVIK_SUCCESS);
  const std::string cut(127, 'x');
  EXPECT_EQ(last_error(), "3 " + cut + " " + cut + " 7: " + cut);
}

TEST(ErrorRecord, BelongsToItsThread) {
  tavik_set_error(1, "here", "file", 1, "message");
  std::thread([] {
    EXPECT_EQ(last_error(), "0   0: ");
    tavik_set_error(2, "there", "file", 1, "message");
  }).join();
  EXPECT_EQ(last_error(), "1 here file 1: message");
}

TEST(ErrorRecord, PrintsTwoLines) {
  const tavik_error error = {3, "failed to allocate 100 bytes", "tavik_malloc", "source/host/util", 35};
  testing::internal::CaptureStderr();
  tavik_error_print(&error);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[Tavik] error 3 (tavik_malloc, source/host/util, line 35):\n          failed to allocate 100 bytes\n");
}

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

}  // namespace

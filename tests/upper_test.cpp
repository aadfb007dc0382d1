// The upper interface's registry where the platform gives a freed buffer's address again. All else stands in the
// transcripts.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include "tests/upper.h"

namespace {

// What a request for an empty range of addresses gets, and the last range that was granted.
enum class Keeping { granted, refused, elsewhere } keeping = Keeping::granted;
void* last_kept = nullptr;

// The address at which new shared memory is mapped; nullptr leaves the choice to the system.
void* shared_address = nullptr;

}  // namespace

// Replaces the function of the C library for this program and for the libraries that it loads.
extern "C" void* mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
  if ((flags & MAP_SHARED) != 0 && address == nullptr) address = shared_address;
  const bool keeps = protection == PROT_NONE && keeping != Keeping::granted;
  if (keeps && keeping == Keeping::refused) return MAP_FAILED;
  if (keeps) address = static_cast<char*>(address) - (int64_t{1} << 36);
  auto* const mapped = reinterpret_cast<void*>(syscall(SYS_mmap, address, size, protection, flags, fd, offset));
  if (keeps) last_kept = mapped;
  return mapped;
}

namespace {

using Upper = test::UpperTest;

TEST_F(Upper, RegistryNeverGivesOutTheAddressOfAnOlderEntry) {
  constexpr uint64_t size = 10000;
  const auto is_empty = [](void* address) {
    constexpr int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE;
    void* const mapped = mmap(address, size, PROT_READ, flags, -1, 0);
    return mapped != MAP_FAILED && munmap(mapped, size) == 0 && mapped == address;
  };
  void *first = share(size), *second = nullptr;
  shared_address = first;
  const int32_t fd = morun_parlo_find_fd(first);
  release_shared();
  EXPECT_EQ(share(size), first);  // by the same descriptor, so that the entry is written anew
  release_shared();
  ASSERT_EQ(fcntl(0, F_DUPFD, fd), fd);

  parlo_emulator_fail(PARLO_EMULATOR_MUNMAP, -1, 1, 0x77, EIO);  // the buffer at the old address cannot be given back
  EXPECT_EQ(morun_npu_alloc(size, &second), 1);
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(tavik_buffer_free(context, context->buffer_fd[0]), 0);

  second = share(size);
  EXPECT_NE(second, first);
  EXPECT_EQ(morun_parlo_find_fd(first), fd);
  EXPECT_EQ(morun_parlo_find_fd(second), context->buffer_fd[0]);
  EXPECT_FALSE(is_empty(first));
  release_shared();
  close(fd);
  share(size);
  EXPECT_EQ(context->buffer_fd[0], fd);
  EXPECT_TRUE(is_empty(first));  // its entry is another buffer's

  // Where the range cannot be kept there is no buffer, and whoever comes there stays when the entry is written anew.
  release_shared();
  EXPECT_EQ(share(size), first);
  release_shared();
  ASSERT_EQ(fcntl(0, F_DUPFD, fd), fd);
  for (const Keeping outcome : {Keeping::refused, Keeping::elsewhere}) {
    keeping = outcome;
    testing::internal::CaptureStderr();
    EXPECT_EQ(morun_npu_alloc(size, &second), 1);
    EXPECT_TRUE(testing::internal::GetCapturedStderr().ends_with(
        ": Every address that the platform gives belonged to a freed buffer\n"));
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(context->n_buffers, 0u);
  }
  keeping = Keeping::granted;
  EXPECT_TRUE(is_empty(last_kept));
  ASSERT_EQ(mmap(first, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0), first);
  close(fd);
  share(size);
  EXPECT_EQ(context->buffer_fd[0], fd);
  EXPECT_FALSE(is_empty(first));
  munmap(first, size);
  shared_address = nullptr;
}

}  // namespace

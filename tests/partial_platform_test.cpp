// The library on a platform that has some of the optional entries, as this program defines them: a debug log without its
// configuration, a list of domains that tells their number in its first answer only, the answer 2 to every question, and
// shared memory that another program has used before.
#define PARLO_IMPLEMENTATION
#include <dlfcn.h>

#include <cstdarg>
#include <cstring>

#include "include/dsp_capability.h"
#include "platform/parlo.h"
#include "tests/support.h"

namespace {

std::string logged;

}  // namespace

void platform_debug_log(int level, const char* file, int line, const char* format, ...) {
  char text[256];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  logged += std::to_string(level) + " " + file + ":" + std::to_string(line) + " " + text;
}

int parlo_system_request(parlo_system_domains* request) {
  if (request->capacity == 0) request->count = 2;
  for (uint32_t i = 0; i < request->capacity; ++i) request->domains[i].id = 7 + i;
  return KESO_SUCCESS;
}

void* parlo_mem_alloc(int heap_id, uint32_t flags, int32_t size) {
  static const auto emulated = reinterpret_cast<decltype(&parlo_mem_alloc)>(dlsym(RTLD_NEXT, "parlo_mem_alloc"));
  void* const memory = emulated(heap_id, flags, size);
  return memory == nullptr ? nullptr : memset(memory, 0xa5, static_cast<size_t>(size));
}

int parlo_handle_control(uint32_t, void* record, uint32_t) {
  static_cast<parlo_capability*>(record)->capability = 2;
  return KESO_SUCCESS;
}

namespace {

class PartialPlatform : public test::PlatformTest {};

TEST_F(PartialPlatform, IsGivenTheFailuresToLog) {
  ASSERT_EQ(dlsym(RTLD_DEFAULT, "platform_debug_log_configure"), nullptr);
  EXPECT_EQ(tavik_veyra_clear_cache(0x1234), PARLO_EMULATOR_BAD_HANDLE);
  EXPECT_EQ(logged,
            "3 build/tavik_stub:300 ERROR 0x207: handle=0x1234, scalar=0x2000000, method ID=2: _stub_method failed\n");
}

TEST_F(PartialPlatform, NeedsToCountItsDomainsOnce) {
  int count = 0;
  parlo_domain* domains = nullptr;
  ASSERT_EQ(get_domains_info(nullptr, &count, &domains), 0);
  ASSERT_EQ(count, 2);
  EXPECT_EQ(domains[0].id + domains[1].id, 15u);
  free(domains);
}

TEST_F(PartialPlatform, SaysYesByTheAnswer1Alone) {
  for (const auto has : {is_unsignedpd_supported, is_async_parlo_supported, is_status_notification_supported})
    EXPECT_FALSE(has(3));
}

TEST_F(PartialPlatform, HasItsMemoryClearedForCallersThatAskForZeros) {
  void* memory = nullptr;
  ASSERT_EQ(tavik_rpcmem_alloc_zero(&memory, 4096), 0);
  EXPECT_EQ(std::string(static_cast<char*>(memory), 4096), std::string(4096, '\0'));
  tavik_rpcmem_free(memory);
}

}  // namespace

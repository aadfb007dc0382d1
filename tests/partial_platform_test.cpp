// The library on a platform that has some of the optional entries, as this program defines them: a debug log without
// its configuration, and a list of domains that tells their number in its first answer only.
#define PARLO_IMPLEMENTATION
#include <dlfcn.h>

#include <cstdarg>

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

}  // namespace

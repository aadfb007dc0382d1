// The library on a platform that lacks every optional entry: it loads, works, and says what it cannot ask.
#include "include/dsp_capability.h"
#include "platform/parlo.h"
#include "tests/support.h"

namespace {

class MinimalPlatform : public test::PlatformTest {};

TEST_F(MinimalPlatform, RunsFromEndToEndWithoutOptionalEntries) {
  ASSERT_TRUE(platform_debug_log == nullptr && parlo_handle_control == nullptr);
  testing::internal::CaptureStderr();
  EXPECT_EQ(tavik_hello_veyra(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Hello Tavik [veyra says answer to life, universe and everything is 42]\n");
  EXPECT_EQ(tavik_veyra_clear_cache(0x1234), PARLO_EMULATOR_BAD_HANDLE);  // nowhere to log it
}

TEST_F(MinimalPlatform, CapabilityQueriesSayThatTheInterfaceIsMissing) {
  const std::string missing = "remote_dsp_capability interface is not supported on this device\n";
  uint32_t answer = 9;
  int domain = 9, count = 9;
  parlo_domain* domains = nullptr;
  struct Case {
    std::function<int()> query;
    int result;
    std::string printed;
  };
  const Case cases[] = {
      {[&] { return get_dsp_support(&domain); }, 108, missing},
      {[&] { return get_vtcm_info(7, &answer, VTCM_PAGE); }, 108, missing},
      {[&] { return get_tessel_support_info(7, &answer, TESSEL_SUPPORT_DEPTH); }, 108, missing},
      {[&] { return get_veyra_arch_ver(3, &answer); }, 108, missing},
      {[&] { return get_ondra_support_info(7, &answer, ONDRA_SUPPORT_128B); }, 108, missing},
      {[&] { return int{is_unsignedpd_supported(3)}; }, 0,
       "remote_dsp_capability interface is not supported on this device. Falling back to signed pd.\n"},
      {[&] { return int{is_async_parlo_supported(7)}; }, 0, missing},
      {[&] { return int{is_status_notification_supported(3)}; }, 0, missing},
      {[&] { return get_domains_info(nullptr, &count, &domains); }, 20, ""},
  };
  for (const Case& c : cases) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(c.query(), c.result);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed);
  }
  EXPECT_EQ(domain, 3);
  EXPECT_EQ(answer, 0u);
  EXPECT_EQ(count, 9);
}

}  // namespace

// The client stub, the interface description and the capability queries.
#include "include/dsp_capability.h"
#include "platform/parlo.h"
#include "tests/support.h"

namespace {

using test::last_invocation;

class Remote : public test::PlatformTest {};

parlo_emulator_call last_call() {
  parlo_emulator_call call = {};
  parlo_emulator_trace_get(parlo_emulator_trace_length() - 1, &call);
  return call;
}

// A failing method leaves one line in the debug log, which names the routine that its shape is marshalled by.
TEST_F(Remote, MethodsPackTheirScalarsAndLogTheirFailures) {
  const uint64_t handle = 0x1234;  // of nothing: every call fails and is logged
  struct Case {
    int method;
    uint32_t scalars;
    size_t n_arguments;
    const char* routine;
    uint32_t line;
    std::function<int()> call;
  };
  using U = uint32_t;
  const Case cases[] = {
      {2, 0x02000000, 0, "_stub_method", 300, [&] { return tavik_veyra_clear_cache(handle); }},
      {3, 0x03010000, 4, "_stub_method_1", 320, [&] { return tavik_veyra_mmap_get_AX(handle, 1, 2, 3, 4); }},
      {5, 0x05000000, 0, "_stub_method", 300, [&] { return tavik_veyra_ressource_acquire(handle); }},
      {9, 0x09010000, 9, "_stub_method_2", 365, [&] { return tavik_veyra_mm_f16(handle, 1, 2, 3, 4, 5, 6, 7, 8, 9); }},
      {15, 0x0f010000, 5, "_stub_method_3", 386, [&] { return tavik_veyra_1mm_a8w8(handle, 1, 2, 3, 4, 5); }},
      {20, 0x14010000, 7, "_stub_method_4", 409, [&] { return tavik_veyra_2mm_a8w4(handle, 1, 2, 3, 4, 5, 6, 7); }},
      {12, 0x0c010000, 10, "_stub_method_5", 435,
       [&] { return tavik_veyra_3mm_f16(handle, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10); }},
      {13, 0x0d010000, 2, "_stub_method_6", 453, [&] { return tavik_veyra_test(handle, 1, 2); }},
      {22, 0x16010200, 1, "_stub_method_7", 521,
       [&] {
         U number = 5;
         char label[1] = {'x'};
         const int status = tavik_veyra_get_version(handle, &number, &number, &number, label, 1, &number);
         EXPECT_EQ(number, 5u);
         EXPECT_EQ(label[0], 'x');
         return status;
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.method);
    parlo_emulator_trace_clear();
    EXPECT_EQ(c.call(), PARLO_EMULATOR_BAD_HANDLE);
    parlo_emulator_call invocation = {};
    ASSERT_EQ(parlo_emulator_trace_get(0, &invocation), 0);
    EXPECT_EQ(invocation.method, c.method);
    EXPECT_EQ(invocation.arguments[0], handle);
    EXPECT_EQ(invocation.arguments[1], c.scalars);
    const std::vector<uint64_t> arguments = last_invocation();
    ASSERT_EQ(arguments.size(), c.n_arguments);
    for (size_t i = 0; i < c.n_arguments; ++i) EXPECT_EQ(arguments[i], i + 1);

    char line[128];
    snprintf(line, sizeof line, "ERROR 0x207: handle=0x1234, scalar=0x%x, method ID=%d: %s failed\n", c.scalars,
             c.method, c.routine);
    EXPECT_EQ(last_call().operation, PARLO_EMULATOR_DEBUG_LOG);
    EXPECT_EQ(last_call().arguments[1], c.line);
    EXPECT_STREQ(last_call().text, line);
  }
}

TEST_F(Remote, VersionIsTerminatedWithinItsBuffer) {
  tavik_context* const context = initialise();
  const uint64_t handle = context->session_handle[0];
  for (const uint32_t length : {0u, 1u, 4u, 32u}) {
    std::string label(33, '?');
    uint32_t major = 9, minor = 9, patch = 9, veyra = 9;
    ASSERT_EQ(tavik_veyra_get_version(handle, &major, &minor, &patch, label.data(), length, &veyra), 0);
    EXPECT_EQ((std::vector{major, minor, patch, veyra}), (std::vector<uint32_t>{1, 0, 0, 73}));
    EXPECT_EQ(label[length], '?');
    if (length != 0) {
      EXPECT_EQ(std::string(label.c_str()), std::string("beta1").substr(0, length - 1));
    }
  }
  clean_up(context);
}

TEST(InterfaceDescription, ListsEachMethodWithItsParameters) {
  ASSERT_EQ(tavik_slim.n_methods, 23u);
  EXPECT_EQ(tavik_slim.n_interface_ids, 0u);
  EXPECT_EQ(tavik_slim.interface_ids, nullptr);
  struct Case {
    int method;
    const char* names;
    uint32_t counts, in, out, max_arguments, in_alignment, out_alignment;
  };
  const Case cases[] = {
      {0, "open uri h", 0x20001, 4, 0, 2, 4, 1},
      {1, "close h", 0x10, 0, 0, 1, 1, 0},
      {5, "veyra_ressource_acquire", 0, 0, 0, 0, 0, 0},
      {3, "veyra_mmap_get_AX A0_fd A1_fd A2_fd X_fd", 0x10000, 16, 0, 4, 4, 0},
      {20, "veyra_2mm_a8w4 n_row n_col n_inner UW_fd FW_fd UW_offset FW_offset", 0x10000, 28, 0, 7, 4, 0},
      {22, "veyra_get_version major minor patch version_prerel veyra_version", 0x10200, 4, 16, 7, 4, 4},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.names);
    const tavik_slim_method& method = tavik_slim.methods[c.method];
    const uint16_t* const names = tavik_slim.names + tavik_slim.method_names[c.method];
    std::string listed = tavik_slim.characters + names[0];
    for (int i = 1; i <= method.n_parameters; ++i) listed.append(" ").append(tavik_slim.characters + names[i]);
    EXPECT_EQ(listed, c.names);
    EXPECT_EQ(method.buffer_counts, c.counts);
    EXPECT_EQ(method.primitive_in_size, c.in);
    EXPECT_EQ(method.primitive_out_size, c.out);
    EXPECT_EQ(method.max_arguments, c.max_arguments);
    EXPECT_EQ(method.primitive_in_alignment, c.in_alignment);
    EXPECT_EQ(method.primitive_out_alignment, c.out_alignment);
  }
  const tavik_slim_parameter& label = *tavik_slim.methods[22].parameters[3];
  EXPECT_EQ(label.type, TAVIK_SLIM_CHARACTERS);
  EXPECT_EQ(label.size, 16u);
  EXPECT_EQ(label.direction, TAVIK_SLIM_OUT);
}

class Capabilities : public test::PlatformTest {
 protected:
  // What `query` prints to standard output; `result` receives what it returns.
  static std::string output_of(const std::function<int()>& query, int* result) {
    testing::internal::CaptureStdout();
    *result = query();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
  }
};

uint32_t answer;
int domain_answer;
int count;
parlo_domain* domains;

constexpr char unsupported_api[] =
    "\nParlo Capability API is not supported on this device\nRunning the usecase without checking the capability\n";

TEST_F(Capabilities, AnswerWhatThePlatformSays) {
  int result = -1;
  EXPECT_EQ(output_of([] { return get_veyra_arch_ver(3, &answer); }, &result), "");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(answer, 0x73u);
  EXPECT_EQ(get_dsp_support(&domain_answer), 0);
  EXPECT_EQ(domain_answer, 3);
  EXPECT_TRUE(get_unsignedpd_support());
  EXPECT_EQ(get_effective_domain_id("cdsp", 0, &domain_answer), 0);
  EXPECT_EQ(domain_answer, 3);
  EXPECT_STREQ(get_domain(4)->uri_suffix, "&_dom=cdsp1");
  EXPECT_EQ(get_domain(5), nullptr);
  EXPECT_TRUE(is_valid_domain_id(2, false));
  EXPECT_FALSE(is_valid_domain_id(2, true));
  ASSERT_EQ(get_domains_info(nullptr, &count, &domains), 0);
  EXPECT_EQ(count, 5);
  free(domains);
}

TEST_F(Capabilities, RefusalsAndFailuresPrintTheirMessages) {
  struct Case {
    int platform_status;  // injected; 0: none
    std::function<int()> query;
    int result;
    const char* printed;
  };
  const auto vtcm = [](int domain, uint32_t attribute) {
    return [=] { return get_vtcm_info(domain, &answer, attribute); };
  };
  const auto tessel = [](int domain, uint32_t attribute) {
    return [=] { return get_tessel_support_info(domain, &answer, attribute); };
  };
  const auto ondra = [](int domain, uint32_t attribute) {
    return [=] { return get_ondra_support_info(domain, &answer, attribute); };
  };
  const Case cases[] = {
      {0, vtcm(3, 3), 14, "Unsupported attr. Only VTCM_PAGE and VTCM_COUNT supported\n"},
      {0, vtcm(1, VTCM_COUNT), 20, "Unsupported domain 1\n"},
      {0x5, vtcm(3, VTCM_PAGE), 5, "\nget_vtcm_info failed with Error 0x5\n"},
      {0x16c, vtcm(3, VTCM_PAGE), 0, unsupported_api},
      {0, tessel(3, 6), 14, "Unsupported attr. Only TESSEL_SUPPORT_SPATIAL and TESSEL_SUPPORT_DEPTH supported\n"},
      {0, tessel(0, TESSEL_SUPPORT_SPATIAL), 20, "TESSEL support is not there for domain 0\n"},
      {0x5, tessel(3, TESSEL_SUPPORT_DEPTH), 5, "\nget_tessel_support_info failed with Error 0x5\n"},
      {0, ondra(3, ONDRA_SUPPORT_64B), 14,
       "Latest targets have 128 byte ONDRA register, use ONDRA_SUPPORT_128B instead of ONDRA_SUPPORT_64B\n"},
      {0, ondra(3, 4), 14, "Unsupported attr. Only ONDRA_SUPPORT_128B supported\n"},
      {0, ondra(0, ONDRA_SUPPORT_128B), 20, "ONDRA support is not available on domain 0\n"},
      {0x5, [] { return get_veyra_arch_ver(3, &answer); }, 5, "\nget_veyra_arch_ver failed with Error 0x5\n"},
      {0x6c, [] { return get_veyra_arch_ver(3, &answer); }, 0, unsupported_api},
      {0x5, [] { return int{get_unsignedpd_support()}; }, 0,
       "\nERROR 0x5: Parlo Capability API failed. Falling back to signed pd."},
      {0x6c, [] { return int{get_unsignedpd_support()}; }, 0,
       "\nParlo Capability API is not supported on this device. Falling back to signed pd.\n"},
      {0, [] { return int{is_async_parlo_supported(0)}; }, 0, "Async parlo is not supported on domain 0\n"},
      {0x5, [] { return int{is_async_parlo_supported(3)}; }, 0, "\nis_async_parlo_supported failed with Error 0x5\n"},
      {0x6c, [] { return int{is_status_notification_supported(3)}; }, 0, unsupported_api},
      {0x5, [] { return get_dsp_support(&domain_answer); }, 5, "\nget_dsp_support failed with Error 0x5\n"},
      {0x6c, [] { return get_dsp_support(&domain_answer); }, 0x6c,
       "\nParlo Capability API is not supported on this device\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.printed);
    answer = 99;
    if (c.platform_status != 0) parlo_emulator_fail(PARLO_EMULATOR_HANDLE_CONTROL, -1, 0, c.platform_status, 0);
    int result = -1;
    EXPECT_EQ(output_of(c.query, &result), c.printed);
    EXPECT_EQ(result, c.result);
    EXPECT_TRUE(answer == 0 || answer == 99);
    parlo_emulator_clear_fault();
  }

  int result = 0;
  parlo_emulator_fail(PARLO_EMULATOR_SYSTEM_REQUEST, -1, 2, 7, 0);
  EXPECT_EQ(output_of([] { return get_domains_info("TOSKA", &count, &domains); }, &result),
            "Failure in remote_system_request call: 7.\n");
  EXPECT_EQ(result, 7);
  parlo_emulator_fail(PARLO_EMULATOR_SESSION_CONTROL, -1, 1, 0x33, 0);
  EXPECT_EQ(output_of([] { return get_effective_domain_id("cdsp", 4, &domain_answer); }, &result),
            "Error 0x33: failed to get effective domain id for cdsp, session id 4\n");
  EXPECT_EQ(result, 0x33);
}

}  // namespace

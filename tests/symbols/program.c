/* A program that calls both interfaces and checks what it gets, and either reads the library's state (READS_STATE) or has
 * namesakes of what the library exports (namesakes.c). BY_DLOPEN: it loads the library itself. C, also valid C++. */
#include <dlfcn.h>
#include <morun.h>
#include <stdio.h>
#include <string.h>
#include <tavik.h>
#ifdef READS_STATE
#  include <dsp_capability.h>
#  include <morun_state.h>
#endif

#ifdef BY_DLOPEN
static void* library;
#  define CALL(name) ((__typeof__(&name))dlsym(library, #  name))
#else
#  define CALL(name) name
#endif

/* To stdout, whose address such code may need as directly as the library's variables. */
#define REQUIRE(condition)                                                                      \
  do {                                                                                          \
    if (!(condition)) return fprintf(stdout, "FAILED: line %d: %s\n", __LINE__, #condition), 1; \
  } while (0)

#ifdef __cplusplus
extern "C"
#endif
    int
    touched(void);

enum { N = 32 };
static float X[N * N], A[N * N];
static uint8_t X_u8[64 * N];
static int8_t W_i8[N * N];
static int32_t A_i32[64 * N];
static uint16_t ones[N * N];
static float sums[5 * N];

static int multiply(void) {
  void* W = NULL;
  REQUIRE(CALL(morun_npu_alloc)(2 * N * N, &W) == 0);
  for (int i = 0; i < N * N; ++i) X[i] = 1, ((uint16_t*)W)[i] = 0x3c00, W_i8[i] = 2;
  memset(X_u8, 3, sizeof X_u8);
  REQUIRE(CALL(morun_npu_mm_f32f16_f32)(MORUN_DOMAIN_NPU0, N, N, N, A, X, (uint16_t*)W) == 0);
  for (int i = 0; i < N * N; ++i) REQUIRE(A[i] == (float)N);
  REQUIRE(CALL(morun_npu_mm_u8i8_i32)(MORUN_DOMAIN_NPU0, 64, N, N, A_i32, X_u8, W_i8) == 0);
  for (int i = 0; i < 64 * N; ++i) REQUIRE(A_i32[i] == 3 * 2 * N);
#ifdef READS_STATE
  const int32_t fd = CALL(morun_parlo_find_fd)(W);
  REQUIRE(fd >= 0 && morun_map_db[fd].address == (uintptr_t)W && morun_map_db[fd].size == 2 * N * N);
#endif
  REQUIRE(CALL(morun_npu_free)(W) == 0);
  return 0;
}

/* The reference product on the host, with whole blocks and with edges. */
static int multiply_on_host(void) {
  tavik_options* options = NULL;
  tavik_context* own_context = NULL;
  REQUIRE(CALL(tavik_options_alloc)(&options) == 0 && CALL(tavik_init)(options, &own_context) == 0);
  for (int i = 0; i < N * N; ++i) ones[i] = 0x3c00;
  REQUIRE(CALL(tavik_cpu_mm_fp32_rm_fp16_rm_fp16_zb)(own_context, 5, N, N, sums, ones, ones) == 0);
  for (int i = 0; i < 5 * N; ++i) REQUIRE(sums[i] == (float)N);
  REQUIRE(CALL(tavik_cleanup)(own_context) == 0);
  CALL(tavik_options_free)(options);
  return 0;
}

static int run(void) {
  char version[64];
  if (multiply_on_host() != 0) return 1;
  REQUIRE(CALL(morun_npu_initialize)(MORUN_DOMAIN_NPU0) == 0);
#ifdef READS_STATE
  REQUIRE(context != NULL && context->n_sessions == 1 && context->tessel_locked);
#endif
  REQUIRE(CALL(morun_npu_get_version)(MORUN_DOMAIN_NPU0, version) == 0);
#ifdef READS_STATE
  REQUIRE(strcmp(npu_version, version) == 0 && strcmp(version_prerel, MORUN_VERSION_PRERELEASE) == 0);
  REQUIRE(supported_domains[3].id == 3 && get_domain(3)->id == 3);
#endif
  if (multiply() != 0) return 1;
  REQUIRE(CALL(morun_npu_finalize)(MORUN_DOMAIN_NPU0) == 0);
  return 0;
}

int main(int argc, char** argv) {
#ifdef BY_DLOPEN
  REQUIRE(argc == 2 && (library = dlopen(argv[1], RTLD_NOW | RTLD_GLOBAL)) != NULL);
  REQUIRE(*(void**)dlsym(library, "context") == NULL);
#else
  (void)argc, (void)argv;
#endif
  if (run() != 0) return 1;
#ifndef READS_STATE
  REQUIRE(touched() == 0);
#endif
  return 0;
}

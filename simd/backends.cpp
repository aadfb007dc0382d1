#include "simd/backends.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <morun_built_backends.h>

#if defined(__x86_64__)
#  include <cpuid.h>
#elif defined(__aarch64__)
#  include <sys/auxv.h>
#endif

namespace morun::simd {
namespace {

[[maybe_unused]] bool runs_portable() {
  return true;
}

#if defined(__x86_64__)

struct Registers {
  unsigned a = 0, b = 0, c = 0, d = 0;
};
Registers cpuid(unsigned leaf) {
  Registers r;
  __get_cpuid_count(leaf, 0, &r.a, &r.b, &r.c, &r.d);
  return r;
}

// The system saves the registers whose bits of XCR0 are set.
bool saves_registers(unsigned mask) {
  constexpr unsigned osxsave = 1u << 27;
  if (!(cpuid(1).c & osxsave)) return false;
  unsigned low, high;
  asm("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
  return (low & mask) == mask;
}

bool has(unsigned bits, unsigned mask) {
  return (bits & mask) == mask;
}

// What a compiler may use for x86-64-v3.
[[maybe_unused]] bool runs_avx2() {
  constexpr unsigned fma = 1u << 12, movbe = 1u << 22, avx = 1u << 28, f16c = 1u << 29;
  constexpr unsigned bmi1 = 1u << 3, avx2 = 1u << 5, bmi2 = 1u << 8, lzcnt = 1u << 5;
  return has(cpuid(1).c, fma | movbe | avx | f16c) && has(cpuid(7).b, bmi1 | avx2 | bmi2) &&
         has(cpuid(0x80000001).c, lzcnt) && saves_registers(0x6);
}

// What a compiler may use for x86-64-v4.
[[maybe_unused]] bool runs_avx512() {
  constexpr unsigned f = 1u << 16, dq = 1u << 17, cd = 1u << 28, bw = 1u << 30, vl = 1u << 31;
  return runs_avx2() && has(cpuid(7).b, f | dq | cd | bw | vl) && saves_registers(0xe6);
}
[[maybe_unused]] bool runs_avx512_vnni() {
  constexpr unsigned vnni = 1u << 11;
  return runs_avx512() && has(cpuid(7).c, vnni);
}
[[maybe_unused]] bool runs_avx512_fp16() {
  constexpr unsigned fp16 = 1u << 23;
  return runs_avx512_vnni() && has(cpuid(7).d, fp16);
}

#elif defined(__aarch64__)

[[maybe_unused]] bool runs_neon() {
  constexpr unsigned long fphp = 1ul << 9, asimdhp = 1ul << 10;  // half-precision arithmetic, of scalars and vectors
  return (getauxval(AT_HWCAP) & (fphp | asimdhp)) == (fphp | asimdhp);
}

#endif

struct Backend {
  const char* name;
  bool (*runs)();
};
constexpr Backend built[] = {
#define MORUN_BUILT(name, ...) {#name, runs_##name},
    MORUN_BUILT_BACKENDS(MORUN_BUILT)
#undef MORUN_BUILT
};
constexpr size_t n_built = sizeof built / sizeof *built;

size_t fastest() {
  for (size_t i = n_built; i-- > 0;)
    if (built[i].runs()) return i;
  fprintf(stderr, "libmorun: this processor runs none of the vector backends of this build\n");
  abort();
}

}  // namespace

Choice choose_backend() {
  const char* const request = secure_getenv("MORUN_SIMD");
  if (!request || !*request) return {fastest(), nullptr, false};
  for (size_t i = 0; i < n_built; ++i) {
    if (strcmp(request, built[i].name) != 0) continue;
    if (built[i].runs()) return {i, nullptr, true};
    return {fastest(), request, true};
  }
  return {fastest(), request, false};
}

size_t n_built_backends() {
  return n_built;
}
const char* backend_name(size_t index) {
  return built[index].name;
}
bool processor_runs(size_t index) {
  return built[index].runs();
}

}  // namespace morun::simd

#include "source/loops.h"

#include <cstdio>

#include <morun_built_backends.h>
#include "include/morun.h"
#include "simd/backends.h"

namespace tavik {

MORUN_TABLES_OF_BACKENDS(Loops, tavik_loops, tables)

namespace {

void report(const morun::simd::Choice& choice) {
  if (!choice.request) return;
  fprintf(stderr, "libmorun: MORUN_SIMD is \"%s\", which this %s; \"%s\" is used. This build has", choice.request,
          choice.is_built ? "processor cannot run" : "build does not have", morun::simd::backend_name(choice.index));
  for (size_t i = 0; i < morun::simd::n_built_backends(); ++i) fprintf(stderr, " %s", morun::simd::backend_name(i));
  fputs(".\n", stderr);
}

}  // namespace

std::atomic<const Loops*> chosen_loops{nullptr};

// Threads that come here at the same time make the same choice. The first to store the choice reports it.
const Loops& choose_loops() {
  const morun::simd::Choice choice = morun::simd::choose_backend();
  const Loops* before = nullptr;
  if (chosen_loops.compare_exchange_strong(before, tables[choice.index], std::memory_order_acq_rel)) report(choice);
  return *tables[choice.index];
}

}  // namespace tavik

#include "simd/backends.h"
#include "source/loops.h"

// The only name that leaves a backend.
extern "C" const tavik::Loops MORUN_BACKEND_NAME(tavik_loops);
const tavik::Loops MORUN_BACKEND_NAME(tavik_loops) = {.backend = MORUN_BACKEND_TEXT,
#define TAVIK_ENTRY(result, name, parameters) .name = tavik::name,
                                                      TAVIK_LOOPS(TAVIK_ENTRY)
#undef TAVIK_ENTRY
};

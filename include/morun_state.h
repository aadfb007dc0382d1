/* libmorun, upper interface: its process-wide state, for debuggers, for tests and for programs that use both
 * interfaces. Programs may read these variables; only the library writes them. They have a header of their own
 * because `context` is a common word.
 *
 * A program that does not include this header may have a `context` of its own: the library works on variables that
 * a program cannot replace. Code that is compiled without a global offset table reads a copy of each variable
 * inside the program. In a program that is linked with libmorun.so, these copies are up to date whenever a call of
 * morun.h has returned.
 *
 * Threads: the variables change during calls of morun.h, so the thread that makes these calls reads them, or
 * another thread between two calls.
 *
 * "Kept:" marks behaviour that surprises and that callers rely on. The library keeps such behaviour on purpose.
 *
 * Plain C11, also valid C++.
 */
#ifndef MORUN_STATE_H
#define MORUN_STATE_H

#include <stdint.h>

#include "tavik.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The context of the lower interface on which all calls of morun.h work. It is NULL until a morun_npu_initialize
 * has opened the DSP.
 * Kept: morun_npu_finalize leaves the address of the freed context in the variable. */
extern tavik_context* context;

/* The registry: entry `fd` describes the buffer of morun_npu_alloc that has descriptor `fd`.
 * Kept: freeing a buffer does not clear its entry. */
typedef struct morun_map_entry {
  uint64_t address; /* of the buffer on the host; 0 in an entry that was never used */
  uint32_t size;    /* bytes that the caller asked for, the low 32 bits */
} morun_map_entry;
/* The entries, by descriptor. */
extern morun_map_entry morun_map_db[TAVIK_MAX_DESCRIPTOR + 1];

/* The DSP module's pre-release label, and the module's version as text, as the last morun_npu_get_version received
 * them. Both are NUL-terminated, and empty until then. */
extern char version_prerel[32];
extern char npu_version[128];

#ifdef __cplusplus
}
#endif
#endif

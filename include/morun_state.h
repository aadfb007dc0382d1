/* libmorun, upper interface: its process-wide state, for debuggers, tests and programs that mix both interfaces. To be
 * read freely, written by the library alone. Apart from morun.h, because one of the names is a common word.
 *
 * The library works on variables that a program cannot replace: a program that does not include this header may have its
 * own `context`. Code that is compiled without a global offset table reads a copy of each variable inside the program. A
 * program that is linked with libmorun.so finds its copies up to date whenever a call of morun.h has returned.
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

/* The context of the lower interface on which all calls of morun.h work: NULL until morun_npu_initialize succeeds in
 * tavik_init. Kept: morun_npu_finalize leaves the dead address. */
extern tavik_context* context;

/* The registry: the entry at the descriptor of a buffer describes it. Kept: never cleared. */
typedef struct morun_map_entry {
  uint64_t address; /* of the buffer on the host; 0 in an entry that was never used */
  uint32_t size;    /* bytes asked for, the low 32 bits */
} morun_map_entry;
extern morun_map_entry morun_map_db[TAVIK_MAX_DESCRIPTOR + 1];

/* What the last morun_npu_get_version learnt of the DSP module: its pre-release label and its version as text. Empty
 * before. */
extern char version_prerel[32];
extern char npu_version[128];

#ifdef __cplusplus
}
#endif
#endif

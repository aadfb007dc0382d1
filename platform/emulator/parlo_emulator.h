/* Control of the emulated platform: what a test or a tool may set, read and break. Programs that only use the platform
 * need nothing of this header; the entries exist in the emulator's libparlo.so alone.
 *
 * Environment: PARLO_TRACE=1 prints every platform call to standard error, one line a call.
 *
 * Every function may be called from any thread. Plain C11, also valid C++.
 */
#ifndef PARLO_EMULATOR_H
#define PARLO_EMULATOR_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Statuses of the emulator's own refusals, one for each cause ---- */

typedef enum parlo_emulator_status {
  PARLO_EMULATOR_BAD_ARGUMENT = 0x0e,       /* a NULL pointer, a record of the wrong size, an unknown request */
  PARLO_EMULATOR_UNSUPPORTED_DOMAIN = 0x14, /* no such domain, or none of that id is open */
  PARLO_EMULATOR_BAD_URI = 0x201,           /* open: not a URI of this platform */
  PARLO_EMULATOR_NO_SUCH_MODULE = 0x202,    /* open: another module, or another version of it */
  PARLO_EMULATOR_NO_SUCH_SESSION = 0x203,   /* a session that is not reserved */
  PARLO_EMULATOR_SESSION_OPEN = 0x204,      /* open: the session already has its module open */
  PARLO_EMULATOR_NO_MORE_SESSIONS = 0x205,  /* reserve: all sessions are taken */
  PARLO_EMULATOR_UNSIGNED_REFUSED = 0x206,  /* open: unsigned modules are not enabled in the session */
  PARLO_EMULATOR_BAD_HANDLE = 0x207,        /* not an open handle */
  PARLO_EMULATOR_BAD_SCALARS = 0x208,       /* invoke: no such method, or buffers of the wrong number or size */

  PARLO_EMULATOR_UNKNOWN_DESCRIPTOR = 0x301, /* map, unmap: no shared memory has this descriptor and address */
  PARLO_EMULATOR_WRONG_SIZE = 0x302,         /* map: not the size of the memory; unmap: not that of the mapping */
  PARLO_EMULATOR_ALREADY_MAPPED = 0x303,     /* map: the session maps it already */
  PARLO_EMULATOR_NOT_MAPPED = 0x304,         /* unmap: the session does not map it */
  PARLO_EMULATOR_ADDRESS_SPACE_FULL = 0x305, /* map: past the session's limit of bytes */

  PARLO_EMULATOR_DSP_NOT_MAPPED = 0x401,    /* a method named a descriptor that its session does not map */
  PARLO_EMULATOR_DSP_OUT_OF_RANGE = 0x402,  /* a method would have read or written past a buffer */
  PARLO_EMULATOR_DSP_MISALIGNED = 0x403,    /* an offset is not a multiple of the element size */
  PARLO_EMULATOR_DSP_BAD_DIMENSION = 0x404, /* a dimension is not a multiple of the tile */
  PARLO_EMULATOR_DSP_NO_AX = 0x405,         /* the cross-session buffers are not handed over, or handed over twice */
  PARLO_EMULATOR_DSP_NO_RESOURCE = 0x406,   /* resources not acquired */
  PARLO_EMULATOR_DSP_NOT_LOCKED = 0x407,    /* the session does not hold the matrix unit */
  PARLO_EMULATOR_DSP_BUSY = 0x408           /* another session holds the matrix unit */
} parlo_emulator_status;

/* ---- Limits and answers ---- */

typedef struct parlo_emulator_config {
  uint64_t session_bytes;    /* address space of one session; default 3 GiB */
  uint64_t allocation_bytes; /* shared memory of the process, all of it together; default no limit (all ones) */
  uint32_t n_sessions;       /* sessions that can be open at a time, the first included; default 8 */
  int32_t lowest_descriptor; /* descriptors of shared memory are the lowest free ones from here; default 0 */
  uint32_t architecture;     /* answer to PARLO_ATTRIBUTE_ARCHITECTURE; default 0x73 */
  uint32_t module_major;     /* version of the DSP module, default 1.0.0 beta1, compiled for 73 */
  uint32_t module_minor;
  uint32_t module_patch;
  uint32_t module_architecture;
  char module_label[32];
} parlo_emulator_config;

void parlo_emulator_get_config(parlo_emulator_config* config);
/* Counts for whatever is opened, mapped or allocated from now on. */
void parlo_emulator_set_config(const parlo_emulator_config* config);

/* ---- What is alive ---- */

typedef struct parlo_emulator_usage {
  uint64_t n_allocations; /* shared buffers not freed */
  uint64_t n_bytes;       /* and their bytes */
  uint64_t n_sessions;    /* sessions reserved or open, the first included once it is open */
  uint64_t n_handles;     /* handles open */
  uint64_t n_mappings;    /* mappings, all sessions together */
} parlo_emulator_usage;

void parlo_emulator_get_usage(parlo_emulator_usage* usage);

/* ---- Trace ---- */

typedef enum parlo_emulator_operation {
  PARLO_EMULATOR_HANDLE_OPEN,     /* arguments: none; text: URI; a success stores the handle as argument 0 */
  PARLO_EMULATOR_HANDLE_INVOKE,   /* handle, scalars word, then the words of the primitive input buffer */
  PARLO_EMULATOR_HANDLE_CLOSE,    /* handle */
  PARLO_EMULATOR_HANDLE_CONTROL,  /* request, domain, attribute, capability answered */
  PARLO_EMULATOR_SESSION_CONTROL, /* request, session id or domain id, its answer or the enable flag; text: the
                                      name given, or the URI answered */
  PARLO_EMULATOR_SYSTEM_REQUEST,  /* type, capacity, count answered */
  PARLO_EMULATOR_MEM_ALLOC,       /* heap id, flags, size, address */
  PARLO_EMULATOR_MEM_ALLOC2,      /* heap id, flags, size, address */
  PARLO_EMULATOR_MEM_FREE,        /* address */
  PARLO_EMULATOR_MEM_TO_FD,       /* address; the result is the descriptor */
  PARLO_EMULATOR_MMAP,            /* domain, descriptor, address, offset, length, flags */
  PARLO_EMULATOR_MUNMAP,          /* domain, descriptor, address, length */
  PARLO_EMULATOR_DEBUG_LOG,       /* level, line; text: the line written */
  PARLO_EMULATOR_N_OPERATIONS,
  PARLO_EMULATOR_ANY_OPERATION = -1 /* for faults: whichever operation that can fail */
} parlo_emulator_operation;

#define PARLO_EMULATOR_MAX_ARGUMENTS 12
#define PARLO_EMULATOR_TRACE_CAPACITY 65536 /* older calls are counted but no longer there to be read */

typedef struct parlo_emulator_call {
  int32_t operation;    /* parlo_emulator_operation */
  int32_t result;       /* what the call returned; 0 or -1 for an operation that returns an address */
  int32_t method;       /* method number of an invoke, else -1 */
  uint32_t n_arguments; /* entries used of the next */
  uint64_t arguments[PARLO_EMULATOR_MAX_ARGUMENTS];
  char text[128]; /* cut to fit; empty where the operation has none */
} parlo_emulator_call;

/* Calls since the last reset, in order. */
size_t parlo_emulator_trace_length(void);
/* Copies call number `index`; 0, or -1 when there is none. */
int parlo_emulator_trace_get(size_t index, parlo_emulator_call* call);
void parlo_emulator_trace_clear(void);
/* The name of an operation as its function is called, such as "parlo_mmap". */
const char* parlo_emulator_operation_name(int32_t operation);

/* ---- Faults ---- */

/* Makes the nth call (1 is the next one; 0: every call) of `operation` fail: it does nothing, sets errno to
 * `error_number` and returns `status`, or NULL or -1 where it returns no status. `method` narrows an invoke to one
 * method number; -1 means any. parlo_mem_free and platform_debug_log cannot fail and are never counted. One fault can
 * be armed at a time; a new one replaces it. */
void parlo_emulator_fail(int32_t operation, int32_t method, uint32_t nth, int32_t status, int32_t error_number);
/* How often the armed fault has fired since it was armed. */
uint32_t parlo_emulator_faults_fired(void);
/* Disarms. */
void parlo_emulator_clear_fault(void);

/* Frees all shared memory, ends all sessions, clears trace and fault and puts the default configuration back. */
void parlo_emulator_reset(void);

#ifdef __cplusplus
}
#endif
#endif

/* Control of the emulated platform: what a test or a tool may set, read and break. Programs that only use the
 * platform need nothing of this header. The functions exist in the emulator's libparlo.so alone.
 *
 * Environment:
 *   PARLO_TRACE=1      prints every platform call to standard error, one line for each call
 *   PARLO_TRACE=FILE   writes a timeline of all calls to a file of trace events, which chrome://tracing and Perfetto
 *                      show; %p in the name stands for the process
 *   PARLO_PROFILE=FILE the chip to emulate, as docs/emulator.md describes such a file
 *   PARLO_DSP=process  runs the DSP half of each session in a process of its own; PARLO_DSP=here, the default, runs all
 *                      of them in the calling process
 *   PARLO_DSP_LAUNCHER the program that starts such a process, by its path, with its arguments; for processes of
 *                      another processor
 *
 * Threads: any thread may call every function.
 *
 * Memory: no exception leaves a function of the emulator. Where the host's memory ends, a call returns
 * PARLO_EMULATOR_NO_MEMORY (0x0c), or NULL or -1 with errno ENOMEM, and changes nothing. A product is the
 * exception: its results may be partly written.
 *
 * Parameters and results that several functions share
 *   config                 the configuration
 *   usage                  receives the counts
 *   index                  number of a call, from 0
 *   call                   receives the call
 *   operation              parlo_emulator_operation
 *   method                 the method number whose invocations count; -1: of any method
 *   nth                    1, or 0, is the next call
 *   status, error_number   what the failing call returns, and its errno
 *   fault                  the fault, which is copied
 *   carrier                parlo_emulator_carrier
 *   milliseconds           the longest time of a call; 0: no limit
 *   handle                 of parlo_handle_open
 *   name                   of the span, NUL-terminated; the emulator copies it
 *
 * Plain C11, also valid C++.
 */
#ifndef PARLO_EMULATOR_H
#define PARLO_EMULATOR_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Statuses of the emulator's own refusals, one for each cause ---- */

/* A comment that begins with "open:", "map:" and the like names the operation that returns the status. */
typedef enum parlo_emulator_status {
  PARLO_EMULATOR_NO_MEMORY = 0x0c,          /* the host has no memory left for the call */
  PARLO_EMULATOR_BAD_ARGUMENT = 0x0e,       /* a NULL pointer, a record of the wrong size, an unknown request */
  PARLO_EMULATOR_UNSUPPORTED_DOMAIN = 0x14, /* there is no such domain, or no session with that domain id is open */
  PARLO_EMULATOR_NO_SUCH_ENTRY = 0x6c,      /* the profile leaves this optional entry out */
  PARLO_EMULATOR_BAD_URI = 0x201,           /* open: the text is no URI of this platform */
  PARLO_EMULATOR_NO_SUCH_MODULE = 0x202,    /* open: the URI names another module, or another version of the module */
  PARLO_EMULATOR_NO_SUCH_SESSION = 0x203,   /* no session with that id is reserved */
  PARLO_EMULATOR_SESSION_OPEN = 0x204,      /* open: the reserved session already has its module open */
  PARLO_EMULATOR_NO_MORE_SESSIONS = 0x205,  /* reserve: all sessions are taken */
  PARLO_EMULATOR_UNSIGNED_REFUSED = 0x206,  /* open: the session does not allow unsigned modules */
  PARLO_EMULATOR_BAD_HANDLE = 0x207,        /* the handle is not open */
  PARLO_EMULATOR_BAD_SCALARS = 0x208,       /* invoke: no such method, or a wrong number or size of buffers */
  PARLO_EMULATOR_SESSION_LOST = 0x209,      /* the session is lost: its process has died, or a fault has ended it */
  PARLO_EMULATOR_INHERITED = 0x20a,  /* the session or buffer belongs to the process that this one was forked from */
  PARLO_EMULATOR_NO_PROCESS = 0x20b, /* open: the session's process cannot be started */
  PARLO_EMULATOR_TIMED_OUT = 0x20c,  /* the session did not answer within the limit, and is lost */
  PARLO_EMULATOR_BAD_CONFIGURATION = 0x20d, /* open: PARLO_DSP or PARLO_PROFILE says what the emulator cannot do */

  PARLO_EMULATOR_UNKNOWN_DESCRIPTOR = 0x301, /* map, unmap: no shared memory has this descriptor and address */
  PARLO_EMULATOR_WRONG_SIZE = 0x302,         /* map: not the size of the memory; unmap: not the size of the mapping */
  PARLO_EMULATOR_ALREADY_MAPPED = 0x303,     /* map: the session maps the memory already */
  PARLO_EMULATOR_NOT_MAPPED = 0x304,         /* unmap: the session does not map the memory */
  PARLO_EMULATOR_ADDRESS_SPACE_FULL = 0x305, /* map: the session's address space has no room left */
  PARLO_EMULATOR_DOUBLE_FREE = 0x306,        /* free: the buffer that started at this address is already freed */
  PARLO_EMULATOR_FOREIGN_FREE = 0x307,       /* free: no buffer ever started at this address */

  PARLO_EMULATOR_DSP_NOT_MAPPED = 0x401,    /* a method named a descriptor that the session does not map */
  PARLO_EMULATOR_DSP_OUT_OF_RANGE = 0x402,  /* a method would have read or written past a buffer */
  PARLO_EMULATOR_DSP_MISALIGNED = 0x403,    /* an offset is not a multiple of the element size */
  PARLO_EMULATOR_DSP_BAD_DIMENSION = 0x404, /* a dimension is not a multiple of the tile */
  PARLO_EMULATOR_DSP_NO_AX = 0x405,         /* the cross-session buffers are not handed over, or handed over twice */
  PARLO_EMULATOR_DSP_NO_RESOURCE = 0x406,   /* the session has not acquired its resources */
  PARLO_EMULATOR_DSP_NOT_LOCKED = 0x407,    /* the session does not hold the matrix unit */
  PARLO_EMULATOR_DSP_BUSY = 0x408,          /* another session holds the matrix unit */
  PARLO_EMULATOR_DSP_REPEATED = 0x409       /* a strict profile: the resources are acquired or released already */
} parlo_emulator_status;

/* ---- Sessions, contexts and processes ----
 *
 * A program can open the first session any number of times. Each opening gives a handle, which is a module instance
 * of its own, with its own cross-session buffers, resources and reservation of the matrix unit. Several contexts
 * therefore work side by side. The handles share the session's address space, which has config.session_bytes for
 * each handle. When one of the handles is closed, the session also loses its mappings of memory that is already
 * freed.
 *
 * Each set of four cross-session buffers that is handed over to modules has a matrix unit. A context hands the same
 * four buffers over to all of its sessions, so its sessions exclude each other, and sessions of different contexts
 * do not. Modules without cross-session buffers share one further unit. With config.shared_matrix_unit, there is
 * one unit for all modules. A session that finds the unit taken gets PARLO_EMULATOR_DSP_BUSY at once.
 *
 * A forked child cannot use the sessions of its parent: every call on one of them returns PARLO_EMULATOR_INHERITED.
 * The parent's sessions go on. In the child, the shared buffers become private copies, which cannot be mapped, and
 * nothing that the child writes there reaches the parent. The child may open sessions and allocate buffers of its
 * own. */

/* ---- Where the DSP halves of sessions run ---- */

/* What runs the DSP half of a session. */
typedef enum parlo_emulator_carrier {
  PARLO_EMULATOR_IN_PROCESS, /* in the calling process; PARLO_DSP is not set, or "here" */
  PARLO_EMULATOR_PROCESS     /* each session in a process of its own; PARLO_DSP=process */
} parlo_emulator_carrier;

/* Chooses where sessions run that begin from then on. */
void parlo_emulator_set_carrier(int32_t carrier);
/* Returns where sessions run that begin from now on. */
int32_t parlo_emulator_get_carrier(void);

/* Limits the time in which the process of a session has to answer a call, for sessions that begin from then on; 0 is no
 * limit. The process of a session that does not answer in time is killed. The call returns PARLO_EMULATOR_TIMED_OUT, and
 * the session is lost. The default is 30 s; it is 0 in a build with sanitizers, and where PARLO_DSP_LAUNCHER is set. */
void parlo_emulator_set_call_limit(uint32_t milliseconds);

/* Returns the id of the process in which the session of an open handle runs, or 0 when there is none. */
int parlo_emulator_process_of(uint64_t handle);

/* ---- Limits and answers ---- */

/* Returns the name of the profile in use: that of the file which PARLO_PROFILE names, or "default". The text is valid until the
 * next reset. */
const char* parlo_emulator_profile_name(void);
/* Returns an estimate of the seconds that a board would have taken for all invocations since the last reset: the profile's
 * time for each call, and its time for the bytes of the operands. Returns -1 when the profile describes no board. The
 * emulator measures no board. */
double parlo_emulator_estimated_seconds(void);

/* What the emulated platform allows and answers. The defaults are those of a process without a profile. */
typedef struct parlo_emulator_config {
  uint64_t session_bytes;       /* bytes of address space of one session; default 3 GiB */
  uint64_t allocation_bytes;    /* bytes of shared memory of the whole process; default all ones, no limit */
  uint32_t n_sessions;          /* sessions that can be open at a time, with the first; default 8 */
  int32_t lowest_descriptor;    /* shared memory gets the lowest free descriptor from here on; default 0 */
  uint32_t architecture;        /* answer to PARLO_ATTRIBUTE_ARCHITECTURE; default 0x73 */
  uint32_t module_major;        /* version of the DSP module; default 1.0.0 beta1, compiled for 73 */
  uint32_t module_minor;        /* version of the DSP module */
  uint32_t module_patch;        /* version of the DSP module */
  uint32_t module_architecture; /* that the DSP module was compiled for */
  char module_label[32];        /* pre-release label of the DSP module, NUL-terminated */
  uint32_t shared_matrix_unit;  /* 1: one matrix unit for all contexts; default 0: one for each context */
} parlo_emulator_config;

/* Copies the configuration to `config`. */
void parlo_emulator_get_config(parlo_emulator_config* config);
/* Replaces the configuration. The new one counts for whatever is opened, mapped or allocated from then on. */
void parlo_emulator_set_config(const parlo_emulator_config* config);

/* ---- What is alive ---- */

/* What the process has and has not given back, and the misuse that the emulator has seen. */
typedef struct parlo_emulator_usage {
  uint64_t n_allocations; /* shared buffers that are not freed */
  uint64_t n_bytes;       /* bytes of these buffers */
  uint64_t n_sessions;    /* sessions that are reserved or open; the first counts once it is open */
  uint64_t n_handles;     /* open handles, those of lost sessions included */
  uint64_t n_mappings;    /* mappings of all sessions together */
  /* Misuse of parlo_mem_free since the last reset. Such a call sets errno to EINVAL, prints a line to standard error
   * and changes nothing else. The trace records its status as its result. */
  uint64_t n_double_frees;  /* calls with PARLO_EMULATOR_DOUBLE_FREE */
  uint64_t n_foreign_frees; /* calls with PARLO_EMULATOR_FOREIGN_FREE */
} parlo_emulator_usage;

/* Copies the counts to `usage`. A forked child does not count sessions that it inherited, but counts its copies of
 * the buffers. */
void parlo_emulator_get_usage(parlo_emulator_usage* usage);

/* ---- Trace ---- */

/* Operations of the platform. The comments list the arguments that the trace records, then the text where there is
 * one. */
typedef enum parlo_emulator_operation {
  PARLO_EMULATOR_HANDLE_OPEN,     /* none; a success stores the handle as argument 0; text: the URI */
  PARLO_EMULATOR_HANDLE_INVOKE,   /* handle, scalars word, then the words of the primitive input buffer */
  PARLO_EMULATOR_HANDLE_CLOSE,    /* handle */
  PARLO_EMULATOR_HANDLE_CONTROL,  /* request, domain, attribute, capability answered */
  PARLO_EMULATOR_SESSION_CONTROL, /* request, session id or domain id, its answer or the enable flag; text: the
                                      name that the caller gave, or the URI that the platform answered */
  PARLO_EMULATOR_SYSTEM_REQUEST,  /* type, capacity, count answered */
  PARLO_EMULATOR_MEM_ALLOC,       /* heap id, flags, size, address */
  PARLO_EMULATOR_MEM_ALLOC2,      /* heap id, flags, size, address */
  PARLO_EMULATOR_MEM_FREE,        /* address */
  PARLO_EMULATOR_MEM_TO_FD,       /* address; the result is the descriptor */
  PARLO_EMULATOR_MMAP,            /* domain, descriptor, address, offset, length, flags */
  PARLO_EMULATOR_MUNMAP,          /* domain, descriptor, address, length */
  PARLO_EMULATOR_DEBUG_LOG,       /* level, line; text: the line that was written */
  PARLO_EMULATOR_N_OPERATIONS,
  PARLO_EMULATOR_ANY_OPERATION = -1 /* for faults: any operation that can fail */
} parlo_emulator_operation;

#define PARLO_EMULATOR_MAX_ARGUMENTS 12     /* arguments of a call that the trace keeps */
#define PARLO_EMULATOR_TRACE_CAPACITY 65536 /* calls that the trace keeps; older ones are counted, but cannot be read */

/* One call of the trace. */
typedef struct parlo_emulator_call {
  int32_t operation; /* parlo_emulator_operation */
  int32_t result;    /* what the call returned; 0 or -1 for an operation that returns an address; a status for a free */
  int32_t method;    /* the method number of an invoke, otherwise -1 */
  uint32_t n_arguments;                             /* entries of `arguments` that are used */
  uint64_t arguments[PARLO_EMULATOR_MAX_ARGUMENTS]; /* what parlo_emulator_operation lists */
  char text[128];                                   /* cut to fit; empty where the operation has no text */
} parlo_emulator_call;

/* Returns the number of calls since the last reset or clear. The trace leaves out a call whose record finds no
 * memory. */
size_t parlo_emulator_trace_length(void);
/* Copies call number `index` to `call`; number 0 is the first call. Returns 0, or -1 when the trace has no such
 * call. */
int parlo_emulator_trace_get(size_t index, parlo_emulator_call* call);
/* Empties the trace. */
void parlo_emulator_trace_clear(void);
/* A span of the calling thread in the timeline (PARLO_TRACE=file), from its beginning to its end; spans do not nest. When
 * a product runs on the DSP within the span, the span is divided into staging, remote and back. Without a timeline, the
 * functions do nothing. */
void parlo_emulator_begin_span(const char* name);
void parlo_emulator_end_span(void);

/* Returns the name of the function of an operation, such as "parlo_mmap". */
const char* parlo_emulator_operation_name(int32_t operation);

/* ---- Faults ---- */

/* What a fault does. The nth call is the nth that the fault counts, from its arming on. */
typedef enum parlo_emulator_fault_class {
  /* The nth call fails: it does nothing, sets errno to `error_number`, and returns `status`, or NULL or -1 where the
   * operation returns no status. */
  PARLO_EMULATOR_FAULT_ONCE,

  /* The nth call and every later one fail in this way. */
  PARLO_EMULATOR_FAULT_FROM_THEN_ON,

  /* The nth invocation with a reply runs, but writes only a part of its reply: of a product the rows before the
   * middle, rounded down to a multiple of 64; of the self-test the bytes before the middle; of the version query the
   * front half of each output buffer. The rest keeps what was there. The call then returns `status`, which is 0 for a
   * platform that does not notice, and sets errno to `error_number` unless that is 0. The fault does not count other
   * calls. */
  PARLO_EMULATOR_FAULT_TRUNCATED_REPLY,

  /* The session that the nth call names is lost (its process is killed), with the module instances of all its handles, their mappings and
   * their reservation of the matrix unit. This call and every later one on the session return
   * PARLO_EMULATOR_SESSION_LOST (errno ECONNRESET). `status` and `error_number` are not used.
   *
   * Later calls that give back what a lost session no longer has succeed: parlo_munmap, and the invocations that unlock
   * the matrix unit, release the resources, take the cross-session buffers back, or clear the cache.
   *
   * Closing a handle of a lost session succeeds, unless the closing is the nth call itself, and gives back what the
   * host has of the handle. The first session can then be opened anew; calls that name the session by its domain
   * reach the new one. A lost session that was reserved ends with its last handle, or at once when it had no handle;
   * its id then gives PARLO_EMULATOR_NO_SUCH_SESSION.
   *
   * The fault does not count calls that name no session: reservations, queries, and the calls of the allocator. */
  PARLO_EMULATOR_FAULT_SESSION_LOST,

  /* The DSP hangs in the nth invocation. The call returns PARLO_EMULATOR_TIMED_OUT after the limit, and the session is
   * lost; without a limit, the call does not return. `status` and `error_number` are not used. */
  PARLO_EMULATOR_FAULT_HANG,

  /* The nth invocation begins `status` milliseconds late. `error_number` is not used. */
  PARLO_EMULATOR_FAULT_LATE,

  /* The nth invocation runs, and returns `status` and sets errno to `error_number` where it would have returned 0. */
  PARLO_EMULATOR_FAULT_WRONG_STATUS,

  /* The nth invocation with a reply runs and returns its own status, but `status` bits of its result, of a fused product
   * of its first result, are flipped. They are evenly spread over the first row, or over as many of the first rows as
   * have so many bits. `error_number` is not used. */
  PARLO_EMULATOR_FAULT_FLIPPED_BITS
} parlo_emulator_fault_class;

/* A fault, and the calls that the fault counts. */
typedef struct parlo_emulator_fault {
  int32_t fault_class;  /* parlo_emulator_fault_class */
  int32_t operation;    /* parlo_emulator_operation whose calls count */
  int32_t method;       /* only invocations of this method number count; -1: of any method */
  uint32_t nth;         /* 1, or 0, is the next call */
  int32_t status;       /* what a failing call returns */
  int32_t error_number; /* its errno */
} parlo_emulator_fault;

/* Arms a fault, which replaces the fault that is armed. parlo_mem_free and platform_debug_log cannot fail, and no
 * fault counts them. */
void parlo_emulator_arm(const parlo_emulator_fault* fault);
/* Arms a fault of the class PARLO_EMULATOR_FAULT_ONCE; for nth == 0, a fault that makes every call fail. */
void parlo_emulator_fail(int32_t operation, int32_t method, uint32_t nth, int32_t status, int32_t error_number);
/* Returns how often the fault has fired since it was armed. */
uint32_t parlo_emulator_faults_fired(void);
/* Disarms the fault. */
void parlo_emulator_clear_fault(void);

/* Makes the parent's sessions and buffers, as they were at the fork, those of the forked child that calls. The
 * parent must not use them until the child has ended, because both processes would write to the same memory. The
 * function serves tests of calls that end their process. In a process that is no forked child, the function changes
 * nothing. */
void parlo_emulator_take_over(void);

/* Frees all shared memory, ends all sessions, empties the trace, arms the profile's fault or none, and restores the
 * configuration, all as the environment says. */
void parlo_emulator_reset(void);

#ifdef __cplusplus
}
#endif
#endif

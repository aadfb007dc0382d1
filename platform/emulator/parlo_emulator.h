/* Control of the emulated platform: what a test or a tool may set, read and break. Programs that only use the platform
 * need nothing of this header; the entries exist in the emulator's libparlo.so alone.
 *
 * Environment: PARLO_TRACE=1 prints every platform call to standard error, one line a call.
 *
 * Every function may be called from any thread. No exception leaves a function of the emulator: where the host's memory
 * ends, a call returns PARLO_EMULATOR_NO_MEMORY (or NULL or -1, with errno ENOMEM) and changes nothing, except that the
 * results of a product may be partly written. Plain C11, also valid C++.
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
  PARLO_EMULATOR_NO_MEMORY = 0x0c,          /* the host has no memory left for what the call needs */
  PARLO_EMULATOR_BAD_ARGUMENT = 0x0e,       /* a NULL pointer, a record of the wrong size, an unknown request */
  PARLO_EMULATOR_UNSUPPORTED_DOMAIN = 0x14, /* no such domain, or none of that id is open */
  PARLO_EMULATOR_BAD_URI = 0x201,           /* open: not a URI of this platform */
  PARLO_EMULATOR_NO_SUCH_MODULE = 0x202,    /* open: another module, or another version of it */
  PARLO_EMULATOR_NO_SUCH_SESSION = 0x203,   /* a session that is not reserved */
  PARLO_EMULATOR_SESSION_OPEN = 0x204,      /* open: a reserved session already has its module open */
  PARLO_EMULATOR_NO_MORE_SESSIONS = 0x205,  /* reserve: all sessions are taken */
  PARLO_EMULATOR_UNSIGNED_REFUSED = 0x206,  /* open: unsigned modules are not enabled in the session */
  PARLO_EMULATOR_BAD_HANDLE = 0x207,        /* not an open handle */
  PARLO_EMULATOR_BAD_SCALARS = 0x208,       /* invoke: no such method, or buffers of the wrong number or size */
  PARLO_EMULATOR_SESSION_LOST = 0x209,      /* the session is lost, see PARLO_EMULATOR_FAULT_SESSION_LOST */
  PARLO_EMULATOR_INHERITED = 0x20a, /* the session or buffer belongs to the process that this one was forked from */

  PARLO_EMULATOR_UNKNOWN_DESCRIPTOR = 0x301, /* map, unmap: no shared memory has this descriptor and address */
  PARLO_EMULATOR_WRONG_SIZE = 0x302,         /* map: not the size of the memory; unmap: not that of the mapping */
  PARLO_EMULATOR_ALREADY_MAPPED = 0x303,     /* map: the session maps it already */
  PARLO_EMULATOR_NOT_MAPPED = 0x304,         /* unmap: the session does not map it */
  PARLO_EMULATOR_ADDRESS_SPACE_FULL = 0x305, /* map: past the session's limit of bytes */
  PARLO_EMULATOR_DOUBLE_FREE = 0x306,        /* free: the buffer that started at this address is freed already */
  PARLO_EMULATOR_FOREIGN_FREE = 0x307,       /* free: no buffer ever started at this address */

  PARLO_EMULATOR_DSP_NOT_MAPPED = 0x401,    /* a method named a descriptor that its session does not map */
  PARLO_EMULATOR_DSP_OUT_OF_RANGE = 0x402,  /* a method would have read or written past a buffer */
  PARLO_EMULATOR_DSP_MISALIGNED = 0x403,    /* an offset is not a multiple of the element size */
  PARLO_EMULATOR_DSP_BAD_DIMENSION = 0x404, /* a dimension is not a multiple of the tile */
  PARLO_EMULATOR_DSP_NO_AX = 0x405,         /* the cross-session buffers are not handed over, or handed over twice */
  PARLO_EMULATOR_DSP_NO_RESOURCE = 0x406,   /* resources not acquired */
  PARLO_EMULATOR_DSP_NOT_LOCKED = 0x407,    /* the session does not hold the matrix unit */
  PARLO_EMULATOR_DSP_BUSY = 0x408           /* another session holds the matrix unit */
} parlo_emulator_status;

/* ---- Sessions, contexts and processes ----
 *
 * The first session can be opened any number of times. Each of its handles is a module instance of its own, with its own
 * cross-session buffers, resources and reservation of the matrix unit. The handles share the session's address space,
 * which has config.session_bytes for each of them. So several contexts work side by side. When one of the handles is
 * closed, the mappings of memory that is freed by then end too.
 *
 * There is a matrix unit for each set of four cross-session buffers that is handed over to modules. A context hands the
 * same four over to all of its sessions. Its sessions therefore exclude each other, and sessions of different contexts
 * do not. Modules that have no cross-session buffers share one more unit. Where config.shared_matrix_unit is set, there is
 * one unit for all of them. A session that finds the unit taken gets PARLO_EMULATOR_DSP_BUSY at once.
 *
 * A forked child keeps the sessions of its parent out of reach: every call on one of them returns
 * PARLO_EMULATOR_INHERITED, and the parent's go on. The child's shared buffers become private copies, so that
 * nothing that the child stages reaches the parent, and cannot be mapped. The child may open sessions and allocate buffers of its own. */

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
  uint32_t shared_matrix_unit; /* 1: one matrix unit for all contexts; default 0: one for each */
} parlo_emulator_config;

void parlo_emulator_get_config(parlo_emulator_config* config);
/* Counts for whatever is opened, mapped or allocated from now on. */
void parlo_emulator_set_config(const parlo_emulator_config* config);

/* ---- What is alive ---- */

typedef struct parlo_emulator_usage {
  uint64_t n_allocations; /* shared buffers not freed */
  uint64_t n_bytes;       /* and their bytes */
  uint64_t n_sessions;    /* sessions reserved or open, the first included once it is open */
  uint64_t n_handles;     /* handles open, those of lost sessions included */
  uint64_t n_mappings;    /* mappings, all sessions together */
  /* Misuse of parlo_mem_free since the last reset. The call changes nothing but errno (EINVAL) and prints a line to
   * standard error; its record in the trace has the status as its result. */
  uint64_t n_double_frees;  /* of PARLO_EMULATOR_DOUBLE_FREE */
  uint64_t n_foreign_frees; /* of PARLO_EMULATOR_FOREIGN_FREE */
} parlo_emulator_usage;

/* Sessions that a forked child has inherited are not counted in the child, its copies of the buffers are. */
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
  int32_t operation; /* parlo_emulator_operation */
  int32_t result;    /* what the call returned; 0 or -1 for an operation that returns an address; a status for a free */
  int32_t method;    /* method number of an invoke, else -1 */
  uint32_t n_arguments; /* entries used of the next */
  uint64_t arguments[PARLO_EMULATOR_MAX_ARGUMENTS];
  char text[128]; /* cut to fit; empty where the operation has none */
} parlo_emulator_call;

/* Calls since the last reset, in order. A call whose record finds no memory is left out. */
size_t parlo_emulator_trace_length(void);
/* Copies call number `index`; 0, or -1 when there is none. */
int parlo_emulator_trace_get(size_t index, parlo_emulator_call* call);
void parlo_emulator_trace_clear(void);
/* The name of an operation as its function is called, such as "parlo_mmap". */
const char* parlo_emulator_operation_name(int32_t operation);

/* ---- Faults ---- */

typedef enum parlo_emulator_fault_class {
  /* The nth call fails: it does nothing, sets errno to `error_number` and returns `status`, or NULL or -1 where it
   * returns no status. */
  PARLO_EMULATOR_FAULT_ONCE,

  /* The same for the nth call and every one after it. */
  PARLO_EMULATOR_FAULT_FROM_THEN_ON,

  /* The nth invocation with a reply is carried out, but its reply is only partly written. Of a product, the rows before the
   * middle, rounded down to 64, are written; of the self-test the bytes before the middle; of the version query the
   * front half of each output buffer. The rest keeps what was there. The call then returns `status`, 0 for a platform
   * that does not notice, and sets errno to `error_number` unless that is 0. Other calls are not counted. */
  PARLO_EMULATOR_FAULT_TRUNCATED_REPLY,

  /* The session that the nth call names is gone, with all of its handles' module instances, their mappings and their
   * reservation of the matrix unit. The call and every later one on the session returns PARLO_EMULATOR_SESSION_LOST
   * (errno ECONNRESET); `status` and `error_number` are not used. Closing a handle of a lost session succeeds, unless it
   * is the nth call itself, and gives the host's side of it back. The first session can then be opened anew; calls that
   * name it by its domain reach the new one. A lost session that was reserved ends with its last handle, or at once where
   * it had none: then there is no session of its id (PARLO_EMULATOR_NO_SUCH_SESSION). Calls that name no session are not
   * counted: reserving one, queries, and the allocator's. */
  PARLO_EMULATOR_FAULT_SESSION_LOST
} parlo_emulator_fault_class;

typedef struct parlo_emulator_fault {
  int32_t fault_class; /* parlo_emulator_fault_class */
  int32_t operation;   /* parlo_emulator_operation whose calls are counted */
  int32_t method;      /* counts the invocations of this method number only; -1: of any */
  uint32_t nth;        /* 1 is the next call, and so is 0 */
  int32_t status;
  int32_t error_number;
} parlo_emulator_fault;

/* Arms a fault. One can be armed at a time; a new one replaces it. parlo_mem_free and platform_debug_log cannot fail and
 * are never counted. */
void parlo_emulator_arm(const parlo_emulator_fault* fault);
/* The same for a fault of the first class, or with nth 0 for one that makes every call fail. */
void parlo_emulator_fail(int32_t operation, int32_t method, uint32_t nth, int32_t status, int32_t error_number);
/* How often the armed fault has fired since it was armed. */
uint32_t parlo_emulator_faults_fired(void);
/* Disarms. */
void parlo_emulator_clear_fault(void);

/* In a forked child: makes the parent's sessions and buffers, as they were at the fork, the child's own. The parent must
 * not use them any more, or not until the child has ended; the two would write to the same memory. This is for tests of
 * calls that end their process. Elsewhere it changes nothing. */
void parlo_emulator_take_over(void);

/* Frees all shared memory, ends all sessions, clears trace and fault and puts the default configuration back. */
void parlo_emulator_reset(void);

#ifdef __cplusplus
}
#endif
#endif

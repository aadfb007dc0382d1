/* The platform's RPC client interface (Parlo): everything that libmorun asks of the platform.
 *
 * On a device the vendor's libparlo.so implements this interface. Everywhere else the emulator in platform/emulator
 * does. The dynamic loader finds either under the name libparlo.so, so that one libmorun.so runs on both.
 *
 * Unless its comment says otherwise, an operation returns an int status: KESO_SUCCESS (0), or another value that
 * the platform or the DSP module chose. errno is set where the cause of a failure lies with the host. Which
 * operations may run on several threads at a time is up to the platform; the emulator allows all of them.
 *
 * Plain C11, also valid C++.
 */
#ifndef PARLO_H
#define PARLO_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Operations that a platform may lack are marked PARLO_OPTIONAL. Callers see them as weak symbols and compare them
 * with NULL before a call. An implementation of the platform defines PARLO_IMPLEMENTATION first and gets ordinary
 * declarations. */
#ifdef PARLO_IMPLEMENTATION
#  define PARLO_OPTIONAL
#else
#  define PARLO_OPTIONAL __attribute__((weak))
#endif

#define KESO_SUCCESS 0

/* ---- Modules on the DSP ---- */

/* One buffer of a remote call: its address, and its length in bytes. In an array, input buffers stand before output
 * buffers. */
typedef struct parlo_argument {
  void* data;
  size_t length;
} parlo_argument;

/* The scalars word of parlo_handle_invoke tells the method and the number of its buffers:
 *
 *   bits 24-28   method number
 *   bits 16-23   number of input buffers
 *   bits 8-15    number of output buffers
 *   bits 4-7     number of input handles
 *   bits 0-3     number of output handles
 *   bits 29-31   attributes */
#define PARLO_SCALARS(method, n_in, n_out) \
  (((uint32_t)(method) << 24) | ((uint32_t)(n_in) << 16) | ((uint32_t)(n_out) << 8))
#define PARLO_SCALARS_METHOD(scalars) (((scalars) >> 24) & 0x1fu)
#define PARLO_SCALARS_N_IN(scalars) (((scalars) >> 16) & 0xffu)
#define PARLO_SCALARS_N_OUT(scalars) (((scalars) >> 8) & 0xffu)

/* Opens the DSP module that `uri` names, in the session that `uri` names, and stores the handle of the module
 * instance. */
int parlo_handle_open(const char* uri, uint64_t* handle);

/* Runs one method of the module instance `handle` and blocks until the method has returned.
 *
 *   scalars     method number and numbers of buffers, see above
 *   arguments   as many entries as `scalars` counts; may be NULL when `scalars` counts none
 *
 * Returns the method's own status. */
int parlo_handle_invoke(uint64_t handle, uint32_t scalars, parlo_argument* arguments);

/* Closes `handle`. A session ends with its last handle, and its mappings, its resources and its reservation of the
 * matrix unit end with the session. */
int parlo_handle_close(uint64_t handle);

/* ---- Sessions ---- */

/* Carries out one of the requests below. `record` is the record that belongs to `request`, of exactly `size` bytes;
 * its fields are marked "in" where the caller fills them and "out" where the platform does. */
int parlo_session_control(uint32_t request, void* record, uint32_t size);

/* Reserves a new session with a protection domain and an address space of its own. */
#define PARLO_SESSION_RESERVE 13u
typedef struct parlo_session_reserve {
  const char* domain_name; /* in: "cdsp" */
  uint32_t domain_name_length;
  const char* session_name; /* in */
  uint32_t session_name_length;
  uint32_t effective_domain_id; /* out: the domain id that the session's other calls take */
  uint32_t session_id;          /* out */
} parlo_session_reserve;

/* Gives the URI that opens a module in a session. */
#define PARLO_SESSION_GET_URI 15u
typedef struct parlo_session_uri {
  const char* domain_name; /* in: "cdsp" */
  uint32_t domain_name_length;
  uint32_t session_id;    /* in */
  const char* module_uri; /* in: the module's URI without domain and session */
  uint32_t module_uri_length;
  char* uri; /* out: NUL-terminated text, in memory of the caller's */
  uint32_t uri_length;
} parlo_session_uri;

/* Allows unsigned modules in a session's protection domain. */
#define PARLO_SESSION_UNSIGNED_MODULE 2u
typedef struct parlo_session_unsigned_module {
  int32_t domain; /* in: effective domain id */
  int32_t enable; /* in: 1 allows them */
} parlo_session_unsigned_module;

/* Gives the effective domain id of a session. */
#define PARLO_SESSION_EFFECTIVE_DOMAIN 14u
typedef struct parlo_session_effective_domain {
  const char* domain_name; /* in */
  uint32_t domain_name_length;
  uint32_t session_id;          /* in */
  uint32_t effective_domain_id; /* out */
} parlo_session_effective_domain;

/* ---- Queries ---- */

/* Carries out one query. `record` is the record that belongs to `request`, of exactly `size` bytes. */
PARLO_OPTIONAL int parlo_handle_control(uint32_t request, void* record, uint32_t size);

/* Asks for one capability of one domain. A status whose low byte is PARLO_CAPABILITY_UNSUPPORTED (108) means that
 * the platform answers no capability queries at all. */
#define PARLO_CONTROL_CAPABILITY 2u
#define PARLO_CAPABILITY_UNSUPPORTED 108
typedef struct parlo_capability {
  uint32_t domain;     /* in */
  uint32_t attribute;  /* in: parlo_attribute */
  uint32_t capability; /* out; 0 on entry */
} parlo_capability;

typedef enum parlo_attribute {
  PARLO_ATTRIBUTE_DOMAIN_SUPPORT = 0,
  PARLO_ATTRIBUTE_UNSIGNED_PD_SUPPORT = 1,
  PARLO_ATTRIBUTE_ONDRA_SUPPORT_64B = 2,
  PARLO_ATTRIBUTE_ONDRA_SUPPORT_128B = 3,
  PARLO_ATTRIBUTE_VTCM_PAGE = 4,    /* bytes of one page of the vector memory */
  PARLO_ATTRIBUTE_VTCM_COUNT = 5,   /* number of such pages */
  PARLO_ATTRIBUTE_ARCHITECTURE = 6, /* low byte: two decimal digits, 0x73 for 73 */
  PARLO_ATTRIBUTE_TESSEL_SUPPORT_SPATIAL = 7,
  PARLO_ATTRIBUTE_TESSEL_SUPPORT_DEPTH = 8,
  PARLO_ATTRIBUTE_ASYNCHRONOUS_CALLS = 9,
  PARLO_ATTRIBUTE_STATUS_NOTIFICATION = 10
} parlo_attribute;

/* What the platform tells of one DSP domain. */
typedef struct parlo_domain {
  char name[32]; /* NUL-terminated, such as "cdsp" */
  uint32_t id;
  uint32_t instance;
  uint32_t type;   /* parlo_domain_type */
  uint32_t status; /* 1: up */
  uint32_t reserved[12];
} parlo_domain;

typedef enum parlo_domain_type {
  PARLO_DOMAIN_TYPE_ALL = 0, /* in a request only: domains of every type */
  PARLO_DOMAIN_TYPE_OTHER = 1,
  PARLO_DOMAIN_TYPE_MIRVA = 2,
  PARLO_DOMAIN_TYPE_TOSKA = 5
} parlo_domain_type;

/* Asks for the domains of one type. With capacity 0 and no array, the platform gives only the count. */
#define PARLO_SYSTEM_DOMAINS 1u
typedef struct parlo_system_domains {
  uint32_t request;      /* in: PARLO_SYSTEM_DOMAINS */
  uint32_t type;         /* in: parlo_domain_type */
  uint32_t capacity;     /* in: entries that `domains` can take */
  uint32_t count;        /* out: domains of that type. The caller stores `capacity` here first, and a platform
                            that fills the array may leave that value */
  parlo_domain* domains; /* in: the array to fill, or NULL */
} parlo_system_domains;

/* Carries out the request in `record`. */
PARLO_OPTIONAL int parlo_system_request(parlo_system_domains* record);

/* ---- Shared memory ---- */

/* Allocate `size` bytes of memory that host and DSP can both map. Return the address, or NULL on failure. heap_id
 * and flags are the platform's; libmorun passes heap 25, with flags 1 (parlo_mem_alloc) and 0x40000001
 * (parlo_mem_alloc2). */
void* parlo_mem_alloc(int heap_id, uint32_t flags, int32_t size);
void* parlo_mem_alloc2(int heap_id, uint32_t flags, uint64_t size);

/* Frees memory of the two functions above. NULL is allowed. A DSP session that still maps the memory keeps its own
 * view until the session ends. */
void parlo_mem_free(void* address);

/* Returns the file descriptor that names the shared memory whose first byte is at `address`, or -1 when there is
 * none. */
int parlo_mem_to_fd(const void* address);

/* Maps shared memory into the address space of a DSP session.
 *
 *   domain    effective domain id of the session
 *   fd        descriptor of the memory
 *   address   first byte of the memory on the host
 *   offset    bytes from the start of the memory; libmorun passes 0
 *   length    bytes
 *   flags     the platform's; libmorun passes 2 */
int parlo_mmap(int domain, int fd, void* address, int offset, uint64_t length, int flags);

/* Unmaps shared memory from a DSP session. `address` and `length` are those of the mapping. */
int parlo_munmap(int domain, int fd, void* address, uint64_t length);

/* ---- Runtime debug log ---- */

/* Writes one line to the platform's log. `file` and `line` name the source of the message, `format` is printf's. */
PARLO_OPTIONAL void platform_debug_log(int level, const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/* Chooses what reaches the log. libmorun does not call this function, and also writes to a log that lacks it.
 *
 *   level_mask   a bit for each level
 *   files        names of the source files whose lines reach the log
 *   n_files      entries of `files`; 0 lets the lines of every file through */
PARLO_OPTIONAL int platform_debug_log_configure(uint32_t level_mask, const char* const* files, uint16_t n_files);

#ifdef __cplusplus
}
#  define PARLO_STATIC_ASSERT static_assert
#else
#  define PARLO_STATIC_ASSERT _Static_assert
#endif

PARLO_STATIC_ASSERT(sizeof(parlo_argument) == 16, "an argument is an address and a length");
PARLO_STATIC_ASSERT(sizeof(parlo_session_reserve) == 40, "size of the reserve record");
PARLO_STATIC_ASSERT(sizeof(parlo_session_uri) == 48, "size of the URI record");
PARLO_STATIC_ASSERT(sizeof(parlo_session_unsigned_module) == 8, "size of the unsigned-module record");
PARLO_STATIC_ASSERT(sizeof(parlo_session_effective_domain) == 24, "size of the effective-domain record");
PARLO_STATIC_ASSERT(sizeof(parlo_capability) == 12, "size of the capability record");
PARLO_STATIC_ASSERT(sizeof(parlo_domain) == 96, "size of a domain's record");
PARLO_STATIC_ASSERT(offsetof(parlo_domain, type) == 40, "place of the type in a domain's record");

#endif

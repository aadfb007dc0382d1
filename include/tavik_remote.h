/* The remote interface of the DSP module (libtavik_skel.so): one host function for each of the module's methods.
 *
 * Each function packs its arguments, invokes one method through the platform and returns the status of the platform
 * or of the module unchanged: 0 on success. The functions check nothing and do not touch the error record of
 * tavik.h. Where the platform has a runtime debug log, a failed invocation writes one line to it.
 *
 * Parameters and results that several functions share
 *   handle                   module instance of one session, from tavik_open
 *   ..._fd                   descriptor of a shared buffer that the session maps
 *   ..._offset               bytes from the start of that buffer
 *   n_row, n_col, n_inner    extents of the matrices, in elements
 *   n_col_q, n_col_kv        columns of QW; columns of KW and VW each
 *   uri                      the module's name and its domain
 *   size                     bytes
 *   result                   the status of the platform or of the module, 0 on success
 *
 * Layouts (ah, wh, tiles) are those of tavik.h.
 *
 * Threads: the functions keep no state. Calls on one handle from several threads are as safe as the platform makes
 * them.
 *
 * "ressource" is the interface's own spelling. Plain C11, also valid C++.
 */
#ifndef TAVIK_REMOTE_H
#define TAVIK_REMOTE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Opens the module that `uri` names (NUL-terminated) and stores its handle. */
int tavik_open(const char* uri, uint64_t* handle);
/* Closes the module instance. */
int tavik_close(uint64_t handle);

/* Writes back and drops what the DSP's caches hold of shared buffers. */
int tavik_veyra_clear_cache(uint64_t handle);

/* Hands over the cross-session buffers, which the session maps already: results A0, A1 and A2, activation X. */
int tavik_veyra_mmap_get_AX(uint64_t handle, uint32_t A0_fd, uint32_t A1_fd, uint32_t A2_fd, uint32_t X_fd);
/* Takes the cross-session buffers back. */
int tavik_veyra_mmap_put_AX(uint64_t handle);

/* Acquire and release the DSP resources of the session. */
int tavik_veyra_ressource_acquire(uint64_t handle);
int tavik_veyra_ressource_release(uint64_t handle);

/* Reserve and free the matrix unit. All sessions and processes share one unit. */
int tavik_veyra_lock_tessel(uint64_t handle);
int tavik_veyra_unlock_tessel(uint64_t handle);

/* Compute A = X * W on buffers of the caller's, where X is n_row x n_inner and W n_inner x n_col.
 *   f16    X and A are f16 ah, W is f16 wh; n_row is a multiple of 32
 *   a8w8   X is u8 in 64 x 32 tiles, W is i8 wh, A is i32 in 64 x 32 tiles
 *   a8w4   like a8w8, with W in 4-bit tiles of 512 bytes */
int tavik_veyra_mm_f16(uint64_t handle, uint32_t n_row, uint32_t n_col, uint32_t n_inner, uint32_t A_fd, uint32_t X_fd,
                       uint32_t W_fd, uint32_t A_offset, uint32_t X_offset, uint32_t W_offset);
int tavik_veyra_mm_a8w8(uint64_t handle, uint32_t n_row, uint32_t n_col, uint32_t n_inner, uint32_t A_fd, uint32_t X_fd,
                        uint32_t W_fd, uint32_t A_offset, uint32_t X_offset, uint32_t W_offset);
int tavik_veyra_mm_a8w4(uint64_t handle, uint32_t n_row, uint32_t n_col, uint32_t n_inner, uint32_t A_fd, uint32_t X_fd,
                        uint32_t W_fd, uint32_t A_offset, uint32_t X_offset, uint32_t W_offset);

/* Compute A0 = X * W on the cross-session buffers X and A0. Layouts are those of the functions above. */
int tavik_veyra_1mm_f16(uint64_t handle, uint32_t n_row, uint32_t n_col, uint32_t n_inner, uint32_t W_fd,
                        uint32_t W_offset);
int tavik_veyra_1mm_a8w8(uint64_t handle, uint32_t n_row, uint32_t n_col, uint32_t n_inner, uint32_t W_fd,
                         uint32_t W_offset);
int tavik_veyra_1mm_a8w4(uint64_t handle, uint32_t n_row, uint32_t n_col, uint32_t n_inner, uint32_t W_fd,
                         uint32_t W_offset);

/* Compute A0 = X * UW and A1 = X * FW on the cross-session buffers. UW and FW have n_col columns each. */
int tavik_veyra_2mm_f16(uint64_t handle, uint32_t n_row, uint32_t n_col, uint32_t n_inner, uint32_t UW_fd,
                        uint32_t FW_fd, uint32_t UW_offset, uint32_t FW_offset);
int tavik_veyra_2mm_a8w8(uint64_t handle, uint32_t n_row, uint32_t n_col, uint32_t n_inner, uint32_t UW_fd,
                         uint32_t FW_fd, uint32_t UW_offset, uint32_t FW_offset);
int tavik_veyra_2mm_a8w4(uint64_t handle, uint32_t n_row, uint32_t n_col, uint32_t n_inner, uint32_t UW_fd,
                         uint32_t FW_fd, uint32_t UW_offset, uint32_t FW_offset);

/* Compute A0 = X * QW, A1 = X * KW and A2 = X * VW on the cross-session buffers. QW has n_col_q columns, KW and VW
 * have n_col_kv columns each. */
int tavik_veyra_3mm_f16(uint64_t handle, uint32_t n_row, uint32_t n_col_q, uint32_t n_col_kv, uint32_t n_inner,
                        uint32_t QW_fd, uint32_t KW_fd, uint32_t VW_fd, uint32_t QW_offset, uint32_t KW_offset,
                        uint32_t VW_offset);
int tavik_veyra_3mm_a8w8(uint64_t handle, uint32_t n_row, uint32_t n_col_q, uint32_t n_col_kv, uint32_t n_inner,
                         uint32_t QW_fd, uint32_t KW_fd, uint32_t VW_fd, uint32_t QW_offset, uint32_t KW_offset,
                         uint32_t VW_offset);
int tavik_veyra_3mm_a8w4(uint64_t handle, uint32_t n_row, uint32_t n_col_q, uint32_t n_col_kv, uint32_t n_inner,
                         uint32_t QW_fd, uint32_t KW_fd, uint32_t VW_fd, uint32_t QW_offset, uint32_t KW_offset,
                         uint32_t VW_offset);

/* Runs the module's self-test, which adds 1 to each of the first `size` bytes of the buffer. */
int tavik_veyra_test(uint64_t handle, uint32_t size, uint32_t v_fd);

/* Asks the module for its version.
 *
 *   major, minor, patch     receive the version's numbers
 *   version_prerel          receives the pre-release label, NUL-terminated unless version_prerel_length is 0
 *   version_prerel_length   bytes that version_prerel has room for
 *   veyra_version           receives the DSP architecture that the module was compiled for
 *
 * The function writes nothing on failure. */
int tavik_veyra_get_version(uint64_t handle, uint32_t* major, uint32_t* minor, uint32_t* patch, char* version_prerel,
                            uint32_t version_prerel_length, uint32_t* veyra_version);

/* ---- Description of the interface, for tools. The library itself does not read the description ---- */

/* The kind of a parameter. */
typedef enum tavik_slim_type {
  TAVIK_SLIM_STRING = 0, /* address and length of a NUL-terminated text */
  TAVIK_SLIM_REMOTE_HANDLE = 1,
  TAVIK_SLIM_UINT32 = 2,
  TAVIK_SLIM_CHARACTERS = 3 /* address and length of a character sequence */
} tavik_slim_type;

/* Whether the host or the module writes a parameter. */
typedef enum tavik_slim_direction { TAVIK_SLIM_IN = 0, TAVIK_SLIM_OUT = 1 } tavik_slim_direction;

/* One of the six kinds of parameters. Sizes and alignments are in bytes. */
typedef struct tavik_slim_parameter {
  uint32_t type;      /* tavik_slim_type */
  uint32_t size;      /* bytes */
  uint32_t alignment; /* bytes */
  uint32_t direction; /* tavik_slim_direction */
} tavik_slim_parameter;

/* One method of the interface. */
typedef struct tavik_slim_method {
  uint32_t buffer_counts;                        /* the scalars word without the method number */
  uint32_t primitive_in_size;                    /* bytes */
  uint32_t primitive_out_size;                   /* bytes */
  uint16_t max_arguments;                        /* buffers and handles of a call, at most */
  uint16_t n_parameters;                         /* entries of `parameters` */
  const tavik_slim_parameter* const* parameters; /* in the order of the method's declaration */
  uint8_t primitive_in_alignment;                /* bytes */
  uint8_t primitive_out_alignment;               /* bytes */
} tavik_slim_method;

/* The whole interface. */
typedef struct tavik_slim_interface {
  uint32_t n_methods;               /* entries of `methods` */
  const tavik_slim_method* methods; /* in order of their numbers */
  uint32_t n_interface_ids;         /* always 0 */
  const uint32_t* interface_ids;    /* always NULL */
  const uint16_t* method_names;     /* for each method the index of its name in `names` */
  const uint16_t* names;  /* for each method its name, then its parameters' names: offsets into `characters` */
  const char* characters; /* all names, each NUL-terminated */
} tavik_slim_interface;

/* The description of this interface. */
extern const tavik_slim_interface tavik_slim;

#ifdef __cplusplus
}
#endif
#endif

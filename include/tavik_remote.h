/* The remote interface of the DSP module (libtavik_skel.so), as host functions: one for each of its 23 methods.
 *
 * Each call packs its arguments, invokes one method through the platform and returns the platform's or the module's
 * status unchanged: 0 on success. Nothing is checked here and the error record of tavik.h is not touched. Where the
 * platform has a runtime debug log, a failed invocation writes one line to it.
 *
 * `handle` is one session's module instance (tavik_open). Arguments named ..._fd are descriptors of shared buffers that
 * the session maps, ..._offset are byte offsets into them, n_row, n_col and n_inner are matrix extents in elements. The
 * calls keep no state; calls on one handle from several threads are as safe as the platform makes them.
 *
 * "ressource" is the interface's own spelling. Plain C11, also valid C++.
 */
#ifndef TAVIK_REMOTE_H
#define TAVIK_REMOTE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Opens the module that `uri` names and stores its handle. */
int tavik_open(const char* uri, uint64_t* handle);
/* Closes it. */
int tavik_close(uint64_t handle);

/* Writes back and drops what the DSP's caches hold of shared buffers. */
int tavik_veyra_clear_cache(uint64_t handle);

/* Hands over the cross-session buffers, already mapped: results A0, A1, A2 and activation X. */
int tavik_veyra_mmap_get_AX(uint64_t handle, uint32_t A0_fd, uint32_t A1_fd, uint32_t A2_fd, uint32_t X_fd);
/* Takes them back. */
int tavik_veyra_mmap_put_AX(uint64_t handle);

/* Acquires and releases the DSP resources of a session. */
int tavik_veyra_ressource_acquire(uint64_t handle);
int tavik_veyra_ressource_release(uint64_t handle);

/* Reserves and frees the matrix unit, of which there is one for all sessions and processes. */
int tavik_veyra_lock_tessel(uint64_t handle);
int tavik_veyra_unlock_tessel(uint64_t handle);

/* A = X * W on buffers of the caller's own, n_row x n_inner times n_inner x n_col.
 *   f16   X and A: f16 ah; W: f16 wh; n_row a multiple of 32
 *   a8w8  X: u8 in 64 x 32 tiles; W: i8 wh; A: i32 in 64 x 32 tiles
 *   a8w4  as a8w8, W in 4-bit tiles of 512 bytes */
int tavik_veyra_mm_f16(uint64_t handle, uint32_t n_row, uint32_t n_col, uint32_t n_inner, uint32_t A_fd, uint32_t X_fd,
                       uint32_t W_fd, uint32_t A_offset, uint32_t X_offset, uint32_t W_offset);
int tavik_veyra_mm_a8w8(uint64_t handle, uint32_t n_row, uint32_t n_col, uint32_t n_inner, uint32_t A_fd, uint32_t X_fd,
                        uint32_t W_fd, uint32_t A_offset, uint32_t X_offset, uint32_t W_offset);
int tavik_veyra_mm_a8w4(uint64_t handle, uint32_t n_row, uint32_t n_col, uint32_t n_inner, uint32_t A_fd, uint32_t X_fd,
                        uint32_t W_fd, uint32_t A_offset, uint32_t X_offset, uint32_t W_offset);

/* A0 = X * W on the cross-session buffers X and A0; layouts as above. */
int tavik_veyra_1mm_f16(uint64_t handle, uint32_t n_row, uint32_t n_col, uint32_t n_inner, uint32_t W_fd,
                        uint32_t W_offset);
int tavik_veyra_1mm_a8w8(uint64_t handle, uint32_t n_row, uint32_t n_col, uint32_t n_inner, uint32_t W_fd,
                         uint32_t W_offset);
int tavik_veyra_1mm_a8w4(uint64_t handle, uint32_t n_row, uint32_t n_col, uint32_t n_inner, uint32_t W_fd,
                         uint32_t W_offset);

/* A0 = X * UW and A1 = X * FW. */
int tavik_veyra_2mm_f16(uint64_t handle, uint32_t n_row, uint32_t n_col, uint32_t n_inner, uint32_t UW_fd,
                        uint32_t FW_fd, uint32_t UW_offset, uint32_t FW_offset);
int tavik_veyra_2mm_a8w8(uint64_t handle, uint32_t n_row, uint32_t n_col, uint32_t n_inner, uint32_t UW_fd,
                         uint32_t FW_fd, uint32_t UW_offset, uint32_t FW_offset);
int tavik_veyra_2mm_a8w4(uint64_t handle, uint32_t n_row, uint32_t n_col, uint32_t n_inner, uint32_t UW_fd,
                         uint32_t FW_fd, uint32_t UW_offset, uint32_t FW_offset);

/* A0 = X * QW (n_col_q columns), A1 = X * KW and A2 = X * VW (n_col_kv columns each). */
int tavik_veyra_3mm_f16(uint64_t handle, uint32_t n_row, uint32_t n_col_q, uint32_t n_col_kv, uint32_t n_inner,
                        uint32_t QW_fd, uint32_t KW_fd, uint32_t VW_fd, uint32_t QW_offset, uint32_t KW_offset,
                        uint32_t VW_offset);
int tavik_veyra_3mm_a8w8(uint64_t handle, uint32_t n_row, uint32_t n_col_q, uint32_t n_col_kv, uint32_t n_inner,
                         uint32_t QW_fd, uint32_t KW_fd, uint32_t VW_fd, uint32_t QW_offset, uint32_t KW_offset,
                         uint32_t VW_offset);
int tavik_veyra_3mm_a8w4(uint64_t handle, uint32_t n_row, uint32_t n_col_q, uint32_t n_col_kv, uint32_t n_inner,
                         uint32_t QW_fd, uint32_t KW_fd, uint32_t VW_fd, uint32_t QW_offset, uint32_t KW_offset,
                         uint32_t VW_offset);

/* Self-test: the module adds 1 to each of the first `size` bytes of the buffer. */
int tavik_veyra_test(uint64_t handle, uint32_t size, uint32_t v_fd);

/* The module's version. `version_prerel` receives its pre-release label in `version_prerel_length` bytes, always
 * NUL-terminated when that is not 0; veyra_version is the DSP architecture that the module was compiled for. On failure
 * nothing is written. */
int tavik_veyra_get_version(uint64_t handle, uint32_t* major, uint32_t* minor, uint32_t* patch, char* version_prerel,
                            uint32_t version_prerel_length, uint32_t* veyra_version);

/* ---- Description of the interface, for tools; the library itself does not read it ---- */

typedef enum tavik_slim_type {
  TAVIK_SLIM_STRING = 0, /* address and length of a NUL-terminated text */
  TAVIK_SLIM_REMOTE_HANDLE = 1,
  TAVIK_SLIM_UINT32 = 2,
  TAVIK_SLIM_CHARACTERS = 3 /* address and length of a character sequence */
} tavik_slim_type;

typedef enum tavik_slim_direction { TAVIK_SLIM_IN = 0, TAVIK_SLIM_OUT = 1 } tavik_slim_direction;

/* One of the six kinds of parameters. Sizes and alignments in bytes. */
typedef struct tavik_slim_parameter {
  uint32_t type; /* tavik_slim_type */
  uint32_t size;
  uint32_t alignment;
  uint32_t direction; /* tavik_slim_direction */
} tavik_slim_parameter;

typedef struct tavik_slim_method {
  uint32_t buffer_counts;      /* the scalars word without the method number */
  uint32_t primitive_in_size;  /* bytes */
  uint32_t primitive_out_size; /* bytes */
  uint16_t max_arguments;
  uint16_t n_parameters;
  const tavik_slim_parameter* const* parameters;
  uint8_t primitive_in_alignment;
  uint8_t primitive_out_alignment;
} tavik_slim_method;

typedef struct tavik_slim_interface {
  uint32_t n_methods;
  const tavik_slim_method* methods; /* in order of their numbers */
  uint32_t n_interface_ids;         /* 0 */
  const uint32_t* interface_ids;    /* NULL */
  const uint16_t* method_names;     /* for each method the index of its name in `names` */
  const uint16_t* names;            /* for each method its name, then its parameters': offsets into `characters` */
  const char* characters;           /* all names, each NUL-terminated */
} tavik_slim_interface;

extern const tavik_slim_interface tavik_slim;

#ifdef __cplusplus
}
#endif
#endif

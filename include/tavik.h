/* libmorun, lower interface: dense matrix products on the matrix unit of the DSP. The caller holds the context on
 * which every call works.
 *
 * A program calls, in this order: tavik_options_alloc, tavik_init, tavik_buffer_alloc for the weights, a conversion
 * that brings the weights into their layout, the products, tavik_buffer_free for each buffer, and tavik_cleanup.
 *
 * Statuses
 *   Functions that return int32_t or uint32_t return one of the four TAVIK_ constants below, unless their comment
 *   says otherwise. A function that fails fills the calling thread's error record and prints nothing. When a remote
 *   call fails, the record holds status TAVIK_ERROR_FAILURE (1) and the message "%s in %s": the text of errno, and
 *   the source text of the test that failed. Statuses stand in the order in which a function checks them.
 *
 * Threads
 *   The library starts no thread and takes no lock. One thread at a time uses a context, and a context runs one
 *   product at a time. Different threads may use different contexts. The error record belongs to its thread. The
 *   layout, half precision and quantisation functions work on the memory that the caller passes and on nothing
 *   else, so any thread may call them.
 *
 * Kept
 *   "Kept:" marks behaviour that surprises and that callers rely on. The library keeps such behaviour on purpose.
 *
 * Layouts, by their codes in the names of functions. (r, c) is the element in row r and column c of an R x C
 * matrix. Positions count elements from the start of the matrix or of the tile; divisions are integer divisions.
 * docs/layouts.md shows each layout with a small matrix and its bytes.
 *
 *   rm        row-major: (r, c) stands at r * C + c
 *   cm        column by column: (r, c) stands at c * R + r
 *   ah, f16   activations and results. 32 x 32 tiles, one row of tiles after the other. In a tile, each pair of
 *             rows is interleaved column by column: (r, c) stands at ((r % 32) / 2) * 64 + (c % 32) * 2 + r % 2
 *   wh, f16   weights. 32 x 32 tiles, one row of tiles after the other. In a tile, each pair of columns is
 *             interleaved row by row: (r, c) stands at ((c % 32) / 2) * 64 + (r % 32) * 2 + c % 2
 *   wh, i8    like wh of f16, with groups of four columns: (r, c) stands at
 *             ((c % 32) / 4) * 128 + (r % 32) * 4 + c % 4
 *   wh, i4    32 x 32 tiles of 512 bytes, one row of tiles after the other. (r, c) stands in byte
 *             ((c % 32) / 8) * 128 + (r % 32) * 4 + c % 4 of its tile: in the low nibble when c % 8 < 4, in the
 *             high nibble otherwise. Zeros pad the tiles at the edges
 *   ah, 8-bit and 32-bit
 *             64 x 32 tiles, one row of tiles after the other. A tile is row-major inside
 *   zb        4 x 8 blocks, one row of blocks after the other. A block is row-major inside
 *
 * f16 is IEEE 754 binary16; a uint16_t holds its bit pattern. Row-major i4 values stand eight to a 32-bit
 * little-endian word, the first value in the least significant nibble.
 *
 * Parameters and results that several functions share
 *   context                              a context of tavik_init, or of tavik_context_alloc for the steps of which
 *                                        tavik_init is made
 *   options                              limits of tavik_options_alloc, or filled in by the program
 *   error                                the record to print
 *   n_row                                rows of the matrix; of a product, rows of activation and result
 *   n_col                                columns of the matrix; of a product, columns of weights and result
 *   n_inner                              the inner dimension of a product: columns of the activation, rows of the
 *                                        weights
 *   n_col_q, n_col_kv                    columns of QW and A_Q; columns of KW, VW, A_K and A_V each
 *   block_rows, block_cols               extents of a block
 *   A, A_U, A_F, A_Q, A_K, A_V           results, row-major f32 with n_row rows, in any memory
 *   C                                    the result, row-major f32 with n_row rows
 *   X                                    the activation, n_row x n_inner, row-major f32, in any memory
 *   W                                    the weights, n_inner x n_col, f16 in zb blocks
 *   ..._fd                               descriptor of the shared buffer in which this operand stands
 *   ..._offset                           bytes from the start of that buffer to the operand, or to the part of it
 *                                        that the letter names
 *   fd                                   descriptor of a shared buffer
 *   session                              number of a session, below n_sessions; or where the number is stored
 *   handle                               receives the handle of the session's module
 *   pointer                              address of memory, or where the address is stored
 *   size                                 bytes
 *   value, alignment                     what is rounded, and to a multiple of what
 *   count                                elements
 *   src, dst                             source and destination, which do not overlap
 *   data                                 the elements; a conversion in place replaces them
 *   scales, sums                         receive scale and sum of each row: n_row elements each
 *   acc                                  n_row x n_col sums in 64 x 32 tiles
 *   activation_scales, activation_sums   scale and sum of each row of the activation, n_row elements each
 *   weight_scales, weight_sums           scale and sum of each column of the weights, n_col elements each
 *   zero_points                          zero point of each column of the weights
 *   byte                                 holds the value in its low four bits
 *   stream                               the file to print to
 *   label                                the text at the start of the line
 *   edge                                 elements to print at each end
 *   reference                            what the elements are compared with
 *   p, q                                 number of a block of four rows, and of a block of four columns
 *   ldc                                  elements from one row of C to the next
 *   Wb, Ab                               four columns of W in zb blocks, and four rows of A
 *   result                               a status, as above
 *
 * Plain C11, also valid C++.
 */
#ifndef TAVIK_H
#define TAVIK_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "tavik_remote.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Error record ---- */

enum {
  TAVIK_SUCCESS = 0,             /* the function did what it says */
  TAVIK_ERROR_FAILURE = 1,       /* a NULL output location, a failed remote or platform call, an unknown descriptor */
  TAVIK_ERROR_BAD_DIMENSION = 2, /* a dimension that is negative, too large, or not a multiple of the tile */
  TAVIK_ERROR_MEMORY = 3         /* host memory, shared memory, its descriptor or its mapping could not be had */
};

/* The last failure of a thread. A later success does not clear the record. Texts longer than 127 characters are
 * cut.
 *
 * `file` and `line` tell failures apart. They are published numbers, which stay when code moves; they are no place
 * to open in an editor. Each source file that reports such numbers holds them in one table named reported_line
 * (`grep -rn reported_line source`). The table reported_routines in build/tavik_stub.cpp holds the lines that the
 * remote stub writes to the platform's log. Failures in the file "source/host/kernels" are the exception: their
 * lines are those of the source text in this version. */
typedef struct tavik_error {
  int32_t code;       /* the status */
  char message[128];  /* what failed */
  char function[128]; /* the function that failed */
  char file[128];     /* the source file that reports the failure */
  int32_t line;       /* a published number, see above */
} tavik_error;

/* Fills the calling thread's error record.
 *
 *   code, line       stored as they are
 *   function, file   stored, each cut to 127 characters
 *   format, ...      those of printf; the text that they make is stored as the message, cut to 127 characters
 *
 * Returns the number of characters of `file`, uncut. */
int tavik_set_error(int32_t code, const char* function, const char* file, int32_t line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

/* Returns the calling thread's error record, which has code 0 and empty texts until the thread's first failure.
 * Only this thread may use the pointer. */
const tavik_error* tavik_error_get_last(void);

/* Writes a record to standard error: "[Tavik] error CODE (FUNCTION, FILE, line LINE):" on the first line, ten
 * blanks and the message on the second. Returns what fprintf returns. `error` must not be NULL. */
int tavik_error_print(const tavik_error* error);

/* ---- Options ---- */

/* The largest matrices that a context hands to the DSP. tavik_init sizes the cross-session buffers by these limits.
 * The first three fields count elements or rows. */
typedef struct tavik_options {
  uint64_t output_matrix_size_max; /* largest n_row * n_col; default 2^24 */
  uint64_t n_row_max;              /* largest n_row; default 1024 */
  uint64_t input_matrix_size_max;  /* largest n_row * n_inner; default 2^28 */
  uint64_t reserved;               /* always 0 */
} tavik_options;

/* Allocates options with the default limits. The caller frees them with tavik_options_free.
 *
 * Returns TAVIK_SUCCESS (0), or, leaving *options as it was:
 *   TAVIK_ERROR_FAILURE (1)   options == NULL
 *   TAVIK_ERROR_MEMORY (3)    no host memory */
int32_t tavik_options_alloc(tavik_options** options);
/* Prints output_matrix_size_max and input_matrix_size_max to `stream`, or the line "NULL options" for NULL. */
void tavik_options_print(FILE* stream, const tavik_options* options);
/* Frees options. NULL is allowed. The context does not need its options after tavik_init has returned. */
void tavik_options_free(tavik_options* options);

/* ---- Context ---- */

enum { TAVIK_MAX_SESSIONS = 4, TAVIK_MAX_BUFFERS = 32, TAVIK_MAX_DESCRIPTOR = 1023, TAVIK_SESSION_NAME_SIZE = 256 };

/* All state of the lower interface. tavik_init makes a context. Programs may read every field; only the library
 * writes.
 *
 * The first n_sessions entries of the four session_ arrays belong to open sessions, and the first n_buffers entries
 * of the four buffer_ arrays to the caller's shared buffers. fd_to_session has an entry for each descriptor that a
 * buffer ever had; freeing a buffer does not clear its entry, and an entry that was never written is 0. */
typedef struct tavik_context {
  uint64_t n_sessions;                    /* open sessions, each a protection domain of its own on the compute DSP */
  int32_t session_id[TAVIK_MAX_SESSIONS]; /* after the open sessions: the id of a reserved session that could not be
                                             opened yet, or 0 */
  char session_name[TAVIK_MAX_SESSIONS][TAVIK_SESSION_NAME_SIZE]; /* NUL-terminated */
  int32_t session_domain[TAVIK_MAX_SESSIONS];                     /* effective domain id */
  uint64_t session_handle[TAVIK_MAX_SESSIONS];                    /* module instance */
  uint64_t A_size;                                                /* bytes of each of A0, A1, A2 */
  uint64_t X_size;                                                /* bytes of X */
  void* A0;                                        /* cross-session buffers, which every session maps: first result */
  void* A1;                                        /* second result */
  void* A2;                                        /* third result */
  void* X;                                         /* activation */
  int32_t A0_fd;                                   /* descriptor of A0 */
  int32_t A1_fd;                                   /* descriptor of A1 */
  int32_t A2_fd;                                   /* descriptor of A2 */
  int32_t X_fd;                                    /* descriptor of X */
  uint64_t n_buffers;                              /* shared buffers of tavik_buffer_alloc that are not freed */
  void* buffer_pointer[TAVIK_MAX_BUFFERS];         /* address on the host */
  int32_t buffer_fd[TAVIK_MAX_BUFFERS];            /* descriptor */
  uint64_t buffer_size[TAVIK_MAX_BUFFERS];         /* bytes */
  int32_t buffer_session[TAVIK_MAX_BUFFERS];       /* number of the session that maps the buffer */
  int32_t fd_to_session[TAVIK_MAX_DESCRIPTOR + 1]; /* number of the session, by descriptor */
  uint64_t output_matrix_size_max;                 /* copy of the options' limit */
  uint64_t input_matrix_size_max;                  /* copy of the options' limit */
  uint64_t n_row_max;                              /* copy of the options' limit */
  uint64_t active_session; /* index of the session that holds the DSP resources; all ones until tavik_init */
  bool tessel_locked;      /* whether the active session holds the matrix unit */
  bool cleanup_failed;     /* whether a tavik_cleanup has failed; the next one passes over steps that fail */
} tavik_context;

/* Opens session 0 on the compute DSP, acquires the session's resources, and allocates and maps the four
 * cross-session buffers.
 *
 *   options   limits; not NULL
 *   context   receives the new context; not NULL
 *
 * A0, A1 and A2 take 4 * output_matrix_size_max bytes each. X takes up(4 * n_row_max) +
 * 2 * up(input_matrix_size_max) + 4 * n_row_max bytes, where up() rounds up to a multiple of 2048. With the default
 * limits this makes 704 MiB of shared memory, which tavik_init reserves and does not touch.
 *
 * Returns TAVIK_SUCCESS (0), or, in the order of the steps:
 *   TAVIK_ERROR_MEMORY (3)    no host memory for the context
 *   TAVIK_ERROR_FAILURE (1)   the platform refused the session, or the DSP refused its resources
 *   TAVIK_ERROR_MEMORY (3)    one of the three limits, the bytes of A0 or the bytes of X exceed 2^31 - 1
 *   TAVIK_ERROR_MEMORY (3)    no shared memory, or the platform gives no descriptor for it
 *   TAVIK_ERROR_FAILURE (1)   a descriptor is above TAVIK_MAX_DESCRIPTOR (1023), or a mapping failed
 * A failure releases everything and leaves *context as it was. Where releasing the resources or closing the session
 * fails in turn, tavik_init prints a warning to standard error. Kept: the warning has no line end. */
int32_t tavik_init(const tavik_options* options, tavik_context** context);

/* Unlocks the matrix unit, releases the resources, unmaps and frees the cross-session buffers, closes every session
 * and frees the context. The caller has freed every buffer of tavik_buffer_alloc before. Where a session was
 * reserved and could not be opened, tavik_cleanup gives the reservation back to the platform by opening and closing
 * the session.
 *
 * Returns TAVIK_SUCCESS (0), or TAVIK_ERROR_FAILURE (1) when
 *   the context is NULL or tavik_init did not make it, or
 *   a step failed. The context then stays allocated and is partly torn down; every closed session has ~0 as its
 *   handle.
 *
 * A caller may call tavik_cleanup again after a failed step. The second call passes over steps that fail, because
 * closing a session ends whatever the session still has, and because the platform may have forgotten a reserved
 * session. When every session is closed, the call frees the context and returns 0. When a session cannot be closed,
 * the call returns 1; the caller may try again, or give the memory back with tavik_context_free. A failed cleanup
 * does not prevent a new tavik_init. */
int32_t tavik_cleanup(tavik_context* context);

/* Reserve and free the matrix unit for the active session. Each makes at most one remote call; neither fills the
 * error record.
 *
 * Return TAVIK_ERROR_FAILURE (1) when the context is NULL or has no active session; 0 without a call when the unit
 * is already reserved, or already free; and the status of the remote call otherwise. */
int32_t tavik_lock_compute_device(tavik_context* context);
int32_t tavik_unlock_compute_device(tavik_context* context);

/* Print a greeting to standard error: tavik_hello_host from the host alone, tavik_hello_veyra over the whole path
 * to the DSP and back. tavik_hello_host returns 0. tavik_hello_veyra initialises and cleans up a context of its own
 * with default options, and ends the process with exit status 1 when the options or the context cannot be had. It
 * returns the status of its tavik_buffer_alloc or, after that succeeds, of its tavik_npu_test. */
int32_t tavik_hello_host(void);
int32_t tavik_hello_veyra(void);

/* The steps of which tavik_init and tavik_buffer_alloc are made. */

/* Allocates a context that is zero in every field but active_session, which is all ones.
 *
 * Returns TAVIK_SUCCESS (0), or, leaving *context as it was:
 *   TAVIK_ERROR_FAILURE (1)   context == NULL
 *   TAVIK_ERROR_MEMORY (3)    no host memory */
int32_t tavik_context_alloc(tavik_context** context);
/* Frees the cross-session buffers and the context. The function unmaps nothing and closes no session. NULL is
 * allowed. */
void tavik_context_free(tavik_context* context);
/* Prints sessions, buffers and state of a context. For NULL the function prints nothing. */
void tavik_context_print(FILE* stream, const tavik_context* context);
/* Opens session number n_sessions and increments n_sessions. Sessions after the first are reserved before they are
 * opened.
 *
 * Returns TAVIK_SUCCESS (0), or TAVIK_ERROR_FAILURE (1) when n_sessions == TAVIK_MAX_SESSIONS, or when the platform
 * refuses a step. After a step that follows the reservation fails, the next call goes on with the reserved session. */
int32_t tavik_context_open_session(tavik_context* context);
/* Map and unmap the four cross-session buffers in session number `session`, which is open, and tell its module.
 * Both stop at the first failure and return TAVIK_ERROR_FAILURE (1); the steps before the failure stay done. */
int32_t tavik_context_mmap_cross_session_buffers(tavik_context* context, uint64_t session);
int32_t tavik_context_munmap_cross_session_buffers(tavik_context* context, uint64_t session);

/* Look up a buffer of tavik_buffer_alloc by its descriptor, and store its address or the index of its session.
 *
 * Return TAVIK_SUCCESS (0), or TAVIK_ERROR_FAILURE (1) when the output location is NULL or `fd` names no such
 * buffer; the output is then unchanged. */
int32_t tavik_context_get_pointer_from_fd(tavik_context* context, int32_t fd, void** pointer);
int32_t tavik_context_get_session_from_fd(tavik_context* context, int32_t fd, uint64_t* session);
/* Stores the handle of the session to which `fd` belongs, makes this session active, and locks the matrix unit for
 * it. The function takes resources and lock from the session that had them. A descriptor that no buffer ever had
 * belongs to session 0.
 *
 * Returns TAVIK_SUCCESS (0), or TAVIK_ERROR_FAILURE (1), leaving *handle as it was, when
 *   handle == NULL,
 *   the context is NULL or has no active session,
 *   fd < 0 || fd > TAVIK_MAX_DESCRIPTOR, or
 *   the DSP refuses to release, unlock, acquire or lock. */
int32_t tavik_context_get_handle_from_fd(tavik_context* context, int32_t fd, uint64_t* handle);

/* ---- Shared buffers ---- */

/* Allocates a shared buffer, which host and DSP both see, and maps it into the first session whose address space
 * has room. When no session has room, the function opens one more.
 *
 *   size      bytes
 *   pointer   receives the buffer's address on the host, or NULL after a failure; may be NULL
 *   fd        receives the descriptor by which products know the buffer, or -1 after a failure; may be NULL
 *
 * Returns TAVIK_SUCCESS (0), or TAVIK_ERROR_FAILURE (1) when
 *   pointer == NULL && fd == NULL,
 *   n_buffers == TAVIK_MAX_BUFFERS,
 *   the platform has no shared memory of that size, or no descriptor for it,
 *   the descriptor is above TAVIK_MAX_DESCRIPTOR,
 *   no session has room, and opening a further session or mapping the cross-session buffers there failed, or
 *   the new session has no room either. The new session then stays open. */
int32_t tavik_buffer_alloc(tavik_context* context, uint64_t size, void** pointer, int32_t* fd);

/* Empties the DSP's caches, unmaps the buffer with descriptor `fd` and frees it.
 *
 * Returns TAVIK_SUCCESS (0), or TAVIK_ERROR_FAILURE (1) when `fd` names no buffer of tavik_buffer_alloc, or when
 * emptying the caches or unmapping fails; the buffer then stays. */
int32_t tavik_buffer_free(tavik_context* context, int32_t fd);

/* ---- Memory ---- */

/* Store `size` bytes of heap memory in *pointer; tavik_malloc_zero fills them with zero. A size of 0 stores NULL.
 * The caller frees the memory with free().
 *
 * Return TAVIK_SUCCESS (0), or, leaving *pointer as it was:
 *   TAVIK_ERROR_FAILURE (1)   pointer == NULL
 *   TAVIK_ERROR_MEMORY (3)    no host memory */
int32_t tavik_malloc(void** pointer, uint64_t size);
int32_t tavik_malloc_zero(void** pointer, uint64_t size);
/* Resizes the heap block at *pointer to `size` bytes and stores its new address. A size of 0 frees the block and
 * stores NULL. `pointer` must not be NULL.
 *
 * Returns TAVIK_SUCCESS (0), or TAVIK_ERROR_MEMORY (3) without memory. Kept: this failure frees the old block, and
 * the location goes on holding its dead address. */
int32_t tavik_realloc(void** pointer, uint64_t size);

/* Store `size` bytes of shared memory in *pointer; tavik_rpcmem_alloc_zero fills them with zero. A size of 0 stores
 * NULL. The caller frees the memory with tavik_rpcmem_free.
 *
 * Return TAVIK_SUCCESS (0), or, leaving *pointer as it was:
 *   TAVIK_ERROR_FAILURE (1)   pointer == NULL
 *   TAVIK_ERROR_MEMORY (3)    the platform has no such memory
 *
 * Kept: the platform receives the low 32 bits of `size` as a signed number, while tavik_rpcmem_alloc_zero clears
 * all of `size`. Sizes above 2^31 - 1 must not be passed to tavik_rpcmem_alloc_zero. */
int32_t tavik_rpcmem_alloc(void** pointer, uint64_t size);
int32_t tavik_rpcmem_alloc_zero(void** pointer, uint64_t size);
/* Frees shared memory of the two functions above. NULL is allowed. */
void tavik_rpcmem_free(void* pointer);
/* Stores the descriptor of the shared memory that starts at `pointer`, or -1 when the platform knows none.
 *
 * Returns TAVIK_SUCCESS (0), or:
 *   TAVIK_ERROR_FAILURE (1)   fd == NULL
 *   TAVIK_ERROR_MEMORY (3)    no shared memory starts at `pointer`; *fd is -1 */
int32_t tavik_rpcmem_to_fd(int32_t* fd, const void* pointer);
/* Map `size` bytes of shared memory into DSP domain 3, and unmap them. Return TAVIK_SUCCESS (0), or
 * TAVIK_ERROR_MEMORY (3) when the platform refuses. */
int32_t tavik_rpcmem_mmap(int32_t fd, void* pointer, uint64_t size);
int32_t tavik_rpcmem_munmap(int32_t fd, void* pointer, uint64_t size);

/* ---- Layouts ---- */

/* The functions of this section check nothing, report nothing and cannot fail. Where they get no scratch memory,
 * they work without it and take longer. */

/* Returns `value` rounded up to a multiple of `alignment`, or 0 for an alignment of 0. */
uint64_t tavik_align_offset(uint64_t value, uint64_t alignment);
/* Returns `size` rounded up to a multiple of 2048, the granularity of shared buffers. In bytes. */
uint64_t tavik_apply_padding(uint64_t size);

/* Rearrange a row-major n_row x n_col array in place into blocks of block_rows x block_cols: one row of blocks
 * after the other, each block row-major inside.
 *
 * n_row is a multiple of block_rows, and n_col of block_cols. For other shapes the functions read rows at a pitch
 * of (n_col / block_cols) * block_cols elements, drop elements whose new place lies past the array, and leave the
 * places to which no element moves as they were. */
void tavik_matrix_block_linearize_i8(uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols,
                                     int8_t* data);
void tavik_matrix_block_linearize_u8(uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols,
                                     uint8_t* data);
void tavik_matrix_block_linearize_f16(uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols,
                                      uint16_t* data);
void tavik_matrix_block_linearize_i32(uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols,
                                      int32_t* data);
void tavik_matrix_block_linearize_u32(uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols,
                                      uint32_t* data);
void tavik_matrix_block_linearize_f32(uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols,
                                      float* data);

/* Rearrange blocks in place into a row-major n_row x n_col array: the inverse of block_linearize.
 *
 * Where n_row or n_col is not a multiple of the block's extent, `data` holds whole blocks, in all ceil(n_row /
 * block_rows) * ceil(n_col / block_cols). The functions drop the padding of the edge blocks. What stands past the
 * first n_row * n_col elements stays. */
void tavik_matrix_block_unlinearize_i8(uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols,
                                       int8_t* data);
void tavik_matrix_block_unlinearize_u8(uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols,
                                       uint8_t* data);
void tavik_matrix_block_unlinearize_f16(uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols,
                                        uint16_t* data);
void tavik_matrix_block_unlinearize_i32(uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols,
                                        int32_t* data);
void tavik_matrix_block_unlinearize_u32(uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols,
                                        uint32_t* data);
void tavik_matrix_block_unlinearize_f32(uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols,
                                        float* data);

/* Transpose a row-major n_row x n_col array in place into a row-major n_col x n_row array. */
void tavik_matrix_transpose_i8(uint64_t n_row, uint64_t n_col, int8_t* data);
void tavik_matrix_transpose_u8(uint64_t n_row, uint64_t n_col, uint8_t* data);
void tavik_matrix_transpose_f16(uint64_t n_row, uint64_t n_col, uint16_t* data);
void tavik_matrix_transpose_i32(uint64_t n_row, uint64_t n_col, int32_t* data);
void tavik_matrix_transpose_u32(uint64_t n_row, uint64_t n_col, uint32_t* data);
void tavik_matrix_transpose_f32(uint64_t n_row, uint64_t n_col, float* data);

/* Convert an n_row x n_col matrix in place between row-major order and a tiled layout (see the top of this file).
 *
 * n_row and n_col are multiples of 32. For wh it is enough that n_col is a multiple of 2 (f16) or 4 (i8). Other
 * shapes give what these sequences of the functions above give:
 *   ah       block linearize (n_row, n_col, 2, 1), then (n_row / 2, 2 * n_col, 16, 64).
 *            Back: the two inverses in reverse order
 *   wh, f16  transpose; block linearize (n_col, n_row, 2, 1), then (n_col / 2, 2 * n_row, n_col / 2, 64)
 *   wh, i8   transpose; block linearize (n_col, n_row, 4, 1), then (n_col / 4, 4 * n_row, n_col / 4, 128)
 *   zb       block linearize (n_row, n_col, 4, 8) of the array as the caller stored it */
void tavik_f16_rm_to_f16_ah_inplace(uint64_t n_row, uint64_t n_col, uint16_t* data);
void tavik_f16_ah_to_f16_rm_inplace(uint64_t n_row, uint64_t n_col, uint16_t* data);
void tavik_f16_rm_to_f16_wh_inplace(uint64_t n_row, uint64_t n_col, uint16_t* data);
void tavik_i8_rm_to_i8_wh_inplace(uint64_t n_row, uint64_t n_col, int8_t* data);
void tavik_f16_cm_to_f16_zb_inplace(uint64_t n_row, uint64_t n_col, uint16_t* data);
/* Converts an n_row x n_col matrix of packed row-major i4 values in place to wh.
 *
 *   n_col   a multiple of 8. For another n_col a row has n_col / 8 words, and the columns past them become zero
 *   data    room for ceil(n_row / 32) * ceil(n_col / 32) tiles of 512 bytes. Zeros pad the edge tiles */
void tavik_i4_rm_to_i4_wh_inplace(uint64_t n_row, uint64_t n_col, uint32_t* data);

/* Packs one 32 x 32 tile of i4 values into 512 bytes.
 *
 *   dst   512 bytes. Byte (i / 8) * 128 + j * 4 + i % 4 takes the low four bits of element (i, j): in its low
 *         nibble when i % 8 < 4, in its high nibble otherwise
 *   src   the weight tile transposed: 32 x 32 bytes, row-major, one value in the low nibble of each byte */
void tavik_host_layout_flat_to_w4_tile32x32(uint8_t* dst, const uint8_t* src);
/* Packs an n_row x n_col matrix of i4 values into tiles of 512 bytes as the function above makes them.
 *
 *   dst   ceil(n_row / 32) * ceil(n_col / 32) tiles. The tile of rows 32 * a and columns 32 * b on is tile number
 *         b * ceil(n_row / 32) + a. Zeros pad the edge tiles
 *   src   the weight matrix transposed: n_row x n_col bytes, row-major, one value in the low nibble of each byte */
void tavik_host_layout_w4_flat_to_weight(uint8_t* dst, const uint8_t* src, uint64_t n_row, uint64_t n_col);

/* ---- Half precision ---- */

/* Converts f32 to f16. The conversion rounds to nearest, ties to even. What overflows becomes infinite, subnormal
 * results are kept, and a NaN becomes a quiet NaN.
 *
 *   count      elements. The function converts whole groups of four and leaves the last count % 4 elements of `dst`
 *              as they were
 *   src, dst   arrays of `count` elements */
void tavik_f32_to_f16(uint64_t count, const float* src, uint16_t* dst);
/* Converts f16 to f32, exactly. The function converts whole groups of eight elements and leaves the last count % 8
 * elements of `dst` as they were. */
void tavik_f16_to_f32(uint64_t count, const uint16_t* src, float* dst);

/* Converts an activation from f32 row-major to f16 ah in one pass, rounding as tavik_f32_to_f16 does.
 *
 *   src   n_row x n_col elements. The function ignores columns past the last whole tile, from n_col / 32 * 32 on
 *   dst   ceil(n_row / 32) * (n_col / 32) tiles of 2048 bytes. In a last row of tiles that n_row does not fill,
 *         zeros pair an odd last row, and the pairs of rows after that keep what `dst` held */
void tavik_f32_rm_to_f16_ah(uint64_t n_row, uint64_t n_col, const float* src, uint16_t* dst);
/* Converts a result from f16 ah to f32 row-major, exactly.
 *
 *   src   ceil(n_row / 32) * (n_col / 32) tiles of 2048 bytes
 *   dst   n_row x n_col elements. The function does not write columns past the last whole tile */
void tavik_f16_ah_to_f32_rm(uint64_t n_row, uint64_t n_col, const uint16_t* src, float* dst);

/* ---- Quantisation ---- */

/* A quantised value q stands for the real number (q - zero point) * scale. Each row has a scale and a zero point of
 * its own. The quantisers also store the sum of the values q of each row, modulo 2^32. They round half away from
 * zero.
 *
 * Values that are not finite. Where a real number becomes an integer, NaN becomes 0, and a number out of range
 * becomes the nearest bound: of i32 for activations, of the clamp for weights. The comment of each quantiser says
 * how NaN affects the scale of a row. Results are the same on every platform. */

/* Quantises an f32 activation to u8, symmetrically, in row-major order.
 *
 *   src            n_row x n_col elements
 *   dst            n_row x n_col bytes
 *   scales, sums   n_row elements each
 *
 * For each row, in f32 with one rounding a step:
 *   m = the largest |x| of the row, 0 for an empty row; NaN is ignored
 *   scale = m / 127; inv = 1 / scale, or 0 where scale is 0
 *   v = round(x * inv)
 *   q = the low 8 bits of v + 128; the sum adds v + 128 uncut
 * All values of a finite row with m >= 2^-121 lie between 1 and 255. n_row and n_col may be any numbers. */
void tavik_f32_rm_to_u8_rm(uint64_t n_row, uint64_t n_col, const float* src, uint8_t* dst, float* scales,
                           uint32_t* sums);
/* Quantises like tavik_f32_rm_to_u8_rm, with the values in 64 x 32 tiles.
 *
 *   dst   ceil(n_row / 64) * ceil(n_col / 32) whole tiles of 2048 bytes. q of (r, c) goes to byte
 *         ((r / 64) * ceil(n_col / 32) + c / 32) * 2048 + (r % 64) * 32 + c % 32. Bytes that belong to no element
 *         keep what they held */
void tavik_f32_rm_to_u8_ah(uint64_t n_row, uint64_t n_col, const float* src, uint8_t* dst, float* scales,
                           uint32_t* sums);
/* Quantises like tavik_f32_rm_to_u8_rm, to 16 bits: scale = m / 32767, and q is the low 16 bits of v + 32768.
 *
 *   high, low   n_row x n_col bytes each, row-major: bits 8 to 15 of q, and bits 0 to 7 of q
 *   sums        n_row elements. The sums add q as it is stored */
void tavik_f32_rm_to_u16_rm(uint64_t n_row, uint64_t n_col, const float* src, uint8_t* high, uint8_t* low,
                            float* scales, uint32_t* sums);

/* Quantises f16 weights to i8, asymmetrically. A row of `src` is an output column of the product.
 *
 *   src                   n_row x n_col elements, row-major
 *   dst                   n_row x n_col values, row-major
 *   zero_points, scales   n_row elements each; scales are f16
 *   sums                  n_row elements
 *
 * For each row, in f16 with one rounding to nearest even a step:
 *   max, min = the row's largest and smallest value. Maximum and minimum ignore NaN unless the row starts with one;
 *              then both are NaN
 *   scale = (max - min) / 255
 *   inv = 1 / scale, computed in f32 and narrowed to f16; 0 where scale is 0, and infinite where scale <= 2^-16
 *   zero point = round(-128 - inv * min), clamped to -128 ... 127
 *   q = round(x * inv + zero point), clamped to -128 ... 127
 * In the last two lines the product and the sum are one fused operation with one rounding to f16; round() then
 * takes the result to an integer. The function stores a NaN scale as 0x7e00. A zero point that is NaN becomes 0,
 * both where it is stored and where q is computed from it. For n_col == 0 each row gets scale 0, zero point -128
 * and sum 0. */
void tavik_f16_rm_to_i8_rm(uint64_t n_row, uint64_t n_col, const uint16_t* src, int8_t* dst, int8_t* zero_points,
                           uint16_t* scales, int32_t* sums);
/* Quantises f16 weights to i4 like tavik_f16_rm_to_i8_rm, with 15 for 255, -8 for -128, and bounds of -8 and 7.
 *
 *   dst           n_row rows of n_col / 8 words, eight values to a word. The last n_col % 8 elements of a row count
 *                 for max and min alone
 *   zero_points   n_row / 8 words, which the caller has cleared
 *
 * Kept: the function packs zero points for whole groups of eight rows only, and ORs them into `zero_points`. */
void tavik_f16_rm_to_i4_rm(uint64_t n_row, uint64_t n_col, const uint16_t* src, uint32_t* dst, uint32_t* zero_points,
                           uint16_t* scales, int32_t* sums);

/* Returns the low four bits of `byte` as a signed value, -8 to 7. */
int8_t int4_to_int8(uint8_t byte);

/* Turns the integer sums of an a8w8 product back into real numbers.
 *
 *   dst                                   n_row x n_col elements, row-major. The function does not write columns
 *                                         past the last whole tile
 *   acc                                   n_row x n_col sums in 64 x 32 tiles, n_col / 32 tiles to a row of tiles
 *   activation_scales, activation_sums    n_row elements each, f32 and i32
 *   zero_points                           n_col elements, i8
 *   weight_scales, weight_sums            n_col elements each, f16 and i32
 *
 * For each element, in f32 and in this order:
 *   t = acc - 128 * weight_sum
 *   t = t - zero_point * activation_sum
 *   t = t + (128 * zero_point) * n_inner
 *   dst = (t * activation_scale) * weight_scale
 * In each of the first three lines the product (in the third, the one with n_inner) and the sum are one fused
 * operation with one rounding. The integers become f32 before they enter. The result is the sum over k of (a - 128)
 * * (w - zero_point), times both scales. A NaN is stored as 0x7fc00000. For n_row < 1 or n_col < 1 the function
 * does nothing. */
void tavik_a8w8_output_to_f32_rm(int32_t n_row, int32_t n_col, int32_t n_inner, float* dst, const int32_t* acc,
                                 const float* activation_scales, const int32_t* activation_sums,
                                 const int8_t* zero_points, const uint16_t* weight_scales, const int32_t* weight_sums);
/* Turns the integer sums of an a8w4 product back into real numbers, like the function above. `zero_points` holds
 * n_col i4 values, eight to a word. */
void tavik_a8w4_output_to_f32_rm(int32_t n_row, int32_t n_col, int32_t n_inner, float* dst, const int32_t* acc,
                                 const float* activation_scales, const int32_t* activation_sums,
                                 const uint32_t* zero_points, const uint16_t* weight_scales,
                                 const int32_t* weight_sums);

/* ---- Diagnostics ---- */

/* Print one line: a label, the first and the last `edge` elements, and minimum, maximum, mean and sum of all
 * elements, computed in f64. They print all elements when count < 2 * edge.
 *
 *   count   elements, at least 1: the functions read the first element in any case
 *
 * Return what the last fprintf returns. */
int tavik_vector_print_i8(FILE* stream, uint64_t count, const int8_t* data, const char* label, uint64_t edge);
int tavik_vector_print_u8(FILE* stream, uint64_t count, const uint8_t* data, const char* label, uint64_t edge);
int tavik_vector_print_f16(FILE* stream, uint64_t count, const uint16_t* data, const char* label, uint64_t edge);
int tavik_vector_print_i32(FILE* stream, uint64_t count, const int32_t* data, const char* label, uint64_t edge);
int tavik_vector_print_u32(FILE* stream, uint64_t count, const uint32_t* data, const char* label, uint64_t edge);
int tavik_vector_print_f32(FILE* stream, uint64_t count, const float* data, const char* label, uint64_t edge);

/* Compare a vector of `count` elements with a reference and print the largest |reference - data| in one line.
 * Elements become f32 first, and the deviation is computed in f32. A NaN counts as no deviation. Return 0 when the
 * largest deviation exceeds 2000, else 1. */
int tavik_vector_check_i8(FILE* stream, uint64_t count, const float* reference, const int8_t* data, const char* label);
int tavik_vector_check_u8(FILE* stream, uint64_t count, const float* reference, const uint8_t* data, const char* label);
int tavik_vector_check_f16(FILE* stream, uint64_t count, const float* reference, const uint16_t* data,
                           const char* label);
int tavik_vector_check_i32(FILE* stream, uint64_t count, const float* reference, const int32_t* data,
                           const char* label);
int tavik_vector_check_u32(FILE* stream, uint64_t count, const float* reference, const uint32_t* data,
                           const char* label);
int tavik_vector_check_f32(FILE* stream, uint64_t count, const float* reference, const float* data, const char* label);

/* ---- Products ---- */

/* C = X * W, where the activation X is n_row x n_inner, the weights W n_inner x n_col and the result C
 * n_row x n_col. A name tells type and layout of the result, of the activation and of the weights, in this order.
 *
 *   context          of tavik_init
 *   n_row            0 ... n_row_max
 *   n_col, n_inner   multiples of 32
 *   W_fd, W_offset   weights: the descriptor of a shared buffer, and bytes from its start. The product runs in the
 *                    session that maps this buffer
 *
 * Every product returns TAVIK_SUCCESS (0), or, in the order of the checks:
 *   TAVIK_ERROR_BAD_DIMENSION (2), recorded under the function name "mm_size_check" with one of these messages:
 *     "Column dimension not multiple of 32"
 *         n_col % 32 != 0
 *     "Inner dimension not multiple of 32"
 *         n_inner % 32 != 0
 *     "Dimension(s) too large (see tavik_options to adapt)"
 *         n_row * n_col > output_matrix_size_max, n_row * n_inner > input_matrix_size_max, n_row > n_row_max,
 *         n_row < 0, or n_row != 0 && (n_col < 0 || n_inner < 0).
 *         Kept: the message calls a negative dimension too large
 *     "Activation of ... bytes in whole tiles exceeds its buffer of ...", or "Result of ...":
 *         the dimensions are within the options, but the matrices, padded to whole tiles, do not fit the
 *         cross-session buffers. tavik_npu_mm_f16_ah_f16_ah_f16_wh does not use these buffers and does not check
 *         this
 *   TAVIK_ERROR_FAILURE (1)
 *     The session of W_fd could not be found or made active, or the remote call failed. The result is then
 *     unchanged */

/* Multiplies matrices that all stand in shared buffers in their layouts. The function converts and copies nothing.
 *
 *   A_fd, A_offset   result, f16 ah, n_row rounded up to a multiple of 32 rows; descriptor, and bytes from the
 *                    buffer's start
 *   X_fd, X_offset   activation, likewise
 *   W_fd, W_offset   weights, f16 wh
 *
 * All three buffers must be mapped in the same session. */
uint32_t tavik_npu_mm_f16_ah_f16_ah_f16_wh(tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner,
                                           uint32_t A_fd, uint32_t X_fd, uint32_t W_fd, uint32_t A_offset,
                                           uint32_t X_offset, uint32_t W_offset);

/* Multiplies an f32 activation by f16 weights. The function rounds X to f16, and the DSP computes the result to
 * f16.
 *
 *   A                n_row x n_col elements, row-major, in any memory
 *   X                n_row x n_inner elements, row-major, in any memory
 *   W_fd, W_offset   weights, f16 wh */
uint32_t tavik_npu_mm_f32_rm_f32_rm_f16_wh(tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner,
                                           float* A, const float* X, uint32_t W_fd, uint32_t W_offset);

/* Computes two products of one activation, A_U = X * UW and A_F = X * FW, each n_row x n_col. When one session maps
 * both weights, the function makes one remote call. Otherwise it computes one product after the other; a failure of
 * the second product then leaves the first result in A_U. Operands are those of tavik_npu_mm_f32_rm_f32_rm_f16_wh. */
uint32_t tavik_npu_2mm_f32_rm_f32_rm_f16_wh(tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner,
                                            float* A_U, float* A_F, const float* X, uint32_t UW_fd, uint32_t FW_fd,
                                            uint32_t UW_offset, uint32_t FW_offset);

/* Computes three products of one activation: A_Q = X * QW, n_row x n_col_q, and A_K = X * KW and A_V = X * VW,
 * n_row x n_col_kv each. The function works like the product of two weights above.
 *
 * Kept: where the weights are in several sessions, the product of VW runs in the session of KW, and fails when this
 * session does not map VW. */
uint32_t tavik_npu_3mm_f32_rm_f32_rm_f16_wh(tavik_context* context, int32_t n_row, int32_t n_col_q, int32_t n_col_kv,
                                            int32_t n_inner, float* A_Q, float* A_K, float* A_V, const float* X,
                                            uint32_t QW_fd, uint32_t KW_fd, uint32_t VW_fd, uint32_t QW_offset,
                                            uint32_t KW_offset, uint32_t VW_offset);

/* Products of an f32 activation with quantised weights, a8w8 (i8) and a8w4 (i4). The host quantises each row of the
 * activation to 8 bits (tavik_f32_rm_to_u8_ah), the DSP computes exact i32 sums, and the host turns the sums back
 * into f32 (tavik_a8w8_output_to_f32_rm, tavik_a8w4_output_to_f32_rm). Results and activation are row-major f32 in
 * any memory; the shapes are those of the f16 products above.
 *
 * One shared buffer holds a weight matrix as four arrays, each at a byte offset of its own:
 *   ..q_offset     the values, n_inner x n_col, i8 wh or i4 wh
 *   ..z_offset     zero points of the columns: n_col i8, or n_col i4, eight to a 32-bit word
 *   ..s_offset     scales of the columns: n_col f16
 *   ..sum_offset   sums of the quantised values of the columns: n_col i32
 *
 * The host reads zero points, scales and sums as elements of these types: the offset of an array is a multiple of the
 * size of its elements, which is 4 for i4 zero points. The products do not check this.
 *
 * The products also return TAVIK_ERROR_FAILURE (1) when zero points, scales or sums reach past the end of the
 * buffer. This result and those after it are then unchanged; a fused product has written the results before it.
 *
 * Kept: where the weights of a fused product are in several sessions, the DSP computes each product alone and
 * leaves its sums in A0. The a8w8 products nonetheless read the second result from A1 and the third from A2, and
 * return what an earlier call left there. The a8w4 products read A0. The product of VW runs in the session of KW.
 * Kept: the single a8w4 product runs on session 0 without looking at W_fd's session. Session 0 must map the
 * weights, be active and hold the matrix unit (tavik_lock_compute_device). */
uint32_t tavik_npu_mm_a8w8_f32_rm_f32_rm_i8f16_wh(tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner,
                                                  float* A, const float* X, uint32_t W_fd, uint32_t Wq_offset,
                                                  uint64_t Wz_offset, uint64_t Ws_offset, uint64_t Wsum_offset);
uint32_t tavik_npu_2mm_a8w8_f32_rm_f32_rm_i8f16_wh(tavik_context* context, int32_t n_row, int32_t n_col,
                                                   int32_t n_inner, float* A_U, float* A_F, const float* X,
                                                   uint32_t UW_fd, uint32_t FW_fd, uint32_t UWq_offset,
                                                   uint64_t UWz_offset, uint64_t UWs_offset, uint64_t UWsum_offset,
                                                   uint32_t FWq_offset, uint64_t FWz_offset, uint64_t FWs_offset,
                                                   uint64_t FWsum_offset);
uint32_t tavik_npu_3mm_a8w8_f32_rm_f32_rm_i8f16_wh(tavik_context* context, int32_t n_row, int32_t n_col_q,
                                                   int32_t n_col_kv, int32_t n_inner, float* A_Q, float* A_K,
                                                   float* A_V, const float* X, uint32_t QW_fd, uint32_t KW_fd,
                                                   uint32_t VW_fd, uint32_t QWq_offset, uint64_t QWz_offset,
                                                   uint64_t QWs_offset, uint64_t QWsum_offset, uint32_t KWq_offset,
                                                   uint64_t KWz_offset, uint64_t KWs_offset, uint64_t KWsum_offset,
                                                   uint32_t VWq_offset, uint64_t VWz_offset, uint64_t VWs_offset,
                                                   uint64_t VWsum_offset);
uint32_t tavik_npu_mm_a8w4_f32_rm_f32_rm_i4f16_wh(tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner,
                                                  float* A, const float* X, uint32_t W_fd, uint32_t Wq_offset,
                                                  uint64_t Wz_offset, uint64_t Ws_offset, uint64_t Wsum_offset);
uint32_t tavik_npu_2mm_a8w4_f32_rm_f32_rm_i4f16_wh(tavik_context* context, int32_t n_row, int32_t n_col,
                                                   int32_t n_inner, float* A_U, float* A_F, const float* X,
                                                   uint32_t UW_fd, uint32_t FW_fd, uint32_t UWq_offset,
                                                   uint64_t UWz_offset, uint64_t UWs_offset, uint64_t UWsum_offset,
                                                   uint32_t FWq_offset, uint64_t FWz_offset, uint64_t FWs_offset,
                                                   uint64_t FWsum_offset);
uint32_t tavik_npu_3mm_a8w4_f32_rm_f32_rm_i4f16_wh(tavik_context* context, int32_t n_row, int32_t n_col_q,
                                                   int32_t n_col_kv, int32_t n_inner, float* A_Q, float* A_K,
                                                   float* A_V, const float* X, uint32_t QW_fd, uint32_t KW_fd,
                                                   uint32_t VW_fd, uint32_t QWq_offset, uint64_t QWz_offset,
                                                   uint64_t QWs_offset, uint64_t QWsum_offset, uint32_t KWq_offset,
                                                   uint64_t KWz_offset, uint64_t KWs_offset, uint64_t KWsum_offset,
                                                   uint32_t VWq_offset, uint64_t VWz_offset, uint64_t VWs_offset,
                                                   uint64_t VWsum_offset);

/* Compute exact i32 sums on the cross-session buffers: A0 = X * W. ui8i8 takes i8 weights, ui8i4 takes i4 weights.
 *
 *   n_row            passed on without rounding. The rows must lie inside X and A0
 *   X, A0            the context's cross-session buffers. The caller has put the activation into X, u8 in 64 x 32
 *                    tiles; the result in A0 is i32 in 64 x 32 tiles
 *   W_fd, W_offset   weights, i8 wh or i4 wh
 *   A_fd, X_fd, A_offset, X_offset
 *                    not used
 *
 * Return the statuses of the products above. */
uint32_t tavik_veyra_1mm_ui8i8_i32_tessel(tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner,
                                          uint32_t A_fd, uint32_t X_fd, uint32_t W_fd, uint32_t A_offset,
                                          uint32_t X_offset, uint32_t W_offset);
uint32_t tavik_veyra_1mm_ui8i4_i32_tessel(tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner,
                                          uint32_t A_fd, uint32_t X_fd, uint32_t W_fd, uint32_t A_offset,
                                          uint32_t X_offset, uint32_t W_offset);

/* Runs the module's self-test, which adds 1 to each of the first `size` bytes of the shared buffer with descriptor
 * v_fd.
 *
 * Returns TAVIK_SUCCESS (0), or TAVIK_ERROR_FAILURE (1) when the session of v_fd could not be found or made active,
 * or the remote call failed. */
uint32_t tavik_npu_test(tavik_context* context, int32_t size, uint32_t v_fd);

/* ---- Reference products ---- */

/* C = A * W on the host, to compare the DSP's results with.
 *
 *   A   n_row x n_inner elements, row-major, f16 or f32
 *   C   n_row x n_col elements, row-major, f32
 *   W   f16 in zb blocks, as tavik_f16_cm_to_f16_zb_inplace(n_col, n_inner, W) makes them of weights stored column
 *       by column: element (k, c) stands at (c / 4) * 4 * n_inner + (k / 8) * 32 + (c % 4) * 8 + k % 8
 *
 * Every operation on f16 rounds to f16, to nearest even; a multiply-add rounds once. The functions form sums in the
 * order that their comments give, so that results are the same to the last bit on every processor. A result that is
 * NaN is the NaN 0x7fc00000. C, A and W need the alignment of their elements only. The functions read nothing past
 * the n_inner values of a row or a column. */

/* Multiplies an f16 activation on the host: rows in blocks of four by qmmbp_HxD, the last n_row % 4 rows by qdotxH.
 *
 *   context   only the three limits are used
 *   n_row     0 leaves C unchanged
 *
 * Returns TAVIK_SUCCESS (0), or TAVIK_ERROR_BAD_DIMENSION (2) on the conditions of the products' first three
 * messages; C is then unchanged. */
uint32_t tavik_cpu_mm_fp32_rm_fp16_rm_fp16_zb(const tavik_context* context, uint64_t n_row, uint64_t n_col,
                                              uint64_t n_inner, float* C, const uint16_t* A, const uint16_t* W);
/* Multiplies an f32 activation on the host. The function rounds A to f16, into the start of the cross-session
 * buffer X, and goes on like the function above.
 *
 * Also returns TAVIK_ERROR_BAD_DIMENSION (2) when 2 * n_row * n_inner bytes exceed the size of X; nothing is then
 * written. */
uint32_t tavik_cpu_mm_fp32_rm_fp32_rm_fp16_zb(tavik_context* context, uint64_t n_row, uint64_t n_col, uint64_t n_inner,
                                              float* C, const float* A, const uint16_t* W);

/* The steps of which the reference products are made. They check nothing. */

/* Computes rows 4p to 4p + 3 and columns 4q to 4q + 3 of the result, as far as the result has them. C, A and W are
 * the whole matrices.
 *
 * qmmbp_HxD computes a block of four rows and four columns. qdotxH computes each row of a block with fewer rows. In
 * a block with fewer columns, each result is the f32 sum, in ascending order, of products rounded to f16.
 * Kept: for such columns the function takes the n_inner values of column c to stand in W from c * n_inner on. */
void dravin_math_matmul_pq(uint64_t n_row, uint64_t n_col, uint64_t n_inner, uint64_t p, uint64_t q, float* C,
                           const uint16_t* A, const uint16_t* W);

/* Computes a 4 x 4 block of the result with f16 sums.
 *
 *   ldc       elements from one row of C to the next
 *   n_inner   elements from one row of Ab to the next. The last n_inner % 8 inner indices are left out
 *   C         the block's first element
 *   Wb        the block's four columns of W, in zb blocks
 *   Ab        the block's first row of A
 *
 * Each result has eight f16 sums. Sum l adds the inner indices l, l + 8, l + 16, ... in ascending order by fused
 * multiply-add; a sum that overflows f16 becomes infinite. The eight sums are added in f32 as
 * ((l0 + l4) + (l1 + l5)) + ((l2 + l6) + (l3 + l7)). */
void qmmbp_HxD(uint64_t ldc, uint64_t n_inner, float* C, const uint16_t* Wb, const uint16_t* Ab);
/* Computes a 4 x 4 block like qmmbp_HxD, with four f32 sums for each result. Sum l adds the inner indices
 * l, l + 4, l + 8, ...; the four sums are added as (l0 + l1) + (l2 + l3). */
void qmmbp_HxD_(uint64_t ldc, uint64_t n_inner, float* C, const uint16_t* Wb, const uint16_t* Ab);
/* Computes one row of a 4 x 4 block with f16 sums.
 *
 *   n_inner   the last n_inner % 16 inner indices are left out
 *   Crow      the row's four results
 *   Wb        the block's four columns of W, in zb blocks
 *   Arow      the row of A
 *
 * Each result has sixteen f16 sums. Sum l adds the inner indices l, l + 16, ...; the sums are added in f16:
 * v[i] = l[i] + l[i + 8], u[i] = v[i] + v[i + 4], then (u0 + u1) + (u2 + u3).
 * Kept: the last bits can differ from those of qmmbp_HxD. */
void qdotxH(uint64_t n_inner, float* Crow, const uint16_t* Wb, const uint16_t* Arow);

#ifdef __cplusplus
}
#endif
#endif

/* libmorun, lower interface: dense matrix products on the matrix unit of the DSP, on an explicit context.
 *
 * In calling order: tavik_options_alloc, tavik_init, tavik_buffer_alloc for the weights, one of the conversions to lay
 * them out, the products, tavik_buffer_free for each buffer, tavik_cleanup.
 *
 * Statuses. Every operation that returns int32_t or uint32_t returns one of TAVIK_SUCCESS, TAVIK_ERROR_FAILURE,
 * TAVIK_ERROR_BAD_DIMENSION and TAVIK_ERROR_MEMORY. A failing operation also fills the calling thread's error record
 * and prints nothing. A failed remote call is recorded with status 1 and the message "%s in %s": the text of errno,
 * then the source text of the failed test.
 *
 * Threads. The library starts none and takes no locks. The error record is per thread; a context is used by one thread
 * at a time and runs one product at a time. Conversions work on the memory they are given and on nothing else.
 *
 * Layouts, by their codes in the names. (r, c) is an element of an R x C matrix; positions count elements.
 *
 *   rm        row-major: r * C + c
 *   ah, f16   activations and results: 32 x 32 tiles, row of tiles after row of tiles; in a tile each pair of rows is
 *             interleaved column by column: ((r % 32) / 2) * 64 + (c % 32) * 2 + r % 2
 *   wh, f16   weights: 32 x 32 tiles in the same order; in a tile each pair of columns is interleaved row by row:
 *             ((c % 32) / 2) * 64 + (r % 32) * 2 + c % 2
 *   wh, i8    the same with groups of four columns: ((c % 32) / 4) * 128 + (r % 32) * 4 + c % 4
 *   wh, i4    32 x 32 tiles of 512 bytes in the same order; element (r, c) is in byte
 *             ((c % 32) / 8) * 128 + (r % 32) * 4 + c % 4 of its tile, in the low nibble when c % 8 < 4, else in the
 *             high one; edge tiles are padded with zero
 *   ah, 8-bit and 32-bit
 *             64 x 32 tiles, row-major inside, row of tiles after row of tiles
 *   zb        4 x 8 blocks, row-major inside, row of blocks after row of blocks
 *
 * f16 is IEEE 754 binary16, held as its 16-bit pattern in a uint16_t. i4 in row-major order stands eight to a 32-bit
 * little-endian word, the first in the least significant nibble.
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
  TAVIK_SUCCESS = 0,
  TAVIK_ERROR_FAILURE = 1, /* no output location, a remote or platform call that failed, a descriptor not found, every
                              failure of tavik_buffer_alloc */
  TAVIK_ERROR_BAD_DIMENSION = 2, /* not a multiple of the tile, or too large for the cross-session buffers */
  TAVIK_ERROR_MEMORY = 3         /* host or shared memory, a descriptor of it, or its mapping */
};

/* The last failure of a thread; a later success does not clear it. Texts are cut to 127 characters. */
typedef struct tavik_error {
  int32_t code;
  char message[128];
  char function[128];
  char file[128];
  int32_t line;
} tavik_error;

/* Fills the calling thread's record; `format` is printf's. Returns the character count of the last formatting step. */
int tavik_set_error(int32_t code, const char* function, const char* file, int32_t line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

/* The calling thread's record: code 0 and empty texts until the thread's first failure. Valid in that thread only. */
const tavik_error* tavik_error_get_last(void);

/* Writes "[Tavik] error CODE (FUNCTION, FILE, line LINE):", then the message on a second line behind ten blanks, to
 * standard error. Returns what fprintf does. */
int tavik_error_print(const tavik_error* error);

/* ---- Options ---- */

/* The largest matrices that a context will ever hand to the DSP; tavik_init sizes its buffers by them. In elements. */
typedef struct tavik_options {
  uint64_t output_matrix_size_max; /* n_row * n_col; default 2^24 */
  uint64_t n_row_max;              /* n_row; default 1024 */
  uint64_t input_matrix_size_max;  /* n_row * n_inner; default 2^28 */
  uint64_t reserved;               /* 0 */
} tavik_options;

/* Stores a new record with the defaults, to be freed with tavik_options_free. Status 1 for a NULL location, 3 without
 * memory; then nothing is stored. */
int32_t tavik_options_alloc(tavik_options** options);
/* Prints the two matrix sizes, or "NULL options". */
void tavik_options_print(FILE* stream, const tavik_options* options);
/* NULL is allowed. The record may be freed right after tavik_init. */
void tavik_options_free(tavik_options* options);

/* ---- Context ---- */

enum { TAVIK_MAX_SESSIONS = 4, TAVIK_MAX_BUFFERS = 32, TAVIK_MAX_DESCRIPTOR = 1023, TAVIK_SESSION_NAME_SIZE = 256 };

/* All state of the lower interface. Made by tavik_init; to be read freely, written by the library alone.
 *
 * Entries 0 to n_buffers - 1 of the four buffer columns are valid and contiguous. fd_to_session has an entry for every
 * descriptor that the library ever handed out and is never cleared. */
typedef struct tavik_context {
  uint64_t n_sessions; /* open sessions, each a protection domain of its own on the compute DSP */
  int32_t session_id[TAVIK_MAX_SESSIONS];
  char session_name[TAVIK_MAX_SESSIONS][TAVIK_SESSION_NAME_SIZE];
  int32_t session_domain[TAVIK_MAX_SESSIONS]; /* effective domain id */
  uint64_t session_handle[TAVIK_MAX_SESSIONS];
  uint64_t A_size; /* bytes of each of A0, A1, A2 */
  uint64_t X_size; /* bytes of X */
  void* A0;        /* cross-session buffers, mapped into every session: results A0, A1, A2, activation X */
  void* A1;
  void* A2;
  void* X;
  int32_t A0_fd;
  int32_t A1_fd;
  int32_t A2_fd;
  int32_t X_fd;
  uint64_t n_buffers; /* the caller's shared buffers */
  void* buffer_pointer[TAVIK_MAX_BUFFERS];
  int32_t buffer_fd[TAVIK_MAX_BUFFERS];
  uint64_t buffer_size[TAVIK_MAX_BUFFERS]; /* bytes */
  int32_t buffer_session[TAVIK_MAX_BUFFERS];
  int32_t fd_to_session[TAVIK_MAX_DESCRIPTOR + 1];
  uint64_t output_matrix_size_max; /* copies of the options */
  uint64_t input_matrix_size_max;
  uint64_t n_row_max;
  uint64_t active_session; /* the session that holds the DSP resources; all ones until tavik_init */
  bool tessel_locked;      /* whether that session holds the matrix unit */
} tavik_context;

/* Opens session 0 on the compute DSP, acquires its resources, allocates the four cross-session buffers and maps them.
 * On success stores the context; on failure releases everything, stores nothing and returns 1  the session, its
 * resources, a descriptor above 1023, or a mapping failed 3  host or shared memory could not be had (a shared buffer is
 * limited to 2^31 - 1 bytes) Neither argument may be NULL. With the default options 704 MiB of shared memory are
 * reserved, and not touched. */
int32_t tavik_init(const tavik_options* options, tavik_context** context);

/* Unlocks the matrix unit, releases the resources, unmaps and frees the cross-session buffers, closes every session and
 * frees the context. Buffers of tavik_buffer_alloc must be freed before. Status 1 when a step fails: the context then
 * stays allocated and partly torn down, and tavik_context_free releases its memory. */
int32_t tavik_cleanup(tavik_context* context);

/* Reserve and free the matrix unit for the active session. Return the remote status of the one call they make, or 0
 * without a call when there is nothing to do. The error record is not filled. Status 1 for a context that is NULL or
 * was never through tavik_init. */
int32_t tavik_lock_compute_device(tavik_context* context);
int32_t tavik_unlock_compute_device(tavik_context* context);

/* Greetings, on standard error: of the host alone, and over the whole path to the DSP and back. The second initialises
 * and cleans up a context of its own with default options, and ends the process with exit status 1 when that fails; it
 * returns the status of its buffer allocation or of its test. */
int32_t tavik_hello_host(void);
int32_t tavik_hello_veyra(void);

/* The steps of which tavik_init and tavik_buffer_alloc are made. */

/* A zero-filled context with no active session. Status 1 for a NULL location, 3 without memory. */
int32_t tavik_context_alloc(tavik_context** context);
/* Releases the cross-session buffers and the record; unmaps and closes nothing. NULL is allowed. */
void tavik_context_free(tavik_context* context);
/* Prints sessions, buffers and state. A NULL context prints nothing. */
void tavik_context_print(FILE* stream, const tavik_context* context);
/* Opens session number n_sessions. Status 1 when the platform refuses or four are open. */
int32_t tavik_context_open_session(tavik_context* context);
/* Map and unmap the cross-session buffers in session `session`, and tell its module. Stop at the first failure,
 * status 1. */
int32_t tavik_context_mmap_cross_session_buffers(tavik_context* context, uint64_t session);
int32_t tavik_context_munmap_cross_session_buffers(tavik_context* context, uint64_t session);

/* Address and session index of a buffer of tavik_buffer_alloc, by its descriptor. Status 1 when it is none. */
int32_t tavik_context_get_pointer_from_fd(tavik_context* context, int32_t fd, void** pointer);
int32_t tavik_context_get_session_from_fd(tavik_context* context, int32_t fd, uint64_t* session);
/* The handle of the session that `fd` belongs to. Makes that session active and locks the matrix unit for it: resources
 * and lock are moved from the session that had them. A descriptor that was never handed out belongs to session 0.
 * Status 1 when a step fails, when the descriptor is not within 0 to 1023, or when the context was never through
 * tavik_init. */
int32_t tavik_context_get_handle_from_fd(tavik_context* context, int32_t fd, uint64_t* handle);

/* ---- Shared buffers ---- */

/* Allocates `size` bytes that the DSP sees too and maps them into the first session that has room, opening one more
 * when none has. `pointer` receives the address and `fd` the descriptor by which the products know the buffer; either
 * may be NULL, not both. Status 1 for every failure of the buffer's own steps (no output location, 32 buffers in use,
 * no shared memory, no descriptor or one above 1023, no mapping) and of the new session's. After a failure NULL and -1
 * are stored. */
int32_t tavik_buffer_alloc(tavik_context* context, uint64_t size, void** pointer, int32_t* fd);

/* Unmaps and frees it. Status 1 when `fd` is not such a buffer, or when the DSP refuses; the buffer then stays. */
int32_t tavik_buffer_free(tavik_context* context, int32_t fd);

/* ---- Memory ---- */

/* Heap memory of `size` bytes, stored in `*pointer`; size 0 stores NULL. Status 1 for a NULL location, 3 without
 * memory. */
int32_t tavik_malloc(void** pointer, uint64_t size);
int32_t tavik_malloc_zero(void** pointer, uint64_t size);
/* Resizes `*pointer`; size 0 frees it and stores NULL. Status 3 without memory. Kept: on failure the old block is freed
 * and the location is left holding its dead address. The location must not be NULL. */
int32_t tavik_realloc(void** pointer, uint64_t size);

/* Shared memory of `size` bytes; size 0 stores NULL. Statuses as tavik_malloc. Kept: the platform takes a signed 32-bit
 * size and receives `size` cut to that, yet the zeroing form clears all of `size`; sizes above 2^31 - 1 must not be
 * given to it. */
int32_t tavik_rpcmem_alloc(void** pointer, uint64_t size);
int32_t tavik_rpcmem_alloc_zero(void** pointer, uint64_t size);
/* NULL is allowed. */
void tavik_rpcmem_free(void* pointer);
/* The descriptor of shared memory; -1 is stored too. Status 1 for a NULL location, 3 when there is none. */
int32_t tavik_rpcmem_to_fd(int32_t* fd, const void* pointer);
/* Map shared memory into DSP domain 3 and out again. Status 3 when the platform refuses. */
int32_t tavik_rpcmem_mmap(int32_t fd, void* pointer, uint64_t size);
int32_t tavik_rpcmem_munmap(int32_t fd, void* pointer, uint64_t size);

/* ---- Layouts ---- */

/* The conversions below check nothing, report nothing and cannot fail: where scratch memory cannot be had they work
 * without, slower. */

/* ceil(value / alignment) * alignment; 0 for an alignment of 0. */
uint64_t tavik_align_offset(uint64_t value, uint64_t alignment);
/* `size` rounded up to a multiple of 2048 bytes, as shared buffers are. */
uint64_t tavik_apply_padding(uint64_t size);

/* Rearranges a row-major n_row x n_col array in place into blocks of block_rows x block_cols, row of blocks after row
 * of blocks, row-major inside. n_row and n_col are multiples of the block's; otherwise the rows are read at a pitch of
 * (n_col / block_cols) * block_cols and elements whose place lies past the array are dropped. */
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

/* The inverse. Where n_row or n_col is not a multiple of the block's, the data hold whole blocks, ceil(n_row /
 * block_rows) * ceil(n_col / block_cols) of them, and the padding of the edge blocks is dropped. */
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

/* Transposes a row-major n_row x n_col array in place into a row-major n_col x n_row one. */
void tavik_matrix_transpose_i8(uint64_t n_row, uint64_t n_col, int8_t* data);
void tavik_matrix_transpose_u8(uint64_t n_row, uint64_t n_col, uint8_t* data);
void tavik_matrix_transpose_f16(uint64_t n_row, uint64_t n_col, uint16_t* data);
void tavik_matrix_transpose_i32(uint64_t n_row, uint64_t n_col, int32_t* data);
void tavik_matrix_transpose_u32(uint64_t n_row, uint64_t n_col, uint32_t* data);
void tavik_matrix_transpose_f32(uint64_t n_row, uint64_t n_col, float* data);

/* In place between row-major and the tiled layouts. n_row and n_col are multiples of 32 (wh: n_col of 2 for f16, of 4
 * for i8); other shapes give what the generic calls of which the layout is made give:
 *   ah       block linearize (n_row, n_col, 2, 1), then (n_row / 2, 2 * n_col, 16, 64);
 *            back: the inverses in reverse order
 *   wh, f16  transpose; block linearize (n_col, n_row, 2, 1), then (n_col / 2, 2 * n_row, n_col / 2, 64)
 *   wh, i8   transpose; block linearize (n_col, n_row, 4, 1), then (n_col / 4, 4 * n_row, n_col / 4, 128)
 *   zb       block linearize (n_row, n_col, 4, 8), of the array as stored */
void tavik_f16_rm_to_f16_ah_inplace(uint64_t n_row, uint64_t n_col, uint16_t* data);
void tavik_f16_ah_to_f16_rm_inplace(uint64_t n_row, uint64_t n_col, uint16_t* data);
void tavik_f16_rm_to_f16_wh_inplace(uint64_t n_row, uint64_t n_col, uint16_t* data);
void tavik_i8_rm_to_i8_wh_inplace(uint64_t n_row, uint64_t n_col, int8_t* data);
void tavik_f16_cm_to_f16_zb_inplace(uint64_t n_row, uint64_t n_col, uint16_t* data);
/* 4-bit weights from packed row-major words. n_col is a multiple of 8; of another n_col the whole words of a row alone
 * are read. `data` has room for ceil(n_row / 32) * ceil(n_col / 32) tiles of 512 bytes, and the edge tiles are padded
 * with zero. */
void tavik_i4_rm_to_i4_wh_inplace(uint64_t n_row, uint64_t n_col, uint32_t* data);

/* One 32 x 32 tile of values, one a byte, row-major, into a tile of 512 bytes: byte (i / 8) * 128 + j * 4 + i % 4 takes
 * the low four bits of element (i, j), in its low nibble when i % 8 < 4, else in its high one. `src` is the weight tile
 * transposed. */
void tavik_host_layout_flat_to_w4_tile32x32(uint8_t* dst, const uint8_t* src);
/* An n_row x n_col row-major array of such values, the weight transposed, into ceil(n_row / 32) * ceil(n_col / 32)
 * tiles, the index of the row of tiles running fastest; edge tiles are padded with zero. */
void tavik_host_layout_w4_flat_to_weight(uint8_t* dst, const uint8_t* src, uint64_t n_row, uint64_t n_col);

/* ---- Half precision ---- */

/* IEEE 754 binary32 to binary16: round to nearest, ties to even; overflow to infinity; subnormals kept; NaN stays NaN,
 * quiet. Whole groups of four are converted, the last count % 4 elements of `dst` are left alone. */
void tavik_f32_to_f16(uint64_t count, const float* src, uint16_t* dst);
/* binary16 to binary32, exact. Whole groups of eight, likewise. */
void tavik_f16_to_f32(uint64_t count, const uint16_t* src, float* dst);

/* f32 row-major to f16 ah in one pass, for activations. `dst` holds ceil(n_row / 32) * (n_col / 32) tiles of 2048
 * bytes; columns past the last whole tile are ignored. In a partial last band an odd last row is paired with zeros, and
 * the pairs past it keep what `dst` held. */
void tavik_f32_rm_to_f16_ah(uint64_t n_row, uint64_t n_col, const float* src, uint16_t* dst);
/* The inverse, for results: n_row rows at a pitch of n_col; columns past the last whole tile are not written. */
void tavik_f16_ah_to_f32_rm(uint64_t n_row, uint64_t n_col, const uint16_t* src, float* dst);

/* ---- Products ---- */

/* C = X * W, X being n_row x n_inner and W n_inner x n_col. n_col and n_inner are multiples of 32; n_row is any number
 * up to the options' n_row_max. A name gives type and layout of the result, the activation and the weights, in this
 * order. Weights stand in a shared buffer, W_offset bytes from its start; the product runs in the session that maps
 * W_fd.
 *
 * Statuses of every product:
 *   2  n_col or n_inner is not a multiple of 32; n_row * n_col, n_row * n_inner or n_row exceeds the options; or the
 * matrices, padded to whole tiles, exceed the cross-session buffers. Recorded under the function name "mm_size_check".
 *   1  W_fd's session could not be found or made active, or the remote call failed. The result is then untouched. */

/* All three in shared buffers in their layouts, rows padded to a multiple of 32; offsets in bytes. The buffers must be
 * mapped in the same session. Nothing is converted or copied. */
uint32_t tavik_npu_mm_f16_ah_f16_ah_f16_wh(tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner,
                                           uint32_t A_fd, uint32_t X_fd, uint32_t W_fd, uint32_t A_offset,
                                           uint32_t X_offset, uint32_t W_offset);

/* Activation X and result A row-major f32 in ordinary memory: X is rounded to f16 on its way, the result computed to
 * f16. */
uint32_t tavik_npu_mm_f32_rm_f32_rm_f16_wh(tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner,
                                           float* A, const float* X, uint32_t W_fd, uint32_t W_offset);

/* The module's self-test on the first `size` bytes of a shared buffer: each has 1 added. Status 1 as above. */
uint32_t tavik_npu_test(tavik_context* context, int32_t size, uint32_t v_fd);

#ifdef __cplusplus
}
#endif
#endif

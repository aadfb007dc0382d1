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
  TAVIK_ERROR_BAD_DIMENSION = 2, /* not a multiple of the tile, negative, or too large for the cross-session
                                    buffers */
  TAVIK_ERROR_MEMORY = 3         /* host or shared memory, a descriptor of it, or its mapping */
};

/* The last failure of a thread; a later success does not clear it. Texts are cut to 127 characters.
 *
 * `file` and `line` tell failures apart. They are published numbers that stay when the code moves, not a place to open in
 * an editor: each source file that reports them holds its lines in one table, reported_line (`grep -rn reported_line
 * source`), and the lines of the remote stub's log stand in reported_routines (build/tavik_stub.cpp). Only failures in
 * the file "source/host/kernels" have the line of the source text as it is in this version. */
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
  uint64_t n_sessions;                    /* open sessions, each a protection domain of its own on the compute DSP */
  int32_t session_id[TAVIK_MAX_SESSIONS]; /* after the open ones: of a session reserved but not opened yet, or 0 */
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
  bool cleanup_failed;     /* whether a tavik_cleanup has failed: the next one passes over what fails */
} tavik_context;

/* Opens session 0 on the compute DSP, acquires its resources, allocates the four cross-session buffers and maps them.
 * On success stores the context; on failure releases everything, stores nothing and returns
 *   1  the session, its resources, a descriptor above 1023, or a mapping failed
 *   3  host or shared memory could not be had (a shared buffer is limited to 2^31 - 1 bytes)
 * Neither argument may be NULL. With the default options 704 MiB of shared memory are reserved, and not touched. */
int32_t tavik_init(const tavik_options* options, tavik_context** context);

/* Unlocks the matrix unit, releases the resources, unmaps and frees the cross-session buffers, closes every session and
 * frees the context. Buffers of tavik_buffer_alloc must be freed before. A session that was reserved and could not be
 * opened is given back to the platform: it is opened and closed.
 *
 * Status 1 when a step fails: the context then stays allocated and partly torn down, with ~0 as the handle of every session
 * that is closed. A second call takes what is left step by step. It passes over a step that fails, because the closing of
 * a session ends whatever the session still has, and because the platform may not know a reserved session any more. It frees the context and returns 0 when every session is closed, and
 * returns 1 when one cannot be closed; then a further call tries again, or tavik_context_free gives the memory back. The
 * failure does not stand in the way of a new tavik_init. */
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
/* Opens session number n_sessions. Status 1 when the platform refuses or four are open. Where a step fails after a session
 * is reserved, the next call goes on with this session and reserves no other. */
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
 * (n_col / block_cols) * block_cols, elements whose place lies past the array are dropped, and places that no element
 * comes to keep what they held. */
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
 * block_rows) * ceil(n_col / block_cols) of them, and the padding of the edge blocks is dropped; what stands past the
 * n_row x n_col elements stays. */
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

/* ---- Quantisation ---- */

/* A quantised value q stands for the real (q - zero point) * scale; scale and zero point are those of its row. Each
 * quantiser also stores the sum of a row's values q, modulo 2^32. Rounding is half away from zero.
 *
 * Values that are not finite. The largest and smallest value of a row are found by comparisons, which a NaN never wins;
 * it is one only where the search starts from it. Where a real becomes an integer, NaN becomes 0, and what is out of
 * range (of i32 for activations, of the clamp for weights) the nearest bound. The same on every platform. */

/* f32 activations to u8, symmetric. For each row: m = largest |x|, 0 at first; scale = m / 127; inv = 1 / scale, or
 * 0 for scale 0; v = round(x * inv), each step one f32 rounding; q = v + 128, its low 8 bits. A finite row with m of
 * 2^-121 and beyond gives 1 to 255. `scales` and `sums` have n_row elements; the sums add v + 128. Any n_row and
 * n_col. */
void tavik_f32_rm_to_u8_rm(uint64_t n_row, uint64_t n_col, const float* src, uint8_t* dst, float* scales,
                           uint32_t* sums);
/* The same values in 64 x 32 tiles, of which a row has ceil(n_col / 32): q of (r, c) goes to byte ((r / 64) *
 * ceil(n_col / 32) + c / 32) * 2048 + (r % 64) * 32 + c % 32. `dst` has whole tiles; bytes of no element are left
 * alone. */
void tavik_f32_rm_to_u8_ah(uint64_t n_row, uint64_t n_col, const float* src, uint8_t* dst, float* scales,
                           uint32_t* sums);
/* f32 activations to 16 bits: as above with scale = m / 32767 and q = the low 16 bits of v + 32768, of which bits 8 to
 * 15 go to `high` and bits 0 to 7 to `low`, both row-major. The sums add q, as it is stored. */
void tavik_f32_rm_to_u16_rm(uint64_t n_row, uint64_t n_col, const float* src, uint8_t* high, uint8_t* low,
                            float* scales, uint32_t* sums);

/* f16 weights to i8, asymmetric, a row for each output column. For each row, in f16 arithmetic, one rounding a step:
 * max and min over the row, both its first element at first; scale = (max - min) / 255; inv = 1 / scale, computed in
 * f32 and then narrowed, or 0 for scale 0 (infinite for a scale of 2^-16 or less); zero point = round(-128 - inv *
 * min) and q = round(x * inv + zero point), the product and the sum fused, both clamped to -128 to 127. A NaN scale is
 * stored as 0x7e00; a zero point that is NaN is 0, stored and in what q is computed from. Rows of no elements get scale
 * 0, zero point -128 and sum 0. */
void tavik_f16_rm_to_i8_rm(uint64_t n_row, uint64_t n_col, const uint16_t* src, int8_t* dst, int8_t* zero_points,
                           uint16_t* scales, int32_t* sums);
/* f16 weights to i4: as above with 15 for 255, -8 for -128 and the bounds -8 and 7. A row gives n_col / 8 words of
 * eight values; its last n_col % 8 elements count for max and min alone. Kept: zero points are packed for whole
 * groups of eight rows only, and ORed into `zero_points`, n_row / 8 words that the caller has cleared. */
void tavik_f16_rm_to_i4_rm(uint64_t n_row, uint64_t n_col, const uint16_t* src, uint32_t* dst, uint32_t* zero_points,
                           uint16_t* scales, int32_t* sums);

/* The low four bits of a byte as a signed value, -8 to 7. */
int8_t int4_to_int8(uint8_t byte);

/* Sums of a quantised product back to reals, in f32, in this order:
 *   t = acc - 128 * weight_sum; t = t - zero_point * activation_sum; t = t + (128 * zero_point) * n_inner, each fused;
 *   dst = (t * activation_scale) * weight_scale
 * This is the sum over k of (a - 128) * (w - zero_point), times both scales. `acc` is n_row x n_col i32 in 64 x 32
 * tiles, n_col / 32 to a row; columns past the last whole tile are not written. `dst` is row-major, n_row x n_col.
 * Activation scales and sums are those of the n_row rows, zero points, weight scales (f16) and weight sums those of
 * the n_col columns. A NaN is stored as 0x7fc00000. Nothing is done for dimensions below 1. */
void tavik_a8w8_output_to_f32_rm(int32_t n_row, int32_t n_col, int32_t n_inner, float* dst, const int32_t* acc,
                                 const float* activation_scales, const int32_t* activation_sums,
                                 const int8_t* zero_points, const uint16_t* weight_scales, const int32_t* weight_sums);
/* The same with i4 zero points, eight to a word. */
void tavik_a8w4_output_to_f32_rm(int32_t n_row, int32_t n_col, int32_t n_inner, float* dst, const int32_t* acc,
                                 const float* activation_scales, const int32_t* activation_sums,
                                 const uint32_t* zero_points, const uint16_t* weight_scales,
                                 const int32_t* weight_sums);

/* ---- Diagnostics ---- */

/* Prints a label, the first and last `edge` elements (all, if there are fewer than 2 * edge), and min, max, mean and
 * sum of all, computed in f64, in one line. count is at least 1: the first element is read in any case. Returns what
 * the last fprintf does. */
int tavik_vector_print_i8(FILE* stream, uint64_t count, const int8_t* data, const char* label, uint64_t edge);
int tavik_vector_print_u8(FILE* stream, uint64_t count, const uint8_t* data, const char* label, uint64_t edge);
int tavik_vector_print_f16(FILE* stream, uint64_t count, const uint16_t* data, const char* label, uint64_t edge);
int tavik_vector_print_i32(FILE* stream, uint64_t count, const int32_t* data, const char* label, uint64_t edge);
int tavik_vector_print_u32(FILE* stream, uint64_t count, const uint32_t* data, const char* label, uint64_t edge);
int tavik_vector_print_f32(FILE* stream, uint64_t count, const float* data, const char* label, uint64_t edge);

/* Compares a vector, converted to f32, with a reference and prints the largest |reference - data|, computed in f32,
 * in one line. Returns 1, or 0 when one is greater than 2000. A NaN counts as no deviation. */
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

/* C = X * W, X being n_row x n_inner and W n_inner x n_col. n_col and n_inner are multiples of 32; n_row is any number
 * up to the options' n_row_max. A name gives type and layout of the result, the activation and the weights, in this
 * order. Weights stand in a shared buffer, W_offset bytes from its start; the product runs in the session that maps
 * W_fd.
 *
 * Statuses of every product:
 *   2  recorded under the function name "mm_size_check", with the first message of these that is true:
 *        "Column dimension not multiple of 32"  n_col is not
 *        "Inner dimension not multiple of 32"   n_inner is not
 *        "Dimension(s) too large (see tavik_options to adapt)"  n_row * n_col exceeds output_matrix_size_max of the
 *            options, n_row * n_inner their input_matrix_size_max, n_row their n_row_max; or n_row is negative, or n_col
 *            or n_inner is and n_row is not 0. Kept: a negative dimension is told as one that is too large
 *        "Activation of ... bytes in whole tiles exceeds its buffer of ...", or "Result of ...": the dimensions are
 *            within the options, but padded to whole tiles the matrices do not fit the cross-session buffers
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

/* Fused: two products of one activation, A_U = X * UW and A_F = X * FW, in one remote call where both weights are
 * mapped in the same session, otherwise one after the other. Results are n_row x n_col. A failure on the second path
 * leaves the results already brought back. */
uint32_t tavik_npu_2mm_f32_rm_f32_rm_f16_wh(tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner,
                                            float* A_U, float* A_F, const float* X, uint32_t UW_fd, uint32_t FW_fd,
                                            uint32_t UW_offset, uint32_t FW_offset);

/* Fused: three products of one activation, A_Q = X * QW (n_row x n_col_q), A_K = X * KW and A_V = X * VW
 * (n_row x n_col_kv each). Kept: where the weights are in several sessions, the product of VW runs in the session of
 * KW, and fails when that does not map VW. */
uint32_t tavik_npu_3mm_f32_rm_f32_rm_f16_wh(tavik_context* context, int32_t n_row, int32_t n_col_q, int32_t n_col_kv,
                                            int32_t n_inner, float* A_Q, float* A_K, float* A_V, const float* X,
                                            uint32_t QW_fd, uint32_t KW_fd, uint32_t VW_fd, uint32_t QW_offset,
                                            uint32_t KW_offset, uint32_t VW_offset);

/* Products with quantised weights, a8w8 (i8) and a8w4 (i4). The activation is quantised to 8 bits a row on its way
 * (tavik_f32_rm_to_u8_ah), the sums are computed exactly in i32 and brought back to f32 (tavik_a8w8_output_to_f32_rm,
 * tavik_a8w4_output_to_f32_rm). A weight matrix stands in one shared buffer as four arrays, each at a byte offset of
 * its own:
 *   ..q_offset    the values, n_inner x n_col, i8 wh or i4 wh
 *   ..z_offset    zero points of the columns: n_col i8, or n_col i4, eight to a 32-bit word
 *   ..s_offset    scales of the columns: n_col f16
 *   ..sum_offset  sums of the quantised values of the columns: n_col i32
 * Status 1 too when one of the last three reaches past the end of the buffer; the product is then not brought back.
 *
 * Kept: where the weights of a 2mm or 3mm are in several sessions, each product is computed alone and leaves its sums
 * in A0; a8w8 nonetheless reads the second result from A1 and the third from A2, and so returns what an earlier call
 * left there; a8w4 reads A0. The product of VW runs in the session of KW. The single a8w4 product runs on session 0 as
 * it is: that must map the weights, be active and hold the matrix unit (tavik_lock_compute_device). */
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

/* Integer products on the cross-session buffers: A0 = X * W in exact i32 sums, 64 x 32 tiles, of the u8 activation that
 * the caller has put into X in 64 x 32 tiles. W is i8 wh (ui8i8) or i4 wh (ui8i4). n_row is passed on as it is: the
 * rows asked for must lie inside X and A0. A_fd, X_fd, A_offset and X_offset are not used. Statuses as above. */
uint32_t tavik_veyra_1mm_ui8i8_i32_tessel(tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner,
                                          uint32_t A_fd, uint32_t X_fd, uint32_t W_fd, uint32_t A_offset,
                                          uint32_t X_offset, uint32_t W_offset);
uint32_t tavik_veyra_1mm_ui8i4_i32_tessel(tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner,
                                          uint32_t A_fd, uint32_t X_fd, uint32_t W_fd, uint32_t A_offset,
                                          uint32_t X_offset, uint32_t W_offset);

/* The module's self-test on the first `size` bytes of a shared buffer: each has 1 added. Status 1 as above. */
uint32_t tavik_npu_test(tavik_context* context, int32_t size, uint32_t v_fd);

/* ---- Reference products ---- */

/* C = A * W on the host, to compare the DSP's results with: A is n_row x n_inner and row-major, C row-major f32 and
 * overwritten, W f16 in zb blocks as tavik_f16_cm_to_f16_zb_inplace(n_col, n_inner, W) makes them of the weights stored
 * column by column: element (k, c) stands at (c / 4) * 4 * n_inner + (k / 8) * 32 + (c % 4) * 8 + k % 8.
 *
 * Every operation on f16 is rounded to f16, nearest even, and a multiply-add once; the sums are formed in the order
 * told, so that results are the same to the last bit on every processor. A result that is NaN is the NaN 0x7fc00000.
 *
 * C, A and W are aligned as their elements are, and no more. Nothing is read past the n_inner values of a row or column. */

/* Rows in blocks of four by qmmbp_HxD, the last n_row % 4 rows by qdotxH. n_row = 0 leaves C untouched. Of the context
 * the limits alone are used. Status 2 as the products', without a look at the cross-session buffers. */
uint32_t tavik_cpu_mm_fp32_rm_fp16_rm_fp16_zb(const tavik_context* context, uint64_t n_row, uint64_t n_col,
                                              uint64_t n_inner, float* C, const uint16_t* A, const uint16_t* W);
/* The same for an f32 activation, rounded to f16 into the start of the cross-session buffer X. Status 2 also when it
 * does not fit there; nothing is written then. */
uint32_t tavik_cpu_mm_fp32_rm_fp32_rm_fp16_zb(tavik_context* context, uint64_t n_row, uint64_t n_col, uint64_t n_inner,
                                              float* C, const float* A, const uint16_t* W);

/* The steps of which they are made. They check nothing. */

/* Rows 4p to 4p + 3 and columns 4q to 4q + 3 of the result, as far as it has them; C, A and W are the whole matrices. A
 * whole block by qmmbp_HxD; fewer rows one by one by qdotxH; fewer columns by f32 sums in ascending order of products
 * rounded to f16. Kept: in such columns W is taken to hold the n_inner values of column c from c * n_inner on. */
void dravin_math_matmul_pq(uint64_t n_row, uint64_t n_col, uint64_t n_inner, uint64_t p, uint64_t q, float* C,
                           const uint16_t* A, const uint16_t* W);

/* One block of 4 x 4: C is its first element, ldc the pitch of C's rows, Wb the block's four columns of W, Ab its first
 * row of A. Each result has eight f16 sums, sum l over the inner indices l, l + 8, l + 16, ... in ascending order by
 * fused multiply-add; they are added up in f32 as ((l0 + l4) + (l1 + l5)) + ((l2 + l6) + (l3 + l7)). The last
 * n_inner % 8 indices are left out. Past 65504 a sum is infinite. */
void qmmbp_HxD(uint64_t ldc, uint64_t n_inner, float* C, const uint16_t* Wb, const uint16_t* Ab);
/* The same with four f32 sums each, sum l over the indices l, l + 4, l + 8, ..., added up as (l0 + l1) + (l2 + l3). */
void qmmbp_HxD_(uint64_t ldc, uint64_t n_inner, float* C, const uint16_t* Wb, const uint16_t* Ab);
/* One row of a block: Crow is its four results, Arow the row of A. Each result has sixteen f16 sums, sum l over the
 * indices l, l + 16, ...; they are added up in f16: v[i] = l[i] + l[i + 8], u[i] = v[i] + v[i + 4], then (u0 + u1) +
 * (u2 + u3). The last n_inner % 16 indices are left out. Kept: the last bits can differ from qmmbp_HxD's. */
void qdotxH(uint64_t n_inner, float* Crow, const uint16_t* Wb, const uint16_t* Arow);

#ifdef __cplusplus
}
#endif
#endif

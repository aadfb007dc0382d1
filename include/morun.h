/* libmorun, upper interface: matrix products on the DSP's matrix unit with one process-wide context, which the library
 * keeps itself.
 *
 * In calling order: morun_npu_initialize, morun_npu_alloc for weights and other operands, the layout calls, the
 * products, morun_npu_free for each buffer, morun_npu_finalize. morun_tensor.h adds products of self-describing records.
 *
 * Statuses. Every call returns one of the codes below. A failing call prints one line to standard error and flushes it:
 * "[MORUN][ERROR] file = FILE, func = FUNCTION, line = LINE: MESSAGE".
 *
 * Threads. The library starts none and takes no locks. Context, registry and version texts belong to the process: the
 * calls of this header are made by one thread at a time. The layout calls (morun_cpu_*) work on the memory that they are
 * given and on nothing else, and may be made by any thread.
 *
 * Layouts and types are those of tavik.h: rm, ah, wh; f16 is IEEE 754 binary16 held as its 16-bit pattern.
 *
 * Plain C11, also valid C++.
 */
#ifndef MORUN_H
#define MORUN_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The library's version. Its text, as morun_npu_get_version gives it, is "1_0_0_beta1_VEYRA_V79" on a DSP of
 * architecture 79. */
#define MORUN_VERSION_MAJOR 1
#define MORUN_VERSION_MINOR 0
#define MORUN_VERSION_PATCH 0
#define MORUN_VERSION_PRERELEASE "beta1"

enum {
  MORUN_SUCCESS = 0,
  MORUN_ERROR_FAILURE = 1,              /* a call of the lower interface failed; the line shows its status */
  MORUN_ERROR_NULL_POINTER = 10,        /* a pointer that is required is NULL */
  MORUN_ERROR_BAD_ARGUMENT = 14,        /* a dimension, a multiple, a tensor's field, or memory that is no buffer of
                                             morun_npu_alloc */
  MORUN_ERROR_UNSUPPORTED_TENSORS = 20, /* no path multiplies such tensors */
  MORUN_ERROR_UNSUPPORTED_DOMAIN = 57,  /* a domain other than MORUN_DOMAIN_NPU0 */
  MORUN_ERROR_NOT_INITIALIZED = 107,    /* before the first morun_npu_initialize */
  MORUN_ERROR_VERSION_MISMATCH = 404    /* the DSP module is not of this library's version */
};

/* The compute DSP, the one domain that the calls take. */
enum { MORUN_DOMAIN_NPU0 = 3 };

/* ---- Start and stop ---- */

/* Opens the DSP, reserves shared memory for the largest matrices (results of 32768000 elements, activations of
 * 486592000 elements, 3200 rows: 1.3 GiB in all, of which only what is used is ever backed by memory), and locks the
 * matrix unit. Status 57; 1 when the lower interface refuses: the library is then as it was before, except when only the
 * lock was refused: it is then initialised and morun_npu_lock_tessel may be tried again.
 * Kept: a second call without morun_npu_finalize opens a second context and loses the first. */
int32_t morun_npu_initialize(int32_t domain);

/* Unlocks the matrix unit and closes the DSP. Every buffer must have been freed. Status 57; 1 when the unit could not be
 * unlocked (nothing is closed), when closing failed, or before morun_npu_initialize.
 * Kept: the library does not note that it has been closed. Until the next morun_npu_initialize no call but that one may
 * be made. */
int32_t morun_npu_finalize(int32_t domain);

/* The matrix unit is held from morun_npu_initialize to morun_npu_finalize; a program may give it up in between. Status
 * 57; 1 when the DSP refuses or before morun_npu_initialize. */
int32_t morun_npu_lock_tessel(int32_t domain);
int32_t morun_npu_unlock_tessel(int32_t domain);

/* ---- Shared buffers ---- */

/* Allocates `size` bytes that the DSP sees too, stores their address in `*out_ptr`, and enters them into the registry,
 * in which the products look their operands up. An address that an older entry at a lower descriptor has is not given
 * out: that buffer is given back, its range of addresses kept empty until the older entry is written again, and another
 * buffer allocated. Status 10 for a NULL location, 107, or 1 when it cannot be had (32 buffers are in use, no memory, no
 * session with room, the DSP does not give a buffer back); then NULL is stored. */
int32_t morun_npu_alloc(uint64_t size, void** out_ptr);

/* Frees a buffer; NULL is allowed. Status 14 when `ptr` is not the start of a buffer that morun_npu_alloc ever gave, 1
 * when the lower interface refuses, as it does when the buffer has been freed before.
 * Kept: the registry's entry stays until its descriptor is given out again, and is found by the address until then. */
int32_t morun_npu_free(void* ptr);

/* The descriptor by which the lower interface knows the buffer that starts at `ptr`, or -1. A buffer that has been freed
 * is still found. */
int32_t morun_parlo_find_fd(const void* ptr);

/* ---- Products ---- */

/* A = X * W: A is n_row x n_col, X n_row x n_inner, W n_inner x n_col.
 *
 * The three f16 products take dimensions from 1 that are multiples of 32. Statuses, in the order of the checks:
 *   107
 *   57
 *   14  a dimension below 1 or not a multiple of 32
 *   10  A, X or W is NULL
 *   14  an operand that must be in a buffer of morun_npu_alloc is not at the start of one
 *   1   the lower interface refused: dimensions beyond what morun_npu_initialize reserves, operands in different
 *       sessions, buffers too short, the DSP
 * A is untouched unless the DSP had begun. */

/* Everything in buffers of morun_npu_alloc and in tiles; nothing is converted or copied. A 2 * n_row * n_col bytes ah,
 * X 2 * n_row * n_inner bytes ah, W 2 * n_inner * n_col bytes wh. */
int32_t morun_npu_mm_f16(int32_t domain, int32_t n_row, int32_t n_col, int32_t n_inner, uint16_t* A, const uint16_t* X,
                         const uint16_t* W);

/* The same with X and A row-major: X in any memory, A and W in buffers of morun_npu_alloc. A buffer of X's size is
 * allocated and freed by every call. A failure after the product leaves A in tiles. When several steps fail, their
 * statuses are ORed. */
int32_t morun_npu_mm_f16f16_f16(int32_t domain, int32_t n_row, int32_t n_col, int32_t n_inner, uint16_t* A,
                                const uint16_t* X, const uint16_t* W);

/* X and A row-major f32 in any memory, W f16 wh in a buffer of morun_npu_alloc. X is rounded to f16 on its way; the
 * result is computed to f16. */
int32_t morun_npu_mm_f32f16_f32(int32_t domain, int32_t n_row, int32_t n_col, int32_t n_inner, float* A, const float* X,
                                const uint16_t* W);

/* Exact i32 sums of u8 activations and i8 weights. X and A row-major in any memory; W n_inner * n_col bytes wh (see
 * morun_cpu_rm_to_wh_i8_inplace) in any memory, copied into a buffer of its own by every call. n_row is a multiple of
 * 64, n_col and n_inner of 32, all from 1. Status 10, 57 or 14.
 * Kept: when that buffer cannot be had, the library is not initialised, or the DSP refuses, the call prints why and ends
 * the process with exit status 1. */
int32_t morun_npu_mm_u8i8_i32(int32_t domain, int32_t n_row, int32_t n_col, int32_t n_inner, int32_t* A,
                              const uint8_t* X, const int8_t* W);

/* The same with i4 weights: W ceil(n_inner / 32) * ceil(n_col / 32) * 512 bytes wh (see morun_cpu_rm_to_wh_i4) in a buffer
 * of morun_npu_alloc. n_col should be a multiple of 32. Statuses, in the order of the checks:
 *   10  X, A or W is NULL
 *   57
 *   14  W is not at the start of such a buffer
 *   14  n_row is not a multiple of 64, or n_inner not of 32
 * Kept: the DSP is asked for n_row + 31 rows with bit 5 cleared, and n_col rounded up to a multiple of 32; where n_col is
 * not such a multiple, the sums are brought back as if n_col / 32 whole tiles stood in a row of tiles. When the
 * lower interface refuses, as it does dimensions that are negative or beyond what morun_npu_initialize reserves, or when
 * the DSP does, the call prints why and ends the process with exit status 1. */
int32_t morun_npu_mm_u8i4_i32(int32_t domain, int32_t n_row, int32_t n_col, int32_t n_inner, int32_t* A,
                              const uint8_t* X, const uint8_t* W);

/* ---- Version ---- */

/* Writes the library's version, with the architecture that the DSP module was compiled for, to `dst` (at least 64
 * bytes) and checks that the module is of the same version and for this DSP. The first argument is not read. Status 10
 * (prints nothing); 107; the remote or platform status when module or DSP cannot be asked, 1 on a platform without
 * capability queries; 404 when the versions differ: dst and npu_version (morun_state.h) are then both written. Another
 * architecture than the DSP's is worth one warning on standard output, with status 0. */
int32_t morun_npu_get_version(int32_t domain, char* dst);

/* ---- Layouts ---- */

/* Sizes in elements. Status 10 when a pointer is NULL, 14 when a size is not the multiple that the layout needs; the data
 * are then untouched. No other failure is possible. */

/* f16, in place, n_row * n_col elements: row-major to ah, ah to row-major, row-major to wh. Multiples of 32. */
uint32_t morun_cpu_rm_to_ah_f16_inplace(uint64_t n_row, uint64_t n_col, uint16_t* data);
uint32_t morun_cpu_ah_to_rm_f16_inplace(uint64_t n_row, uint64_t n_col, uint16_t* data);
uint32_t morun_cpu_rm_to_wh_f16_inplace(uint64_t n_row, uint64_t n_col, uint16_t* data);

/* i8, in place: row-major to wh. Multiples of 32. */
uint32_t morun_cpu_rm_to_wh_i8_inplace(uint64_t n_row, uint64_t n_col, int8_t* data);

/* Bytes, row-major n_row x n_inner, to 64 x 32 tiles, row-major inside: the ah form of 8-bit activations, whatever the
 * name says. n_row is a multiple of 64, n_inner of 32. */
uint32_t morun_cpu_rm_to_wh_i8(uint64_t n_inner, uint64_t n_row, const uint8_t* src, uint8_t* dst);

/* i4 weights, row-major n_row x n_col with one value to a byte, in its low nibble, to wh. Any sizes: edge tiles are
 * padded with zero. `dst` has room for ceil(n_row / 32) * ceil(n_col / 32) * 512 bytes. */
uint32_t morun_cpu_rm_to_wh_i4(uint8_t* dst, const uint8_t* src, uint64_t n_col, uint64_t n_row);

/* Integer results to row-major: i32 in 64 x 32 tiles, element (r, c) at ((r / 64) * (n_col / 32) + c / 32) * 2048 +
 * (r % 64) * 32 + c % 32, to r * n_col + c. Any n_row, the last tiles are whole; columns past the last whole tile are not
 * written. No status but 0 and 10. The two are the same. */
uint32_t morun_cpu_ui8i8_ah_to_i32_rm(uint64_t n_row, uint64_t n_col, const int32_t* src, int32_t* dst);
uint32_t morun_cpu_ui8i4_ah_to_i32_rm(uint64_t n_row, uint64_t n_col, const int32_t* src, int32_t* dst);

#ifdef __cplusplus
}
#endif
#endif

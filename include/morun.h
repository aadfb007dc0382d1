/* libmorun, upper interface: matrix products on the DSP's matrix unit. The library keeps one context for the
 * process, and calls name operands by address.
 *
 * A program calls, in this order: morun_npu_initialize, morun_npu_alloc for weights and other operands, the layout
 * calls, the products, morun_npu_free for each buffer, and morun_npu_finalize. morun_tensor.h adds products of
 * self-describing records.
 *
 * Statuses
 *   Every call that returns a status returns one of the MORUN_ codes below, unless its comment says otherwise. A
 *   comment lists statuses in the order of the checks. A call that fails prints one line to standard error and
 *   flushes it: "[MORUN][ERROR] file = FILE, func = FUNCTION, line = LINE: MESSAGE".
 *
 * Threads
 *   The library starts no thread and takes no lock. Context, registry and version texts belong to the process, so
 *   one thread at a time makes the calls of this header. The layout calls (morun_cpu_...) are the exception: they
 *   work on the memory that the caller passes and on nothing else, and any thread may make them.
 *
 * Kept
 *   "Kept:" marks behaviour that surprises and that callers rely on. The library keeps such behaviour on purpose.
 *
 * Layouts and types are those of tavik.h: rm is row-major, ah the tiles of activations and results, wh the tiles of
 * weights. f16 is IEEE 754 binary16; a uint16_t holds its bit pattern.
 *
 * Parameters and results that several functions share
 *   domain         MORUN_DOMAIN_NPU0
 *   n_row, n_col   rows and columns of the matrix; of a product, those of the result
 *   n_inner        the inner dimension: columns of the activation, rows of the weights
 *   A, X, W        result, activation and weights of a product
 *   data           the matrix, which the call converts in place
 *   src, dst       source and destination, which do not overlap
 *   ptr            the start of a buffer of morun_npu_alloc
 *   result         a status, as above
 *
 * Plain C11, also valid C++.
 */
#ifndef MORUN_H
#define MORUN_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The library's version. morun_npu_get_version writes it as text: "1_0_0_beta1_VEYRA_V79" on a DSP of architecture
 * 79. */
#define MORUN_VERSION_MAJOR 1
#define MORUN_VERSION_MINOR 0
#define MORUN_VERSION_PATCH 0
#define MORUN_VERSION_PRERELEASE "beta1"

enum {
  MORUN_SUCCESS = 0,                    /* the call did what it says */
  MORUN_ERROR_FAILURE = 1,              /* a call of the lower interface failed; the line shows its status */
  MORUN_ERROR_NULL_POINTER = 10,        /* a required pointer is NULL */
  MORUN_ERROR_BAD_ARGUMENT = 14,        /* a bad dimension or tensor, or an address that is not of morun_npu_alloc */
  MORUN_ERROR_UNSUPPORTED_TENSORS = 20, /* no path multiplies such tensors */
  MORUN_ERROR_UNSUPPORTED_DOMAIN = 57,  /* a domain other than MORUN_DOMAIN_NPU0 */
  MORUN_ERROR_NOT_INITIALIZED = 107,    /* no morun_npu_initialize has opened the DSP yet */
  MORUN_ERROR_VERSION_MISMATCH = 404    /* the DSP module is of another version than the library */
};

/* The compute DSP, the only domain that the calls take. */
enum { MORUN_DOMAIN_NPU0 = 3 };

/* ---- Vector backends ---- */

/* The host's part of the work, conversions and products on the host, is compiled for several kinds of processors, each
 * a vector backend. All give the same bits. The first call that computes chooses the fastest backend that the processor
 * runs, for the whole process.
 *
 * The environment variable MORUN_SIMD may name another backend. A name that the build does not have, or that the
 * processor cannot run, is reported as a line on standard error and ignored. A program with raised privileges does not
 * read the variable. */
enum {
  MORUN_BACKENDS_BUILT = 0,     /* those of this build */
  MORUN_BACKENDS_SUPPORTED = 1, /* of those, the ones that this processor runs */
  MORUN_BACKENDS_IN_USE = 2     /* the one that computes; chosen by this call if none is chosen yet */
};

/* Writes the names of vector backends, from the slowest to the fastest, with one space between two names.
 *
 *   which   one of the constants above
 *   text    receives the names, NUL-terminated and cut to `size` bytes. May be NULL when size is 0
 *   size    bytes that `text` has room for
 *
 * Returns the number of bytes that the whole text takes without its NUL, or 0 when `which` is none of the constants;
 * `text` is then empty. Any thread may call it. */
uint64_t morun_vector_backends(int32_t which, char* text, uint64_t size);

/* ---- Start and stop ---- */

/* Opens the DSP, reserves shared memory for the largest matrices, and locks the matrix unit.
 *
 * The largest matrices are results of 32768000 elements, activations of 486592000 elements, and 3200 rows. The
 * reservation is 1.3 GiB of address space; only the memory that products use is ever backed.
 *
 * Returns MORUN_SUCCESS (0), or:
 *   MORUN_ERROR_UNSUPPORTED_DOMAIN (57)   domain != MORUN_DOMAIN_NPU0
 *   MORUN_ERROR_FAILURE (1)               the lower interface refused to open the DSP. The library is then as it
 *                                         was before
 *   MORUN_ERROR_FAILURE (1)               the DSP refused the lock alone. The library is then initialised, and the
 *                                         caller may try morun_npu_lock_tessel again
 *
 * Kept: a second call without morun_npu_finalize opens a second context and loses the first. */
int32_t morun_npu_initialize(int32_t domain);

/* Unlocks the matrix unit and closes the DSP. The caller has freed every buffer before.
 *
 * Returns MORUN_SUCCESS (0), or:
 *   MORUN_ERROR_UNSUPPORTED_DOMAIN (57)   domain != MORUN_DOMAIN_NPU0
 *   MORUN_ERROR_FAILURE (1)               the library was never initialised, or the DSP refused to unlock. Nothing
 *                                         is then closed
 *   MORUN_ERROR_FAILURE (1)               closing failed
 *
 * Kept: the library does not note that it is closed. After a success the next call of this header that uses the DSP
 * must be morun_npu_initialize. */
int32_t morun_npu_finalize(int32_t domain);

/* Lock and unlock the matrix unit. A program holds the unit from morun_npu_initialize to morun_npu_finalize, and
 * may give it up in between.
 *
 * Return MORUN_SUCCESS (0), or:
 *   MORUN_ERROR_UNSUPPORTED_DOMAIN (57)   domain != MORUN_DOMAIN_NPU0
 *   MORUN_ERROR_FAILURE (1)               the library was never initialised, or the DSP refused */
int32_t morun_npu_lock_tessel(int32_t domain);
int32_t morun_npu_unlock_tessel(int32_t domain);

/* ---- Shared buffers ---- */

/* Allocates a shared buffer, which host and DSP both see, and enters its address into the registry, where the
 * products look their operands up.
 *
 *   size      bytes
 *   out_ptr   receives the buffer's address
 *
 * Returns MORUN_SUCCESS (0), or:
 *   MORUN_ERROR_NULL_POINTER (10)       out_ptr == NULL
 *   MORUN_ERROR_NOT_INITIALIZED (107)   no morun_npu_initialize has opened the DSP yet. *out_ptr stays as it was
 *   MORUN_ERROR_FAILURE (1)             32 buffers are in use, memory or descriptors have run out, no session has
 *                                       room, or the DSP does not give a buffer back. *out_ptr is NULL
 *
 * Freed buffers stay in the registry, and the lookup starts at the lowest descriptor. Where the platform gives an
 * address that a freed buffer at a lower descriptor had, the call gives the new buffer back, keeps that range of
 * addresses empty until the older entry is written again, and allocates another buffer. */
int32_t morun_npu_alloc(uint64_t size, void** out_ptr);

/* Frees the buffer that starts at `ptr`. NULL is allowed.
 *
 * Returns MORUN_SUCCESS (0), or:
 *   MORUN_ERROR_BAD_ARGUMENT (14)   no entry of the registry has the address `ptr`
 *   MORUN_ERROR_FAILURE (1)         the lower interface refused, as it does when the buffer is freed already
 *
 * Kept: the registry's entry stays until the platform gives its descriptor out again, and the lookup finds it until
 * then. */
int32_t morun_npu_free(void* ptr);

/* Returns the descriptor by which the lower interface knows the buffer that starts at `ptr`, or -1. The call also
 * finds buffers that are freed. `ptr` must not be NULL, because unused entries of the registry have address 0. */
int32_t morun_parlo_find_fd(const void* ptr);

/* ---- Products ---- */

/* A = X * W, where the result A is n_row x n_col, the activation X n_row x n_inner and the weights W
 * n_inner x n_col.
 *
 * The three f16 products take dimensions that are positive multiples of 32. They return MORUN_SUCCESS (0), or:
 *   MORUN_ERROR_NOT_INITIALIZED (107)     no morun_npu_initialize has opened the DSP yet
 *   MORUN_ERROR_UNSUPPORTED_DOMAIN (57)   domain != MORUN_DOMAIN_NPU0
 *   MORUN_ERROR_BAD_ARGUMENT (14)         n_row < 1, n_col < 1, n_inner < 1, n_row % 32 != 0, n_col % 32 != 0,
 *                                         n_inner % 32 != 0, in this order
 *   MORUN_ERROR_NULL_POINTER (10)         A, X or W is NULL
 *   MORUN_ERROR_BAD_ARGUMENT (14)         A, W or X must start a buffer of morun_npu_alloc and does not
 *   MORUN_ERROR_FAILURE (1)               the lower interface refused: the dimensions exceed the limits of
 *                                         morun_npu_initialize, the operands are in different sessions, a buffer is
 *                                         too short, or the DSP failed
 * A is unchanged after a failure, unless the DSP had begun to write. */

/* Multiplies tiles in shared buffers. The call converts and copies nothing.
 *
 *   A   2 * n_row * n_col bytes, f16 ah, the start of a buffer of morun_npu_alloc
 *   X   2 * n_row * n_inner bytes, f16 ah, the start of such a buffer
 *   W   2 * n_inner * n_col bytes, f16 wh, the start of such a buffer */
int32_t morun_npu_mm_f16(int32_t domain, int32_t n_row, int32_t n_col, int32_t n_inner, uint16_t* A, const uint16_t* X,
                         const uint16_t* W);

/* Multiplies a row-major f16 activation. Every call allocates and frees a shared buffer for a copy of X.
 *
 *   A   2 * n_row * n_col bytes, row-major f16, the start of a buffer of morun_npu_alloc
 *   X   2 * n_row * n_inner bytes, row-major f16, in any memory
 *   W   2 * n_inner * n_col bytes, f16 wh, the start of a buffer of morun_npu_alloc
 *
 * The call allocates the copy before it looks A and W up, so MORUN_ERROR_FAILURE (1) for the copy comes first. The
 * call ORs the status of freeing the copy into its own; where only freeing fails, A holds the product. */
int32_t morun_npu_mm_f16f16_f16(int32_t domain, int32_t n_row, int32_t n_col, int32_t n_inner, uint16_t* A,
                                const uint16_t* X, const uint16_t* W);

/* Multiplies a row-major f32 activation. The call rounds X to f16, and the DSP computes the result to f16.
 *
 *   A   n_row * n_col floats, row-major, in any memory
 *   X   n_row * n_inner floats, row-major, in any memory
 *   W   2 * n_inner * n_col bytes, f16 wh, the start of a buffer of morun_npu_alloc */
int32_t morun_npu_mm_f32f16_f32(int32_t domain, int32_t n_row, int32_t n_col, int32_t n_inner, float* A, const float* X,
                                const uint16_t* W);

/* Computes exact i32 sums of u8 activations and i8 weights.
 *
 *   A   n_row * n_col sums, row-major, in any memory
 *   X   n_row * n_inner bytes, row-major, in any memory
 *   W   n_inner * n_col bytes, wh (see morun_cpu_rm_to_wh_i8_inplace), in any memory. Every call copies W into a
 *       shared buffer
 *
 * Returns MORUN_SUCCESS (0), or:
 *   MORUN_ERROR_NULL_POINTER (10)         X, A or W is NULL
 *   MORUN_ERROR_UNSUPPORTED_DOMAIN (57)   domain != MORUN_DOMAIN_NPU0
 *   MORUN_ERROR_BAD_ARGUMENT (14)         n_row < 1, n_col < 1, n_inner < 1, n_row % 64 != 0, n_col % 32 != 0,
 *                                         n_inner % 32 != 0, in this order
 *   MORUN_ERROR_FAILURE (1)               the shared buffer could not be freed. A holds the product
 *
 * Kept: when the shared buffer cannot be had, when the library is not initialised, or when the lower interface or
 * the DSP refuses, the call prints why and ends the process with exit status 1. */
int32_t morun_npu_mm_u8i8_i32(int32_t domain, int32_t n_row, int32_t n_col, int32_t n_inner, int32_t* A,
                              const uint8_t* X, const int8_t* W);

/* Computes exact i32 sums of u8 activations and i4 weights.
 *
 *   n_col   should be a multiple of 32
 *   A       n_row * n_col sums, row-major, in any memory
 *   X       n_row * n_inner bytes, row-major, in any memory
 *   W       ceil(n_inner / 32) * ceil(n_col / 32) * 512 bytes, wh (see morun_cpu_rm_to_wh_i4), the start of a
 *           buffer of morun_npu_alloc
 *
 * Returns MORUN_SUCCESS (0), or:
 *   MORUN_ERROR_NULL_POINTER (10)         X, A or W is NULL
 *   MORUN_ERROR_UNSUPPORTED_DOMAIN (57)   domain != MORUN_DOMAIN_NPU0
 *   MORUN_ERROR_BAD_ARGUMENT (14)         W is not the start of a buffer of morun_npu_alloc
 *   MORUN_ERROR_BAD_ARGUMENT (14)         n_row % 64 != 0, then n_inner % 32 != 0
 *
 * Kept: the call asks the DSP for n_row + 31 rows with bit 5 cleared, and for n_col rounded up to a multiple of 32.
 * Where n_col is no such multiple, the call reads the sums as if a row of tiles had n_col / 32 whole tiles.
 * Kept: the lower interface refuses dimensions that are negative or exceed the limits of morun_npu_initialize. When
 * it or the DSP refuses, the call prints why and ends the process with exit status 1. */
int32_t morun_npu_mm_u8i4_i32(int32_t domain, int32_t n_row, int32_t n_col, int32_t n_inner, int32_t* A,
                              const uint8_t* X, const uint8_t* W);

/* ---- Version ---- */

/* Writes the library's version, with the architecture that the DSP module was compiled for, and checks that the
 * module has the same version and fits this DSP.
 *
 *   domain   not read
 *   dst      receives the text; at least 64 bytes
 *
 * Returns MORUN_SUCCESS (0), or:
 *   MORUN_ERROR_NULL_POINTER (10)        dst == NULL. The call prints nothing
 *   MORUN_ERROR_NOT_INITIALIZED (107)    no morun_npu_initialize has opened the DSP yet
 *   the status of the remote call        the module does not answer. `dst` is unchanged
 *   MORUN_ERROR_VERSION_MISMATCH (404)   the module has another version. `dst` and npu_version (morun_state.h) are
 *                                        written
 *   the status of the platform           the platform does not tell the DSP's architecture. Both texts are written
 *   MORUN_ERROR_FAILURE (1)              the platform has no capability queries. Both texts are written
 *
 * Where the module was compiled for another architecture than the DSP's, the call prints a warning and returns 0.
 * Kept: the warning goes to standard output. */
int32_t morun_npu_get_version(int32_t domain, char* dst);

/* ---- Layouts ---- */

/* All sizes count elements. `data`, `src` and `dst` may be any memory; `src` and `dst` do not overlap.
 *
 * Unless a comment says otherwise, the layout calls return MORUN_SUCCESS (0), or, leaving the data unchanged:
 *   MORUN_ERROR_NULL_POINTER (10)   a pointer is NULL
 *   MORUN_ERROR_BAD_ARGUMENT (14)   n_row, or then n_col or n_inner, is not a multiple of the tile's extent
 * No other failure is possible. */

/* Convert f16 matrices of n_row x n_col elements in place: row-major to ah, ah to row-major, and row-major to wh.
 * n_row and n_col are multiples of 32. */
uint32_t morun_cpu_rm_to_ah_f16_inplace(uint64_t n_row, uint64_t n_col, uint16_t* data);
uint32_t morun_cpu_ah_to_rm_f16_inplace(uint64_t n_row, uint64_t n_col, uint16_t* data);
uint32_t morun_cpu_rm_to_wh_f16_inplace(uint64_t n_row, uint64_t n_col, uint16_t* data);

/* Converts i8 weights of n_row x n_col elements in place from row-major to wh. n_row and n_col are multiples of 32. */
uint32_t morun_cpu_rm_to_wh_i8_inplace(uint64_t n_row, uint64_t n_col, int8_t* data);

/* Converts 8-bit activations of n_row x n_inner elements from row-major to ah: 64 x 32 tiles, each row-major
 * inside. n_row is a multiple of 64, n_inner of 32. Kept: the name says wh and i8. */
uint32_t morun_cpu_rm_to_wh_i8(uint64_t n_inner, uint64_t n_row, const uint8_t* src, uint8_t* dst);

/* Packs i4 weights into wh.
 *
 *   dst            ceil(n_row / 32) * ceil(n_col / 32) * 512 bytes. Zeros pad the edge tiles
 *   src            n_row x n_col bytes, row-major, one value in the low nibble of each byte
 *   n_row, n_col   any sizes. The call never returns MORUN_ERROR_BAD_ARGUMENT */
uint32_t morun_cpu_rm_to_wh_i4(uint8_t* dst, const uint8_t* src, uint64_t n_col, uint64_t n_row);

/* Convert integer results to row-major. The two calls do the same.
 *
 *   n_row   any number. The last row of tiles is whole
 *   n_col   any number. The calls do not write columns past the last whole tile
 *   src     i32 in 64 x 32 tiles: element (r, c) stands at
 *           ((r / 64) * (n_col / 32) + c / 32) * 2048 + (r % 64) * 32 + c % 32
 *   dst     element (r, c) goes to r * n_col + c
 *
 * The calls never return MORUN_ERROR_BAD_ARGUMENT. */
uint32_t morun_cpu_ui8i8_ah_to_i32_rm(uint64_t n_row, uint64_t n_col, const int32_t* src, int32_t* dst);
uint32_t morun_cpu_ui8i4_ah_to_i32_rm(uint64_t n_row, uint64_t n_col, const int32_t* src, int32_t* dst);

#ifdef __cplusplus
}
#endif
#endif

/* libmorun, tensor interface: products of self-describing records, on the NPU or on the host.
 *
 * Statuses and log lines are those of morun.h. "Kept:" marks behaviour that surprises and that callers rely on; the
 * library keeps such behaviour on purpose.
 *
 * Threads: one thread at a time calls morun_mm_tensor or a call of morun.h. Any thread may call the other functions
 * of this header, which work on their arguments and on nothing else.
 *
 * Parameters and results that several functions share
 *   tensor                the record to check
 *   result, left, right   the records of result = left * right
 *   platform              MORUN_PLATFORM_CPU or MORUN_PLATFORM_NPU0
 *   n_row, n_col          rows and columns of the matrix
 *   n_inner               the inner dimension: columns of X, rows of the product's right operand
 *   X                     n_row x n_inner, row-major f16
 *   W                     n_col rows of n_inner values, f16
 *   dtype, layout         those of the record
 *   data                  the first element
 *
 * Plain C11, also valid C++.
 */
#ifndef MORUN_TENSOR_H
#define MORUN_TENSOR_H

#include <stdint.h>

#include "morun.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The type of the elements. */
typedef enum morun_tensor_dtype_e {
  MORUN_DTYPE_I4 = 0, /* signed 4-bit integer; weights */
  MORUN_DTYPE_I8 = 1, /* signed 8-bit integer; weights */
  MORUN_DTYPE_U8 = 2, /* unsigned 8-bit integer; activations */
  MORUN_DTYPE_I32 = 3,
  MORUN_DTYPE_F16 = 4, /* IEEE 754 binary16 */
  MORUN_DTYPE_F32 = 5  /* IEEE 754 binary32 */
} morun_tensor_dtype_e;

/* How elements stand for real numbers. */
typedef enum morun_tensor_quantization_e {
  MORUN_QUANTIZATION_NONE = 0 /* the only value that the calls accept */
} morun_tensor_quantization_e;

/* The order of the elements in memory. */
typedef enum morun_tensor_layout_e {
  MORUN_LAYOUT_1D_LINEAR = 0, /* the only layout of a contiguous vector */
  MORUN_LAYOUT_2D_RM = 1,     /* row-major */
  MORUN_LAYOUT_2D_2 = 2,      /* valid in a record; no product takes layouts 2, 5 and 6 */
  MORUN_LAYOUT_2D_WH = 3,     /* weight tiles; for right operands only */
  MORUN_LAYOUT_2D_AH = 4,     /* activation tiles; not for right operands */
  MORUN_LAYOUT_2D_5 = 5,      /* for right operands only */
  MORUN_LAYOUT_2D_6 = 6       /* not for right operands */
} morun_tensor_layout_e;

/* Where morun_mm_tensor computes. It refuses platforms 1 and 4. */
enum { MORUN_PLATFORM_CPU = 0, MORUN_PLATFORM_NPU0 = 3 };

/* A vector or matrix in memory of the caller's. Extents, strides, counts and offsets count elements. The three
 * enumerations are held as plain numbers, so that a record may hold any value and the calls can refuse it. */
typedef struct morun_tensor {
  uint64_t dims[2];      /* rows and columns. A vector has its length in dims[0]; dims[1] is not read */
  uint64_t strides[2];   /* from row to row, and from column to column. A contiguous matrix, tiled or not, has
                            {dims[1], 1} */
  uint64_t num_elements; /* elements that may be reached from `data` on, those before data_offset included */
  uint64_t data_offset;  /* elements from `data` to the first element */
  void* data;            /* where the memory of the elements begins */
  uint32_t data_dtype;   /* morun_tensor_dtype_e */
  uint32_t quantization; /* morun_tensor_quantization_e */
  uint32_t layout;       /* morun_tensor_layout_e */
  uint8_t ndims;         /* 1 or 2 */
  uint8_t is_contiguous; /* 1: the elements lie densely in the layout's order. 0: a strided view */
} morun_tensor;

/* Returns the record of a contiguous n_row x n_col matrix whose first element stands at `data`. */
static inline morun_tensor morun_tensor_matrix(uint64_t n_row, uint64_t n_col, morun_tensor_dtype_e dtype,
                                               morun_tensor_layout_e layout, void* data) {
  morun_tensor tensor;
  tensor.dims[0] = n_row;
  tensor.dims[1] = n_col;
  tensor.strides[0] = n_col;
  tensor.strides[1] = 1;
  tensor.num_elements = n_row * n_col;
  tensor.data_offset = 0;
  tensor.data = data;
  tensor.data_dtype = (uint32_t)dtype;
  tensor.quantization = MORUN_QUANTIZATION_NONE;
  tensor.layout = (uint32_t)layout;
  tensor.ndims = 2;
  tensor.is_contiguous = 1;
  return tensor;
}

/* Checks one record by itself.
 *
 * Returns MORUN_SUCCESS (0), or, after printing what is wrong:
 *   MORUN_ERROR_NULL_POINTER (10)   tensor == NULL, then tensor->data == NULL
 *   MORUN_ERROR_BAD_ARGUMENT (14)   one of the following, in this order:
 *     ndims is not 1 or 2
 *     dims[i] == 0, then strides[i] == 0, for each i < ndims
 *     num_elements == 0
 *     num_elements <= data_offset
 *     contiguous: num_elements < data_offset + the product of the extents
 *     contiguous vector: layout != MORUN_LAYOUT_1D_LINEAR, then strides[0] != 1
 *     contiguous matrix: layout is not 1 to 6, then strides[0] != dims[1], then strides[1] != 1
 *     view: num_elements < 2 * data_offset + 1 + the sum of (dims[i] - 1) * strides[i]
 *       (kept: the offset counts twice)
 *     data_dtype > 5, then quantization != MORUN_QUANTIZATION_NONE, then layout > 6
 * Sums and products wrap at 64 bits. */
int32_t morun_tensor_validate(const morun_tensor* tensor);

/* Checks whether the ranks, extents and layouts of three valid records fit result = left * right. A vector is a row
 * on the left and a column on the right. Vector times vector gives a vector of length 1.
 *
 * Returns MORUN_SUCCESS (0), or, after printing what is wrong:
 *   MORUN_ERROR_NULL_POINTER (10)   a record is NULL
 *   MORUN_ERROR_BAD_ARGUMENT (14)   one of the following, in this order:
 *     ndims of left or right is not 1 or 2
 *     left->quantization != MORUN_QUANTIZATION_NONE
 *     the inner extents of left and right differ
 *     rank or extents of result are not those of the product
 *     left->layout is 3 or 5, then right->layout is 4 or 6, then result->layout is 3 or 5 */
int32_t morun_mm_tensor_validate(const morun_tensor* result, const morun_tensor* left, const morun_tensor* right);

/* Computes result = left * right, with n_row = left->dims[0], n_inner = left->dims[1] and n_col = right->dims[1].
 *
 * All three records are matrices without quantization; left and right are contiguous, and the result has a column
 * stride of 1. The call takes one of these paths. Types and layouts are written left x right -> result; rm, wh and
 * ah are MORUN_LAYOUT_2D_RM, _WH and _AH.
 *
 *   path   platform    types               layouts          dimensions
 *   P1     NPU0        f32 x f16 -> f32    rm x wh -> rm    n_col % 32 == 0, n_inner % 32 == 0
 *   P2     NPU0        f16 x f16 -> f16    ah x wh -> ah    all three multiples of 32
 *   P3     NPU0        f16 x f16 -> f16    rm x wh -> rm    all three multiples of 32
 *   P4     NPU0        u8 x i4 -> i32      rm x wh -> rm    n_row % 64 == 0, n_inner % 32 == 0
 *   P5     NPU0, CPU   f16 x f16 -> f16    rm x rm -> rm    NPU0: all three multiples of 32; CPU: any
 *   P6     NPU0        u8 x i8 -> i32      rm x wh -> rm    n_row % 64 == 0, n_col % 32 == 0, n_inner % 32 == 0
 *
 * Memory. Right operands of P1, P3, P4 and P6 stand in buffers of morun_npu_alloc: `data` is the start of one. The
 * weights of P1 and P3 begin at data_offset, which must be less than 2^31. Kept: P4 and P6 do not look at right's
 * data_offset; their weights begin at `data`. All other operands and all results may be any memory. P2 and P3, and
 * P5 on the NPU, allocate shared buffers for copies on every call.
 *
 * Row strides. Results of P1, P3, P4 and P6 may have any row stride; the call does not write what lies between the
 * rows.
 * Kept: P2 and P5 write packed rows, whatever the row stride is.
 *
 * Kept: P5 takes right's data as n_col rows of n_inner values, although right's extents say n_inner rows of n_col
 * values. On the CPU, element (k, j) of the weights is the k-th value of the j-th such row
 * (morun_tensor_cpu_matmul_scenario_5). On the NPU, the call converts these rows to wh as an n_col x n_inner
 * matrix, and the NPU takes the tiles for those of an n_inner x n_col matrix. For n_col == n_inner this is the
 * plain product. Use P3 for the plain product of other shapes.
 * Kept: on a platform other than 0, 1, 3 and 4, P5 returns 0 and computes nothing.
 *
 * Returns MORUN_SUCCESS (0), or:
 *   MORUN_ERROR_NOT_INITIALIZED (107)      no morun_npu_initialize has opened the DSP yet
 *   MORUN_ERROR_BAD_ARGUMENT (14)          platform == 1 || platform == 4
 *   a status of morun_tensor_validate      for result, left and right, in this order
 *   a status of morun_mm_tensor_validate
 *   MORUN_ERROR_UNSUPPORTED_TENSORS (20)   no path takes the records; an extent exceeds 2^31 - 1 on the NPU; an
 *                                          operand or a result reaches past its num_elements, counted without
 *                                          wrapping; or data_offset is too large for P1 or P3
 *   MORUN_ERROR_BAD_ARGUMENT (14)          right's data do not start a buffer of morun_npu_alloc, or a dimension is
 *                                          not the multiple that P2, P3 or P5 needs
 *   MORUN_ERROR_FAILURE (1)                memory for the result or a copy could not be had, or the lower interface
 *                                          refused. P1, P4 and P6 return this also for a dimension that is not the
 *                                          multiple that they need
 *   TAVIK_ERROR_BAD_DIMENSION (2)          from P3 alone, which returns the status of the lower interface's product
 *                                          as it is: n_col % 32 != 0, or dimensions beyond the limits of
 *                                          morun_npu_initialize
 *
 * The order of the last three differs between the paths. P2, P3 and P5 OR the statuses of freeing their buffers
 * into their status. P4 and P6 end the process with exit status 1 where morun_npu_mm_u8i4_i32 and
 * morun_npu_mm_u8i8_i32 do. A failure leaves the result unchanged, except that P1, P4 and P6 may leave it partly
 * written. */
int32_t morun_mm_tensor(uint32_t platform, const morun_tensor* result, const morun_tensor* left,
                        const morun_tensor* right);

/* Computes the product of P5 on the host: A[i][j] = sum over k of X[i][k] * W[j][k].
 *
 *   A   n_row x n_col, row-major f16; overlaps neither X nor W
 *   X   n_row x n_inner, row-major f16
 *   W   n_col x n_inner, row-major f16
 *
 * Sums are f32 with one rounding a step. For n_inner >= 4, lane r of four lanes adds the terms k = 4 * m + r of the
 * first 4 * (n_inner / 4); the lanes are added as (0 + 1) + (2 + 3); the other terms follow in ascending order. The
 * function rounds the sum to f16, to nearest even, and stores 0x7e00 for NaN. It returns n_row. */
uint64_t morun_tensor_cpu_matmul_scenario_5(uint64_t n_row, uint64_t n_col, uint64_t n_inner, uint16_t* A,
                                            const uint16_t* X, const uint16_t* W);

#ifdef __cplusplus
}
#endif
#endif

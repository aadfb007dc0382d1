/* libmorun, tensor interface: products of self-describing records, on the NPU or on the host.
 *
 * Statuses, log lines and the rule for threads are those of morun.h.
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

typedef enum morun_tensor_dtype_e {
  MORUN_DTYPE_I4 = 0, /* signed, weights */
  MORUN_DTYPE_I8 = 1, /* weights */
  MORUN_DTYPE_U8 = 2, /* activations */
  MORUN_DTYPE_I32 = 3,
  MORUN_DTYPE_F16 = 4, /* IEEE 754 binary16 */
  MORUN_DTYPE_F32 = 5  /* IEEE 754 binary32 */
} morun_tensor_dtype_e;

typedef enum morun_tensor_quantization_e {
  MORUN_QUANTIZATION_NONE = 0 /* the only one that is taken */
} morun_tensor_quantization_e;

typedef enum morun_tensor_layout_e {
  MORUN_LAYOUT_1D_LINEAR = 0, /* the only layout of a vector */
  MORUN_LAYOUT_2D_RM = 1,     /* row-major */
  MORUN_LAYOUT_2D_2 = 2,      /* valid; no product takes it, as 5 and 6 */
  MORUN_LAYOUT_2D_WH = 3,     /* weight tiles; right operands only */
  MORUN_LAYOUT_2D_AH = 4,     /* activation tiles; not for right operands */
  MORUN_LAYOUT_2D_5 = 5,      /* right operands only */
  MORUN_LAYOUT_2D_6 = 6       /* not for right operands */
} morun_tensor_layout_e;

/* Where morun_mm_tensor computes; 1 and 4 are refused. */
enum { MORUN_PLATFORM_CPU = 0, MORUN_PLATFORM_NPU0 = 3 };

/* A vector or matrix in memory that belongs to the caller. Extents, strides, counts and offsets in elements. The three
 * enumerations are held as plain numbers, so that any value may stand there and be refused. */
typedef struct morun_tensor {
  uint64_t dims[2];      /* rows and columns; a vector has its length in dims[0], and dims[1] is not read */
  uint64_t strides[2];   /* from row to row and from column to column; a contiguous matrix, tiled ones too, has
                            {dims[1], 1} */
  uint64_t num_elements; /* that may be reached from `data` on, those before data_offset included */
  uint64_t data_offset;  /* of the first element from `data` on */
  void* data;
  uint32_t data_dtype;   /* morun_tensor_dtype_e */
  uint32_t quantization; /* morun_tensor_quantization_e */
  uint32_t layout;       /* morun_tensor_layout_e */
  uint8_t ndims;         /* 1 or 2 */
  uint8_t is_contiguous; /* 1: the elements lie densely in the layout's order. 0: a strided view */
} morun_tensor;

/* A contiguous n_row x n_col matrix that fills the memory at `data`. */
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

/* Whether one record makes sense by itself; the line printed says what does not. Status 10 (the record or its data are
 * NULL), or 14: in this order ndims, each extent and stride (at least 1), num_elements, data_offset below it; of a
 * contiguous record num_elements >= data_offset + the product of the extents, the layout of its rank and the strides
 * {dims[1], 1} or {1}; of a view num_elements >= 2 * data_offset + 1 + the sum of (dims[i] - 1) * strides[i] (kept: the
 * offset counts twice); element type, quantization, layout. Sums and products wrap at 64 bits. */
int32_t morun_tensor_validate(const morun_tensor* tensor);

/* Whether result = left * right has fitting ranks, extents and layouts; each record is taken to be valid. A vector is a
 * row on the left, a column on the right; vector times vector gives a vector of length 1. Status 10 or 14. */
int32_t morun_mm_tensor_validate(const morun_tensor* result, const morun_tensor* left, const morun_tensor* right);

/* result = left * right. n_row = left dims[0], n_inner = left dims[1], n_col = right dims[1]. All are matrices without
 * quantization, left and right contiguous, the result with a column stride of 1. Written types left x right -> result,
 * layouts likewise (rm 1, wh 3, ah 4), on the platforms named:
 *
 *   P1  NPU0       f32 x f16 -> f32   rm x wh -> rm
 *   P2  NPU0       f16 x f16 -> f16   ah x wh -> ah
 *   P3  NPU0       f16 x f16 -> f16   rm x wh -> rm
 *   P4  NPU0       u8 x i4 -> i32     rm x wh -> rm
 *   P5  NPU0, CPU  f16 x f16 -> f16   rm x rm -> rm
 *   P6  NPU0       u8 x i8 -> i32     rm x wh -> rm
 *
 * Right operands of P1, P3, P4 and P6 stand in buffers of morun_npu_alloc: `data` is the start of one. P1 and P3 begin at
 * data_offset in it (bytes must fit in 32 bits), P4 and P6 at its start (kept: data_offset is not used). Everything else
 * may be any memory; P2, P3 and P5 on the NPU allocate buffers for copies on every call. Dimensions as the product used
 * asks for: multiples of 32 for f16 (morun_npu_mm_f16), of 64, 32 and 32 for bytes. P5 on the CPU takes any.
 *
 * Results of P1, P3, P4 and P6 may have any row stride; what lies between the rows is not written. Kept: P2 and P5 write
 * packed rows, whatever the row stride.
 *
 * Kept: P5 takes right's data as n_col rows of n_inner values, although right's extents say n_inner rows of n_col. On the
 * CPU element (k, j) is the k-th value of the j-th such row (morun_tensor_cpu_matmul_scenario_5). For the NPU those rows
 * are brought into wh as they stand, an n_col x n_inner matrix whose tiles the NPU then takes for those of an n_inner x
 * n_col one: with n_col = n_inner, the plain product. For a plain product of other shapes use P3. A platform other than
 * NPU0, CPU, 1 and 4 that finds P5 returns 0 and computes nothing.
 *
 * Statuses, in the order of the checks:
 *   107
 *   14       platform 1 or 4
 *   10, 14   a record, or the three together, is not valid
 *   20       no path takes them; also extents of more than 2^31 - 1 on the NPU, extents whose product passes 64 bits, a
 *            packed result that num_elements has no room for
 *   14       right's data are not in a buffer of morun_npu_alloc; a dimension is not the multiple that P2, P3 or P5 needs
 *   1        the lower interface refused, or memory for the result could not be had; P4 and P6 return 1 for a dimension
 *            that is not the multiple that they need, and end the process with exit status 1 where morun_npu_mm_u8i4_i32
 *            and morun_npu_mm_u8i8_i32 do
 * P2, P3 and P5 OR the statuses of freeing their buffers into the status; P3 returns the status of the lower interface's
 * product as it is, which is 2 for dimensions beyond the reserved ones. The result is untouched by a failure, except
 * that P1, P4 and P6 may leave it partly written. */
int32_t morun_mm_tensor(uint32_t platform, const morun_tensor* result, const morun_tensor* left,
                        const morun_tensor* right);

/* The product of P5 on the host: A[i][j] = sum over k of X[i][k] * W[j][k], all f16; A n_row x n_col, X n_row x n_inner,
 * W n_col x n_inner, row-major. Sums are f32 with one rounding a step: with n_inner >= 4 lane r of four takes the terms
 * k = 4 m + r of the first 4 * (n_inner / 4), the lanes are added (0 + 1) + (2 + 3), then come the other terms in
 * ascending order; the sum is rounded to f16, to nearest even. Not a number gives 0x7e00. Returns n_row. A overlaps
 * neither X nor W. */
uint64_t morun_tensor_cpu_matmul_scenario_5(uint64_t n_row, uint64_t n_col, uint64_t n_inner, uint16_t* A,
                                            const uint16_t* X, const uint16_t* W);

#ifdef __cplusplus
}
#endif
#endif

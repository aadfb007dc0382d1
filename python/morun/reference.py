"""Products to compare with: the library's reference products on the host, and what the NPU computes, in NumPy."""

from __future__ import annotations

import ctypes
from typing import Any

import numpy as np
from numpy.typing import NDArray

from . import _library, layouts, quant
from ._arrays import operand, padded
from ._library import address, check, tavik

__all__ = ["block", "block_f32", "block_f32_numpy", "block_numpy", "matmul", "matmul_columns", "matmul_columns_numpy",
           "matmul_numpy", "npu_matmul_numpy", "row", "row_numpy"]

F16Array = NDArray[np.float16]
F32Array = NDArray[np.float32]


def _f16(values: Any, name: str) -> F16Array:
    with np.errstate(over="ignore", under="ignore"):
        return operand(values, name, (np.float32, np.float16)).astype(np.float16, copy=False)


def matmul(x: NDArray[Any], w: NDArray[Any]) -> F32Array:
    """Multiply on the host with f16 sums, in the order that tavik.h prescribes.

    Parameters
    ----------
    x, w
        n_row x n_inner and n_inner x n_col, f32 (rounded to f16) or f16, of any extents.

    Returns
    -------
    NDArray[np.float32]
        n_row x n_col.
    """
    x, w = _f16(x, "x"), _f16(w, "w")
    a, b = padded(x, 1, 32), padded(w, 32, 32)
    if x.shape[1] != w.shape[0]:
        raise ValueError(f"x has {x.shape[1]} columns, w has {w.shape[0]} rows")
    blocks = layouts.f16_cm_to_f16_zb(np.ascontiguousarray(b.T))
    result = np.zeros((a.shape[0], b.shape[1]), np.float32)
    # The product reads the limits of the context and nothing else.
    largest = 2**31 - 1
    limits = _library.ContextRecord(output_matrix_size_max=largest, input_matrix_size_max=largest, n_row_max=largest)
    check("tavik_cpu_mm_fp32_rm_fp16_rm_fp16_zb", ctypes.byref(limits), a.shape[0], b.shape[1], a.shape[1],
          address(result), address(a), address(blocks))
    return result[:, :w.shape[1]].copy()


def _fused_sums(x: F16Array, w: F16Array, n_sum: int, dtype: type) -> NDArray[Any]:
    """n_row x n_col x n_sum: sum l adds the inner indices l, l + n_sum, ... by fused multiply-add."""
    n_inner = x.shape[1] // n_sum * n_sum
    sums: NDArray[Any] = np.zeros((x.shape[0], w.shape[1], n_sum), dtype)
    with np.errstate(all="ignore"):
        for k in range(0, n_inner, n_sum):
            a, b = x[:, None, k:k + n_sum].astype(np.float64), w[k:k + n_sum].T[None].astype(np.float64)
            sums = (a * b + sums).astype(dtype)  # exact in f64 as far as the rounding can see
    return sums


def _eight_added(v: NDArray[Any]) -> NDArray[Any]:
    u = [v[..., i] + v[..., i + 4] for i in range(4)]
    return (u[0] + u[1]) + (u[2] + u[3])


def block_numpy(x: F16Array, w: F16Array) -> F32Array:
    """`block` in NumPy, of any number of rows and columns."""
    with np.errstate(all="ignore"):
        return _eight_added(_fused_sums(x, w, 8, np.float16).astype(np.float32))


def _four_sums(x: F16Array, w: F16Array) -> F32Array:
    l = _fused_sums(x, w, 4, np.float32)
    with np.errstate(all="ignore"):
        return (l[..., 0] + l[..., 1]) + (l[..., 2] + l[..., 3])


def block_f32_numpy(x: F16Array, w: F16Array) -> F32Array:
    """`block_f32` in NumPy."""
    n_inner = x.shape[1] // 8 * 8
    return _four_sums(x[:, :n_inner], w[:n_inner])


def row_numpy(x: F16Array, w: F16Array) -> F32Array:
    """`row` in NumPy, of any number of rows and columns."""
    l = _fused_sums(x, w, 16, np.float16)
    with np.errstate(all="ignore"):
        return _eight_added(l[..., :8] + l[..., 8:]).astype(np.float32)


def matmul_numpy(x: NDArray[Any], w: NDArray[Any]) -> F32Array:
    """`matmul` in NumPy."""
    a, b = padded(_f16(x, "x"), 1, 32), padded(_f16(w, "w"), 32, 1)
    n_whole = len(a) // 4 * 4
    result = np.concatenate([block_numpy(a[:n_whole], b), row_numpy(a[n_whole:], b)])
    result[np.isnan(result)] = np.nan
    return result


def matmul_columns(x: F16Array, columns: F16Array) -> F16Array:
    """Multiply f16 on the host with f32 sums, as the tensor interface does: morun_tensor_cpu_matmul_scenario_5.

    Parameters
    ----------
    x, columns
        n_row x n_inner, and the weights column by column, n_col x n_inner. Of any extents.

    Returns
    -------
    NDArray[np.float16]
        n_row x n_col.
    """
    x, columns = operand(x, "x", (np.float16,)), operand(columns, "columns", (np.float16,))
    if x.shape[1] != columns.shape[1]:
        raise ValueError(f"x has {x.shape[1]} columns, the columns have {columns.shape[1]} values")
    result = np.empty((len(x), len(columns)), np.float16)
    tavik.morun_tensor_cpu_matmul_scenario_5(*result.shape, x.shape[1], address(result), address(x), address(columns))
    return result


def matmul_columns_numpy(x: F16Array, columns: F16Array) -> F16Array:
    """`matmul_columns` in NumPy."""
    n_whole, w = x.shape[1] // 4 * 4, columns.T
    with np.errstate(all="ignore"):
        sums = _four_sums(x, w)
        for k in range(n_whole, x.shape[1]):
            sums = (x[:, k, None].astype(np.float64) * w[k].astype(np.float64) + sums).astype(np.float32)
        result = sums.astype(np.float16)
    result[np.isnan(result)] = np.nan
    return result


def _block_operands(x: F16Array, w: F16Array, n_row: int) -> tuple[F16Array, F16Array, F32Array]:
    x, w = operand(x, "x", (np.float16,)), operand(w, "w", (np.float16,))
    if x.shape[0] != n_row or w.shape != (x.shape[1], 4):
        raise ValueError(f"x {x.shape} and w {w.shape} are not {n_row} rows and four columns of one inner dimension")
    return x, layouts.f16_cm_to_f16_zb(np.ascontiguousarray(w.T)), np.empty((n_row, 4), np.float32)


def block(x: F16Array, w: F16Array) -> F32Array:
    """qmmbp_HxD: 4 x n_inner by n_inner x 4, eight f16 sums. The last n_inner % 8 inner indices are left out."""
    a, b, result = _block_operands(x, w, 4)
    tavik.qmmbp_HxD(4, a.shape[1], address(result), address(b), address(a))
    return result


def block_f32(x: F16Array, w: F16Array) -> F32Array:
    """qmmbp_HxD_: like `block`, with four f32 sums."""
    a, b, result = _block_operands(x, w, 4)
    tavik.qmmbp_HxD_(4, a.shape[1], address(result), address(b), address(a))
    return result


def row(x: F16Array, w: F16Array) -> F32Array:
    """qdotxH: 1 x n_inner by n_inner x 4, sixteen f16 sums. The last n_inner % 16 inner indices are left out."""
    a, b, result = _block_operands(x, w, 1)
    tavik.qdotxH(a.shape[1], address(result), address(b), address(a))
    return result


def npu_matmul_numpy(x: F32Array, packed: quant.PackedMatrix) -> F32Array:
    """What the emulated NPU computes for an f32 activation and packed weights, to the last bit.

    In form f16, X is rounded to f16, sums are f32 in ascending order of the inner index, and the result is rounded to
    f16. In the other forms each row of X is quantised to 8 bits, and the sums are exact.
    """
    n_inner, n_col = packed.shape
    values = packed.values[:, :n_col]
    if packed.form == "f16":
        with np.errstate(all="ignore"):
            a, w = x.astype(np.float16).astype(np.float32), values.astype(np.float32)
            real_sums = np.zeros((len(x), n_col), np.float32)
            for k in range(n_inner):
                real_sums += a[:, k, None] * w[k]
            return real_sums.astype(np.float16).astype(np.float32)
    wide = padded(x, 1, 32)
    q, scales, row_sums = quant.quantise_u8_numpy(wide)
    sums = (q.astype(np.int64) @ values.astype(np.int64)).astype(np.int32)
    return quant.output_numpy(sums, len(values), scales, row_sums, packed.zero_points, packed.scales, packed.sums)

"""What the package takes for an array, and the conversions that a caller makes on purpose."""

from __future__ import annotations

from typing import Any

import numpy as np
from numpy.typing import ArrayLike, NDArray

F16, F32 = np.dtype(np.float16), np.dtype(np.float32)


def as_f32(values: ArrayLike, *, bfloat16: bool = False) -> NDArray[np.float32]:
    """Convert numbers to what every product takes: f32 in row-major order.

    Parameters
    ----------
    values
        Real numbers of any shape, dtype, byte order and strides. f64 is rounded to the nearest f32; what overflows
        becomes infinite. Integers are rounded likewise.
    bfloat16
        Whether `values` holds the bit patterns of bf16 numbers, as uint16.

    Returns
    -------
    NDArray[np.float32]
        C-contiguous. `values` itself where it is so already, otherwise a copy.

    Raises
    ------
    TypeError
        `values` are not real numbers, or no uint16 with `bfloat16`.
    """
    if isinstance(values, np.ma.MaskedArray):
        raise TypeError("the values are a masked array, whose mask would be lost")
    array = np.asarray(values)
    if bfloat16:
        if array.dtype != np.uint16:
            raise TypeError(f"bf16 numbers come as uint16, not {array.dtype}")
        return np.ascontiguousarray(array.astype(np.uint32) << np.uint32(16)).view(np.float32).reshape(array.shape)
    if array.dtype.kind not in "fiu":
        raise TypeError(f"real numbers are needed, not {array.dtype}")
    with np.errstate(over="ignore"):
        return np.require(array, F32, ["C", "A"])


def operand(values: Any, name: str, dtypes: tuple[Any, ...], n_dimension: int | None = 2) -> NDArray[Any]:
    """`values` where it is an array that a function of the library can read, otherwise TypeError or ValueError."""
    if not isinstance(values, np.ndarray):
        raise TypeError(f"{name} has to be a NumPy array, not {type(values).__name__}")
    if isinstance(values, np.ma.MaskedArray):
        raise TypeError(f"{name} is a masked array, whose mask would be lost")
    known = [np.dtype(dtype) for dtype in dtypes]
    hint = ". morun.as_f32 converts" if F32 in known else ""
    if values.dtype not in known:
        raise TypeError(f"{name} has dtype {values.dtype}; it has to be {' or '.join(map(str, known))}{hint}")
    if n_dimension is not None and values.ndim != n_dimension:
        raise ValueError(f"{name} has {values.ndim} dimensions; it has to have {n_dimension}")
    if not (values.flags.c_contiguous and values.flags.aligned):
        raise ValueError(f"{name} is not in row-major order without gaps{hint or '. numpy.ascontiguousarray copies'}")
    return values


def round_up(value: int, multiple: int) -> int:
    return -(-value // multiple) * multiple


def padded(matrix: NDArray[Any], row_multiple: int, col_multiple: int) -> NDArray[Any]:
    """A row-major copy with zeros behind rows and columns up to whole multiples."""
    n_row, n_col = matrix.shape
    result = np.zeros((round_up(n_row, row_multiple), round_up(n_col, col_multiple)), matrix.dtype)
    result[:n_row, :n_col] = matrix
    return result

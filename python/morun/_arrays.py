"""What the package takes for an array, and the conversions that a caller makes on purpose."""

from __future__ import annotations

import operator
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
    if flag(bfloat16, "bfloat16"):
        if array.dtype != np.uint16:
            raise TypeError(f"bf16 numbers come as uint16, not {array.dtype}")
        return np.ascontiguousarray(array.astype(np.uint32) << np.uint32(16)).view(np.float32).reshape(array.shape)
    if array.dtype.kind not in "fiu":
        raise TypeError(f"real numbers are needed, not {array.dtype}")
    with np.errstate(over="ignore"):
        return np.require(array, F32, ["C", "A"])


def integer(value: Any, name: str, least: int = 0, most: int = 2**63 - 1) -> int:
    """`value` as an int. Raises TypeError for no integer, a bool included, and ValueError outside the bounds."""
    try:
        if isinstance(value, (bool, np.bool_)):
            raise TypeError
        number = operator.index(value)
    except TypeError:
        raise TypeError(f"{name} has to be an integer, not {type(value).__name__}") from None
    if not least <= number <= most:
        raise ValueError(f"{name} is {number}; it has to be {least} to {most}")
    return number


def fraction(value: Any, name: str) -> float:
    """`value` as a float. Raises TypeError for no real number, and ValueError outside 0 to 1."""
    if isinstance(value, bool) or not isinstance(value, (int, float, np.integer, np.floating)):
        raise TypeError(f"{name} has to be a real number, not {type(value).__name__}")
    if not 0 <= value <= 1:
        raise ValueError(f"{name} is {value}; it has to be 0 to 1")
    return float(value)


def flag(value: Any, name: str) -> bool:
    """`value` as a bool. Raises TypeError for all but True and False."""
    if not isinstance(value, (bool, np.bool_)):
        raise TypeError(f"{name} has to be True or False, not {type(value).__name__}")
    return bool(value)


def operand(values: Any, name: str, dtypes: tuple[Any, ...], n_dimension: int | None = 2) -> NDArray[Any]:
    """`values` as a plain array that a function of the library can read, otherwise TypeError or ValueError.

    No copy: a view without the methods of a subclass, which might tell of another shape than the memory has.
    """
    if not isinstance(values, np.ndarray):
        raise TypeError(f"{name} has to be a NumPy array, not {type(values).__name__}")
    if isinstance(values, np.ma.MaskedArray):
        raise TypeError(f"{name} is a masked array, whose mask would be lost")
    values = np.asarray(values)
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

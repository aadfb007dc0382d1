"""Half precision: conversions of whole arrays, with the library's rounding."""

from __future__ import annotations

from typing import Any

import numpy as np
from numpy.typing import NDArray

from ._arrays import operand
from ._library import address, tavik

__all__ = ["to_f16", "to_f16_numpy", "to_f32", "to_f32_numpy"]


def _converted(function: Any, values: NDArray[Any], dtype: type) -> NDArray[Any]:
    source = np.zeros(-(-values.size // 8) * 8, values.dtype)  # the library converts whole groups of eight
    source[:values.size] = values.ravel()
    result: NDArray[Any] = np.empty(source.size, dtype)
    function(source.size, address(source), address(result))
    return result[:values.size].reshape(values.shape)


def to_f16(values: NDArray[np.float32]) -> NDArray[np.float16]:
    """Round f32 to f16: to nearest, ties to even. What overflows becomes infinite, a NaN a quiet NaN. Any shape."""
    return _converted(tavik.tavik_f32_to_f16, operand(values, "values", (np.float32,), None), np.float16)


def to_f16_numpy(values: NDArray[np.float32]) -> NDArray[np.float16]:
    """`to_f16` in NumPy. NaN payloads may differ."""
    with np.errstate(over="ignore", under="ignore"):
        return values.astype(np.float16)


def to_f32(values: NDArray[np.float16]) -> NDArray[np.float32]:
    """Widen f16 to f32, exactly. Any shape."""
    return _converted(tavik.tavik_f16_to_f32, operand(values, "values", (np.float16,), None), np.float32)


def to_f32_numpy(values: NDArray[np.float16]) -> NDArray[np.float32]:
    """`to_f32` in NumPy. NaN payloads may differ."""
    return values.astype(np.float32)

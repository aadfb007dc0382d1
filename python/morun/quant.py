"""Quantisation: of activations, of weights, and what quantised numbers stand for.

A quantised value q stands for (q - zero point) * scale. NAME_numpy beside each function is the same in NumPy alone.
docs/weight-files.md defines the quantisers of weights by formulas.
"""

from __future__ import annotations

import ctypes
import math
import sys
from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import NDArray

from . import _library, layouts
from ._arrays import flag, fraction, integer, operand, padded, round_up
from ._library import FORMS, QUANTISERS, address, check_weights, number_of, tavik

__all__ = [
    "Calibration", "PackedMatrix", "a8w4_output", "a8w8_output", "dequantise", "dequantise_numpy",
    "output_numpy", "quantise", "quantise_numpy", "quantise_rows_i4", "quantise_rows_i8", "quantise_rows_numpy",
    "quantise_u16", "quantise_u16_numpy", "quantise_u8", "quantise_u8_ah", "quantise_u8_numpy",
]

F32Array = NDArray[np.float32]
F64Array = NDArray[np.float64]
BOUNDS = {"a8w8": (-128, 127), "a8w4": (-8, 7)}
LARGEST_F16 = 65504.0


# ---- Activations ----


def quantise_u8(x: F32Array) -> tuple[NDArray[np.uint8], F32Array, NDArray[np.uint32]]:
    """Quantise each row of an f32 activation to u8.

    Parameters
    ----------
    x
        n_row x n_inner.

    Returns
    -------
    values : NDArray[np.uint8]
        n_row x n_inner; 128 stands for 0.
    scales : NDArray[np.float32]
        n_row.
    sums : NDArray[np.uint32]
        n_row, of the values of a row, modulo 2^32.
    """
    x = operand(x, "x", (np.float32,))
    n_row, n_col = x.shape
    values, scales, sums = np.empty(x.shape, np.uint8), np.empty(n_row, np.float32), np.empty(n_row, np.uint32)
    tavik.tavik_f32_rm_to_u8_rm(n_row, n_col, address(x), address(values), address(scales), address(sums))
    return values, scales, sums


def quantise_u8_ah(x: F32Array) -> tuple[NDArray[np.uint8], F32Array, NDArray[np.uint32]]:
    """`quantise_u8` with the values in tiles, (n_row/64, n_inner/32, 64, 32), those of the padding 0."""
    x = operand(x, "x", (np.float32,))
    n_row, n_col = x.shape
    tiles = np.zeros((-(-n_row // 64), -(-n_col // 32), 64, 32), np.uint8)
    scales, sums = np.empty(n_row, np.float32), np.empty(n_row, np.uint32)
    tavik.tavik_f32_rm_to_u8_ah(n_row, n_col, address(x), address(tiles), address(scales), address(sums))
    return tiles, scales, sums


def quantise_u16(x: F32Array) -> tuple[NDArray[np.uint8], NDArray[np.uint8], F32Array, NDArray[np.uint32]]:
    """Quantise each row of an f32 activation to 16 bits: high bytes, low bytes, scales, sums. 32768 stands for 0."""
    x = operand(x, "x", (np.float32,))
    n_row, n_col = x.shape
    high, low = np.empty(x.shape, np.uint8), np.empty(x.shape, np.uint8)
    scales, sums = np.empty(n_row, np.float32), np.empty(n_row, np.uint32)
    tavik.tavik_f32_rm_to_u16_rm(n_row, n_col, address(x), address(high), address(low), address(scales), address(sums))
    return high, low, scales, sums


def _round_away(values: NDArray[Any]) -> F64Array:
    """To the nearest integer, halves away from zero."""
    wide = values.astype(np.float64)
    whole = np.trunc(wide)
    return np.where(np.isfinite(wide), whole + np.copysign(np.abs(wide - whole) >= 0.5, wide), wide)


def _shifted_values(x: F32Array, largest: int) -> tuple[NDArray[np.int64], F32Array]:
    with np.errstate(all="ignore"):
        # Not fmax, with which a signalling NaN wins.
        scales = np.max(np.abs(x), axis=1, initial=0, where=~np.isnan(x)) / np.float32(largest)
        inverse = np.where(scales == 0, np.float32(0), np.float32(1) / scales)
        rounded = np.nan_to_num(_round_away(x * inverse[:, None]), nan=0)
    return np.clip(rounded, -2**31, 2**31 - 1).astype(np.int64) + largest + 1, scales


def quantise_u8_numpy(x: F32Array) -> tuple[NDArray[np.uint8], F32Array, NDArray[np.uint32]]:
    """`quantise_u8` in NumPy."""
    values, scales = _shifted_values(x, 127)
    return values.astype(np.uint8), scales, values.sum(axis=1).astype(np.uint32)


def quantise_u16_numpy(x: F32Array) -> tuple[NDArray[np.uint8], NDArray[np.uint8], F32Array, NDArray[np.uint32]]:
    """`quantise_u16` in NumPy."""
    values, scales = _shifted_values(x, 32767)
    stored = values.astype(np.uint16)
    return (stored >> 8).astype(np.uint8), stored.astype(np.uint8), scales, stored.sum(axis=1).astype(np.uint32)


# ---- Rows of f16 weights, as the library quantises them ----

Rows = tuple[NDArray[np.int8], NDArray[np.int8], NDArray[np.float16], NDArray[np.int32]]


def quantise_rows_i8(rows: NDArray[np.float16]) -> Rows:
    """Quantise f16 weights to i8, asymmetrically; a row is an output column of the product.

    Parameters
    ----------
    rows
        n_col x n_inner.

    Returns
    -------
    values : NDArray[np.int8]
        n_col x n_inner.
    zero_points : NDArray[np.int8]
    scales : NDArray[np.float16]
    sums : NDArray[np.int32]
        n_col each.
    """
    rows = operand(rows, "rows", (np.float16,))
    n_row, n_col = rows.shape
    values, zero_points = np.empty(rows.shape, np.int8), np.empty(n_row, np.int8)
    scales, sums = np.empty(n_row, np.float16), np.empty(n_row, np.int32)
    tavik.tavik_f16_rm_to_i8_rm(n_row, n_col, address(rows), address(values), address(zero_points), address(scales),
                                address(sums))
    return values, zero_points, scales, sums


def quantise_rows_i4(rows: NDArray[np.float16]) -> Rows:
    """`quantise_rows_i8` to -8 ... 7; n_inner is a multiple of 8, otherwise ValueError."""
    rows = operand(rows, "rows", (np.float16,))
    n_row, n_col = rows.shape
    if n_col % 8:
        raise ValueError(f"rows have {n_col} values; a multiple of 8 is needed")
    whole = padded(rows, 8, 1)  # the library packs the zero points of whole groups of eight rows
    words, zero_points = np.empty((len(whole), n_col // 8), np.uint32), np.zeros((1, len(whole) // 8), np.uint32)
    scales, sums = np.empty(len(whole), np.float16), np.empty(len(whole), np.int32)
    tavik.tavik_f16_rm_to_i4_rm(len(whole), n_col, address(whole), address(words), address(zero_points),
                                address(scales), address(sums))
    values, zeros = layouts.unpack_i4(words, n_col), layouts.unpack_i4(zero_points, n_row)[0]
    return values[:n_row], zeros, scales[:n_row], sums[:n_row]


def quantise_rows_numpy(rows: NDArray[np.float16], form: str) -> Rows:
    """`quantise_rows_i8` (form a8w8) and `quantise_rows_i4` (a8w4) in NumPy."""
    low, high = BOUNDS[form]
    if rows.shape[1] == 0:
        n = len(rows)
        return np.empty((n, 0), np.int8), np.full(n, low, np.int8), np.zeros(n, np.float16), np.zeros(n, np.int32)
    with np.errstate(all="ignore"):
        first_is_nan = np.isnan(rows[:, 0])
        most = np.where(first_is_nan, np.float16(np.nan), np.fmax.reduce(rows, axis=1))
        least = np.where(first_is_nan, np.float16(np.nan), np.fmin.reduce(rows, axis=1))
        scales = (most - least) / np.float16(high - low)
        inverse = np.where(scales == 0, np.float32(0), np.float32(1) / scales.astype(np.float32)).astype(np.float16)
        # Products of halves and such sums are exact in f64, so that narrowing is the one rounding.
        start = (low - inverse.astype(np.float64) * least.astype(np.float64)).astype(np.float16)
        zero_points = np.clip(np.nan_to_num(_round_away(start), nan=0, posinf=high, neginf=low), low, high)
        exact = rows.astype(np.float64) * inverse[:, None].astype(np.float64) + zero_points[:, None]
        rounded = np.nan_to_num(_round_away(exact.astype(np.float16)), nan=0, posinf=high, neginf=low)
    values = np.clip(rounded, low, high).astype(np.int8)
    scales[np.isnan(scales)] = np.float16(np.nan)
    return values, zero_points.astype(np.int8), scales, values.sum(axis=1, dtype=np.int32)


# ---- Results ----


def _output(form: str, tiles: NDArray[np.int32], n_inner: int, activation_scales: F32Array,
            activation_sums: NDArray[Any], zero_points: NDArray[np.int8], weight_scales: NDArray[np.float16],
            weight_sums: NDArray[np.int32]) -> F32Array:
    rows = [operand(activation_scales, "activation_scales", (np.float32,), 1),
            operand(activation_sums, "activation_sums", (np.int32, np.uint32), 1)]
    columns = [operand(zero_points, "zero_points", (np.int8,), 1),
               operand(weight_scales, "weight_scales", (np.float16,), 1),
               operand(weight_sums, "weight_sums", (np.int32,), 1)]
    n_row, n_col = len(rows[0]), len(columns[0])
    for name, values, length in (("activation_sums", rows[1], n_row), ("weight_scales", columns[1], n_col),
                                 ("weight_sums", columns[2], n_col)):
        if len(values) != length:
            raise ValueError(f"{name} has {len(values)} elements; it has to have {length}")
    tiles = layouts._tiles(tiles, np.int32, (64, 32), (64, 32), n_row, n_col)[0]
    n_inner = integer(n_inner, "n_inner", 0, 2**31 - 1)
    columns = [padded(values[None], 1, 32) for values in columns]
    if form == "a8w4":
        columns[0] = layouts.pack_i4(columns[0])
    result = np.empty((n_row, tiles.shape[1] * 32), np.float32)
    getattr(tavik, f"tavik_{form}_output_to_f32_rm")(
        n_row, result.shape[1], n_inner, address(result), address(tiles), *map(address, rows + columns))
    return result[:, :n_col].copy()


def a8w8_output(tiles: NDArray[np.int32], n_inner: int, activation_scales: F32Array,
                activation_sums: NDArray[Any], zero_points: NDArray[np.int8], weight_scales: NDArray[np.float16],
                weight_sums: NDArray[np.int32]) -> F32Array:
    """Turn the integer sums of an a8w8 product back into real numbers.

    Parameters
    ----------
    tiles
        (n_row/64, n_col/32, 64, 32), as the matrix unit leaves them.
    n_inner
        Inner dimension, with its padding.
    activation_scales, activation_sums
        n_row; as `quantise_u8` gives them.
    zero_points, weight_scales, weight_sums
        n_col; i8, f16 and i32.

    Returns
    -------
    NDArray[np.float32]
        n_row x n_col.
    """
    return _output("a8w8", tiles, n_inner, activation_scales, activation_sums, zero_points, weight_scales, weight_sums)


def a8w4_output(tiles: NDArray[np.int32], n_inner: int, activation_scales: F32Array,
                activation_sums: NDArray[Any], zero_points: NDArray[np.int8], weight_scales: NDArray[np.float16],
                weight_sums: NDArray[np.int32]) -> F32Array:
    """`a8w8_output` for an a8w4 product; zero points are -8 ... 7."""
    return _output("a8w4", tiles, n_inner, activation_scales, activation_sums, zero_points, weight_scales, weight_sums)


def _fused(a: NDArray[Any], b: NDArray[Any], c: NDArray[Any]) -> F32Array:
    """a * b + c for f32, rounded once: the f64 sum is rounded to odd, which leaves the last rounding right."""
    product, addend = a.astype(np.float64) * b, c.astype(np.float64)
    total = np.asarray(product + addend)
    part = total - product
    error = (product - (total - part)) + (addend - part)
    towards = np.nextafter(total, np.copysign(np.inf, error))
    is_even = (total.view(np.int64) & 1) == 0
    return np.where((error != 0) & is_even & np.isfinite(total), towards, total).astype(np.float32)


def output_numpy(sums: NDArray[np.int32], n_inner: int, activation_scales: F32Array, activation_sums: NDArray[Any],
                 zero_points: NDArray[np.int8], weight_scales: NDArray[np.float16],
                 weight_sums: NDArray[np.int32]) -> F32Array:
    """`a8w8_output` and `a8w4_output` in NumPy, of row-major sums n_row x n_col."""
    z = zero_points.astype(np.float32)[None]
    with np.errstate(all="ignore"):
        t = sums.astype(np.float32) - np.float32(128) * weight_sums.astype(np.float32)[None]
        t = _fused(-z, activation_sums.view(np.int32).astype(np.float32)[:, None], t)
        t = _fused(np.float32(128) * z, np.array(n_inner, np.float32), t)
        t = (t * activation_scales[:, None]) * weight_scales.astype(np.float32)[None]
    t[np.isnan(t)] = np.nan
    return t


# ---- Weights ----


@dataclass(frozen=True, eq=False)
class PackedMatrix:
    """A weight matrix as the matrix unit reads it, in ordinary memory.

    Raises TypeError or ValueError where the data are not those of a matrix of this form and these extents, and Error
    where an extent is 0 or the matrix too large.

    Attributes
    ----------
    form : str
        "f16", "a8w8" or "a8w4".
    n_inner, n_col : int
        True extents.
    data : NDArray[np.uint8]
        Tiles, zero points, scales and sums, with the padding to whole tiles; what a packed file holds.
    error : float
        |w - w'| / |w|, Frobenius norms, w' being what the packed matrix stands for. 0 for 0 / 0, 1 for another number
        / 0, and at most the largest float.
    product_error : float
        |x (w - w')| / |x w| on the activations of the calibration, or -1 without.
    """

    form: str
    n_inner: int
    n_col: int
    data: NDArray[np.uint8]
    error: float = 0.0
    product_error: float = -1.0

    def __post_init__(self) -> None:
        object.__setattr__(self, "n_inner", integer(self.n_inner, "n_inner"))
        object.__setattr__(self, "n_col", integer(self.n_col, "n_col"))
        self.checked_data()

    def checked_data(self) -> NDArray[np.uint8]:
        """The data, where they are still as many bytes as form and extents take, otherwise ValueError."""
        data = operand(self.data, "data", (np.uint8,), 1)
        if data.size != self.layout.n_byte:
            raise ValueError(f"the packed data have {data.size} bytes; form and extents take {self.layout.n_byte}")
        return data

    @property
    def shape(self) -> tuple[int, int]:
        """n_inner, n_col: true extents."""
        return self.n_inner, self.n_col

    @property
    def layout(self) -> _library.Layout:
        """Padded extents, where the parts begin in `data`, and `n_byte`."""
        return layout_of(self.form, self.n_inner, self.n_col)

    def _part(self, start: int, dtype: type, count: int) -> NDArray[Any]:
        return self.data[start:start + count * np.dtype(dtype).itemsize].view(dtype)

    @property
    def values(self) -> NDArray[Any]:
        """Padded extents: i8, or f16 in form f16."""
        layout = self.layout
        n_inner, n_col = layout.padded_n_inner, layout.padded_n_col
        if self.form == "a8w4":
            tiles = self._part(0, np.uint8, n_inner * n_col // 2).reshape(n_inner // 32, n_col // 32, 4, 32, 1, 4)
            nibbles = np.concatenate([tiles & 15, tiles >> 4], axis=4).transpose(0, 3, 1, 2, 4, 5)
            return (nibbles.reshape(n_inner, n_col) ^ 8).astype(np.int8) - np.int8(8)
        dtype, together = (np.float16, 2) if self.form == "f16" else (np.int8, 4)
        tiles = self._part(0, dtype, n_inner * n_col).reshape(n_inner // 32, n_col // 32, 32 // together, 32, together)
        return tiles.transpose(0, 3, 1, 2, 4).reshape(n_inner, n_col)

    @property
    def zero_points(self) -> NDArray[np.int8]:
        """n_col; ValueError in form f16."""
        start, n_col = self._quantised().zero_points, self.layout.padded_n_col
        if self.form == "a8w8":
            return self._part(start, np.int8, n_col)[:self.n_col]
        return layouts.unpack_i4(self._part(start, np.uint32, n_col // 8)[None], n_col)[0, :self.n_col]

    @property
    def scales(self) -> NDArray[np.float16]:
        """n_col; ValueError in form f16."""
        return self._part(self._quantised().scales, np.float16, self.n_col)

    @property
    def sums(self) -> NDArray[np.int32]:
        """n_col, of the values of a column with its padding; ValueError in form f16."""
        return self._part(self._quantised().sums, np.int32, self.n_col)

    def _quantised(self) -> _library.Layout:
        if self.form == "f16":
            raise ValueError("a matrix of form f16 has neither zero points nor scales nor sums")
        return self.layout


def layout_of(form: str, n_inner: int, n_col: int) -> _library.Layout:
    """Where the parts of a packed matrix stand. Raises Error where an extent is 0 or the matrix too large."""
    layout = _library.Layout()
    number = number_of(form, FORMS[1:], "form") + 1
    check_weights("morun_weights_layout_of", number, integer(n_inner, "n_inner"), integer(n_col, "n_col"),
                  ctypes.byref(layout))
    return layout


class Calibration(_library.Single):
    """What the quantiser `calibrated` knows of a layer: the covariance of its activations.

    Parameters
    ----------
    activations
        n_row x n_inner, f32, finite. Some hundred typical rows.
    damping
        0 to 1; a larger one trusts the activations less.

    Raises
    ------
    Error
        An activation is not finite, all are zero, or the covariance has no Cholesky factor.
    """

    def __init__(self, activations: F32Array, damping: float = 0.05) -> None:
        self._handle = ctypes.c_void_p()
        activations, damping = operand(activations, "activations", (np.float32,)), fraction(damping, "damping")
        n_row, self.n_inner = activations.shape
        check_weights("morun_weights_calibration_create", self.n_inner, ctypes.byref(self._handle))
        check_weights("morun_weights_calibration_add", self._handle, n_row, address(activations), self.n_inner)
        check_weights("morun_weights_calibration_finish", self._handle, damping)

    def __del__(self) -> None:
        if hasattr(self, "_handle") and _library is not None:  # which it is where the interpreter ends
            _library.weights.morun_weights_calibration_free(self._handle)


def quantise(w: NDArray[Any], form: str, quantiser: str = "minmax", calibration: Calibration | None = None, *,
             allow_non_finite: bool = False) -> PackedMatrix:
    """Pack a weight matrix.

    Parameters
    ----------
    w
        n_inner x n_col, f32 or f16, at least 1 x 1.
    form
        "f16", "a8w8" or "a8w4".
    quantiser
        "minmax", "mse", "calibrated" or "library"; not used in form f16.
    calibration
        Needed by "calibrated". With it, the product's error is measured for every quantiser.
    allow_non_finite
        Whether form f16 keeps NaN and infinities, and the quantisers take NaN for 0 and an infinity for 65504 of its
        sign.

    Returns
    -------
    PackedMatrix

    Raises
    ------
    Error
        A value is not finite, an extent is 0, or the calibration is missing or of another n_inner.
    """
    w = operand(w, "w", (np.float32, np.float16))
    n_inner, n_col = w.shape
    if not isinstance(calibration, (Calibration, type(None))):
        raise TypeError(f"calibration has to be a Calibration, not {type(calibration).__name__}")
    recipe = _library.Recipe(number_of(form, FORMS[1:], "form") + 1, number_of(quantiser, QUANTISERS, "quantiser"),
                             n_inner, n_col, calibration and calibration._handle,
                             flag(allow_non_finite, "allow_non_finite"))
    data = np.zeros(layout_of(form, n_inner, n_col).n_byte, np.uint8)
    values, statistics = w.astype(np.float32, copy=False), _library.Statistics()
    check_weights("morun_weights_pack_columns", ctypes.byref(recipe), 0, n_col, address(values), n_col, 1,
                  address(data), data.size, ctypes.byref(statistics))
    s = statistics
    return PackedMatrix(form, n_inner, n_col, data, _relative_error(s.squared_error, s.sum_of_squares),
                        _relative_error(s.product_error, s.product_squares) if calibration else -1.0)


def _relative_error(squared_error: float, squares: float) -> float:
    """What a packed file would hold: 0 for 0 / 0, 1 for another number / 0, and at most the largest float."""
    if squared_error == 0:
        return 0.0
    ratio = math.sqrt(squared_error / squares) if squares > 0 else 1.0
    return ratio if ratio <= sys.float_info.max else sys.float_info.max


def dequantise(packed: PackedMatrix) -> F32Array:
    """What a packed matrix stands for: n_inner x n_col, exactly."""
    if not isinstance(packed, PackedMatrix):
        raise TypeError(f"packed has to be a PackedMatrix, not {type(packed).__name__}")
    data, result = packed.checked_data(), np.empty(packed.shape, np.float32)
    check_weights("morun_weights_unpack_columns", number_of(packed.form, FORMS, "form"), packed.n_inner, packed.n_col,
                  address(data), data.size, 0, packed.n_col, address(result), packed.n_col, 1)
    return result


def dequantise_numpy(packed: PackedMatrix) -> F32Array:
    """`dequantise` in NumPy."""
    values = packed.values[:packed.n_inner, :packed.n_col].astype(np.float32)
    if packed.form == "f16":
        return values
    with np.errstate(all="ignore"):  # the scale of the quantiser "library" may be infinite
        return (values - packed.zero_points.astype(np.float32)) * packed.scales.astype(np.float32)


# ---- The quantisers of weights in NumPy: all columns at a time ----


@dataclass
class _Steps:
    """Scales and zero points of the columns."""

    bounds: tuple[int, int]
    halves: NDArray[np.float16]
    zero_points: F64Array

    @property
    def scales(self) -> F32Array:
        return self.halves.astype(np.float32)

    def distances(self, w: F32Array) -> F32Array:
        """q - zero point of each value."""
        with np.errstate(all="ignore"):
            scaled = w * (np.float32(1) / self.scales)
        scaled[:, self.halves == 0] = 0
        low, high = self.bounds
        return _round_away(np.clip(scaled, low - self.zero_points, high - self.zero_points)).astype(np.float32)

    def squared_errors(self, w: F32Array) -> F64Array:
        differences = w - self.distances(w) * self.scales  # the product is exact
        return _sum_of_products(differences, differences)


def _sum_of_products(a: F32Array, b: F32Array) -> F64Array:
    """Of each column: 32 sums of f32, and their sum in f64."""
    lanes = np.zeros((32, a.shape[1]), np.float32)
    for k in range(0, len(a), 32):
        lanes = _fused(a[k:k + 32], b[k:k + 32], lanes)
    return np.cumsum(lanes.astype(np.float64), axis=0)[-1]


def _minmax(w: F32Array, bounds: tuple[int, int]) -> tuple[_Steps, F64Array, F64Array]:
    low, high = w.min(axis=0, initial=0).astype(np.float64), w.max(axis=0, initial=0).astype(np.float64)
    exact = (high - low) / (bounds[1] - bounds[0])
    with np.errstate(all="ignore"):
        halves = np.minimum(exact.astype(np.float32).astype(np.float16), np.float16(LARGEST_F16))
        above = np.nextafter(halves, np.float16(np.inf))
        halves = np.where((halves < np.float16(LARGEST_F16)) & (halves < exact), above, halves)
        zero_points = np.clip(_round_away(bounds[0] - low / halves.astype(np.float64)), *bounds)
    zero_points[halves == 0] = 0
    return _Steps(bounds, halves, zero_points), low, high


def _mse(w: F32Array, bounds: tuple[int, int]) -> _Steps:
    whole, low, high = _minmax(w, bounds)
    best = _Steps(bounds, whole.halves.copy(), whole.zero_points.copy())
    errors = best.squared_errors(w)

    def consider(halves: NDArray[np.float16], zero_points: F64Array) -> None:
        step = _Steps(bounds, halves, np.clip(zero_points, *bounds))
        tried = step.squared_errors(w)
        is_better = (tried < errors) & (whole.halves > 0) & (halves > 0) & (halves <= np.float16(LARGEST_F16))
        errors[is_better] = tried[is_better]
        best.halves[is_better], best.zero_points[is_better] = halves[is_better], step.zero_points[is_better]

    with np.errstate(all="ignore"):
        for i in range(40):
            cut = 0.7 * i / 40
            halves = (whole.scales.astype(np.float64) * (1 - cut)).astype(np.float32).astype(np.float16)
            for part in (range(5) if bounds == BOUNDS["a8w4"] else [2]):
                start = low + cut * (high - low) * part / 4
                consider(halves, np.nan_to_num(_round_away(bounds[0] - start / halves.astype(np.float64)), nan=0))
        for _ in range(2):
            v = best.distances(w)
            squares = _sum_of_products(v, v)
            fitting = np.where(squares > 0, _sum_of_products(w, v) / squares, 0)
            consider(fitting.astype(np.float32).astype(np.float16), best.zero_points.copy())
            for by in (-1, 1):
                consider(best.halves.copy(), best.zero_points + by)
    return best


def _calibrated(w: F32Array, steps: _Steps, activations: F32Array, damping: float) -> NDArray[np.int8]:
    covariance = activations.T.astype(np.float64) @ activations.astype(np.float64)
    diagonal = np.diag(covariance)
    order = np.lexsort((-np.arange(len(w)), -diagonal))
    damped = covariance + damping * diagonal.mean() * np.eye(len(w))
    factor = np.linalg.cholesky(np.linalg.inv(damped[np.ix_(order, order)])).T
    rows, scales = w[order].astype(np.float64), np.where(steps.halves == 0, 1, steps.scales).astype(np.float64)
    q = np.empty(w.shape, np.int8)
    for i, k in enumerate(order):
        values = np.clip(_round_away(rows[i] / scales) + steps.zero_points, *steps.bounds)
        values[steps.halves == 0] = 0
        q[k] = values
        error = (rows[i] - (values - steps.zero_points) * steps.scales) / factor[i, i]
        rows[i + 1:] -= factor[i, i + 1:, None] * error
    return q


def quantise_numpy(w: NDArray[Any], form: str, quantiser: str = "minmax", activations: F32Array | None = None,
                   damping: float = 0.05) -> tuple[NDArray[np.int8], NDArray[np.int8], NDArray[np.float16]]:
    """The values (n_inner x n_col), zero points and scales that `quantise` chooses, in NumPy. `w` is finite."""
    values = w.astype(np.float32)
    if quantiser == "library":
        halves = values.astype(np.float16)
        repeated = np.repeat(halves[:1], round_up(len(w), 32) - len(w), axis=0)
        q, zero_points, halves, _ = quantise_rows_numpy(np.concatenate([halves, repeated]).T.copy(), form)
        return q.T[:len(w)].copy(), zero_points, halves
    whole = padded(values, 32, 1)
    steps = _mse(whole, BOUNDS[form]) if quantiser != "minmax" else _minmax(whole, BOUNDS[form])[0]
    zero_points = steps.zero_points.astype(np.int8)
    if quantiser == "calibrated":
        if activations is None:
            raise ValueError("calibrated needs activations")
        return _calibrated(values, steps, activations, damping), zero_points, steps.halves
    return (steps.distances(values) + steps.zero_points).astype(np.int8), zero_points, steps.halves

"""Conversions, quantisers and reference products: the bits of each are those of the same in NumPy."""

import sys

import numpy as np
import pytest
from hypothesis import given, strategies as st
from hypothesis.extra import numpy as hnp

from morun import as_f32, half, layouts, quant, reference

DTYPES = [np.int8, np.uint8, np.float16, np.int32, np.uint32, np.float32]
extents = st.integers(0, 100)


def bits(array):
    return np.ascontiguousarray(array).view(f"u{array.dtype.itemsize}")


def same(a, b):
    a, b = (a, b) if isinstance(a, tuple) else ((a,), (b,))
    assert len(a) == len(b)
    for x, y in zip(a, b):
        assert x.dtype == y.dtype and x.shape == y.shape and x.flags.c_contiguous
        np.testing.assert_array_equal(bits(x), bits(y))


def numbers(n_row, n_col, dtype, seed, special=False):
    """Any bits of integers; reals of all magnitudes of f16 and beyond, on demand with special values."""
    rng = np.random.default_rng(seed)
    if np.dtype(dtype).kind in "iu":
        return rng.integers(0, 256, (n_row, n_col * np.dtype(dtype).itemsize), np.uint8).view(dtype)
    values = rng.standard_normal((n_row, n_col)) * 2.0 ** rng.integers(-4 if not special else -28, 4, (n_row, 1))
    if special and values.size:
        for value in (np.nan, np.nan, np.inf, -np.inf, -0.0, 1e-45, 1e5):
            values.flat[rng.integers(0, values.size, values.size // 20)] = value
    with np.errstate(over="ignore"):
        return values.astype(dtype)


def nibbles(n_row, n_col, seed):
    return np.random.default_rng(seed).integers(-8, 8, (n_row, n_col)).astype(np.int8)


@pytest.mark.parametrize("name, dtype", [
    ("f16_rm_to_f16_ah", np.float16), ("f16_rm_to_f16_wh", np.float16), ("f16_cm_to_f16_zb", np.float16),
    ("f32_rm_to_f16_ah", np.float32), ("i8_rm_to_i8_wh", np.int8), ("u8_rm_to_u8_ah", np.uint8),
    ("words_rm_to_i4_wh", np.uint32), ("i4_rm_to_i4_wh", np.int8), ("i4_cm_to_i4_wh", np.int8),
    *(("transpose", dtype) for dtype in DTYPES)])
@given(n_row=extents, n_col=extents, seed=st.integers(0, 9))
def test_layouts_of_any_extents(name, dtype, n_row, n_col, seed):
    matrix = numbers(n_row, n_col, dtype, seed)
    before = matrix.copy()
    same(getattr(layouts, name)(matrix), getattr(layouts, f"{name}_numpy")(matrix))
    same(matrix, before)


@pytest.mark.parametrize("dtype", DTYPES)
@given(n_row=extents, n_col=extents, block=st.tuples(st.integers(1, 40), st.integers(1, 40)))
def test_blocks_and_back(dtype, n_row, n_col, block):
    matrix = numbers(n_row, n_col, dtype, 1)
    blocks = layouts.block_linearize(matrix, *block)
    same(blocks, layouts.block_linearize_numpy(matrix, *block))
    same(layouts.block_unlinearize(blocks, n_row, n_col), matrix)
    same(layouts.block_unlinearize_numpy(blocks, n_row, n_col), matrix)


@given(n_row=extents, n_col=extents)
def test_results_back_to_rows(n_row, n_col):
    halves = numbers(n_row, n_col, np.float16, 2)
    tiles = layouts.f16_rm_to_f16_ah(halves)
    same(layouts.f16_ah_to_f16_rm(tiles, n_row, n_col), halves)
    same(layouts.f16_ah_to_f16_rm_numpy(tiles, n_row, n_col), halves)
    same(layouts.f16_ah_to_f32_rm(tiles, n_row, n_col), layouts.f16_ah_to_f32_rm_numpy(tiles, n_row, n_col))
    sums = numbers(n_row, n_col, np.int32, 3)
    same(layouts.i32_ah_to_i32_rm(layouts.block_linearize(sums, 64, 32), n_row, n_col), sums)
    same(layouts.i32_ah_to_i32_rm_numpy(layouts.block_linearize(sums, 64, 32), n_row, n_col), sums)


@given(n_row=extents, n_col=extents, seed=st.integers(0, 9))
def test_values_of_four_bits(n_row, n_col, seed):
    values = nibbles(n_row, n_col, seed)
    same(layouts.unpack_i4(layouts.pack_i4(values), n_col), values)
    tile = nibbles(32, 32, seed)
    same(layouts.i4_tile(tile), layouts.i4_tile_numpy(tile))
    # The two ways to tiles of weights meet.
    same(layouts.words_rm_to_i4_wh(layouts.pack_i4(values)), layouts.i4_rm_to_i4_wh(values))


def test_every_half_and_its_neighbours():
    halves = np.arange(2**16, dtype=np.uint16).view(np.float16)
    wide = half.to_f32(halves.reshape(256, 256)).ravel()
    is_number = ~np.isnan(halves)
    same(wide[is_number], half.to_f32_numpy(halves[is_number]))
    assert np.isnan(wide[~is_number]).all() and np.isnan(half.to_f16(wide[~is_number])).all()
    for by in (-0x1001, -0x1000, -0xfff, -1, 0, 1, 0xfff, 0x1000, 0x1001):  # about the middle to the next half
        near = (wide[is_number].view(np.int32) + np.int32(by)).view(np.float32)
        near = near[~np.isnan(near)]
        same(half.to_f16(near), half.to_f16_numpy(near))


@given(n_row=extents, n_col=extents, seed=st.integers(0, 9))
def test_activations_to_integers(n_row, n_col, seed):
    x = numbers(n_row, n_col, np.float32, seed, special=True)
    x.view(np.uint32)[np.isnan(x)] = (0x7fc00000, 0x7f800001)[seed % 2]  # quiet and signalling
    values, scales, sums = quant.quantise_u8_numpy(x)
    same(quant.quantise_u8(x), (values, scales, sums))
    same(quant.quantise_u8_ah(x), (layouts.u8_rm_to_u8_ah_numpy(values), scales, sums))
    same(quant.quantise_u16(x), quant.quantise_u16_numpy(x))


@pytest.mark.parametrize("form", ["a8w8", "a8w4"])
@given(n_row=extents, n_col=st.integers(0, 10).map(lambda n: 8 * n), seed=st.integers(0, 9), special=st.booleans())
def test_rows_of_weights_to_integers(form, n_row, n_col, seed, special):
    rows = numbers(n_row, n_col, np.float16, seed, special)
    function = quant.quantise_rows_i8 if form == "a8w8" else quant.quantise_rows_i4
    same(function(rows), quant.quantise_rows_numpy(rows, form))


@pytest.mark.parametrize("form", ["a8w8", "a8w4"])
@given(n_row=extents, n_col=extents, n_inner=st.integers(0, 2**20), seed=st.integers(0, 9))
def test_integer_sums_to_numbers(form, n_row, n_col, n_inner, seed):
    rng = np.random.default_rng(seed)
    sums = rng.integers(-2**31, 2**31, (n_row, n_col)).astype(np.int32)
    scales, row_sums = rng.random(n_row, np.float32), rng.integers(0, 2**32, n_row).astype(np.uint32)
    low, high = quant.BOUNDS[form]
    columns = (rng.integers(low, high + 1, n_col).astype(np.int8), rng.random(n_col).astype(np.float16),
               rng.integers(-2**31, 2**31, n_col).astype(np.int32))
    function = quant.a8w8_output if form == "a8w8" else quant.a8w4_output
    same(function(layouts.block_linearize(sums, 64, 32), n_inner, scales, row_sums, *columns),
         quant.output_numpy(sums, n_inner, scales, row_sums, *columns))


@pytest.mark.parametrize("form", ["a8w8", "a8w4"])
@pytest.mark.parametrize("quantiser", ["minmax", "mse", "library"])
@given(n_inner=st.integers(1, 100), n_col=st.integers(1, 70), seed=st.integers(0, 99))
def test_quantisers_of_weights(form, quantiser, n_inner, n_col, seed):
    w = numbers(n_inner, n_col, np.float32, seed) * np.float32((1, 1e-4, 1e3)[seed // 4 % 3])
    w[:, seed % n_col] = (0, 3, -2, 1e30 if quantiser != "library" else 5)[seed % 4]  # a column of one value
    packed = quant.quantise(w, form, quantiser)
    with np.errstate(over="ignore", invalid="ignore"):
        q, zero_points, scales = quant.quantise_numpy(w, form, quantiser)
    same(packed.values[:n_inner, :n_col].copy(), q)
    same((packed.zero_points, packed.scales), (zero_points, scales))
    same(packed.sums, packed.values[:, :n_col].sum(axis=0, dtype=np.int32))
    same(quant.dequantise(packed), quant.dequantise_numpy(packed))
    if w.any():
        error = np.linalg.norm(w - quant.dequantise(packed).astype(float)) / np.linalg.norm(w.astype(float))
        assert packed.error == pytest.approx(error, rel=1e-4)
    halves = np.minimum(w, 65504).astype(np.float16)
    same(quant.dequantise(quant.quantise(halves, "f16")), halves.astype(np.float32))


def test_values_that_are_not_finite_on_demand():
    w = numbers(40, 30, np.float32, 3)
    wild, tame = w.copy(), w.copy()
    wild[3, 4:7], tame[3, 4:7] = (np.nan, np.inf, -np.inf), (0, 65504, -65504)
    for form in ("a8w8", "a8w4"):
        same(quant.quantise(wild, form, allow_non_finite=True).data, quant.quantise(tame, form).data)
    halves = quant.dequantise(quant.quantise(wild, "f16", allow_non_finite=True))
    same(halves, wild.astype(np.float16).astype(np.float32))
    assert quant.quantise(w + np.float32(1e5), "f16").error == sys.float_info.max  # as packed files have it


@pytest.mark.parametrize("form, damping", [("a8w8", 0.05), ("a8w4", 0.05), ("a8w4", 0.5)])
def test_calibrated_quantiser_errs_as_the_formulas_do(form, damping):
    rng = np.random.default_rng(4)
    x = (rng.standard_normal((300, 20)) @ rng.standard_normal((20, 90))).astype(np.float32)
    w = numbers(90, 40, np.float32, 5)
    packed = quant.quantise(w, form, "calibrated", quant.Calibration(x, damping))
    q, zero_points, scales = quant.quantise_numpy(w, form, "calibrated", x, damping)
    same((packed.zero_points, packed.scales), (zero_points, scales))
    stands_for = (q - zero_points.astype(np.float32)) * scales.astype(np.float32)
    error = np.linalg.norm(x @ (w - stands_for)) / np.linalg.norm(x @ w)
    assert packed.product_error == pytest.approx(error, rel=0.01)
    assert packed.product_error < 0.7 * quant.quantise(w, form, "mse", quant.Calibration(x)).product_error


@given(n_row=st.integers(0, 11), n_col=st.integers(0, 40), n_inner=extents, seed=st.integers(0, 9))
def test_reference_products(n_row, n_col, n_inner, seed):
    x, w = numbers(n_row, n_inner, np.float32, seed), numbers(n_inner, n_col, np.float16, seed + 1)
    same(reference.matmul(x, w), reference.matmul_numpy(x, w))
    halves, columns = half.to_f16(x), np.ascontiguousarray(w.T)
    same(reference.matmul_columns(halves, columns), reference.matmul_columns_numpy(halves, columns))
    a, b = numbers(4, n_inner, np.float16, seed), numbers(n_inner, 4, np.float16, seed + 2)
    same(reference.block(a, b), reference.block_numpy(a, b))
    same(reference.block_f32(a, b), reference.block_f32_numpy(a, b))
    same(reference.row(a[:1], b), reference.row_numpy(a[:1], b))


@given(hnp.arrays(st.sampled_from([np.float64, np.dtype(">f4"), np.int16]), hnp.array_shapes(max_dims=3),
                  elements=st.integers(-99, 99)))
def test_conversion_of_any_numbers(values):
    assert as_f32(values.T).flags.c_contiguous and as_f32(values).dtype == np.float32
    np.testing.assert_array_equal(as_f32(values.T), values.T)
    own = as_f32(values)
    assert as_f32(own) is own
    bf16 = (own.view(np.uint32) >> 16).astype(np.uint16)  # small integers are bf16 numbers
    same(as_f32(bf16, bfloat16=True), own)

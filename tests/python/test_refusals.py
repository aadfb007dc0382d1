"""Whatever is wrong is an exception that says what, and nothing ends the process."""

import ctypes
import pickle

import numpy as np
import pytest

import morun
from morun import _library, half, layouts, quant, reference
from test_lifetime import python

X, W = np.ones((5, 40), np.float32), np.ones((40, 50), np.float32)
I8 = np.ones((5, 40), np.int8)
TILES = np.zeros((1, 2, 16, 32, 2), np.float16)


class Liar(np.ndarray):
    """Tells of another shape than it has."""
    shape = property(lambda self: (5, 10**6))
    size = 5 * 10**6
    dtype = np.dtype(np.float32)


def packed(**changes):
    return quant.PackedMatrix(**{**vars(quant.quantise(W, "a8w4")), **changes})


REFUSALS = {
    "f64": (TypeError, "float64.*as_f32", lambda c: c.matmul(X.astype(np.float64), W)),
    "f64 weights": (TypeError, "w has dtype float64", lambda c: c.matmul(X, W.astype(np.float64))),
    "integers": (TypeError, "int8", lambda c: c.matmul(I8, W)),
    "big-endian": (TypeError, ">f4", lambda c: c.matmul(X.astype(">f4"), W)),
    "a list": (TypeError, "list", lambda c: c.matmul([[1.0]], W)),
    "a mask": (TypeError, "masked", lambda c: c.matmul(np.ma.array(X), W)),
    "column order": (ValueError, "row-major.*as_f32", lambda c: c.matmul(np.asfortranarray(X), W)),
    "weights in column order": (ValueError, "row-major", lambda c: c.upload(np.asfortranarray(W))),
    "strides": (ValueError, "row-major", lambda c: c.matmul(np.ones((5, 80), np.float32)[:, ::2], W)),
    "unaligned": (ValueError, "row-major", lambda c: c.matmul(
        np.frombuffer(bytes(5 * 40 * 4 + 1), np.uint8)[1:].view(np.float32).reshape(5, 40), W)),
    "128-bit numbers": (TypeError, "float128", lambda c: c.matmul(X.astype(np.longdouble), W)),
    "objects": (TypeError, "object", lambda c: c.matmul(X.astype(object), W)),
    "names as a text": (TypeError, "several names", lambda c: c.load("", "w")),
    "inner extents": (ValueError, "40 columns.*50 rows", lambda c: c.matmul(X, np.ones((50, 40), np.float32))),
    "a number": (ValueError, "single number", lambda c: c.matmul(np.array(1, np.float32), W)),
    "weights of three dimensions": (ValueError, "3 dimensions", lambda c: c.matmul(X, W[None])),
    "weights of another context": (ValueError, "another context", lambda c: c.matmul(X, morun.Context().upload(W))),
    "empty weights": (morun.Error, "EXTENTS", lambda c: c.upload(W[:0])),
    "short data": (ValueError, "bytes", lambda c: c.upload(packed(data=np.zeros(2048, np.uint8)))),
    "data of another form": (ValueError, "bytes", lambda c: c.matmul(X, packed(form="a8w8"))),
    "an unknown form": (ValueError, "'a4w4'", lambda c: quant.quantise(W, "a4w4")),
    "the form carried": (ValueError, "form", lambda c: quant.quantise(W, "carried")),
    "an unknown quantiser": (ValueError, "'best'", lambda c: quant.quantise(W, "a8w8", "best")),
    "no calibration": (morun.Error, "NULL_ARGUMENT", lambda c: quant.quantise(W, "a8w8", "calibrated")),
    "a NaN": (morun.Error, r"NON_FINITE.*\(2, 3\)", lambda c: quant.quantise(
        np.where(np.arange(2000).reshape(40, 50) == 103, np.float32(np.nan), W), "a8w8")),
    "a context too large": (morun.Error, "", lambda c: morun.Context(input_matrix_size_max=2**30)),
    "columns beyond the context": (morun.Error, "exceeds its buffer", lambda c: _small(lambda s: s.matmul(X, W))),
    "no more buffers": (morun.Error, "", lambda c: _many(c)),
    "a failure without a record": (morun.Error, "tavik_veyra_get_version: the call failed", lambda c: _unrecorded()),
    "tiles of another shape": (ValueError, "shape", lambda c: layouts.f16_ah_to_f16_rm(TILES, 33, 64)),
    "an empty block": (ValueError, "empty", lambda c: layouts.block_unlinearize(np.ones((1, 1, 0, 4), "i1"), 0, 4)),
    "blocks of 64 bits": (TypeError, "int64", lambda c: layouts.transpose(np.ones((2, 2), np.int64))),
    "tile of another shape": (ValueError, "32 x 32", lambda c: layouts.i4_tile(I8)),
    "too few words": (ValueError, "n_col", lambda c: layouts.unpack_i4(np.ones((1, 1), np.uint32), 9)),
    "rows of 4 bits": (ValueError, "multiple of 8", lambda c: quant.quantise_rows_i4(np.ones((2, 9), np.float16))),
    "halves as f32": (TypeError, "float16", lambda c: half.to_f32(X)),
    "scales of another length": (ValueError, "activation_scales|activation_sums", lambda c: quant.a8w8_output(
        np.zeros((1, 1, 64, 32), np.int32), 32, np.ones(3, np.float32), np.ones(2, np.int32), np.ones(4, np.int8),
        np.ones(4, np.float16), np.ones(4, np.int32))),
    "a block of other extents": (ValueError, "four columns", lambda c: reference.block(
        np.ones((3, 8), np.float16), np.ones((8, 4), np.float16))),
    "other inner extents on the host": (ValueError, "rows", lambda c: reference.matmul(X, X)),
    "other inner extents of columns": (ValueError, "40 columns.*41 values", lambda c: reference.matmul_columns(
        np.ones((5, 40), np.float16), np.ones((3, 41), np.float16))),
    "complex numbers": (TypeError, "real", lambda c: morun.as_f32(np.ones(2, complex))),
    "bf16 in 32 bits": (TypeError, "uint16", lambda c: morun.as_f32(X, bfloat16=True)),
}


def _output(n_inner):
    return quant.a8w8_output(np.zeros((1, 1, 64, 32), np.int32), n_inner, np.ones(2, np.float32), np.ones(2, np.int32),
                             np.ones(4, np.int8), np.ones(4, np.float16), np.ones(4, np.int32))


INTEGER, FRACTION, FLAG, TEXT, OBJECT = range(5)
SCALARS = [  # the argument's name, which the message has; what it is; a function that has it
    ("n_row_max", INTEGER, lambda v: morun.Context(n_row_max=v)),
    ("output_matrix_size_max", INTEGER, lambda v: morun.Context(output_matrix_size_max=v)),
    ("input_matrix_size_max", INTEGER, lambda v: morun.Context(input_matrix_size_max=v)),
    ("largest_buffer", INTEGER, lambda v: _small(lambda c: c.load("", largest_buffer=v))),
    ("n_job", INTEGER, lambda v: morun.pack("", None, n_job=v)),
    ("n_inner", INTEGER, _output),
    ("n_inner", INTEGER, lambda v: packed(n_inner=v)),
    ("n_inner", INTEGER, lambda v: quant.layout_of("a8w8", v, 5)),
    ("n_col", INTEGER, lambda v: quant.layout_of("a8w8", 5, v)),
    ("n_col", INTEGER, lambda v: packed(n_col=v)),
    ("n_col", INTEGER, lambda v: layouts.unpack_i4(np.ones((1, 1), np.uint32), v)),
    ("n_col", INTEGER, lambda v: layouts.f16_ah_to_f16_rm(TILES, 32, v)),
    ("n_row", INTEGER, lambda v: layouts.f16_ah_to_f16_rm(TILES, v, 64)),
    ("n_row", INTEGER, lambda v: layouts.f16_ah_to_f32_rm(TILES, v, 64)),
    ("n_row", INTEGER, lambda v: layouts.i32_ah_to_i32_rm(np.ones((1, 1, 64, 32), np.int32), v, 32)),
    ("n_row", INTEGER, lambda v: layouts.block_unlinearize(np.ones((1, 2, 5, 6), np.int8), v, 12)),
    ("block_rows", INTEGER, lambda v: layouts.block_linearize(X, v, 4)),
    ("block_cols", INTEGER, lambda v: layouts.block_linearize(X, 4, v)),
    ("damping", FRACTION, lambda v: quant.Calibration(X, v)),
    ("damping", FRACTION, lambda v: morun.pack("", None, damping=v)),
    ("transpose", FLAG, lambda v: morun.pack("", None, transpose=v)),
    ("bfloat16", FLAG, lambda v: morun.as_f32(X, bfloat16=v)),
    ("skip_checksums", FLAG, lambda v: _small(lambda c: c.load("", skip_checksums=v))),
    ("allow_non_finite", FLAG, lambda v: morun.pack("", None, allow_non_finite=v)),
    ("allow_non_finite", FLAG, lambda v: quant.quantise(W, "a8w8", allow_non_finite=v)),
    ("form", TEXT, lambda v: quant.quantise(W, v)),
    ("form", TEXT, lambda v: packed(form=v)),
    ("form", TEXT, lambda v: morun.pack("", None, v)),
    ("form of rule", TEXT, lambda v: morun.pack([], None, rules={"*": v})),
    ("quantiser", TEXT, lambda v: quant.quantise(W, "a8w8", v)),
    ("packed", OBJECT, quant.dequantise),
    ("data", OBJECT, lambda v: packed(data=v)),
    ("calibration", OBJECT, lambda v: quant.quantise(W, "a8w8", "minmax", v)),
]


@pytest.mark.parametrize("name, kind, use", SCALARS, ids=[name for name, *_ in SCALARS])
def test_scalars_of_another_kind_or_size(name, kind, use):
    wrong = [b"1", [1], 1j, np.array("1"), object()]
    wrong.append({INTEGER: 1.0, FRACTION: None, FLAG: 1, TEXT: None, OBJECT: 2**70}[kind])
    wrong += ["x"] * (kind != TEXT) + [True, np.bool_(1)] * (kind != FLAG) + [None, np.float32(1)] * (kind == INTEGER)
    for value in wrong:
        with pytest.raises(TypeError, match=name):
            use(value)
    for value in ([-1, np.int64(-1), -2**70, 2**70] * (kind in (INTEGER, FRACTION)) + [float("nan"), 1.1] *
                  (kind == FRACTION) + ["x", "carried\0"] * (kind == TEXT)):
        with pytest.raises(ValueError, match=name):
            use(value)
    if kind == INTEGER:
        with pytest.raises((ValueError, morun.Error)):
            use(2**40)


def test_subclasses_of_arrays_are_taken_for_what_their_memory_holds(context):
    x, rows = X.view(Liar), np.ones((3, 8), np.float16).view(Liar)
    assert (context.matmul(x, W) == 40).all()
    assert quant.quantise_u8(x)[0].shape == (5, 40) and quant.quantise(x, "a8w8").shape == (5, 40)
    assert layouts.transpose(x).shape == (40, 5) and len(quant.quantise_rows_i4(rows)[1]) == 3
    assert reference.matmul(x, W).shape == (5, 50) and half.to_f16(x).shape == (5, 40)


def test_integers_of_numpy_are_integers():
    x = np.arange(320, dtype=np.int32).reshape(16, 20)
    blocks = layouts.block_linearize(x, np.uint8(16), np.int64(20))
    np.testing.assert_array_equal(layouts.block_unlinearize(blocks, np.uint8(16), np.array(20, np.uint8)), x)
    small = packed(n_inner=np.uint8(40), n_col=np.uint16(50))
    assert [type(extent) for extent in small.shape] == [int, int] and small.shape == (40, 50)


def _small(use):
    with morun.Context(output_matrix_size_max=64, input_matrix_size_max=2048) as context:
        use(context)


def _unrecorded():
    """A call of the remote interface, which fills no error record, behind a failure that has filled one."""
    with pytest.raises(morun.Error):
        morun.Context(input_matrix_size_max=2**30)
    numbers = [ctypes.c_uint32() for _ in range(4)]
    _library.check("tavik_veyra_get_version", 0xbad, *map(ctypes.byref, numbers[:3]), None, 0, ctypes.byref(numbers[3]))


def _many(context):
    """Ask for buffers until the context has no more."""
    with pytest.MonkeyPatch.context() as patch:
        patch.setattr(morun._context, "CHUNK", 1)
        return [context.upload(W) for _ in range(33)]


@pytest.mark.parametrize("name", REFUSALS)
def test_refusal(name, context):
    kind, text, use = REFUSALS[name]
    with pytest.raises(kind, match=text) as caught:
        use(context)
    if kind is morun.Error:
        assert caught.value.status != 0 and caught.value.function and caught.value.message
        assert str(pickle.loads(pickle.dumps(caught.value))) == str(caught.value)
    np.testing.assert_array_equal(context.matmul(X, W), X @ W)  # and goes on


@pytest.mark.parametrize("folders, message", [("", "MORUN_LIBRARY_PATH"), ("/nowhere:/usr", "MORUN_LIBRARY_PATH")])
def test_no_library(folders, message):
    result = python("import morun", MORUN_LIBRARY_PATH=folders, LD_LIBRARY_PATH="")
    assert result.returncode == 1 and "ImportError: libmorun.so.1" in result.stderr and message in result.stderr

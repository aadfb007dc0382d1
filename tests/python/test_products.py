"""Products on the NPU: the bits are those of the same in NumPy, for any extents, forms and placements."""

import contextlib
import threading

import numpy as np
import pytest
from hypothesis import given, strategies as st

import morun
from morun import quant, reference

FORMS = ["f16", "a8w8", "a8w4"]


def random(*shape, seed=0, dtype=np.float32):
    return np.random.default_rng(seed).standard_normal(shape).astype(dtype)


def small_context():
    """Large activations are multiplied in parts."""
    return morun.Context(n_row_max=128, output_matrix_size_max=2**13)


@pytest.mark.parametrize("form", FORMS)
@given(n_row=st.integers(0, 300), n_inner=st.integers(1, 200), n_col=st.integers(1, 100),
       quantiser=st.sampled_from(["minmax", "mse", "library"]), is_half=st.booleans())
def test_any_extents(form, n_row, n_inner, n_col, quantiser, is_half):
    x = random(n_row, n_inner, dtype=np.float16 if is_half else np.float32)
    packed = quant.quantise(random(n_inner, n_col, seed=1), form, quantiser)
    before = x.copy()
    with small_context() as context:
        y = context.matmul(x, packed)
    assert y.dtype == np.float32 and y.flags.c_contiguous
    np.testing.assert_array_equal(y, reference.npu_matmul_numpy(x.astype(np.float32), packed))
    np.testing.assert_array_equal(x, before)


@given(leading=st.lists(st.integers(0, 5), max_size=3), n_inner=st.integers(0, 40), n_col=st.integers(0, 40))
def test_shapes_are_those_of_numpy(leading, n_inner, n_col):
    x, w = random(*leading, n_inner), random(n_inner, n_col, seed=1)
    with small_context() as context:
        y, exact = context.matmul(x, w), x.astype(np.float64) @ w
    assert y.shape == exact.shape
    np.testing.assert_allclose(y, exact, atol=0.03)


@pytest.mark.parametrize("form", FORMS)
@given(n_row=st.integers(1, 140), n_inner=st.integers(1, 70), cols=st.tuples(*3 * [st.integers(1, 70)]))
def test_fused_products_are_the_single_ones(form, n_row, n_inner, cols):
    x = random(n_row, n_inner)
    with small_context() as context:
        q, k, v = (context.upload(quant.quantise(random(n_inner, n, seed=n), form)) for n in cols)
        single = {w: context.matmul(x, w) for w in (q, k, v)}
        for weights in ((q, k), (q, k, v), (q, v, v), (k, k, k)):
            fused = context.matmul2(x, *weights) if len(weights) == 2 else context.matmul3(x, *weights)
            for y, w in zip(fused, weights):
                np.testing.assert_array_equal(y, single[w])


def test_what_there_is(context):
    assert context.module_version() == "1.0.0 beta1, architecture 73"
    info = morun.info()
    assert {key: info[key] for key in ("dsp domain", "dsp architecture", "vector memory", "unsigned modules")} == {
        "dsp domain": 3, "dsp architecture": "73", "vector memory": 8 << 20, "unsigned modules": True}


def test_forms_may_be_mixed_in_a_fused_product(context):
    x, w = random(5, 40), random(40, 30, seed=1)
    packed = [quant.quantise(w, form) for form in FORMS]
    for y, p in zip(context.matmul3(x, *packed), packed):
        np.testing.assert_array_equal(y, reference.npu_matmul_numpy(x, p))


@pytest.mark.parametrize("chunk", [1, 16 << 20], ids=["a buffer for each matrix", "buffers larger than a session"])
def test_weights_in_several_sessions(chunk, small_sessions, monkeypatch):
    """Fused products of weights apart, and weights of 4 bits beyond the first session."""
    monkeypatch.setattr(morun._context, "CHUNK", chunk)
    x, w = random(70, 40), random(40, 50, seed=1)
    with morun.Context(**small_sessions) as context:
        packed = {form: [quant.quantise(w + number, form) for number in range(3)] for form in FORMS}
        weights = {form: [] for form in FORMS}
        for number in range(3):
            for form in FORMS:
                weights[form].append(context.upload(packed[form][number]))
        for form in FORMS:
            assert len({one._session for one in weights[form]}) > 1
            exact = [reference.npu_matmul_numpy(x, one) for one in packed[form]]
            results = [*context.matmul3(x, *weights[form]), *context.matmul2(x, *weights[form][::-2]),
                       *(context.matmul(x, one) for one in weights[form])]
            for got, wanted in zip(results, [*exact, exact[2], exact[0], *exact]):
                np.testing.assert_array_equal(got, wanted)


@pytest.mark.parametrize("one_context", [True, False], ids=["one context", "a context each"])
def test_threads(one_context):
    common, failures = morun.Context(), []

    def work(number):
        try:
            with contextlib.nullcontext(common) if one_context else morun.Context() as mine:
                for i in range(20):
                    x, p = random(33, 64, seed=i), quant.quantise(random(64, 40, seed=number), FORMS[(number + i) % 3])
                    np.testing.assert_array_equal(mine.matmul(x, p), reference.npu_matmul_numpy(x, p))
        except BaseException as error:
            failures.append(error)

    threads = [threading.Thread(target=work, args=(number,)) for number in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    common.close()
    assert not failures

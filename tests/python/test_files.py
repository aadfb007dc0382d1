"""Packed files: what is packed is what quantise gives, is loaded as it was packed, and a damaged file is refused."""

import collections
import gc
import json
import os
import signal
import struct
import threading

import numpy as np
import pytest

import morun
from morun import _library, quant, reference

X = np.random.default_rng(1).standard_normal((9, 40)).astype(np.float32)
SHAPES = {"a.q.weight": (50, 40), "a.k.weight": (33, 40), "a.v.weight": (33, 40), "norm.weight": (40,),
          "embed": (5, 40)}


def values(name):
    return np.random.default_rng(len(name)).standard_normal(SHAPES[name]).astype(np.float32)


@pytest.fixture
def checkpoint(tmp_path):
    """Matrices as checkpoints have them, n_col x n_inner."""
    header, data = {}, b""
    for name in SHAPES:
        header[name] = {"dtype": "F32", "shape": SHAPES[name],
                        "data_offsets": [len(data), len(data) + values(name).nbytes]}
        data += values(name).tobytes()
    text = json.dumps(header).encode()
    (tmp_path / "model.safetensors").write_bytes(struct.pack("<Q", len(text)) + text + data)
    return tmp_path / "model.safetensors"


def test_what_is_packed_is_what_is_loaded(checkpoint, tmp_path, context):
    output, seen = tmp_path / "packed.safetensors", []
    decisions = morun.pack(checkpoint, output, "a8w8", "mse", rules={"*.q.*": "f16", "*.k.*": "a8w4"}, n_job=2,
                           progress=lambda name, part: seen.append(part))
    assert seen[-1] == 1
    forms = {"a.q.weight": "f16", "a.k.weight": "a8w4", "a.v.weight": "a8w8", "norm.weight": "carried",
             "embed": "carried"}
    assert {d.name: d.form for d in decisions} == forms == {t.name: t.form for t in morun.inspect(output)}
    assert next(d for d in decisions if d.name == "norm.weight").shape == (40,)
    assert [d.name for d in morun.pack([checkpoint], None, rules=[("embed", "f16")]) if d.form == "f16"] == ["embed"]
    assert [(d.n_inner, d.n_col) for d in (*decisions, *morun.pack(checkpoint, None, transpose=False))
            if d.name == "a.q.weight"] == [(40, 50), (50, 40)]

    loaded = context.load(output, groups=[["a.q.weight", "a.v.weight"]])
    with morun.PackedFile(output) as file:
        for decision, tensor in zip(decisions, file.tensors):
            assert (decision.error, decision.n_byte) == (tensor.error, tensor.n_byte)
            name = tensor.name
            file.verify(name)
            if tensor.form == "carried":
                np.testing.assert_array_equal(file.read(name).view(np.float32), values(name).ravel())
                continue
            packed = quant.quantise(np.ascontiguousarray(values(name).T), forms[name], "mse")
            assert tensor.error == pytest.approx(packed.error, rel=1e-12) and tensor.quantiser in ("mse", None)
            np.testing.assert_array_equal(file.read(name), packed.data)
            np.testing.assert_array_equal(file.unpack(name), quant.dequantise(packed))
            np.testing.assert_array_equal(context.matmul(X, loaded[name]), reference.npu_matmul_numpy(X, packed))
        with pytest.raises(morun.Error, match="NOT_PACKED"):
            file.unpack("norm.weight")
    assert set(loaded) == {"a.q.weight", "a.k.weight", "a.v.weight"}
    with pytest.raises(ValueError, match="closed"):
        file.verify("a.q.weight")


def test_nobody_comes_between_the_weights_of_a_file(checkpoint, tmp_path, context, monkeypatch):
    """Another thread that closes the context waits until all weights of the file are there."""
    morun.pack(checkpoint, tmp_path / "packed")
    was_locked, operand_of = [], _library.weights.morun_weights_operand_of

    def watched(*arguments):
        was_locked.append(context._state.lock.is_mine())
        return operand_of(*arguments)

    monkeypatch.setattr(_library.weights, "morun_weights_operand_of", watched)
    loaded = context.load(tmp_path / "packed")
    assert was_locked == [True] * len(loaded) == 3 * [True]
    for attribute, value in (("form", "f16"), ("shape", (9, 9)), ("_fd", 0)):
        with pytest.raises(AttributeError):
            setattr(loaded["a.q.weight"], attribute, value)


def test_calibrated_file_and_single_matrix(tmp_path):
    w = np.random.default_rng(2).standard_normal((40, 30))  # f64, n_inner x n_col
    np.save(tmp_path / "w.npy", w)
    np.save(tmp_path / "x.npy", X)
    decision, = morun.pack(tmp_path / "w.npy", tmp_path / "w.safetensors", "a8w4", "calibrated",
                           activations=tmp_path / "x.npy", damping=0.2)
    packed = quant.quantise(w.astype(np.float32), "a8w4", "calibrated", quant.Calibration(X, 0.2))
    assert decision.product_error == pytest.approx(packed.product_error, rel=1e-12) and len(decision.worst_columns) == 8
    with morun.PackedFile(tmp_path / "w.safetensors") as file:
        np.testing.assert_array_equal(file.read("w"), packed.data)


@pytest.mark.parametrize("status, use", [
    (10, lambda p, c: morun.inspect(p / "nothing")), (20, lambda p, c: morun.inspect(p / "short")),
    (70, lambda p, c: morun.pack(p / "short", p / "out")),
    (80, lambda p, c: morun.pack(p / "model.safetensors", p / "out", rules={"x*": "f16"})),
    (60, lambda p, c: c.load(p / "packed", ["b"])), (54, lambda p, c: c.load(p / "damaged")),
    (91, lambda p, c: c.load(p / "packed", groups=[["a.q.weight", "a.k.weight"]], largest_buffer=12288))])
def test_refused_files(status, use, checkpoint, tmp_path, context):
    (tmp_path / "short").write_bytes(b"1234567")
    morun.pack(checkpoint, tmp_path / "packed")
    whole = bytearray((tmp_path / "packed").read_bytes())
    whole[8192] ^= 1
    (tmp_path / "damaged").write_bytes(whole)
    with pytest.raises(morun.Error) as caught:
        use(tmp_path, context)
    assert caught.value.status == status and not (tmp_path / "out").exists()
    assert len(context.load(tmp_path / "damaged", ["a.q.weight"], skip_checksums=True)) == 1


@pytest.mark.parametrize("use", [
    lambda p, c: morun.inspect("a\0b"), lambda p, c: morun.pack(p, None, n_job=257),
    lambda p, c: morun.pack(p, None, "int3"), lambda p, c: morun.pack(p, None, rules={"*": "int3"}),
    lambda p, c: c.load(p.parent / "packed", ["a.q.weight"], groups=[["b"]]),
    lambda p, c: c.load(p.parent / "packed", ["a\0b"])])
def test_refused_arguments(use, checkpoint, tmp_path, context):
    morun.pack(checkpoint, tmp_path / "packed")
    with pytest.raises(ValueError):
        use(checkpoint, context)


@pytest.mark.parametrize("way", ["an exception in progress", "an exception at the end", "Ctrl-C"])
def test_packing_is_interrupted(way, tmp_path):
    np.save(tmp_path / "w.npy", np.ones((2000, 3000), np.float32) * np.arange(3000, dtype=np.float32))
    before = threading.active_count()
    handler = signal.signal(signal.SIGINT, signal.default_int_handler)  # shells ignore it in the background

    def progress(name, part):
        if way == "Ctrl-C":
            signal.raise_signal(signal.SIGINT)
        if way != "an exception at the end" or part == 1:
            raise KeyError(name)

    (tmp_path / "out").write_text("before")
    try:
        with pytest.raises(KeyError if way != "Ctrl-C" else KeyboardInterrupt):
            morun.pack(tmp_path / "w.npy", tmp_path / "out", "a8w4", "mse", progress=progress)
    finally:
        signal.signal(signal.SIGINT, handler)
    assert (tmp_path / "out").read_text() == "before" and sorted(os.listdir(tmp_path)) == ["out", "w.npy"]
    assert threading.active_count() == before


def test_handles_are_freed_after_success_and_failure(checkpoint, tmp_path, monkeypatch):
    freed = collections.Counter()
    for name in ("packer_free", "file_close", "calibration_free"):
        def free(handle, name=name, function=getattr(_library.weights, f"morun_weights_{name}")):
            freed[name] += bool(handle)
            function(handle)
        monkeypatch.setattr(_library.weights, f"morun_weights_{name}", free)
    morun.pack(checkpoint, tmp_path / "packed")
    morun.inspect(tmp_path / "packed")
    morun.PackedFile(tmp_path / "packed")
    quant.Calibration(X)
    for refused in (lambda: morun.pack(checkpoint, tmp_path / "nowhere/out"), lambda: quant.Calibration(0 * X)):
        with pytest.raises(morun.Error):
            refused()
    gc.collect()
    assert freed == {"packer_free": 2, "file_close": 2, "calibration_free": 2}

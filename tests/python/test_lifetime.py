"""What is taken is given back: in any order, by any thread, at the end of the process, across a fork."""

import copy
import gc
import os
import pickle
import random
import re
import signal
import subprocess
import sys
import threading

import numpy as np
import pytest
from hypothesis import given, settings, strategies as st

import morun
from conftest import usage
from morun import quant

X, W = np.ones((5, 40), np.float32), np.ones((40, 50), np.float32)


def held():
    """Descriptors, mappings of the process but those of its heap, and what the platform counts."""
    gc.collect()
    with open("/proc/self/maps") as maps:
        n_shared = sum(1 for line in maps if re.search(r"memfd|/dev/shm|parlo", line))
    return len(os.listdir("/proc/self/fd")), n_shared, usage()


@pytest.fixture
def packed_file(tmp_path):
    np.save(tmp_path / "w.npy", W)
    morun.pack(tmp_path / "w.npy", tmp_path / "w", "f16")
    return str(tmp_path / "w")


def test_a_thousand_products_leave_nothing(packed_file):
    with morun.Context() as context:
        packed = [quant.quantise(W, form) for form in ("f16", "a8w8", "a8w4")]

        def work(n):
            for i in range(n):
                context.matmul3(X, packed[i % 3], W, context.upload(packed[i % 3]))
                if i % 50 == 0:
                    context.matmul(X, context.load(packed_file)["w"])
                    with pytest.raises(morun.Error):
                        context.load(packed_file, ["v"])

        counts = []
        for n in (51, 1000):
            work(n)
            gc.collect()
            context.matmul(X, W)  # gives back what was dropped before
            counts.append(held())
        assert counts[0] == counts[1]


def test_contexts_leave_nothing(packed_file):
    before = held()
    for way in range(30):
        context = morun.Context()
        weights = context.upload(W) if way % 2 else context.load(packed_file)["w"]
        context.matmul(X, weights)
        if way % 3 == 0:
            context.close()
            context.close()
        elif way % 3 == 1:
            with pytest.raises(KeyError), context:
                raise KeyError
        del context, weights
    assert held() == before and not before[2]["double_frees"]


@settings(max_examples=15)
@given(sizes=st.lists(st.integers(1, 900), min_size=1, max_size=25), seed=st.integers(0, 99))
def test_buffers_are_collected_in_any_order(sizes, seed):
    """Each matrix keeps its values while others come and go beside it, and the last leaves one free chunk."""
    order = random.Random(seed)
    with morun.Context() as context:
        alive = {}
        for number, size in enumerate(sizes):
            w = np.full((size, 33), number % 50, np.float32)
            alive[number] = context.upload(w), w
            for _ in range(order.randrange(3)):
                if len(alive) > 1:
                    del alive[order.choice(list(alive))]
            for weights, w in alive.values():
                ones = np.eye(1, len(w), order.randrange(len(w)), dtype=np.float32)
                np.testing.assert_array_equal(context.matmul(ones, weights), w[:1])
        alive.clear()
        del weights, w
        context.matmul(X, W)
        gc.collect()
        context._state.collect()
        assert [list(chunk.free.items()) for chunk in context._state.chunks.values()] == [[(0, morun._context.CHUNK)]]


def test_a_copy_of_weights_keeps_their_memory():
    with morun.Context() as context:
        copied = copy.copy(context.upload(W))
        gc.collect()
        kept = context.upload(3 * W)
        assert (context.matmul(X, copied) == 40).all() and (context.matmul(X, kept) == 120).all()


def test_what_would_be_freed_twice_cannot_be_copied(packed_file):
    for made in (morun.Context(), quant.Calibration(X), morun.PackedFile(packed_file)):
        for duplicate in (copy.copy, copy.deepcopy, pickle.dumps):
            with pytest.raises(TypeError, match="neither be copied nor pickled"):
                duplicate(made)
        type(made).__new__(type(made))  # the collector takes what was never opened
    gc.collect()


def test_a_forked_child_reads_a_file_that_a_thread_of_its_parent_is_reading(packed_file):
    result = python(f"""
import os, morun, threading
file = morun.PackedFile({packed_file!r})
is_in, may_leave = threading.Event(), threading.Event()

def hold():
    with file._lock.alone():  # as if in a call
        is_in.set()
        may_leave.wait()

threading.Thread(target=hold).start()
is_in.wait()
if (child := os.fork()) == 0:
    os._exit(int(file.unpack("w").sum() != 2000))
may_leave.set()
assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0 and file.unpack("w").sum() == 2000
""")
    assert (result.returncode, result.stderr) == (0, "")


def test_a_signal_in_the_middle_of_a_call_cannot_use_the_context():
    context, refused = morun.Context(), []

    def close(*_):
        try:
            context.close()
        except morun.Error as error:
            refused.append(str(error))

    previous = signal.signal(signal.SIGUSR1, close)
    with context._state.lock.alone():  # as in the middle of a call
        os.kill(os.getpid(), signal.SIGUSR1)
    signal.signal(signal.SIGUSR1, previous)
    assert len(refused) == 1 and "in the middle of a call" in refused[0]
    assert (context.matmul(X, W) == 40).all()
    context.close()


def test_weights_outlive_names_and_not_contexts():
    weights = morun.Context().upload(W)
    gc.collect()
    context = weights.context
    np.testing.assert_array_equal(context.matmul(X, weights), X @ W)
    context.close()
    for use in (lambda: context.matmul(X, weights), lambda: context.upload(W), context.__enter__,
                context.module_version, lambda: context.matmul(X, W)):
        with pytest.raises(ValueError, match="closed"):
            use()
    del weights
    gc.collect()


def python(code, **environment):
    return subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=120,
                          env={**os.environ, **environment})


OPEN = "import numpy as np, morun; c = morun.Context(); w = c.upload(np.ones((9, 9), np.float32)); " \
       "p = lambda: c.matmul(np.ones((3, 9), np.float32), w); assert (p() == 9).all(); "


@pytest.mark.parametrize("end", [
    "", "import sys; sys.exit(0)", "c.me = c; del c",
    "import threading; threading.Thread(target=lambda: [p() for _ in range(300)]).start()",
    "import threading; threading.Thread(target=lambda: [p() for _ in range(10**9)], daemon=True).start()",
    "import atexit; atexit.register(p)"])
def test_an_interpreter_ends_with_an_open_context(end):
    result = python(OPEN + end)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


def test_a_fork_leaves_the_context_to_the_parent():
    result = python(OPEN + """
import os, sys
with c._state.lock.alone():  # as if another thread were in a product
    child = os.fork()
if child == 0:
    try:
        p()
    except morun.Error as error:
        assert 'forked' in error.message
        c.close()
        del w
        own = morun.Context()
        own.matmul(np.ones((3, 9), np.float32), np.ones((9, 9), np.float32))
        sys.exit(7)
assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 7
assert (p() == 9).all()
c.close()
""")
    assert (result.returncode, result.stderr) == (0, "")


def test_a_finalizer_in_the_middle_of_a_call_does_not_disturb_it():
    """The collector runs all the time, threads take turns all the time, and weights of others go meanwhile."""
    failures = []

    def work(number, context):
        alive = {}
        for i in range(150):
            ring = [context.upload(W * number), None]
            ring[1] = ring
            alive[i % 7] = context.upload(np.full((40, 1 + 31 * (i % 5)), number, np.float32))
            for weights in list(alive.values())[i % 7:]:
                if not (context.matmul(X, weights) == 40 * number).all():
                    failures.append(number)

    threshold, interval = gc.get_threshold(), sys.getswitchinterval()
    gc.set_threshold(1)
    sys.setswitchinterval(1e-6)
    try:
        with morun.Context() as context:
            threads = [threading.Thread(target=work, args=(number, context)) for number in range(4)]
            [thread.start() for thread in threads]
            [thread.join() for thread in threads]
            gc.collect()
            context._state.collect()
            assert [chunk.free for chunk in context._state.chunks.values()] == [{0: morun._context.CHUNK}]
    finally:
        gc.set_threshold(*threshold)
        sys.setswitchinterval(interval)
    assert not failures

"""Packed files: packing checkpoints, and looking into what was packed."""

from __future__ import annotations

import atexit
import ctypes
import os
import threading
from collections.abc import Callable, Iterable, Mapping
from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import NDArray

from . import _library
from ._arrays import flag, fraction, integer
from ._library import FORMS, QUANTISERS, Lock, check_weights, number_of, weights

Path = str | os.PathLike[str]


@dataclass(frozen=True)
class Decision:
    """What `pack` makes of a tensor.

    Attributes
    ----------
    name, file, dtype, shape
        Of the source.
    form : str
        "carried", "f16", "a8w8" or "a8w4".
    quantiser : str or None
        None where nothing is quantised.
    reason : str
        Why it has that form.
    n_inner, n_col : int
        True extents; 0 where the form is "carried".
    n_byte : int
        In the packed file.
    error, product_error : float
        |w - w'| / |w|, and |x (w - w')| / |x w| on the activations or -1 without.
    worst_columns : tuple[tuple[int, float], ...]
        Columns with the largest relative errors, the worst first.
    """

    name: str
    file: str
    dtype: str
    shape: tuple[int, ...]
    form: str
    quantiser: str | None
    reason: str
    n_inner: int
    n_col: int
    n_byte: int
    error: float
    product_error: float
    worst_columns: tuple[tuple[int, float], ...]


@dataclass(frozen=True)
class Tensor:
    """A tensor of a packed file; the attributes are those of `Decision`, with the source's name and dtype."""

    name: str
    form: str
    quantiser: str | None
    dtype: str
    shape: tuple[int, ...]
    n_inner: int
    n_col: int
    n_byte: int
    source_name: str
    source_dtype: str
    error: float
    product_error: float
    checksum: int


def _text(value: bytes | None) -> str:
    return (value or b"").decode(errors="surrogateescape")


def _path(path: Path) -> bytes:
    encoded = os.fsencode(path)
    if b"\0" in encoded:
        raise ValueError(f"the path {path!r} holds a NUL character")
    return encoded


def _name(name: str) -> bytes:
    if not isinstance(name, str):
        raise TypeError(f"a name has to be a text, not {type(name).__name__}")
    encoded = name.encode()
    if b"\0" in encoded:
        raise ValueError(f"the name {name!r} holds a NUL character")
    return encoded


def _quantiser_of(record: Any) -> str | None:
    return QUANTISERS[record.quantiser] if record.form > 1 else None


class _Packer:
    """A packer of the library."""

    def __init__(self, options: _library.PackOptions) -> None:
        self.handle = ctypes.c_void_p()
        check_weights("morun_weights_packer_create", ctypes.byref(options), ctypes.byref(self.handle))

    def __enter__(self) -> _Packer:
        return self

    def __exit__(self, *_: object) -> None:
        weights.morun_weights_packer_free(self.handle)

    def decisions(self) -> list[Decision]:
        count, d = ctypes.c_uint64(), _library.DecisionRecord()
        check_weights("morun_weights_packer_count", self.handle, ctypes.byref(count))
        result = []
        for index in range(count.value):
            check_weights("morun_weights_packer_decision", self.handle, index, ctypes.byref(d))
            worst = tuple((w.column, w.relative_error) for w in d.statistics.worst[:d.statistics.n_worst])
            result.append(Decision(
                _text(d.name), _text(d.file), _text(d.dtype), tuple(d.shape[:d.n_dimension]), FORMS[d.form],
                _quantiser_of(d), _text(d.reason), d.n_inner, d.n_col, d.n_byte, d.error, d.product_error, worst))
        return result


_running: dict[int, threading.Event] = {}  # handles of packers at work, and what tells of their end


@atexit.register
def _stop_packers() -> None:
    """A thread of the library must not call back into an interpreter that ends."""
    for handle, done in list(_running.items()):
        weights.morun_weights_packer_interrupt(handle)
        done.wait()


def pack(sources: Path | Iterable[Path], output: Path | None, form: str = "a8w8", quantiser: str = "minmax", *,
         rules: Mapping[str, str] | Iterable[tuple[str, str]] = (), transpose: bool = True,
         activations: Path | None = None, damping: float = 0.05, n_job: int = 1, allow_non_finite: bool = False,
         progress: Callable[[str, float], object] | None = None) -> list[Decision]:
    """Pack the weight matrices of checkpoints into a file that the DSP reads as it stands.

    Parameters
    ----------
    sources
        Files NAME.safetensors, NAME.index.json or NAME.npy, or folders of such.
    output
        The packed file, which appears whole or not at all; None only decides and packs nothing.
    form, quantiser
        Of the matrices that no rule gives another form.
    rules
        Patterns of names (fnmatch) with forms; the last that matches decides. "carried" leaves tensors as they are.
    transpose
        Whether the matrices of safetensors files are n_col x n_inner.
    activations
        A folder of TENSOR.npy, or one .npy file: n_row x n_inner, needed by "calibrated".
    damping
        Of "calibrated", 0 to 1.
    n_job
        Threads, 1 to 256.
    allow_non_finite
        Whether NaN and infinities are taken.
    progress
        Called with the tensor at work and the part of the bytes that is done, at most 10 times a second and once at the
        end, before the file appears. What it raises, in the last call too, ends the packing without a file and is
        raised again; so does Ctrl-C.

    Returns
    -------
    list[Decision]
        In the order of the packed file.

    Raises
    ------
    Error
        With the statuses of morun_weights.h.
    """
    raised: list[BaseException] = []
    handle = ctypes.c_void_p()

    def report(_: Any, p: Any) -> None:
        try:  # an interrupt of the keyboard arrives here too
            if progress is not None and not raised:
                record = p.contents
                progress(_text(record.tensor), record.n_byte_done / record.n_byte if record.n_byte else 1.0)
        except BaseException as error:
            raised.append(error)
            weights.morun_weights_packer_interrupt(handle)

    options = _library.PackOptions()
    weights.morun_weights_pack_options_init(ctypes.byref(options))
    options.form, options.quantiser = number_of(form, FORMS, "form"), number_of(quantiser, QUANTISERS, "quantiser")
    options.transpose = flag(transpose, "transpose")
    options.allow_non_finite = flag(allow_non_finite, "allow_non_finite")
    options.damping, options.n_job = fraction(damping, "damping"), integer(n_job, "n_job", 1, 256)
    options.progress = _library.PROGRESS_FUNCTION(report)
    options.activations = _path(activations) if activations is not None else None
    with _Packer(options) as packer:
        handle = packer.handle
        for source in [sources] if isinstance(sources, (str, os.PathLike)) else sources:
            check_weights("morun_weights_packer_add_source", packer.handle, _path(source))
        for pattern, rule_form in rules.items() if isinstance(rules, Mapping) else rules:
            check_weights("morun_weights_packer_add_rule", packer.handle, _name(pattern),
                          number_of(rule_form, FORMS, f"the form of rule {pattern}"))
        if output is not None:
            key = packer.handle.value or 0
            _running[key] = done = threading.Event()
            try:
                check_weights("morun_weights_packer_run", packer.handle, _path(output))
            except _library.Error:
                if raised:
                    raise raised[0] from None
                raise
            finally:
                del _running[key]
                done.set()
        if raised:
            raise raised[0]
        return packer.decisions()


class PackedFile(_library.Single):
    """An open packed file, as a context manager.

    Opening checks all that the header says, and raises Error where something is wrong. Any thread may use it: a lock
    lets one call in at a time.

    Attributes
    ----------
    tensors : tuple[Tensor, ...]
        In the order of their bytes.
    """

    def __init__(self, path: Path) -> None:
        self.handle = ctypes.c_void_p()
        self._lock = Lock("morun.PackedFile")
        check_weights("morun_weights_file_open", _path(path), ctypes.byref(self.handle))
        count, t = ctypes.c_uint64(), _library.TensorRecord()
        check_weights("morun_weights_file_count", self.handle, ctypes.byref(count))
        tensors = []
        for index in range(count.value):
            check_weights("morun_weights_file_tensor", self.handle, index, ctypes.byref(t))
            tensors.append(Tensor(
                _text(t.name), FORMS[t.form], _quantiser_of(t), _text(t.dtype), tuple(t.shape[:t.n_dimension]),
                t.n_inner, t.n_col, t.n_byte, _text(t.source_name), _text(t.source_dtype), t.error, t.product_error,
                t.checksum))
        self.tensors = tuple(tensors)

    def __enter__(self) -> PackedFile:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __del__(self) -> None:
        if hasattr(self, "_lock") and _library is not None:
            self.close()

    def close(self) -> None:
        """Close the file. Closing twice is no change."""
        with self._lock.alone():
            weights.morun_weights_file_close(self.handle)
            self.handle = ctypes.c_void_p()

    def index(self, name: str) -> int:
        """The number of a tensor. Raises Error where there is none of that name."""
        result = ctypes.c_uint64()
        self._call("morun_weights_file_find", _name(name), ctypes.byref(result))
        return result.value

    def verify(self, name: str) -> None:
        """Read a tensor and compare it with its checksum. Raises Error where they differ."""
        self._call("morun_weights_file_verify", self.index(name))

    def read(self, name: str) -> NDArray[np.uint8]:
        """The bytes of a tensor as they stand in the file, without a look at the checksum."""
        index = self.index(name)
        result = np.empty(self.tensors[index].n_byte, np.uint8)
        self._call("morun_weights_file_read", index, 0, result.size, result.ctypes.data)
        return result

    def unpack(self, name: str) -> NDArray[np.float32]:
        """What a packed tensor stands for, n_inner x n_col. Raises Error where it is damaged or not packed."""
        index = self.index(name)
        tensor = self.tensors[index]
        result = np.empty((tensor.n_inner, tensor.n_col), np.float32)
        self._call("morun_weights_file_unpack", index, result.ctypes.data)
        return result

    def _call(self, function: str, *arguments: Any) -> None:
        with self._lock.alone():
            if not self.handle:
                raise ValueError("the file is closed")
            check_weights(function, self.handle, *arguments)


def inspect(path: Path) -> tuple[Tensor, ...]:
    """What is in a packed file. Raises Error where it is none."""
    with PackedFile(path) as file:
        return file.tensors

"""The context: products on the NPU, and weights in memory that the DSP sees."""

from __future__ import annotations

import collections
import ctypes
import os
import weakref
from collections.abc import Iterable, Mapping, Sequence
from dataclasses import dataclass
from types import TracebackType
from typing import Any

import numpy as np
from numpy.typing import NDArray

from . import _library, quant
from ._arrays import flag, integer, operand
from ._files import PackedFile
from ._library import FORMS, Error, Lock, address, check, check_weights
from ._version import VERSION

F32Array = NDArray[np.float32]

CHUNK = 16 << 20  # bytes of the first shared buffers, unless a matrix needs more
_PRODUCTS = {
    (form, n): f"tavik_npu_{'' if n == 1 else n}mm_{middle}" for n in (1, 2, 3)
    for form, middle in (("f16", "f32_rm_f32_rm_f16_wh"), ("a8w8", "a8w8_f32_rm_f32_rm_i8f16_wh"),
                         ("a8w4", "a8w4_f32_rm_f32_rm_i4f16_wh"))
}


class _Chunk:
    """A shared buffer, and which of its bytes belong to weights."""

    def __init__(self, fd: int, start: int, size: int, session: int) -> None:
        self.fd, self.start, self.session = fd, start, session
        self.free = {0: size}  # offsets and sizes of what is free, no two of them adjacent
        self.size = size

    def take(self, size: int) -> int | None:
        for offset, room in self.free.items():
            if room >= size:
                del self.free[offset]
                if room > size:
                    self.free[offset + size] = room - size
                return offset
        return None

    def give_back(self, offset: int, size: int) -> None:
        before = next((start for start, room in self.free.items() if start + room == offset), None)
        if before is not None:
            offset, size = before, size + self.free.pop(before)
        size += self.free.pop(offset + size, 0)
        self.free[offset] = size


class _State:
    """What a context holds of the library. Everything but `dropped` is used under the lock."""

    def __init__(self, options: _library.Options) -> None:
        self.lock = Lock("morun.Context")
        self.pid = os.getpid()
        self.chunks: dict[int, _Chunk] = {}  # by descriptor
        self.loaded: set[int] = set()  # handles of loaded files
        # What weights leave behind that nobody uses any more. The collector may run in the middle of anything, so that
        # it only takes a note here.
        self.dropped: collections.deque[tuple[str, int, int, int]] = collections.deque()
        handle = ctypes.c_void_p()
        check("tavik_init", ctypes.byref(options), ctypes.byref(handle))
        self.handle: int | None = handle.value

    @property
    def record(self) -> _library.ContextRecord:
        assert self.handle is not None
        return _library.ContextRecord.from_address(self.handle)

    def usable(self) -> None:
        """Raises unless this process may use the context."""
        if self.pid != os.getpid():
            raise Error(1, "morun.Context", "the context belongs to the process that this one was forked from")
        if self.handle is None:
            raise ValueError("the context is closed")

    def collect(self) -> None:
        """Frees what weights have left behind."""
        while self.dropped:
            kind, key, offset, size = self.dropped.popleft()
            if kind == "file" and key in self.loaded:
                check_weights("morun_weights_release", key)
                self.loaded.discard(key)
            if kind == "matrix" and key in self.chunks:
                chunk = self.chunks[key]
                chunk.give_back(offset, size)
                if chunk.free == {0: chunk.size} and len(self.chunks) > 1:
                    self.free_chunk(key)

    def free_chunk(self, fd: int) -> None:
        chunk = self.chunks.pop(fd)  # first, because an interrupt may come as soon as the library is back
        try:
            check("tavik_buffer_free", self.handle, fd)
        except Error:
            self.chunks[fd] = chunk
            raise

    def allocate(self, size: int) -> tuple[_Chunk, int]:
        for chunk in self.chunks.values():
            offset = chunk.take(size)
            if offset is not None:
                return chunk, offset
        # Buffers are few: the more there are, the larger the next.
        room = max(size, CHUNK << min(4, len(self.chunks) // 4))
        try:
            chunk = self.new_chunk(room)
        except Error:
            if room == size:
                raise
            chunk = self.new_chunk(size)
        offset = chunk.take(size)
        assert offset is not None
        return chunk, offset

    def new_chunk(self, size: int) -> _Chunk:
        pointer, fd, session = ctypes.c_void_p(), ctypes.c_int32(), ctypes.c_uint64()
        check("tavik_buffer_alloc", self.handle, size, ctypes.byref(pointer), ctypes.byref(fd))
        check("tavik_context_get_session_from_fd", self.handle, fd, ctypes.byref(session))
        assert pointer.value is not None
        chunk = self.chunks[fd.value] = _Chunk(fd.value, pointer.value, size, session.value)
        return chunk

    def close(self) -> None:
        if self.pid != os.getpid():
            return
        with self.lock.alone():
            if self.handle is None:
                return
            for handle in list(self.loaded):
                check_weights("morun_weights_release", handle)
                self.loaded.discard(handle)
            for fd in list(self.chunks):
                self.free_chunk(fd)
            check("tavik_cleanup", self.handle)
            self.handle = None


@dataclass(frozen=True, eq=False, repr=False)
class Weights:
    """A weight matrix in memory that the DSP sees: of `Context.upload` or `Context.load`.

    Keeps its context alive. The memory is given back when the last reference goes, or the context closes.

    Attributes
    ----------
    context : Context
        Whose weights they are.
    form : str
        "f16", "a8w8" or "a8w4".
    shape : tuple[int, int]
        n_inner, n_col: true extents.
    """

    context: Context
    form: str
    shape: tuple[int, int]
    _padded: tuple[int, int]
    _fd: int
    _session: int
    _offsets: tuple[int, ...]
    _keeper: object  # shared by copies, and by all weights of a loaded file

    def __repr__(self) -> str:
        return f"<morun.Weights {self.shape[0]} x {self.shape[1]}, {self.form}>"


class _Loaded:
    """Keeps memory of the context until the last of the weights that share it goes."""


class Context(_library.Single):
    """A connection to the DSP, or to its emulation.

    Parameters
    ----------
    n_row_max, output_matrix_size_max, input_matrix_size_max : int, optional
        Limits of one call of the library in rows, elements of the result and elements of the activation. They size the
        shared buffers of operands: the defaults, 1024, 2^24 and 2^28, reserve 704 MiB of address space. An activation
        with more rows is multiplied in parts.

    Raises
    ------
    Error
        The DSP cannot be opened, or shared memory cannot be had.

    Notes
    -----
    A context is a context manager; leaving it closes it, as `close` and the end of the interpreter do. Any thread may
    use a context: a lock lets one call in at a time. Threads with a context each work side by side. A forked child
    cannot use the contexts of its parent and makes its own.
    """

    def __init__(self, *, n_row_max: int = 1024, output_matrix_size_max: int = 2**24,
                 input_matrix_size_max: int = 2**28) -> None:
        limits = {"output_matrix_size_max": output_matrix_size_max, "n_row_max": n_row_max,
                  "input_matrix_size_max": input_matrix_size_max}
        self._state = _State(_library.Options(
            **{name: integer(limit, name, 1, 2**31 - 1) for name, limit in limits.items()}))
        self._finalizer = weakref.finalize(self, self._state.close)

    def __enter__(self) -> Context:
        self._state.usable()
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()

    def close(self) -> None:
        """Free all weights and close the DSP. Closing twice is no change. Raises Error where the DSP refuses."""
        self._state.close()
        if self._state.pid == os.getpid():
            self._finalizer.detach()

    @property
    def closed(self) -> bool:
        """Whether `close` has freed all that the context held."""
        return self._state.handle is None

    def module_version(self) -> str:
        """The version of the DSP's module, such as "1.0.0 beta1", and the architecture that it was compiled for."""
        self._state.usable()
        with self._state.lock.alone():
            self._state.usable()
            numbers, label, architecture = [ctypes.c_uint32() for _ in range(3)], ctypes.create_string_buffer(32), \
                ctypes.c_uint32()
            check("tavik_veyra_get_version", self._state.record.session_handle[0], *map(ctypes.byref, numbers), label,
                  32, ctypes.byref(architecture))
        return f"{'.'.join(str(n.value) for n in numbers)} {label.value.decode()}, architecture {architecture.value}"

    # ---- Weights ----

    def upload(self, weights: NDArray[Any] | quant.PackedMatrix) -> Weights:
        """Keep weights in shared memory.

        Parameters
        ----------
        weights
            n_inner x n_col, f32 (rounded to f16) or f16, at least 1 x 1; or a packed matrix.

        Returns
        -------
        Weights

        Raises
        ------
        Error
            No shared memory is left.
        """
        if not isinstance(weights, quant.PackedMatrix):
            weights = quant.quantise(weights, "f16", allow_non_finite=True)
        layout, data = weights.layout, weights.checked_data()
        state = self._state
        state.usable()
        with state.lock.alone():
            state.usable()
            state.collect()
            chunk, offset = state.allocate(data.size)
            ctypes.memmove(chunk.start + offset, address(data), data.size)
        parts = (layout.zero_points, layout.scales, layout.sums) if weights.form != "f16" else ()
        keeper = _Loaded()  # which copies of the weights share
        weakref.finalize(keeper, state.dropped.append, ("matrix", chunk.fd, offset, data.size)).atexit = False
        return Weights(self, weights.form, weights.shape, (layout.padded_n_inner, layout.padded_n_col), chunk.fd,
                       chunk.session, (offset, *(offset + part for part in parts)), keeper)

    def load(self, path: str | os.PathLike[str], names: Iterable[str] | None = None,
             groups: Iterable[Sequence[str]] = (), *, largest_buffer: int = 0,
             skip_checksums: bool = False) -> Mapping[str, Weights]:
        """Load packed matrices of a file straight into shared memory.

        Parameters
        ----------
        path
            A packed file, as `morun.pack` makes them.
        names
            The tensors to load; all packed ones unless told otherwise.
        groups
            Names of tensors that fused products take together; the members of a group come into one session.
        largest_buffer
            Bytes that no shared buffer exceeds; 0 stands for 2^28.
        skip_checksums
            Whether the bytes are taken as they are.

        Returns
        -------
        Mapping[str, Weights]

        Raises
        ------
        Error
            No such file or tensor, no packed tensor, a damaged one, or no room.
        """
        state = self._state
        state.usable()
        if isinstance(names, str):
            raise TypeError("names is a text; it has to be several names")
        size, is_unchecked = integer(largest_buffer, "largest_buffer"), flag(skip_checksums, "skip_checksums")
        with PackedFile(path) as file:
            wanted = list(names) if names is not None else [t.name for t in file.tensors if t.form != "carried"]
            group_of = {name: number for number, group in enumerate(groups, 1) for name in group}
            if strangers := group_of.keys() - set(wanted):
                raise ValueError(f"groups name tensors that are not loaded: {', '.join(sorted(strangers))}")
            requests = (_library.Request * len(wanted))(
                *(_library.Request(file.index(name), group_of.get(name, 0), 0) for name in wanted))
            options, handle = _library.LoadOptions(size, is_unchecked, 0), ctypes.c_void_p()
            with state.lock.alone():
                state.usable()
                state.collect()
                check_weights("morun_weights_load", file.handle, state.handle, len(wanted), requests,
                              ctypes.byref(options), ctypes.byref(handle))
                assert handle.value is not None
                state.loaded.add(handle.value)
                keeper = _Loaded()  # which gives the file back where an operand below cannot be had
                weakref.finalize(keeper, state.dropped.append, ("file", handle.value, 0, 0)).atexit = False
                operands = [_library.Operand() for _ in wanted]
                for index, o in enumerate(operands):
                    check_weights("morun_weights_operand_of", handle, index, ctypes.byref(o))
        return {name: self._loaded(o, keeper) for name, o in zip(wanted, operands)}

    def _loaded(self, o: Any, keeper: _Loaded) -> Weights:
        parts = (o.z_offset, o.s_offset, o.sum_offset) if FORMS[o.form] != "f16" else ()
        return Weights(self, FORMS[o.form], (o.n_inner, o.n_col), (o.padded_n_inner, o.padded_n_col), o.fd, o.session,
                       (o.q_offset, *parts), keeper)

    # ---- Products ----

    def matmul(self, x: NDArray[Any], w: Weights | quant.PackedMatrix | NDArray[Any]) -> F32Array:
        """Multiply on the NPU.

        Parameters
        ----------
        x
            (..., n_inner), f32 or f16. Form f16 rounds it to f16, the other forms quantise each row to 8 bits.
        w
            n_inner x n_col: weights of this context, a packed matrix, or an f32 or f16 array, which is rounded to f16.

        Returns
        -------
        NDArray[np.float32]
            (..., n_col). Extents may be any numbers, 0 included.

        Raises
        ------
        TypeError, ValueError
            Another dtype, order or shape; weights of another context; a closed context.
        Error
            The library or the DSP refuses.
        """
        return self._products(x, (w,))[0]

    def matmul2(self, x: NDArray[Any], w1: Any, w2: Any) -> tuple[F32Array, F32Array]:
        """Multiply one activation by two weight matrices: `matmul` twice, in one call of the DSP where that can be.

        It can be where both have one form and one n_col, and are in one session.
        """
        a, b = self._products(x, (w1, w2))
        return a, b

    def matmul3(self, x: NDArray[Any], w1: Any, w2: Any, w3: Any) -> tuple[F32Array, F32Array, F32Array]:
        """Multiply one activation by three weight matrices, as queries, keys and values need it.

        In one call of the DSP where all have one form, the second and the third one n_col, and all are in one session.
        """
        a, b, c = self._products(x, (w1, w2, w3))
        return a, b, c

    def _products(self, x: Any, operands: tuple[Any, ...]) -> list[F32Array]:
        x = operand(x, "x", (np.float32, np.float16), None)
        if x.ndim == 0:
            raise ValueError("x is a single number; it has to have at least one dimension")
        self._state.usable()
        operands = tuple(w if isinstance(w, (Weights, quant.PackedMatrix)) else
                         operand(w, "w", (np.float32, np.float16)) for w in operands)
        for w in operands:
            if w.shape[0] != x.shape[-1]:
                raise ValueError(f"x has {x.shape[-1]} columns, w has {w.shape[0]} rows")
            if isinstance(w, Weights) and w.context is not self:
                raise ValueError("the weights belong to another context")
        rows = x.reshape(int(np.prod(x.shape[:-1])), x.shape[-1])  # explicit, because an extent may be 0
        if 0 in rows.shape or any(0 in w.shape for w in operands):
            return [np.zeros((*x.shape[:-1], w.shape[1]), np.float32) for w in operands]
        weights = [w if isinstance(w, Weights) else self.upload(w) for w in operands]
        padded = np.zeros((len(rows), weights[0]._padded[0]), np.float32)
        padded[:, :rows.shape[1]] = rows
        results = [np.empty((len(rows), w._padded[1]), np.float32) for w in weights]
        state = self._state
        with state.lock.alone():
            state.usable()
            state.collect()
            for first, end in self._parts(len(rows), weights):
                self._multiply(padded[first:end], [result[first:end] for result in results], weights)
        return [np.ascontiguousarray(result[:, :w.shape[1]]).reshape(*x.shape[:-1], w.shape[1])
                for result, w in zip(results, weights)]

    def _parts(self, n_row: int, weights: list[Weights]) -> Iterable[tuple[int, int]]:
        record = self._state.record
        most = min(record.n_row_max, record.input_matrix_size_max // weights[0]._padded[0],
                   record.output_matrix_size_max // max(w._padded[1] for w in weights))
        most = max(1, most // 64 * 64 or most)  # whole tiles where there is room for some
        return ((first, min(first + most, n_row)) for first in range(0, n_row, most))

    def _multiply(self, x: F32Array, results: list[F32Array], weights: list[Weights]) -> None:
        """Fused where the library computes the fused product in one go; it gives other results where it does not."""
        same_columns = len({w._padded[1] for w in weights[-2:]}) == 1
        if same_columns and len({(w.form, w._session) for w in weights}) == 1:
            return self._call(x, results, weights)
        for result, w in zip(results, weights):
            self._call(x, [result], [w])

    def _call(self, x: F32Array, results: list[F32Array], weights: list[Weights]) -> None:
        form = weights[0].form
        if form == "a8w4" and len(weights) == 1:
            if weights[0]._session != 0:  # where the single product cannot run
                results, weights = [results[0], np.empty_like(results[0])], weights * 2
            else:  # it wants the session to be the active one already
                check("tavik_context_get_handle_from_fd", self._state.handle, weights[0]._fd,
                      ctypes.byref(ctypes.c_uint64()))
        columns = [w._padded[1] for w in weights]
        offsets = [offset for w in weights for offset in w._offsets]
        check(_PRODUCTS[form, len(weights)], self._state.handle, len(x), *(columns[:2] if len(weights) == 3 else
              columns[:1]), x.shape[1], *map(address, results), address(x), *(w._fd for w in weights), *offsets)


def info() -> dict[str, Any]:
    """What there is: versions and paths of the libraries, and the DSP to run on.

    Returns
    -------
    dict[str, Any]
        "package", "library", "weights library", "platform" (paths, or names that the loader resolved), "dsp domain",
        "dsp architecture", "vector memory" (bytes), "unsigned modules". What the platform does not tell is None.
    """
    def ask(function: str, *arguments: int) -> int | None:
        value = ctypes.c_uint32()
        before, after = arguments[:1], arguments[1:]
        status = getattr(_library.tavik, function)(*before, ctypes.byref(value), *after)
        return value.value if status == 0 else None

    domain = ask("get_dsp_support")
    page, count, architecture = (None, None, None) if domain is None else (
        ask("get_vtcm_info", domain, 4), ask("get_vtcm_info", domain, 5), ask("get_veyra_arch_ver", domain))
    with open("/proc/self/maps") as maps:
        platform = next((line.split()[-1] for line in maps if "libparlo" in line), None)
    return {
        "package": VERSION, "library": _library.tavik_path, "weights library": _library.weights_path,
        "platform": platform, "dsp domain": domain,
        "dsp architecture": None if architecture is None else f"{architecture & 0xff:x}",
        "vector memory": None if page is None or count is None else page * count,
        "unsigned modules": domain is not None and _library.tavik.is_unsignedpd_supported(domain),
    }

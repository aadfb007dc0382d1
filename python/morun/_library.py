"""The two libraries: where they are found, their functions and records, their failures."""

from __future__ import annotations

import ctypes
import os
import threading
import weakref
from ctypes import c_char, c_char_p, c_double, c_int32, c_uint32, c_uint64, c_void_p
from pathlib import Path
from typing import Any

from numpy.typing import NDArray

MAX_SESSIONS, MAX_BUFFERS, MAX_DESCRIPTOR, SESSION_NAME_SIZE, WORST_COLUMNS = 4, 32, 1023, 256, 8
FORMS = ("carried", "f16", "a8w8", "a8w4")  # by number
QUANTISERS = ("minmax", "mse", "calibrated", "library")


class Error(RuntimeError):
    """A call of the library that failed.

    Attributes
    ----------
    status : int
        The status of the function, as the headers list them.
    function : str
        The function that failed: of the library's error record where it has one.
    message : str
        What failed, in the words of the library.
    """

    def __init__(self, status: int, function: str, message: str) -> None:
        super().__init__(f"{function}: {message} (status {status})")
        self.status, self.function, self.message = status, function, message

    def __reduce__(self) -> tuple[Any, ...]:
        return Error, (self.status, self.function, self.message)


# ---- What objects of the package have in common ----


class Lock:
    """Lets one call in at a time, and none in the middle of another of the same thread, as a signal would.

    `with lock.alone():` enters and leaves the interpreter's own lock, which no KeyboardInterrupt can separate from the
    block. A forked child has the locks open that other threads held, because these threads stay with the parent.
    """

    _all: weakref.WeakSet[Lock] = weakref.WeakSet()

    def __init__(self, what: str) -> None:
        self._what = what
        self._lock: Any = threading.RLock()
        Lock._all.add(self)

    def alone(self) -> Any:
        if self.is_mine():
            raise Error(1, self._what, "this thread is in the middle of a call on the same object")
        return self._lock

    def is_mine(self) -> bool:
        return bool(self._lock._is_owned())

    def open(self) -> None:
        if not self.is_mine():
            self._lock = threading.RLock()


def _open_locks() -> None:
    for lock in list(Lock._all):
        lock.open()


os.register_at_fork(after_in_child=_open_locks)


class Single:
    """What holds a handle of the library, which two copies would free twice."""

    def __reduce_ex__(self, _: Any) -> Any:
        raise TypeError(f"a {type(self).__name__} can neither be copied nor pickled")


# ---- Records ----


class ErrorRecord(ctypes.Structure):
    _fields_ = [("code", c_int32), ("message", c_char * 128), ("function", c_char * 128), ("file", c_char * 128),
                ("line", c_int32)]


class Options(ctypes.Structure):
    _fields_ = [(name, c_uint64)
                for name in ("output_matrix_size_max", "n_row_max", "input_matrix_size_max", "reserved")]


class ContextRecord(ctypes.Structure):
    _fields_ = [
        ("n_sessions", c_uint64), ("session_id", c_int32 * MAX_SESSIONS),
        ("session_name", c_char * SESSION_NAME_SIZE * MAX_SESSIONS), ("session_domain", c_int32 * MAX_SESSIONS),
        ("session_handle", c_uint64 * MAX_SESSIONS), ("A_size", c_uint64), ("X_size", c_uint64),
        ("A0", c_void_p), ("A1", c_void_p), ("A2", c_void_p), ("X", c_void_p),
        ("A0_fd", c_int32), ("A1_fd", c_int32), ("A2_fd", c_int32), ("X_fd", c_int32), ("n_buffers", c_uint64),
        ("buffer_pointer", c_void_p * MAX_BUFFERS), ("buffer_fd", c_int32 * MAX_BUFFERS),
        ("buffer_size", c_uint64 * MAX_BUFFERS), ("buffer_session", c_int32 * MAX_BUFFERS),
        ("fd_to_session", c_int32 * (MAX_DESCRIPTOR + 1)), ("output_matrix_size_max", c_uint64),
        ("input_matrix_size_max", c_uint64), ("n_row_max", c_uint64), ("active_session", c_uint64),
        ("tessel_locked", ctypes.c_bool), ("cleanup_failed", ctypes.c_bool),
    ]


class Layout(ctypes.Structure):
    _fields_ = [(name, c_uint64)
                for name in ("padded_n_inner", "padded_n_col", "zero_points", "scales", "sums", "n_byte")]


class ColumnError(ctypes.Structure):
    _fields_ = [("column", c_uint64), ("relative_error", c_double)]


class Statistics(ctypes.Structure):
    _fields_ = [
        *((name, c_uint64) for name in ("n_value", "n_nan", "n_infinite", "n_overflow", "n_constant", "n_zero")),
        *((name, c_double) for name in ("sum_of_squares", "squared_error", "product_squares", "product_error")),
        ("n_worst", c_uint32), ("worst", ColumnError * WORST_COLUMNS),
    ]


class Recipe(ctypes.Structure):
    _fields_ = [("form", c_int32), ("quantiser", c_int32), ("n_inner", c_uint64), ("n_col", c_uint64),
                ("calibration", c_void_p), ("allow_non_finite", c_int32), ("reserved", c_int32)]


class Progress(ctypes.Structure):
    _fields_ = [("tensor", c_char_p), ("n_tensor_done", c_uint64), ("n_tensor", c_uint64), ("n_byte_done", c_uint64),
                ("n_byte", c_uint64), ("seconds", c_double)]


PROGRESS_FUNCTION = ctypes.CFUNCTYPE(None, c_void_p, ctypes.POINTER(Progress))


class PackOptions(ctypes.Structure):
    _fields_ = [("form", c_int32), ("quantiser", c_int32), ("transpose", c_int32), ("allow_non_finite", c_int32),
                ("n_job", c_uint32), ("reserved", c_uint32), ("damping", c_double), ("activations", c_char_p),
                ("progress", PROGRESS_FUNCTION), ("user", c_void_p)]


class DecisionRecord(ctypes.Structure):
    _fields_ = [
        ("name", c_char_p), ("file", c_char_p), ("dtype", c_char_p), ("shape", ctypes.POINTER(c_uint64)),
        ("n_dimension", c_uint64), ("n_source_byte", c_uint64), ("form", c_int32), ("quantiser", c_int32),
        ("reason", c_char_p), ("n_inner", c_uint64), ("n_col", c_uint64), ("n_byte", c_uint64), ("is_done", c_int32),
        ("reserved", c_uint32), ("error", c_double), ("product_error", c_double), ("statistics", Statistics),
    ]


class TensorRecord(ctypes.Structure):
    _fields_ = [
        ("name", c_char_p), ("form", c_int32), ("quantiser", c_int32), ("dtype", c_char_p),
        ("shape", ctypes.POINTER(c_uint64)), ("n_dimension", c_uint64), ("file_offset", c_uint64),
        ("n_byte", c_uint64), ("n_inner", c_uint64), ("n_col", c_uint64), ("layout", Layout),
        ("source_name", c_char_p), ("source_dtype", c_char_p), ("error", c_double), ("product_error", c_double),
        ("checksum", c_uint64),
    ]


class Request(ctypes.Structure):
    _fields_ = [("tensor", c_uint64), ("group", c_uint32), ("alone", c_uint32)]


class LoadOptions(ctypes.Structure):
    _fields_ = [("largest_buffer", c_uint64), ("skip_checksums", c_int32), ("reserved", c_int32)]


class Operand(ctypes.Structure):
    _fields_ = [
        ("form", c_int32), ("fd", c_int32), ("session", c_uint32), ("q_offset", c_uint32), ("z_offset", c_uint64),
        ("s_offset", c_uint64), ("sum_offset", c_uint64), ("padded_n_inner", c_int32), ("padded_n_col", c_int32),
        ("n_inner", c_int32), ("n_col", c_int32), ("bytes", c_void_p),
    ]


# ---- Functions ----

# The result, a colon, the arguments: i int32, I uint32, Q uint64, d double, p pointer, s text, ? bool; nothing: void.
_CODES: dict[str, Any] = {"i": c_int32, "I": c_uint32, "Q": c_uint64, "d": c_double, "p": c_void_p, "s": c_char_p,
                          "?": ctypes.c_bool, "": None}
_BLOCK_TYPES = ("i8", "u8", "f16", "i32", "u32", "f32")
_FUNCTIONS = {
    "tavik_error_get_last": "p:", "tavik_set_error": "i:issis",
    "tavik_init": "i:pp", "tavik_cleanup": "i:p",
    "tavik_context_get_handle_from_fd": "i:pip", "tavik_context_get_session_from_fd": "i:pip",
    "tavik_buffer_alloc": "i:pQpp", "tavik_buffer_free": "i:pi",
    **{f"tavik_matrix_block_{verb}_{code}": ":QQQQp" for verb in ("linearize", "unlinearize") for code in _BLOCK_TYPES},
    **{f"tavik_matrix_transpose_{code}": ":QQp" for code in _BLOCK_TYPES},
    **{f"tavik_{name}_inplace": ":QQp" for name in (
        "f16_rm_to_f16_ah", "f16_ah_to_f16_rm", "f16_rm_to_f16_wh", "i8_rm_to_i8_wh", "f16_cm_to_f16_zb",
        "i4_rm_to_i4_wh")},
    "tavik_host_layout_flat_to_w4_tile32x32": ":pp", "tavik_host_layout_w4_flat_to_weight": ":ppQQ",
    "tavik_f32_to_f16": ":Qpp", "tavik_f16_to_f32": ":Qpp",
    "tavik_f32_rm_to_f16_ah": ":QQpp", "tavik_f16_ah_to_f32_rm": ":QQpp",
    "tavik_f32_rm_to_u8_rm": ":QQpppp", "tavik_f32_rm_to_u8_ah": ":QQpppp", "tavik_f32_rm_to_u16_rm": ":QQppppp",
    "tavik_f16_rm_to_i8_rm": ":QQppppp", "tavik_f16_rm_to_i4_rm": ":QQppppp",
    "tavik_a8w8_output_to_f32_rm": ":iiippppppp", "tavik_a8w4_output_to_f32_rm": ":iiippppppp",
    "tavik_npu_mm_f32_rm_f32_rm_f16_wh": "I:piiippII",
    "tavik_npu_2mm_f32_rm_f32_rm_f16_wh": "I:piiipppIIII",
    "tavik_npu_3mm_f32_rm_f32_rm_f16_wh": "I:piiiippppIIIIII",
    **{f"tavik_npu_mm_{form}_f32_rm_f32_rm_i{form[-1]}f16_wh": "I:piiippIIQQQ" for form in ("a8w8", "a8w4")},
    **{f"tavik_npu_2mm_{form}_f32_rm_f32_rm_i{form[-1]}f16_wh": "I:piiipppII" + 2 * "IQQQ"
       for form in ("a8w8", "a8w4")},
    **{f"tavik_npu_3mm_{form}_f32_rm_f32_rm_i{form[-1]}f16_wh": "I:piiiippppIII" + 3 * "IQQQ"
       for form in ("a8w8", "a8w4")},
    "tavik_cpu_mm_fp32_rm_fp16_rm_fp16_zb": "I:pQQQppp",
    "morun_tensor_cpu_matmul_scenario_5": "Q:QQQppp",
    "qmmbp_HxD": ":QQppp", "qmmbp_HxD_": ":QQppp", "qdotxH": ":Qppp",
    "tavik_veyra_get_version": "i:QpppsIp",
    "morun_cpu_rm_to_wh_i8": "I:QQpp", "morun_cpu_rm_to_wh_i4": "I:ppQQ", "morun_cpu_ui8i8_ah_to_i32_rm": "I:QQpp",
    "get_dsp_support": "i:p", "get_veyra_arch_ver": "i:ip", "get_vtcm_info": "i:ipI",
    "is_unsignedpd_supported": "?:i",
}
_WEIGHTS_FUNCTIONS = {
    "morun_weights_status_name": "s:i", "morun_weights_error_text": "s:", "morun_weights_layout_of": "i:iQQp",
    "morun_weights_calibration_create": "i:Qp", "morun_weights_calibration_add": "i:pQpQ",
    "morun_weights_calibration_finish": "i:pd", "morun_weights_calibration_free": ":p",
    "morun_weights_pack_columns": "i:pQQpQQpQp", "morun_weights_unpack_columns": "i:iQQpQQQpQQ",
    "morun_weights_pack_options_init": ":p", "morun_weights_packer_create": "i:pp",
    "morun_weights_packer_add_source": "i:ps", "morun_weights_packer_add_rule": "i:psi",
    "morun_weights_packer_count": "i:pp", "morun_weights_packer_decision": "i:pQp",
    "morun_weights_packer_run": "i:ps", "morun_weights_packer_interrupt": ":p", "morun_weights_packer_free": ":p",
    "morun_weights_file_open": "i:sp", "morun_weights_file_close": ":p", "morun_weights_file_count": "i:pp",
    "morun_weights_file_tensor": "i:pQp", "morun_weights_file_find": "i:psp", "morun_weights_file_verify": "i:pQ",
    "morun_weights_file_read": "i:pQQQp", "morun_weights_file_unpack": "i:pQp",
    "morun_weights_load_options_init": ":p", "morun_weights_load": "i:ppQppp",
    "morun_weights_operand_of": "i:pQp", "morun_weights_release": "i:p",
}


def _open_library(name: str, functions: dict[str, str]) -> tuple[ctypes.CDLL, str]:
    folders = [Path(folder) for folder in os.environ.get("MORUN_LIBRARY_PATH", "").split(":") if folder]
    path = next((str((folder / name).absolute()) for folder in folders if (folder / name).exists()), name)
    try:
        library = ctypes.CDLL(path)
    except OSError as error:
        raise ImportError(f"{name} cannot be loaded ({error}). Install libmorun, or name the folder of its libraries "
                          "in MORUN_LIBRARY_PATH.") from error
    for function, codes in functions.items():
        result, arguments = codes.split(":")
        entry = getattr(library, function)
        entry.restype, entry.argtypes = _CODES[result], [_CODES[code] for code in arguments]
    return library, path


# The library's own file has to come first: the companion then takes that one, wherever the loader would look.
tavik, tavik_path = _open_library("libmorun.so.1", _FUNCTIONS)
weights, weights_path = _open_library("libmorun_weights.so.1", _WEIGHTS_FUNCTIONS)


def check(function: str, *arguments: Any) -> None:
    """Calls a function of libmorun that returns a status. Raises Error with the error record unless it is 0."""
    tavik.tavik_set_error(0, b"", b"", 0, b"")
    status = getattr(tavik, function)(*arguments)
    if status == 0:
        return
    record = ErrorRecord.from_address(tavik.tavik_error_get_last())
    if record.code == 0:  # the function fills no record
        raise Error(status, function, "the call failed")
    raise Error(status, record.function.decode(errors="replace"), record.message.decode(errors="replace"))


def check_weights(function: str, *arguments: Any) -> None:
    """Calls a function of libmorun_weights that returns a status. Raises Error with its text unless it is 0."""
    status = getattr(weights, function)(*arguments)
    if status == 0:
        return
    name = weights.morun_weights_status_name(status).decode()
    raise Error(status, function, f"{name}: {weights.morun_weights_error_text().decode(errors='replace')}")


def number_of(name: str, names: tuple[str, ...], what: str) -> int:
    """The number of a form or quantiser. Raises TypeError for no text, ValueError for another name."""
    if not isinstance(name, str):
        raise TypeError(f"{what} has to be a text, not {type(name).__name__}")
    if name not in names:
        raise ValueError(f"{what} is {name!r}; it has to be one of {', '.join(names)}")
    return names.index(name)


def address(array: NDArray[Any]) -> int:
    """Where the elements of an array start. The caller keeps the array alive during the call."""
    return int(array.ctypes.data)

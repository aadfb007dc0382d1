"""Runs with PYTHONPATH at the package and MORUN_LIBRARY_PATH at the libraries."""

import ctypes

import hypothesis
import pytest

import morun

hypothesis.settings.register_profile("morun", deadline=None, derandomize=True, max_examples=40)
hypothesis.settings.load_profile("morun")


def pytest_configure(config):
    config.addinivalue_line("filterwarnings", "error::pytest.PytestUnhandledThreadExceptionWarning")
    config.addinivalue_line("filterwarnings", "error::pytest.PytestUnraisableExceptionWarning")


_platform = ctypes.CDLL(morun.info()["platform"])  # the emulator's, already loaded


class EmulatorConfig(ctypes.Structure):
    _fields_ = [("session_bytes", ctypes.c_uint64), ("allocation_bytes", ctypes.c_uint64), ("rest", ctypes.c_char * 72)]


class Usage(ctypes.Structure):
    _fields_ = [(name, ctypes.c_uint64) for name in ("allocations", "bytes", "sessions", "handles", "mappings",
                                                     "double_frees", "foreign_frees")]


def usage():
    """What the platform has given to this process, and the misuse that it has seen."""
    result = Usage()
    _platform.parlo_emulator_get_usage(ctypes.byref(result))
    return {name: getattr(result, name) for name, _ in Usage._fields_}


@pytest.fixture
def context():
    with morun.Context() as result:
        yield result


@pytest.fixture
def small_sessions():
    """Sessions with room for the operands and 44 KiB, as long as the test runs."""
    config = EmulatorConfig()
    _platform.parlo_emulator_get_config(ctypes.byref(config))
    before = config.session_bytes
    limits = dict(n_row_max=128, output_matrix_size_max=2**18, input_matrix_size_max=2**18)
    with morun.Context(**limits) as context:
        record = context._state.record
        config.session_bytes = 3 * record.A_size + record.X_size + (44 << 10)
    _platform.parlo_emulator_set_config(ctypes.byref(config))
    yield limits
    config.session_bytes = before
    _platform.parlo_emulator_set_config(ctypes.byref(config))

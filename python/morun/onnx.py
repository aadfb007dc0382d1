"""Run an ONNX model with its products on the NPU and everything else in NumPy, and judge it layer by layer.

Needs python3-onnx. MatMul, Gemm and Conv (without groups, as products of patches) run on the NPU; convolutions with
groups and all other operators run in NumPy, in f32. Operators that the module does not have are refused by name.
"""

from __future__ import annotations

import inspect
import os
import time
from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass
from typing import Any

import numpy as np
import onnx
from google.protobuf.message import DecodeError  # type: ignore[import]  # Debian has no stubs of it
from numpy.lib.stride_tricks import sliding_window_view
from numpy.typing import NDArray
from onnx import numpy_helper

from . import quant
from ._context import Context, Weights

__all__ = ["NodeTrace", "OPERATORS", "Result", "Session"]

Array = NDArray[Any]
Product = Callable[[Array, Array], Array]  # of an activation and weights: (..., n_inner), n_inner x n_col


@dataclass(frozen=True)
class NodeTrace:
    """What a run did at a node.

    Attributes
    ----------
    name : str
        The node's first output.
    operator : str
    form : str or None
        Of the weights on the NPU; "f16" also for products of two activations. None where NumPy computes.
    shape : tuple[int, int, int] or None
        n_row, n_inner, n_col of a product on the NPU.
    seconds, numpy_seconds : float
        Of the node as it ran, and of the same node in NumPy on f32.
    error : float
        |y - y'| / |y| of the node's output, y being that of the whole model in f32.
    own_error : float
        The same, y being the node's output in f32 from the operands that it had here.
    """

    name: str
    operator: str
    form: str | None
    shape: tuple[int, int, int] | None
    seconds: float
    numpy_seconds: float
    error: float
    own_error: float


@dataclass(frozen=True)
class Result:
    """Outputs by name, and a record for each node where a trace was asked for."""

    outputs: dict[str, Array]
    trace: list[NodeTrace]


# ---- Operators in NumPy ----


def _cast(x: Array, to: int) -> Array:
    if x.dtype.kind not in "fiub" or to in (onnx.TensorProto.STRING, onnx.TensorProto.BFLOAT16):
        raise NotImplementedError(f"Cast of {x.dtype} to {onnx.TensorProto.DataType.Name(to)}")
    return x.astype(onnx.mapping.TENSOR_TYPE_TO_NP_TYPE[to])


def _div(a: Array, b: Array) -> Array:
    if a.dtype.kind not in "iu":
        return np.divide(a, b)
    return (np.abs(a) // np.abs(b) * np.sign(a) * np.sign(b)).astype(a.dtype)  # toward zero


def _sigmoid(x: Array) -> Array:
    with np.errstate(over="ignore"):
        return (np.float32(1) / (np.float32(1) + np.exp(-x))).astype(x.dtype)


def _softmax(x: Array, axis: int = -1, flattens: bool = False) -> Array:
    if flattens:  # until operator set 13: over all dimensions from `axis` on
        return _softmax(x.reshape(int(np.prod(x.shape[:axis % x.ndim])), -1)).reshape(x.shape)
    powers = np.exp(x - x.max(axis=axis, keepdims=True))
    return powers / powers.sum(axis=axis, keepdims=True)


def _batch_normalization(x: Array, scale: Array, bias: Array, mean: Array, variance: Array, epsilon: float = 1e-5,
                         momentum: float = 0.9, training_mode: int = 0) -> Array:
    if training_mode:
        raise NotImplementedError("BatchNormalization in training mode")
    factor = scale / np.sqrt(variance + np.float32(epsilon))
    shape = (1, -1) + (1,) * (x.ndim - 2)
    return x * factor.reshape(shape) + (bias - mean * factor).reshape(shape)


def _clip(x: Array, low: Any = None, high: Any = None, min: float | None = None, max: float | None = None) -> Array:
    low, high = low if min is None else min, high if max is None else max  # attributes until opset 11
    x = x if low is None else np.maximum(x, low)
    return (x if high is None else np.minimum(x, high)).astype(x.dtype)


def _slice(x: Array, starts: Any, ends: Any, axes: Any = None, steps: Any = None) -> Array:
    index = [slice(None)] * x.ndim
    for i, (start, end) in enumerate(zip(starts, ends)):
        axis = i if axes is None else int(axes[i])
        index[axis] = slice(int(start), int(end), 1 if steps is None else int(steps[i]))
    return x[tuple(index)]


def _reshape(x: Array, shape: Array) -> Array:
    return x.reshape([x.shape[i] if extent == 0 else int(extent) for i, extent in enumerate(shape)])


def _squeeze(x: Array, axes: Any = None) -> Array:
    return np.squeeze(x, None if axes is None else tuple(int(axis) for axis in axes))


def _gemm(product: Product, a: Array, b: Array, c: Array | None = None, alpha: float = 1, beta: float = 1,
          transA: int = 0, transB: int = 0) -> Array:
    y = np.float32(alpha) * product(a.T if transA else a, b.T if transB else b)
    return y if c is None else y + np.float32(beta) * c


def _patches(x: Array, kernel: Sequence[int], strides: Sequence[int], pads: Sequence[int],
             dilations: Sequence[int]) -> Array:
    """n, channel, height, width, kernel height, kernel width."""
    x = np.pad(x, ((0, 0), (0, 0), (pads[0], pads[2]), (pads[1], pads[3])))
    spans = [(k - 1) * d + 1 for k, d in zip(kernel, dilations)]
    windows = sliding_window_view(x, spans, (2, 3))  # type: ignore[call-overload]
    return windows[:, :, ::strides[0], ::strides[1], ::dilations[0], ::dilations[1]]


def _window(kernel_shape: Sequence[int], strides: Sequence[int] = (1, 1), pads: Sequence[int] = (0, 0, 0, 0),
            dilations: Sequence[int] = (1, 1), auto_pad: bytes = b"NOTSET", ceil_mode: int = 0) -> tuple[Any, ...]:
    if auto_pad not in (b"NOTSET", b"VALID") or ceil_mode:
        raise NotImplementedError("windows with auto_pad or ceil_mode")
    if len(kernel_shape) != 2:
        raise NotImplementedError(f"windows of {len(kernel_shape)} dimensions")
    return kernel_shape, strides, pads, dilations


def _conv(product: Product, x: Array, w: Array, b: Array | None = None, group: int = 1, **attributes: Any) -> Array:
    attributes.setdefault("kernel_shape", w.shape[2:])
    windows = _window(**attributes)
    if group == 1:
        patches = _patches(x, *windows)
        n, _, height, width = patches.shape[:4]
        rows = np.ascontiguousarray(patches.transpose(0, 2, 3, 1, 4, 5)).reshape(n * height * width, -1)
        y = product(rows, w.reshape(len(w), -1).T).reshape(n, height, width, len(w)).transpose(0, 3, 1, 2)
    else:
        y = _grouped_conv(x, w, group, *windows)
    return np.ascontiguousarray(y if b is None else y + b.reshape(1, -1, 1, 1))


def _grouped_conv(x: Array, w: Array, group: int, *windows: Sequence[int]) -> Array:
    patches = _patches(x, *windows)
    n, channels, height, width = patches.shape[:4]
    if w.shape[1] == 1 and channels == len(w) == group:  # depthwise: one plane after the other of the kernel
        y, scaled = np.zeros((2, n, channels, height, width), np.float32)
        for i, j in np.ndindex(*w.shape[2:]):
            y += np.multiply(patches[..., i, j], w[None, :, 0, i, j, None, None], out=scaled)
        return y
    split = patches.reshape(n, group, channels // group, *patches.shape[2:])
    kernels = w.reshape(group, len(w) // group, *w.shape[1:])
    return np.einsum("ngchwij,gocij->ngohw", split, kernels, optimize=True).reshape(n, len(w), height, width)


def _average_pool(x: Array, count_include_pad: int = 0, **attributes: Any) -> Array:
    windows = _window(**attributes)
    sums = _patches(x, *windows).sum(axis=(4, 5), dtype=np.float32)
    if count_include_pad or not any(windows[2]):
        return sums / np.float32(np.prod(windows[0]))
    return sums / _patches(np.ones_like(x[:1, :1]), *windows).sum(axis=(4, 5), dtype=np.float32)


def _constant(value: Any = None, **other: Any) -> Array:
    if value is None:
        raise NotImplementedError(f"Constant with {', '.join(other)}")
    return numpy_helper.to_array(value)


_NUMPY: dict[str, Callable[..., Array]] = {
    "Add": np.add, "AveragePool": _average_pool, "BatchNormalization": _batch_normalization,
    "Cast": _cast, "Clip": _clip, "Concat": lambda *xs, axis: np.concatenate(xs, axis), "Constant": _constant,
    "Div": _div,
    "GlobalAveragePool": lambda x: x.mean(axis=tuple(range(2, x.ndim)), keepdims=True, dtype=np.float32),
    "HardSigmoid": lambda x, alpha=0.2, beta=0.5: np.clip(np.float32(alpha) * x + np.float32(beta), 0, 1),
    "Mul": np.multiply, "Pow": lambda x, y: np.power(x, y).astype(x.dtype),
    "ReduceMean": lambda x, axes=None, keepdims=1: x.mean(
        axis=None if axes is None else tuple(axes), keepdims=bool(keepdims), dtype=x.dtype),
    "Relu": lambda x: np.maximum(x, 0), "Reshape": _reshape,
    "Shape": lambda x, start=0, end=None: np.array(x.shape[start:end], np.int64),
    "Sigmoid": _sigmoid, "Slice": _slice, "Softmax": _softmax, "Sqrt": np.sqrt, "Squeeze": _squeeze,
    "Sub": np.subtract, "Transpose": lambda x, perm=None: np.transpose(x, perm),
}
_PRODUCTS: dict[str, Callable[..., Array]] = {"Conv": _conv, "Gemm": _gemm,
                                              "MatMul": lambda product, a, b: product(a, b)}
OPERATORS = tuple(sorted([*_NUMPY, *_PRODUCTS]))


# ---- The model ----


class _Node:
    def __init__(self, node: Any) -> None:
        self.operator: str = node.op_type
        self.inputs, self.outputs = list(node.input), list(node.output)
        self.attributes = {a.name: onnx.helper.get_attribute_value(a) for a in node.attribute}
        if node.domain not in ("", "ai.onnx") or self.operator not in OPERATORS:
            raise NotImplementedError(f"the operator {node.domain or 'ai.onnx'}.{self.operator}")
        if len([name for name in self.outputs if name]) != 1:
            raise NotImplementedError(f"{self.operator} with {len(self.outputs)} outputs")
        function = _PRODUCTS.get(self.operator) or _NUMPY[self.operator]
        known = {} if isinstance(function, np.ufunc) else inspect.signature(function).parameters
        variable = any(p.kind is inspect.Parameter.VAR_KEYWORD for p in getattr(known, "values", list)())
        if not variable and (strangers := self.attributes.keys() - set(known)):
            raise NotImplementedError(f"{self.operator} with {', '.join(sorted(strangers))}")

    @property
    def name(self) -> str:
        return self.outputs[0]

    def run(self, values: Mapping[str, Array], product: Product) -> Array:
        operands = [values[name] if name else None for name in self.inputs]
        if self.operator in _PRODUCTS:
            return np.asarray(_PRODUCTS[self.operator](product, *operands, **self.attributes))
        return np.asarray(_NUMPY[self.operator](*operands, **self.attributes))


class Session:
    """A model, ready to run.

    Parameters
    ----------
    path
        An ONNX file.
    weights
        Form of the weights: "f16", "a8w8", "a8w4"; or None, with which NumPy computes everything in f32.
    context
        Where products run; needed unless `weights` is None. The session keeps weights there as long as it lives.
    quantiser
        "minmax", "mse", "calibrated" or "library".
    layers
        Forms of single nodes, by the name of their output; None as a form leaves a node to NumPy.
    calibration
        Inputs of typical runs, whose activations "calibrated" sees.

    Raises
    ------
    NotImplementedError
        The model has an operator that the module does not have; the message names it.
    ValueError
        The file is no ONNX model, a node needs what nothing before it computes, a form or quantiser is unknown,
        `layers` names no product of the model, or a context or calibration is missing.
    """

    def __init__(self, path: str | os.PathLike[str], weights: str | None = "f16", context: Context | None = None,
                 quantiser: str = "minmax", layers: Mapping[str, str | None] | None = None,
                 calibration: Sequence[Mapping[str, Array]] = ()) -> None:
        try:
            model = onnx.load(os.fspath(path))
        except DecodeError as error:
            raise ValueError(f"{os.fspath(path)} is no ONNX model: {error}") from None
        graph = model.graph
        version = max((o.version for o in model.opset_import if o.domain in ("", "ai.onnx")), default=1)
        self._nodes = [_Node(node) for node in graph.node]
        for node in self._nodes:
            if node.operator == "Softmax" and version < 13:
                node.attributes = {"axis": 1, **node.attributes, "flattens": True}
        self._constants = {tensor.name: numpy_helper.to_array(tensor) for tensor in graph.initializer}
        self._constants.update({node.name: node.run({}, np.matmul) for node in self._nodes
                                if node.operator == "Constant"})
        self._nodes = [node for node in self._nodes if node.operator != "Constant"]
        self.inputs = [value.name for value in graph.input if value.name not in self._constants]
        self.outputs = [value.name for value in graph.output]
        if any(v.type.tensor_type.elem_type == onnx.TensorProto.BFLOAT16 for v in [*graph.input, *graph.output]):
            raise NotImplementedError("inputs or outputs of bf16")
        self._dtypes = {v.name: onnx.mapping.TENSOR_TYPE_TO_NP_TYPE[v.type.tensor_type.elem_type] for v in graph.input
                        if v.type.tensor_type.elem_type}
        self._check_names(os.fspath(path))
        if not isinstance(context, (Context, type(None))):
            raise TypeError(f"context has to be a Context, not {type(context).__name__}")
        self.context = context
        self.forms = self._choose_forms(weights, dict(layers or {}))
        self._uploaded: dict[str, Weights] = {}
        if any(self.forms.values()):
            self._upload(quantiser, calibration)

    def _check_names(self, path: str) -> None:
        if not self.outputs:
            raise ValueError(f"{path} is no ONNX model: it has no outputs")
        known = {*self._constants, *self.inputs, ""}
        for node in self._nodes:
            if strangers := set(node.inputs) - known:
                raise ValueError(f"{path}: nothing before {node.name} computes {', '.join(sorted(strangers))}")
            known.add(node.name)
        if strangers := set(self.outputs) - known:
            raise ValueError(f"{path}: nothing computes {', '.join(sorted(strangers))}")

    def _choose_forms(self, weights: str | None, layers: dict[str, str | None]) -> dict[str, str | None]:
        forms: dict[str, str | None] = {}
        for node in self._nodes:
            if node.operator not in _PRODUCTS or node.attributes.get("group", 1) != 1:
                continue
            form = layers.pop(node.name, weights)
            if form not in (None, "f16", "a8w8", "a8w4"):
                raise ValueError(f"form is {form!r}; it has to be one of f16, a8w8, a8w4 or None")
            forms[node.name] = form and (form if self._has_weights(node) else "f16")
        if layers:
            raise ValueError(f"no product of the model is called {', '.join(layers)}")
        if any(forms.values()) and self.context is None:
            raise ValueError("products on the NPU need a context")
        return forms

    def _has_weights(self, node: _Node) -> bool:
        """Products of two activations have no weights to be quantised, nor have products of vectors and batches."""
        w = self._constants.get(node.inputs[1])
        return w is not None and (node.operator != "MatMul" or w.ndim == 2)

    def _upload(self, quantiser: str, calibration: Sequence[Mapping[str, Array]]) -> None:
        assert self.context is not None
        activations: dict[str, list[Array]] = {}
        if quantiser == "calibrated":
            if not calibration:
                raise ValueError("the quantiser calibrated needs inputs for calibration")
            for feeds in calibration:
                self._run(feeds, lambda node: self._recording(node, activations))
        for node in self._nodes:
            form = self.forms.get(node.name)
            if form is None or not self._has_weights(node):
                continue
            w = self._constants[node.inputs[1]]
            if node.operator == "Conv":
                w = w.reshape(len(w), -1).T
            elif node.attributes.get("transB"):
                w = w.T
            known = quant.Calibration(np.concatenate(activations[node.name])) if node.name in activations else None
            self._uploaded[node.name] = self.context.upload(
                quant.quantise(np.ascontiguousarray(w, np.float32), form, quantiser, known))

    def _recording(self, node: _Node, activations: dict[str, list[Array]]) -> Product:
        def product(x: Array, w: Array) -> Array:
            if self.forms.get(node.name) in ("a8w8", "a8w4"):
                rows = x.reshape(-1, x.shape[-1])
                activations.setdefault(node.name, []).append(np.ascontiguousarray(rows, np.float32))
            return np.matmul(x, w)
        return product

    def _on_npu(self, node: _Node) -> Product:
        if self.forms.get(node.name) is None:
            return np.matmul
        assert self.context is not None
        matmul, uploaded = self.context.matmul, self._uploaded.get(node.name)

        def product(x: Array, w: Array) -> Array:
            if x.dtype.kind != "f" or w.dtype.kind != "f":
                return np.matmul(x, w)
            if w.ndim == 1:
                return np.asarray(product(x, w[:, None])[..., 0])
            if x.ndim == 1:
                return np.asarray(product(x[None], w)[..., 0, :])
            x = np.ascontiguousarray(x, np.float32)
            if uploaded is not None:
                return matmul(x, uploaded)
            if w.ndim == 2:
                return matmul(x, np.ascontiguousarray(w, np.float32))
            pairs = np.broadcast_shapes(x.shape[:-2], w.shape[:-2])  # one product for each matrix of the batch
            xs = np.broadcast_to(x, pairs + x.shape[-2:]).reshape(-1, *x.shape[-2:])
            ws = np.broadcast_to(w, pairs + w.shape[-2:]).reshape(-1, *w.shape[-2:])
            results = [matmul(a, np.ascontiguousarray(b, np.float32)) for a, b in zip(xs, ws)]
            return np.stack(results).reshape(*pairs, x.shape[-2], w.shape[-1])
        return product

    def _run(self, feeds: Mapping[str, Array], product_of: Callable[[_Node], Product],
             seen: Callable[[_Node, dict[str, Array], float], None] | None = None) -> dict[str, Array]:
        if strangers := set(feeds) - set(self.inputs):
            raise ValueError(f"the model has no inputs {', '.join(sorted(strangers))}")
        if missing := set(self.inputs) - set(feeds):
            raise ValueError(f"the model needs inputs {', '.join(sorted(missing))}")
        values = {**self._constants, **{name: np.asarray(value) for name, value in feeds.items()}}
        for name, dtype in self._dtypes.items():
            if name in self.inputs and values[name].dtype != dtype:
                raise TypeError(f"input {name} has dtype {values[name].dtype}; the model takes {dtype}")
        for node in self._nodes:
            start = time.perf_counter()
            values[node.name] = node.run(values, product_of(node))
            if seen is not None:
                seen(node, values, time.perf_counter() - start)
        return values

    def run(self, feeds: Mapping[str, Array], trace: bool = False) -> Result:
        """Run the model.

        Parameters
        ----------
        feeds
            The model's inputs by name.
        trace
            Whether to run every node in NumPy too, in f32, and to record times and errors.

        Returns
        -------
        Result

        Raises
        ------
        TypeError
            An input has another dtype than the model says.
        ValueError
            An input is missing, unknown or does not fit, or the context is closed.
        """
        records: list[NodeTrace] = []
        seen = None
        if trace:
            exact = self._run(feeds, lambda node: np.matmul)

            def seen(node: _Node, values: dict[str, Array], seconds: float) -> None:
                shapes: list[tuple[int, int, int]] = []

                def product(x: Array, w: Array) -> Array:
                    shapes.append((int(np.prod(x.shape[:-1])), x.shape[-1],
                                   w.shape[-1] if w.ndim > 1 else 1))
                    return np.matmul(x, w)

                start = time.perf_counter()
                alone = node.run(values, product)
                numpy_seconds = time.perf_counter() - start
                form, y = self.forms.get(node.name), values[node.name]
                records.append(NodeTrace(node.name, node.operator, form, shapes[0] if form else None, seconds,
                                         numpy_seconds, _relative_error(exact[node.name], y),
                                         _relative_error(alone, y)))
        values = self._run(feeds, self._on_npu, seen)
        return Result({name: values[name] for name in self.outputs}, records)


def _relative_error(exact: Array, values: Array) -> float:
    wide = exact.astype(np.float64)
    norm, error = np.linalg.norm(wide), np.linalg.norm(values - wide)
    return float(error / norm) if norm else float(error)

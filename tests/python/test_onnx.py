"""Models: operators against the cases of the ONNX project, and what a session does with forms."""

import importlib
import warnings

import numpy as np
import onnx
import pytest
from onnx import TensorProto, helper

import morun
import morun.onnx
from morun import quant, reference

with warnings.catch_warnings():
    warnings.simplefilter("ignore")
    from onnx.backend.test.case import node as cases
    for operator in morun.onnx.OPERATORS:
        importlib.import_module(cases.__name__ + "." + operator.lower().replace("batchnormalization", "batchnorm"))
CASES = {case.name: case for case in cases._NodeTestCases
         if [n.op_type for n in case.model.graph.node][0] in morun.onnx.OPERATORS and len(case.model.graph.node) == 1}
# What the module does not take, and says by name.
REFUSED = {*(name for name in CASES if "same" in name or "training" in name), "test_averagepool_1d_default",
           "test_averagepool_2d_ceil", "test_averagepool_3d_default", "test_cast_BFLOAT16_to_FLOAT",
           "test_cast_FLOAT_to_BFLOAT16", "test_cast_FLOAT_to_STRING", "test_cast_STRING_to_FLOAT",
           "test_reshape_allowzero_reordered"}


@pytest.mark.parametrize("name", CASES)
def test_cases_of_the_onnx_project(name, tmp_path, context):
    onnx.save(CASES[name].model, tmp_path / "model.onnx")

    def run(*options):
        session = morun.onnx.Session(tmp_path / "model.onnx", *options)
        for inputs, outputs in CASES[name].data_sets:
            for y, wanted in zip(session.run(dict(zip(session.inputs, inputs))).outputs.values(), outputs, strict=True):
                assert y.dtype == wanted.dtype and y.shape == wanted.shape
                yield y, wanted

    if name in REFUSED:
        with pytest.raises(NotImplementedError, match=CASES[name].model.graph.node[0].op_type + "|windows|bf16"):
            list(run(None))
        return
    for y, wanted in run(None):
        np.testing.assert_allclose(y, wanted, rtol=1e-3, atol=1e-5)
    for y, wanted in run("f16", context):
        np.testing.assert_allclose(y, wanted, rtol=0.01, atol=0.01)


def test_products_of_two_activations_are_f16_in_every_form(tmp_path, context):
    case = CASES["test_matmul_4d"]
    onnx.save(case.model, tmp_path / "model.onnx")
    session = morun.onnx.Session(tmp_path / "model.onnx", "a8w4", context)
    node, = session.run(dict(zip(session.inputs, case.data_sets[0][0])), trace=True).trace
    assert node.form == "f16" and 1e-5 < node.own_error < 1e-3
    assert len(CASES) - len(REFUSED) > 140  # and the cases are many


@pytest.fixture
def model(tmp_path):
    """A convolution, a ReLU, a matrix product with a transposed Gemm behind it; weights of very different sizes."""
    rng = np.random.default_rng(6)
    tensors = {"c": rng.standard_normal((8, 3, 3, 3)), "m": rng.standard_normal((8, 33)) * 9,
               "g": rng.standard_normal((5, 33)), "b": rng.standard_normal(5), "shape": None}
    nodes = [helper.make_node("Conv", ["x", "c"], ["conv"], pads=[1, 0, 1, 2], strides=[2, 1]),
             helper.make_node("Relu", ["conv"], ["relu"]),
             helper.make_node("Transpose", ["relu"], ["t"], perm=[0, 2, 3, 1]),
             helper.make_node("MatMul", ["t", "m"], ["mat"]), helper.make_node("Reshape", ["mat", "shape"], ["flat"]),
             helper.make_node("Gemm", ["flat", "g", "b"], ["gemm"], transB=1, alpha=0.5)]
    initial = [helper.make_tensor(k, TensorProto.FLOAT, v.shape, v.astype(np.float32).ravel())
               for k, v in tensors.items() if v is not None]
    initial.append(helper.make_tensor("shape", TensorProto.INT64, [2], [-1, 33]))
    graph = helper.make_graph(nodes, "g", [helper.make_tensor_value_info("x", TensorProto.FLOAT, [1, 3, 9, "w"])],
                              [helper.make_tensor_value_info("gemm", TensorProto.FLOAT, ["r", 5])], initial)
    onnx.save(helper.make_model(graph), tmp_path / "model.onnx")
    return tmp_path / "model.onnx", {k: v.astype(np.float32) for k, v in tensors.items() if v is not None}


X = np.random.default_rng(7).standard_normal((1, 3, 9, 10)).astype(np.float32)


@pytest.mark.parametrize("quantiser", ["minmax", "mse", "calibrated"])
def test_weights_in_chosen_forms(model, context, quantiser):
    path, tensors = model
    layers = {"mat": "a8w8", "gemm": None}
    result = morun.onnx.Session(path, "a8w4", context, quantiser, layers, [{"x": X}]).run({"x": X}, trace=True)
    trace = {node.name: node for node in result.trace}
    assert [node.form for node in result.trace] == ["a8w4", None, None, "a8w8", None, None]
    assert trace["conv"].shape == (5 * 10, 27, 8) and trace["mat"].shape == (50, 8, 33)
    assert 0.02 < trace["conv"].own_error < 0.2 and trace["conv"].error == trace["conv"].own_error
    assert trace["mat"].own_error < 0.02 < trace["mat"].error and trace["gemm"].own_error < 1e-6 < trace["gemm"].error
    assert all(node.seconds > 0 and node.numpy_seconds > 0 for node in result.trace)
    outputs = [morun.onnx.Session(path, *more).run({"x": X}).outputs["gemm"] for more in ([None], ["f16", context])]
    assert 0 < np.linalg.norm(outputs[1] - outputs[0]) / np.linalg.norm(outputs[0]) < 2e-3
    if quantiser == "calibrated":
        return
    # The convolution is the product of its patches and its packed kernels.
    padded = np.pad(X, ((0, 0), (0, 0), (1, 1), (0, 2)))
    patches = np.array([padded[0, :, 2 * i:2 * i + 3, j:j + 3].ravel() for i in range(5) for j in range(10)])
    packed = quant.quantise(np.ascontiguousarray(tensors["c"].reshape(8, 27).T), "a8w4", quantiser)
    conv = reference.npu_matmul_numpy(patches, packed)
    rows = np.maximum(conv, 0)
    mat = reference.npu_matmul_numpy(rows, quant.quantise(tensors["m"], "a8w8", quantiser))
    np.testing.assert_allclose(result.outputs["gemm"], 0.5 * mat @ tensors["g"].T + tensors["b"], rtol=1e-4, atol=1e-4)


@pytest.mark.parametrize("kind, text, options", [
    (ValueError, "'int3'", ("int3",)), (ValueError, "context", ("f16", None)), (ValueError, "'x1'", ("f16", ..., "x1")),
    (ValueError, "nothing", ("f16", ..., "mse", {"nothing": None})),
    (ValueError, "calibrat", ("a8w4", ..., "calibrated")), (TypeError, "Context, not str", ("f16", "context"))])
def test_refused_sessions(kind, text, options, model, context):
    with pytest.raises(kind, match=text):
        morun.onnx.Session(model[0], *(context if option is ... else option for option in options))
    for feeds, text in (({}, "needs inputs x"), ({"x": X, "y": X}, "no inputs y"), ({"x": X, "c": X}, "no inputs c")):
        with pytest.raises(ValueError, match=text):
            morun.onnx.Session(model[0], None).run(feeds)
    with pytest.raises(TypeError, match="x has dtype float64; the model takes float32"):
        morun.onnx.Session(model[0], None).run({"x": X.astype(float)})


def test_weights_of_other_dimensions_are_f16_in_every_form(tmp_path, context):
    value, rng = helper.make_tensor_value_info("x", TensorProto.FLOAT, None), np.random.default_rng(8)
    shapes = ((40,), (40,)), ((5, 40), (40,)), ((40,), (40, 3)), ((40,), (2, 40, 3)), ((5, 40), (2, 40, 3))
    for x_shape, w_shape in shapes:
        x, w = (rng.standard_normal(shape).astype(np.float32) for shape in (x_shape, w_shape))
        node = helper.make_node("MatMul", ["x", "w"], ["y"])
        graph = helper.make_graph([node], "g", [value], [helper.make_tensor_value_info("y", TensorProto.FLOAT, None)],
                                  [helper.make_tensor("w", TensorProto.FLOAT, w_shape, w.ravel())])
        onnx.save(helper.make_model(graph), tmp_path / "model.onnx")
        result = morun.onnx.Session(tmp_path / "model.onnx", "a8w8", context).run({"x": x}, trace=True)
        assert result.trace[0].form == ("a8w8" if len(w_shape) == 2 else "f16")
        assert result.trace[0].shape[1:] == (40, 3 if len(w_shape) > 1 else 1)
        np.testing.assert_allclose(result.outputs["y"], x @ w, atol=0.2 if len(w_shape) == 2 else 0.02)


@pytest.mark.parametrize("inputs, output, text", [
    (["x", "q"], "y", "nothing before y computes q"), (["x", "y"], "y", "nothing before y computes y"),
    (["x", "x"], "z", "nothing computes z"), (["x", "x"], None, "no outputs")])
def test_a_model_whose_names_lead_nowhere_is_refused(inputs, output, text, tmp_path):
    value = {name: helper.make_tensor_value_info(name, TensorProto.FLOAT, [1]) for name in "xyz"}
    node = helper.make_node("Add", inputs, ["y"])
    graph = helper.make_graph([node], "g", [value["x"]], [value[output]] if output else [])
    onnx.save(helper.make_model(graph), tmp_path / "model.onnx")
    with pytest.raises(ValueError, match=text):
        morun.onnx.Session(tmp_path / "model.onnx", None)


def test_an_unknown_operator_is_named(tmp_path):
    value = helper.make_tensor_value_info("x", TensorProto.FLOAT, [1])
    for node, text in ((helper.make_node("LSTM", ["x"], ["y"]), "ai.onnx.LSTM"),
                       (helper.make_node("Add", ["x", "x"], ["y"], domain="my"), "my.Add"),
                       (helper.make_node("Softmax", ["x"], ["y"], spin=1), "Softmax with spin")):
        onnx.save(helper.make_model(helper.make_graph([node], "g", [value], [])), tmp_path / "model.onnx")
        with pytest.raises(NotImplementedError, match=text):
            morun.onnx.Session(tmp_path / "model.onnx", None)

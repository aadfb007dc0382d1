"""Dense matrix products on the matrix unit of a DSP: NumPy arrays in, NumPy arrays out.

Context     products and weights on the DSP
pack, inspect, PackedFile
            packed files of weights
layouts, half, quant, reference
            what the library computes on the host, each beside the same in NumPy
onnx, plot  modules of their own, which need python3-onnx and python3-matplotlib
"""

from . import half, layouts, quant, reference
from ._arrays import as_f32
from ._context import Context, Weights, info
from ._files import Decision, PackedFile, Tensor, inspect, pack
from ._library import Error
from ._version import VERSION as __version__
from .quant import PackedMatrix

__all__ = ["Context", "Decision", "Error", "PackedFile", "PackedMatrix", "Tensor", "Weights", "as_f32", "half", "info",
           "inspect", "layouts", "pack", "quant", "reference"]

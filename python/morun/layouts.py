"""The layouts of the matrix unit as conversions of arrays.

A tiled matrix comes as an array whose first two axes count tiles and whose other axes are the order inside a tile:

======================  ==========================  ======================================================
layout                  shape for R x C elements    element (r, c) stands at
======================  ==========================  ======================================================
ah, f16                 (R/32, C/32, 16, 32, 2)     [r/32, c/32, r%32/2, c%32, r%2]
wh, f16                 (R/32, C/32, 16, 32, 2)     [r/32, c/32, c%32/2, r%32, c%2]
wh, i8                  (R/32, C/32, 8, 32, 4)      [r/32, c/32, c%32/4, r%32, c%4]
wh, i4 (bytes)          (R/32, C/32, 4, 32, 4)      [r/32, c/32, c%32/8, r%32, c%4], low nibble if c%8 < 4
ah, 8 and 32 bits       (R/64, C/32, 64, 32)        [r/64, c/32, r%64, c%32]
zb                      (R/4, C/8, 4, 8)            [r/4, c/8, r%4, c%8]
blocks of m x n         (R/m, C/n, m, n)            [r/m, c/n, r%m, c%n]
======================  ==========================  ======================================================

Matrices of any extents are taken: zeros pad them to whole tiles. Conversions back take the extents and cut. No function
changes its operand. NAME_numpy beside each function is the same in NumPy alone.

All functions raise TypeError for another dtype and for extents that are no integers, and ValueError for another number
of dimensions, for operands that are not C-contiguous, and for tiles that do not have the shape above.
"""

from __future__ import annotations

from typing import Any

import numpy as np
from numpy.typing import NDArray

from ._arrays import integer, operand, padded
from ._library import address, tavik

__all__ = [
    "block_linearize", "block_linearize_numpy", "block_unlinearize", "block_unlinearize_numpy", "f16_ah_to_f16_rm",
    "f16_ah_to_f16_rm_numpy", "f16_ah_to_f32_rm", "f16_ah_to_f32_rm_numpy", "f16_cm_to_f16_zb",
    "f16_cm_to_f16_zb_numpy", "f16_rm_to_f16_ah", "f16_rm_to_f16_ah_numpy", "f16_rm_to_f16_wh",
    "f16_rm_to_f16_wh_numpy", "f32_rm_to_f16_ah", "f32_rm_to_f16_ah_numpy", "i32_ah_to_i32_rm",
    "i32_ah_to_i32_rm_numpy", "i4_cm_to_i4_wh", "i4_cm_to_i4_wh_numpy", "i4_rm_to_i4_wh", "i4_rm_to_i4_wh_numpy",
    "i4_tile", "i4_tile_numpy", "i8_rm_to_i8_wh", "i8_rm_to_i8_wh_numpy", "pack_i4", "transpose", "transpose_numpy",
    "u8_rm_to_u8_ah", "u8_rm_to_u8_ah_numpy", "unpack_i4", "words_rm_to_i4_wh", "words_rm_to_i4_wh_numpy",
]

Array = NDArray[Any]
_BLOCK_CODES = {np.dtype(dtype): code for dtype, code in (
    (np.int8, "i8"), (np.uint8, "u8"), (np.float16, "f16"), (np.int32, "i32"), (np.uint32, "u32"), (np.float32, "f32"))}


def _tiles(tiles: Array, dtype: type, inside: tuple[int, ...], tile: tuple[int, int], n_row: int,
           n_col: int) -> tuple[Array, int, int]:
    """The arguments, where `tiles` are those of an n_row x n_col matrix, otherwise TypeError or ValueError."""
    n_row, n_col = integer(n_row, "n_row"), integer(n_col, "n_col")
    tiles = operand(tiles, "tiles", (dtype,), 2 + len(inside))
    wanted = (-(-n_row // tile[0]), -(-n_col // tile[1]), *inside)
    if tiles.shape != wanted:
        raise ValueError(f"tiles have shape {tiles.shape}; those of {n_row} x {n_col} elements have {wanted}")
    return tiles, n_row, n_col


def _in_place(name: str, matrix: Array, dtype: type, tile: tuple[int, int], inside: tuple[int, ...]) -> Array:
    result = padded(operand(matrix, "matrix", (dtype,)), *tile)
    n_row, n_col = result.shape
    getattr(tavik, f"tavik_{name}_inplace")(n_row, n_col, address(result))
    return result.reshape(n_row // tile[0], n_col // tile[1], *inside)


# ---- f16 ----


def f16_rm_to_f16_ah(matrix: NDArray[np.float16]) -> NDArray[np.float16]:
    """Row-major f16 to tiles of activations."""
    return _in_place("f16_rm_to_f16_ah", matrix, np.float16, (32, 32), (16, 32, 2))


def f16_rm_to_f16_ah_numpy(matrix: NDArray[np.float16]) -> NDArray[np.float16]:
    """`f16_rm_to_f16_ah` in NumPy."""
    m = padded(matrix, 32, 32)
    tiles = m.reshape(m.shape[0] // 32, 16, 2, m.shape[1] // 32, 32)
    return np.ascontiguousarray(tiles.transpose(0, 3, 1, 4, 2))


def f16_ah_to_f16_rm(tiles: NDArray[np.float16], n_row: int, n_col: int) -> NDArray[np.float16]:
    """Tiles of activations or results to row-major f16, n_row x n_col."""
    tiles, n_row, n_col = _tiles(tiles, np.float16, (16, 32, 2), (32, 32), n_row, n_col)
    result = tiles.copy()
    shape = result.shape[0] * 32, result.shape[1] * 32
    tavik.tavik_f16_ah_to_f16_rm_inplace(*shape, address(result))
    return result.reshape(shape)[:n_row, :n_col].copy()


def f16_ah_to_f16_rm_numpy(tiles: NDArray[np.float16], n_row: int, n_col: int) -> NDArray[np.float16]:
    """`f16_ah_to_f16_rm` in NumPy."""
    shape = tiles.shape[0] * 32, tiles.shape[1] * 32
    return tiles.transpose(0, 2, 4, 1, 3).reshape(shape)[:n_row, :n_col].copy()


def f32_rm_to_f16_ah(matrix: NDArray[np.float32]) -> NDArray[np.float16]:
    """Row-major f32 to tiles of activations in f16, rounded to nearest even."""
    columns = padded(operand(matrix, "matrix", (np.float32,)), 1, 32)
    n_row, n_col = columns.shape
    result = np.zeros((-(-n_row // 32), n_col // 32, 16, 32, 2), np.float16)
    tavik.tavik_f32_rm_to_f16_ah(n_row, n_col, address(columns), address(result))
    return result


def f32_rm_to_f16_ah_numpy(matrix: NDArray[np.float32]) -> NDArray[np.float16]:
    """`f32_rm_to_f16_ah` in NumPy."""
    with np.errstate(over="ignore", under="ignore"):
        return f16_rm_to_f16_ah_numpy(matrix.astype(np.float16))


def f16_ah_to_f32_rm(tiles: NDArray[np.float16], n_row: int, n_col: int) -> NDArray[np.float32]:
    """Tiles of results to row-major f32, n_row x n_col."""
    tiles, n_row, n_col = _tiles(tiles, np.float16, (16, 32, 2), (32, 32), n_row, n_col)
    result = np.empty((n_row, tiles.shape[1] * 32), np.float32)
    tavik.tavik_f16_ah_to_f32_rm(*result.shape, address(tiles), address(result))
    return result[:, :n_col].copy()


def f16_ah_to_f32_rm_numpy(tiles: NDArray[np.float16], n_row: int, n_col: int) -> NDArray[np.float32]:
    """`f16_ah_to_f32_rm` in NumPy."""
    return f16_ah_to_f16_rm_numpy(tiles, n_row, n_col).astype(np.float32)


def f16_rm_to_f16_wh(matrix: NDArray[np.float16]) -> NDArray[np.float16]:
    """Row-major f16 to tiles of weights."""
    return _in_place("f16_rm_to_f16_wh", matrix, np.float16, (32, 32), (16, 32, 2))


def _rm_to_wh_numpy(matrix: Array, n_together: int) -> Array:
    m = padded(matrix, 32, 32)
    tiles = m.reshape(m.shape[0] // 32, 32, m.shape[1] // 32, 32 // n_together, n_together)
    return np.ascontiguousarray(tiles.transpose(0, 2, 3, 1, 4))


def f16_rm_to_f16_wh_numpy(matrix: NDArray[np.float16]) -> NDArray[np.float16]:
    """`f16_rm_to_f16_wh` in NumPy."""
    return _rm_to_wh_numpy(matrix, 2)


def f16_cm_to_f16_zb(columns: NDArray[np.float16]) -> NDArray[np.float16]:
    """Weights column by column, n_col x n_inner, to the blocks of the reference products."""
    return _in_place("f16_cm_to_f16_zb", columns, np.float16, (4, 8), (4, 8))


def f16_cm_to_f16_zb_numpy(columns: NDArray[np.float16]) -> NDArray[np.float16]:
    """`f16_cm_to_f16_zb` in NumPy."""
    return block_linearize_numpy(columns, 4, 8)


# ---- Integers ----


def i8_rm_to_i8_wh(matrix: NDArray[np.int8]) -> NDArray[np.int8]:
    """Row-major i8 to tiles of weights."""
    return _in_place("i8_rm_to_i8_wh", matrix, np.int8, (32, 32), (8, 32, 4))


def i8_rm_to_i8_wh_numpy(matrix: NDArray[np.int8]) -> NDArray[np.int8]:
    """`i8_rm_to_i8_wh` in NumPy."""
    return _rm_to_wh_numpy(matrix, 4)


def u8_rm_to_u8_ah(matrix: NDArray[np.uint8]) -> NDArray[np.uint8]:
    """Row-major u8 to tiles of activations."""
    m = padded(operand(matrix, "matrix", (np.uint8,)), 64, 32)
    result = np.empty((m.shape[0] // 64, m.shape[1] // 32, 64, 32), np.uint8)
    tavik.morun_cpu_rm_to_wh_i8(m.shape[1], m.shape[0], address(m), address(result))
    return result


def u8_rm_to_u8_ah_numpy(matrix: NDArray[np.uint8]) -> NDArray[np.uint8]:
    """`u8_rm_to_u8_ah` in NumPy."""
    return block_linearize_numpy(matrix, 64, 32)


def i32_ah_to_i32_rm(tiles: NDArray[np.int32], n_row: int, n_col: int) -> NDArray[np.int32]:
    """Tiles of integer results to row-major i32, n_row x n_col."""
    tiles, n_row, n_col = _tiles(tiles, np.int32, (64, 32), (64, 32), n_row, n_col)
    result = np.empty((n_row, tiles.shape[1] * 32), np.int32)
    tavik.morun_cpu_ui8i8_ah_to_i32_rm(*result.shape, address(tiles), address(result))
    return result[:, :n_col].copy()


def i32_ah_to_i32_rm_numpy(tiles: NDArray[np.int32], n_row: int, n_col: int) -> NDArray[np.int32]:
    """`i32_ah_to_i32_rm` in NumPy."""
    return block_unlinearize_numpy(tiles, n_row, n_col)


# ---- 4 bits ----


def pack_i4(values: NDArray[np.int8]) -> NDArray[np.uint32]:
    """Pack n_row x n_col values -8 ... 7 eight to a word, the first in the lowest nibble. Zeros fill the last words."""
    nibbles = padded(operand(values, "values", (np.int8,)), 1, 8).astype(np.uint32) & np.uint32(15)
    groups = nibbles.reshape(nibbles.shape[0], nibbles.shape[1] // 8, 8) << np.arange(0, 32, 4, dtype=np.uint32)
    return np.bitwise_or.reduce(groups, axis=2, dtype=np.uint32)


def unpack_i4(words: NDArray[np.uint32], n_col: int) -> NDArray[np.int8]:
    """The first n_col values of each row of words, signed."""
    words = operand(words, "words", (np.uint32,))
    n_col = integer(n_col, "n_col", 0, 8 * words.shape[1])
    nibbles = (words[..., None] >> np.arange(0, 32, 4, dtype=np.uint32)) & np.uint32(15)
    rows = nibbles.reshape(words.shape[0], words.shape[1] * 8)
    return ((rows[:, :n_col] ^ np.uint32(8)).astype(np.int8) - np.int8(8)).astype(np.int8)


def words_rm_to_i4_wh(words: NDArray[np.uint32]) -> NDArray[np.uint8]:
    """Row-major words of eight values, as `pack_i4` makes them, to tiles of weights."""
    m = padded(operand(words, "words", (np.uint32,)), 32, 4)
    tavik.tavik_i4_rm_to_i4_wh_inplace(m.shape[0], 8 * m.shape[1], address(m))
    return m.view(np.uint8).reshape(m.shape[0] // 32, m.shape[1] // 4, 4, 32, 4)


def words_rm_to_i4_wh_numpy(words: NDArray[np.uint32]) -> NDArray[np.uint8]:
    """`words_rm_to_i4_wh` in NumPy."""
    return i4_rm_to_i4_wh_numpy(unpack_i4(words, 8 * words.shape[1]))


def i4_rm_to_i4_wh(values: NDArray[np.int8]) -> NDArray[np.uint8]:
    """Row-major values, whose low four bits count, to tiles of weights."""
    values = operand(values, "values", (np.int8,))
    n_row, n_col = values.shape
    result = np.zeros((-(-n_row // 32), -(-n_col // 32), 4, 32, 4), np.uint8)
    if result.size:
        tavik.morun_cpu_rm_to_wh_i4(address(result), address(values), n_col, n_row)
    return result


def i4_rm_to_i4_wh_numpy(values: NDArray[np.int8]) -> NDArray[np.uint8]:
    """`i4_rm_to_i4_wh` in NumPy."""
    m = padded(values, 32, 32).view(np.uint8) & np.uint8(15)
    tiles = m.reshape(m.shape[0] // 32, 32, m.shape[1] // 32, 4, 2, 4).transpose(0, 2, 3, 1, 5, 4)
    return tiles[..., 0] | tiles[..., 1] << np.uint8(4)


def i4_cm_to_i4_wh(columns: NDArray[np.int8]) -> NDArray[np.uint8]:
    """Values column by column, n_col x n_inner, to tiles of weights of the n_inner x n_col matrix."""
    columns = operand(columns, "columns", (np.int8,))
    n_col, n_inner = columns.shape
    result = np.zeros((-(-n_inner // 32), -(-n_col // 32), 4, 32, 4), np.uint8)
    tavik.tavik_host_layout_w4_flat_to_weight(address(result), address(columns), n_col, n_inner)
    return result


def i4_cm_to_i4_wh_numpy(columns: NDArray[np.int8]) -> NDArray[np.uint8]:
    """`i4_cm_to_i4_wh` in NumPy."""
    return i4_rm_to_i4_wh_numpy(np.ascontiguousarray(columns.T))


def i4_tile(tile: NDArray[np.int8]) -> NDArray[np.uint8]:
    """A 32 x 32 tile of values column by column to the 512 bytes of a tile of weights, (4, 32, 4)."""
    tile = operand(tile, "tile", (np.int8,))
    if tile.shape != (32, 32):
        raise ValueError(f"the tile has shape {tile.shape}; it has to be 32 x 32")
    result = np.empty((4, 32, 4), np.uint8)
    tavik.tavik_host_layout_flat_to_w4_tile32x32(address(result), address(tile))
    return result


def i4_tile_numpy(tile: NDArray[np.int8]) -> NDArray[np.uint8]:
    """`i4_tile` in NumPy."""
    return i4_cm_to_i4_wh_numpy(tile)[0, 0]


# ---- Blocks of any extents: i8, u8, f16, i32, u32, f32 ----


def block_linearize(matrix: Array, block_rows: int, block_cols: int) -> Array:
    """Row-major to blocks, one row of blocks after the other, each row-major inside."""
    block_rows = integer(block_rows, "block_rows", 1, 2**31 - 1)
    block_cols = integer(block_cols, "block_cols", 1, 2**31 - 1)
    m = padded(operand(matrix, "matrix", tuple(_BLOCK_CODES)), block_rows, block_cols)
    n_row, n_col = m.shape
    function = getattr(tavik, f"tavik_matrix_block_linearize_{_BLOCK_CODES[m.dtype]}")
    function(n_row, n_col, block_rows, block_cols, address(m))
    return m.reshape(n_row // block_rows, n_col // block_cols, block_rows, block_cols)


def block_linearize_numpy(matrix: Array, block_rows: int, block_cols: int) -> Array:
    """`block_linearize` in NumPy."""
    m = padded(matrix, block_rows, block_cols)
    blocks = m.reshape(m.shape[0] // block_rows, block_rows, m.shape[1] // block_cols, block_cols)
    return np.ascontiguousarray(blocks.transpose(0, 2, 1, 3))


def block_unlinearize(blocks: Array, n_row: int, n_col: int) -> Array:
    """Blocks to a row-major n_row x n_col matrix; the padding of the edge blocks goes."""
    block_rows, block_cols = operand(blocks, "blocks", tuple(_BLOCK_CODES), 4).shape[2:]
    if block_rows == 0 or block_cols == 0:
        raise ValueError(f"blocks of {block_rows} x {block_cols} elements are empty")
    blocks, n_row, n_col = _tiles(blocks, blocks.dtype.type, (block_rows, block_cols), (block_rows, block_cols), n_row,
                                  n_col)
    result = blocks.copy()
    function = getattr(tavik, f"tavik_matrix_block_unlinearize_{_BLOCK_CODES[blocks.dtype]}")
    function(n_row, n_col, block_rows, block_cols, address(result))
    return result.ravel()[:n_row * n_col].reshape(n_row, n_col)


def block_unlinearize_numpy(blocks: Array, n_row: int, n_col: int) -> Array:
    """`block_unlinearize` in NumPy."""
    shape = blocks.shape[0] * blocks.shape[2], blocks.shape[1] * blocks.shape[3]
    return blocks.transpose(0, 2, 1, 3).reshape(shape)[:n_row, :n_col].copy()


def transpose(matrix: Array) -> Array:
    """A row-major n_row x n_col matrix to a row-major n_col x n_row one."""
    result = operand(matrix, "matrix", tuple(_BLOCK_CODES)).copy()
    getattr(tavik, f"tavik_matrix_transpose_{_BLOCK_CODES[result.dtype]}")(*result.shape, address(result))
    return result.reshape(result.shape[::-1])


def transpose_numpy(matrix: Array) -> Array:
    """`transpose` in NumPy."""
    return np.ascontiguousarray(matrix.T)

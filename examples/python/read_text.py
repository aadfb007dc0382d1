#!/usr/bin/env python3
"""Read a line of text on the NPU with the PP-OCRv4 recogniser, and see what each form of the weights costs.

    read_text.py "some text" --weights a8w8      draws the text, adds noise, reads it on the NPU and in f32 on the host
    read_text.py --image line.png                reads a picture of one line of text
    read_text.py "some text" --compare           a table of the layers: shape, time and error of each form
    read_text.py --survey                        characters wrong and time over 24 lines, for each form

scripts/read-text fetches the model and runs this program.
"""

from __future__ import annotations

import argparse
import sys
import time
from pathlib import Path
from typing import Any

import numpy as np
from PIL import Image, ImageDraw, ImageFont

import morun
import morun.onnx

MODEL, KEYS = "ch_PP-OCRv4_rec_infer.onnx", "ppocr_keys_v1.txt"
FONTS = [f"/usr/share/fonts/truetype/dejavu/DejaVu{name}.ttf" for name in ("Sans", "Serif", "SansMono", "Sans-Bold")]
HEIGHT = 48  # pixels of the model's input

LINES = [
    "The quick brown fox jumps over it", "libmorun multiplies on the NPU", "Hello, world!", "Invoice No. 2026-11-22",
    "Total: 1,284.50 EUR", "Platform 9, departs 17:42", "Open daily from 8 to 20", "Pack my box with five jugs",
    "Keep refrigerated below 5 C", "Serial number A7X-4410-KP", "Please mind the gap", "Half precision is enough",
    "Row-major, then tiles of 32", "Best before 03/2027", "www.example.org/index", "Voltage 230 V, 50 Hz, 16 A",
    "To be or not to be", "Chapter 12: The river", "Fragile - handle with care", "Gate B27, seat 14C",
    "Ingredients: water, sugar, salt", "Every good boy does fine", "Return by Friday 6 pm", "Made of 100% cotton",
]


def draw(text: str, seed: int = 0) -> np.ndarray:
    """A noisy picture of a line of text: HEIGHT x width x 3, f32 from 0 to 255. The seed chooses font and noise."""
    font = ImageFont.truetype(FONTS[seed % len(FONTS)], 30)
    left, top, right, bottom = font.getbbox(text)
    picture = Image.new("RGB", (right - left + 20, HEIGHT), (245, 245, 240))
    ImageDraw.Draw(picture).text((10 - left, (HEIGHT - (bottom - top)) // 2 - top), text, fill=(30, 30, 40), font=font)
    noise = np.random.default_rng(seed).normal(0, 10, (HEIGHT, picture.width, 3))
    return np.clip(np.asarray(picture) + noise, 0, 255).astype(np.float32)


def load_picture(path: str) -> np.ndarray:
    """A picture of a line, scaled to the model's height."""
    picture = Image.open(path).convert("RGB")
    width = max(8, round(picture.width * HEIGHT / picture.height))
    return np.asarray(picture.resize((width, HEIGHT), Image.BICUBIC)).astype(np.float32)


class Reader:
    """The recogniser, with its products as `forms` says (morun.onnx.Session)."""

    def __init__(self, folder: Path, weights: str | None, context: morun.Context | None, quantiser: str = "minmax",
                 **options: Any) -> None:
        self.session = morun.onnx.Session(folder / MODEL, weights, context, quantiser, **options)
        # Class 0 separates repeats, class c is line c of the keys, and the class after the last line is a blank.
        self.characters = ["", *(folder / KEYS).read_text(encoding="utf-8").split("\n")]
        if self.characters[-1] == "":
            self.characters.pop()
        self.characters.append(" ")

    @staticmethod
    def feeds(picture: np.ndarray) -> dict[str, np.ndarray]:
        scaled = picture[:, :, ::-1] / np.float32(127.5) - np.float32(1)  # blue, green, red; -1 to 1
        return {"x": np.ascontiguousarray(scaled.transpose(2, 0, 1)[None], np.float32)}

    def read(self, picture: np.ndarray, trace: bool = False) -> tuple[str, float, list[morun.onnx.NodeTrace]]:
        """The text, the seconds that it took, and the trace."""
        start = time.perf_counter()
        result = self.session.run(self.feeds(picture), trace)
        seconds = time.perf_counter() - start
        best = result.outputs[self.session.outputs[0]][0].argmax(axis=1)
        fresh = [c for c, before in zip(best, [0, *best]) if c != before]
        return "".join(self.characters[c] for c in fresh), seconds, result.trace


def distance(a: str, b: str) -> int:
    """The least number of characters to replace, insert or delete between two texts."""
    row = list(range(len(b) + 1))
    for i, x in enumerate(a, 1):
        before, row[0] = row[0], i
        for j, y in enumerate(b, 1):
            before, row[j] = row[j], min(row[j] + 1, row[j - 1] + 1, before + (x != y))
    return row[-1]

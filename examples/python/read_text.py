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
import json
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
HEIGHT, WIDEST = 48, 8192  # pixels of the model's input; it takes any width, and memory for it

TEXT = "libmorun reads text on the NPU"
LINES = [
    "The quick brown fox jumps over it", "libmorun multiplies on the NPU", "Hello, world!", "Invoice No. 2026-11-22",
    "Total: 1,284.50 EUR", "Platform 9, departs 17:42", "Open daily from 8 to 20", "Pack my box with five jugs",
    "Keep refrigerated below 5 C", "Serial number A7X-4410-KP", "Please mind the gap", "Half precision is enough",
    "Row-major, then tiles of 32", "Best before 03/2027", "www.example.org/index", "Voltage 230 V, 50 Hz, 16 A",
    "To be or not to be", "Chapter 12: The river", "Fragile - handle with care", "Gate B27, seat 14C",
    "Ingredients: water, sugar, salt", "Every good boy does fine", "Return by Friday 6 pm", "Made of 100% cotton",
]


def checked_width(width: int, what: str) -> int:
    if width > WIDEST:
        raise ValueError(f"{what} is no single line of text: it takes {width} x {HEIGHT} pixels")
    return width


def draw(text: str, seed: int = 0) -> np.ndarray:
    """A noisy picture of a line of text: HEIGHT x width x 3, f32 from 0 to 255. The seed chooses font and noise."""
    if len(text.splitlines()) > 1:
        raise ValueError("the text has more than one line")
    path = FONTS[seed % len(FONTS)]
    try:
        font = ImageFont.truetype(path, 30)
    except OSError:
        raise OSError(f"the font {path} cannot be read; Debian has it in fonts-dejavu-core") from None
    left, top, right, bottom = font.getbbox(text)
    width = checked_width(right - left + 20, "the text")
    picture = Image.new("RGB", (width, HEIGHT), (245, 245, 240))
    ImageDraw.Draw(picture).text((10 - left, (HEIGHT - (bottom - top)) // 2 - top), text, fill=(30, 30, 40), font=font)
    noise = np.random.default_rng(seed).normal(0, 10, (HEIGHT, picture.width, 3))
    return np.clip(np.asarray(picture) + noise, 0, 255).astype(np.float32)


def load_picture(path: str) -> np.ndarray:
    """A picture of a line, scaled to the model's height. Raises OSError or ValueError where there is none."""
    try:
        picture = Image.open(Path(path)).convert("RGB")
    except (SyntaxError, Image.DecompressionBombError) as error:  # of damaged files, and of pictures too large
        raise ValueError(f"{path}: {error}") from None
    except OSError as error:
        raise OSError(f"{path}: {error.strerror or error}") from None
    width = checked_width(max(8, round(picture.width * HEIGHT / picture.height)), path)
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
        scores = result.outputs[self.session.outputs[0]][0]
        if scores.shape[1] != len(self.characters):
            raise ValueError(f"{KEYS} has {len(self.characters) - 2} lines; the model knows {scores.shape[1] - 2}")
        best = scores.argmax(axis=1)
        fresh = [c for c, before in zip(best, [0, *best]) if c != before]
        text = "".join(self.characters[c] for c in fresh)
        return text.strip(), seconds, result.trace  # the margins may be read as blanks


def distance(a: str, b: str) -> int:
    """The least number of characters to replace, insert or delete between two texts."""
    row = list(range(len(b) + 1))
    for i, x in enumerate(a, 1):
        before, row[0] = row[0], i
        for j, y in enumerate(b, 1):
            before, row[j] = row[j], min(row[j] + 1, row[j - 1] + 1, before + (x != y))
    return row[-1]


# What the quantiser `calibrated` sees: lines that no measurement reads.
CALIBRATION = ["Calibration line 0123456789", "ABCDEFGHIJKLMNOPQRSTUVWXYZ", "abcdefghijklmnopqrstuvwxyz",
               "Some other words, here: 42%", "(brackets) - dashes / slashes"]
# Layers whose four-bit weights cost most characters, in the order in which the survey keeps more of them in f16.
COSTLY = ["conv2d_200.tmp_0", "conv2d_192.tmp_0", "conv2d_202.tmp_0", "conv2d_201.tmp_0"]
WAYS = {  # form, quantiser, layers in f16
    "f16": ("f16", "minmax", []), "a8w8": ("a8w8", "minmax", []), "a8w4 minmax": ("a8w4", "minmax", []),
    "a8w4 mse": ("a8w4", "mse", []),
    **{f"a8w4 mse, {n} in f16": ("a8w4", "mse", COSTLY[:n]) for n in range(1, len(COSTLY) + 1)},
    "a8w4 calibrated": ("a8w4", "calibrated", []),
}


def make_reader(folder: Path, context: morun.Context, form: str, quantiser: str, kept: list[str]) -> Reader:
    seen = [Reader.feeds(draw(text, 100 + i)) for i, text in enumerate(CALIBRATION)]
    return Reader(folder, form, context, quantiser, layers={name: "f16" for name in kept},
                  calibration=seen if quantiser == "calibrated" else [])


def read_all(reader: Reader, pictures: list[np.ndarray]) -> list[tuple[str, float]]:
    """The texts, and the seconds of all processors that each took: other programs do not count."""
    result = []
    for picture in pictures:
        start = time.process_time()
        text, _, _ = reader.read(picture)
        result.append((text, time.process_time() - start))
    return result


def survey(folder: Path, context: morun.Context, ways: list[str], lines: list[str]) -> None:
    """Prints, for each way, how many characters differ from those of f32, and the median time of a line."""
    pictures = [draw(text, i) for i, text in enumerate(lines)]
    exact = read_all(Reader(folder, None, None), pictures)
    n_character = sum(len(text) for text, _ in exact)
    print(f"{len(lines)} lines, {n_character} characters; wrong: of f32 against the text, of the others against f32\n")
    print(f"{'weights':24} {'wrong':>6} {'right':>8} {'CPU ms a line':>14}")

    def row(name: str, read: list[tuple[str, float]], wanted: list[str]) -> None:
        n_wrong = sum(distance(text, line) for (text, _), line in zip(read, wanted))
        milliseconds = 1e3 * float(np.median([seconds for _, seconds in read]))
        print(f"{name:24} {n_wrong:6} {100 * (1 - n_wrong / n_character):7.2f}% {milliseconds:14.0f}", flush=True)

    row("f32, NumPy", exact, lines)
    for way in ways:
        row(way, read_all(make_reader(folder, context, *WAYS[way]), pictures), [text for text, _ in exact])


def compare(folder: Path, context: morun.Context, picture: np.ndarray) -> list[dict[str, Any]]:
    """Prints and returns the layers in three forms: error of the layer alone, and of all layers up to it."""
    ways = ["f16", "a8w8", "a8w4 mse"]
    traces = []
    for way in ways:
        reader = make_reader(folder, context, *WAYS[way])
        runs = [[node for node in reader.read(picture, trace=True)[2] if node.form] for _ in range(3)]
        traces.append([min(nodes, key=lambda node: node.seconds) for nodes in zip(*runs)])
    print(f"{'':20} {'':7} {'rows x inner x cols':>20} {'NumPy':>7}" + "".join(f" | {way:^24}" for way in ways))
    print(f"{'layer':20} {'':7} {'':20} {'ms':>7}" + len(ways) * f" | {'ms':>6} {'alone':>8} {'so far':>8}")
    rows = []
    for nodes in zip(*traces):
        first = nodes[0]
        assert first.shape is not None
        shape = " x ".join(map(str, first.shape))
        print(f"{first.name:20} {first.operator:7} {shape:>20} {1e3 * first.numpy_seconds:7.2f}" + "".join(
            f" | {1e3 * node.seconds:6.2f} {node.own_error:8.5f} {node.error:8.5f}" for node in nodes))
        rows.append({"name": first.name, "shape": first.shape,
                     "errors": {way: node.own_error for way, node in zip(ways, nodes)}})
    return rows


def main() -> int:
    parser = argparse.ArgumentParser(description="Read a line of text on the NPU.")
    parser.add_argument("text", nargs="?", help=f"the text to draw and read (default: {TEXT})")
    parser.add_argument("--image", metavar="FILE", help="a picture of one line of text instead")
    parser.add_argument("--weights", choices=["f16", "a8w8", "a8w4"], default="a8w8")
    parser.add_argument("--quantiser", choices=["minmax", "mse", "calibrated", "library"],
                        help="default: minmax, for a8w4 calibrated")
    tables = parser.add_mutually_exclusive_group()
    tables.add_argument("--compare", action="store_true", help="print a table of the layers")
    tables.add_argument("--survey", action="store_true", help=f"read {len(LINES)} lines with all forms")
    parser.add_argument("--json", metavar="FILE", help="write the table of --compare, for morun.plot")
    parser.add_argument("--model", type=Path, default=Path("out/read-text/package/assets"), metavar="FOLDER",
                        help=f"where {MODEL} and {KEYS} are (default: %(default)s)")
    arguments = parser.parse_args()
    for name in (MODEL, KEYS):
        if not (arguments.model / name).exists():
            parser.error(f"{arguments.model} has no {name}; scripts/read-text fetches it")
    if arguments.json is not None and not arguments.compare:
        parser.error("--json writes the table of --compare, which is not asked for")
    if (arguments.text is not None) + (arguments.image is not None) + arguments.survey > 1:
        parser.error("a text, --image and --survey exclude each other")
    try:
        with morun.Context() as context:
            run(arguments, context)
    except (OSError, ValueError, morun.Error) as error:
        print(f"read_text.py: {error}", file=sys.stderr)
        return 1
    return 0


def run(arguments: argparse.Namespace, context: morun.Context) -> None:
    if arguments.survey:
        survey(arguments.model, context, list(WAYS), LINES)
        return
    text = TEXT if arguments.text is None else arguments.text
    picture = load_picture(arguments.image) if arguments.image is not None else draw(text)
    if arguments.compare:
        rows = compare(arguments.model, context, picture)
        if arguments.json is not None:
            Path(arguments.json).write_text(json.dumps({"layers": rows}, indent=1) + "\n")
        return
    quantiser = arguments.quantiser or ("calibrated" if arguments.weights == "a8w4" else "minmax")
    reader, host = make_reader(arguments.model, context, arguments.weights, quantiser, []), Reader(
        arguments.model, None, None)
    if arguments.image is None:
        print(f"drawn                {text}")
    for name, one in ((f"NPU, {arguments.weights}", reader), ("host, f32", host)):
        read, seconds, _ = one.read(picture)
        print(f"{name:20} {read}    ({1e3 * seconds:.0f} ms)")


if __name__ == "__main__":
    sys.exit(main())

"""The recogniser reads lines of text, and its figures can be drawn. MORUN_RECOGNISER names its folder."""

import json
import os
import re
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

sys.path.insert(0, str(Path(__file__).parents[2] / "examples/python"))
import read_text  # noqa: E402

from morun import plot  # noqa: E402

folder = os.environ.get("MORUN_RECOGNISER")
recogniser = pytest.mark.skipif(folder == "offline", reason="reads with the recogniser, which --offline leaves out")
LINES = read_text.LINES[:6]


@pytest.fixture(scope="module")
def pictures():
    assert folder, "MORUN_RECOGNISER is not set"
    pictures = [read_text.draw(text, i) for i, text in enumerate(LINES)]
    host = read_text.Reader(Path(folder), None, None)
    assert [host.read(picture)[0] for picture in pictures] == LINES
    return pictures


@recogniser
@pytest.mark.parametrize("way, right", [
    ("f16", 1), ("a8w8", 0.98), ("a8w4 calibrated", 0.9), ("a8w4 mse, 4 in f16", 0.9)])
def test_characters_read(way, right, pictures, context):
    reader = read_text.make_reader(Path(folder), context, *read_text.WAYS[way])
    texts = [reader.read(picture)[0] for picture in pictures]
    wrong = sum(map(read_text.distance, texts, LINES))
    assert 1 - wrong / sum(map(len, LINES)) >= right, texts


@recogniser
def test_the_program_reads_a_picture_and_compares(tmp_path, capsys, monkeypatch):
    from PIL import Image
    Image.fromarray(read_text.draw("Gate B27", 3).astype(np.uint8)).resize((400, 96)).save(tmp_path / "line.png")
    for options, wanted in ((["--image", f"{tmp_path}/line.png", "--weights", "f16"], "Gate B27"),
                            (["Gate B27", "--compare", "--json", f"{tmp_path}/layers.json"], "p2o.MatMul.25")):
        monkeypatch.setattr(sys, "argv", ["read_text.py", *options, "--model", folder])
        assert read_text.main() == 0
        assert wanted in capsys.readouterr().out
    layers = json.loads((tmp_path / "layers.json").read_text())["layers"]
    assert len(layers) == 37  # 24 convolutions without groups and 13 matrix products
    means = [np.mean([layer["errors"][way] for layer in layers]) for way in ("f16", "a8w8", "a8w4 mse")]
    assert means[0] < 0.001 < means[1] < 0.02 < means[2]


@pytest.mark.parametrize("options, status, says", [
    (["--image", "nothing.png"], 1, "nothing.png: No such file"), (["--image", "."], 1, "Is a directory"),
    (["--image", "broken.png"], 1, "broken.png: cannot identify"), (["--image", "cut.png"], 1, "cut.png: .*truncated"),
    (["--image", "wide.png"], 1, "wide.png is no single line"), (["i" * 2000], 1, "the text is no single line"),
    (["a\nb"], 1, "more than one line"), (["a"], 1, "is no ONNX model"), (["--model", "nowhere"], 2, "nowhere has no"),
    (["a", "--json", "j"], 2, "--compare"), (["a", "--image", "cut.png"], 2, "exclude"),
    (["a", "--survey"], 2, "exclude"), (["--compare", "--survey"], 2, "not allowed"),
    (["--weights", "a4w4"], 2, "invalid choice")])
def test_the_program_refuses_in_one_line(options, status, says, tmp_path):
    from PIL import Image
    (tmp_path / read_text.MODEL).write_text("junk")
    (tmp_path / read_text.KEYS).write_text("a\n")
    (tmp_path / "broken.png").write_text("junk")
    Image.fromarray(read_text.draw("a").astype(np.uint8)).save(tmp_path / "whole.png")
    (tmp_path / "cut.png").write_bytes((tmp_path / "whole.png").read_bytes()[:200])
    Image.new("L", (9000, 40)).save(tmp_path / "wide.png")
    result = subprocess.run([sys.executable, read_text.__file__, "--model", ".", *options], cwd=tmp_path, text=True,
                            capture_output=True)
    assert result.returncode == status and re.search(says, result.stderr), result.stderr
    assert result.stderr.count("\n") == 1 or result.stderr.startswith("usage:")


@recogniser
def test_the_survey_counts_what_differs(capsys, context):
    lines = LINES[2:4]
    read_text.survey(Path(folder), context, ["f16", "a8w4 minmax"], [lines[0], lines[1] + "!?"])
    header, _, _, *rows = capsys.readouterr().out.splitlines()
    assert header.startswith("2 lines, ")
    host, half, four = ([*row[:24].split("  ")[:1], *row[24:].split()] for row in rows)
    assert host[0] == "f32, NumPy" and half[:3] == ["f16", "0", "100.00%"] and int(four[1]) > int(host[1])
    assert all(float(row[3]) > 0 for row in (host, half, four))


def test_distance():
    pairs = ("", ""), ("abc", "abc"), ("abc", ""), ("kitten", "sitting")
    assert [read_text.distance(*pair) for pair in pairs] == [0, 0, 3, 3]


BENCH = {"benchmarks": [{"name": "a/1/manual_time", "ratio": 2.0, "q1": 1.9, "q3": 2.2, "wanted": 1.0},
                        {"name": "b", "ratio": 0.5}, {"name": "call", "time": 3}]}
REPORT = {"tensors": [{"name": "w", "form": "a8w4", "error": 0.1, "product_error": 0.05},
                      {"name": "n", "form": "carried"}]}
LAYERS = {"layers": [{"name": "conv", "errors": {"f16": 1e-4, "a8w8": 1e-2}}]}


@pytest.mark.parametrize("files, words, status, says", [
    ([BENCH], [], 0, "2 rows"), ([BENCH, {"benchmarks": BENCH["benchmarks"][1:]}], [], 0, "1 rows"),
    ([BENCH, {"benchmarks": [{"name": "a/1/iterations:1/manual_time", "ratio": 1}]}], [], 0, "1 rows"),
    ([REPORT], ["error"], 0, "1 rows"),
    ([LAYERS], ["error"], 0, "1 rows"), ([REPORT], [], 1, "not a run"), ([BENCH], ["error"], 1, "no errors"),
    ([[]], [], 1, "0.json: not a run"), ([[]], ["error"], 1, "0.json: no report"),
    ([{"benchmarks": []}], [], 1, "no operation"), ([{"benchmarks": [{"ratio": 1}]}], [], 1, "not a run"),
    ([{"benchmarks": [{"name": "a", "ratio": "1"}]}], [], 1, "not a run"),
    ([{"benchmarks": [{"name": 1, "ratio": 1}]}], [], 1, "not a run"), ([{"benchmarks": 1}], [], 1, "not a run"),
    ([{"benchmarks": [{"name": "a", "ratio": float("inf")}]}], [], 1, "not a run"),
    ([{"layers": [{"name": "a", "errors": [1]}]}], ["error"], 1, "no report"),
    ([{"tensors": [{"name": "a", "error": 1}]}], ["error"], 1, "no report"),
    ([{"layers": [{"name": "a", "errors": {"f16": None}}]}], ["error"], 1, "no report"),
    (["missing"], [], 1, "0.json: No such file"), (["broken"], ["error"], 1, "0.json: no JSON"),
    (["deep"], [], 1, "0.json: no JSON"), ([BENCH], ["-o", "nowhere/b.svg"], 1, "nowhere/b.svg: No such file"),
    ([BENCH], ["-o", "b.what"], 1, "what"), ([BENCH], ["-o", "b"], 1, "b: no ending"), ([""], [], 1, "Is a directory")])
def test_plots(files, words, status, says, tmp_path, capsys):
    paths = [tmp_path / f"{number}.json" for number in range(len(files))]
    for path, content in zip(paths, files):
        if content == "":
            path.mkdir()
        elif content != "missing":
            path.write_text({"broken": "{", "deep": "[" * 10**5}.get(content) if isinstance(content, str)
                            else json.dumps(content))
    assert plot.main(["-o", str(tmp_path / "plot.svg"), *words, *map(str, paths)]) == status
    captured = capsys.readouterr()
    assert says in captured.out + captured.err and (captured.out + captured.err).count("\n") == 1
    if status == 0:
        drawn = (tmp_path / "plot.svg").read_text()
        assert drawn.startswith("<?xml") and drawn.count("<path") > 5
        plot.main([*words, *map(str, paths), "-o", str(tmp_path / "again.svg")])
        assert (tmp_path / "again.svg").read_text() == drawn
    else:
        assert not (tmp_path / "plot.svg").exists()

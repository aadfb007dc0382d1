"""Pictures of measurements, as SVG or whatever the file's name asks for. Needs python3-matplotlib.

    python3 -m morun.plot bench.json [later.json] -o bench.svg    ratios of a bench run, or of two side by side
    python3 -m morun.plot error report.json -o error.svg          the error of each layer
"""

from __future__ import annotations

import argparse
import collections
import json
import math
import os
import re
import sys
from collections.abc import Sequence
from pathlib import Path
from typing import Any

import matplotlib

matplotlib.use("Agg")
matplotlib.rcParams.update({"svg.hashsalt": "morun", "svg.fonttype": "none"})  # the same bytes for the same figures
from matplotlib import pyplot  # noqa: E402

__all__ = ["main", "plot_bench", "plot_errors"]

Path_ = str | os.PathLike[str]


def _load(path: Path_) -> Any:
    try:
        return json.loads(Path(path).read_text(encoding="utf-8"))
    except OSError as error:
        raise ValueError(f"{path}: {error.strerror}") from error
    except (ValueError, RecursionError) as error:
        raise ValueError(f"{path}: no JSON: {error}") from error


def _number(value: Any) -> float:
    if isinstance(value, bool) or not isinstance(value, (int, float)) or not math.isfinite(value):
        raise ValueError
    return value


def _operations(run: Path_) -> dict[str, dict[str, float]]:
    """The figures of each operation that has a ratio, by its name without the suffixes of Google Benchmark."""
    data = _load(run)
    try:
        return {re.sub("(/iterations:[0-9]+)?(/manual_time)?$", "", row["name"]):
                {key: _number(row[key]) for key in ("ratio", "q1", "q3", "wanted") if key in row}
                for row in data["benchmarks"] if "ratio" in row}
    except (KeyError, TypeError, ValueError):
        raise ValueError(f"{run}: not a run of scripts/bench --json") from None


def _errors(report: Path_) -> dict[str, dict[str, float]]:
    """The error of each layer by its name, for each series."""
    data, series = _load(report), collections.defaultdict[str, dict[str, float]](dict)
    try:
        for layer in data.get("layers", []):
            for form, error in layer["errors"].items():
                series[form][str(layer["name"])] = _number(error)
        for tensor in data.get("tensors", []):
            for key, what in (("error", "weights"), ("product_error", "product")):
                if key in tensor:
                    series[f"{tensor['form']}, {what}"][str(tensor["name"])] = _number(tensor[key])
    except (AttributeError, KeyError, TypeError, ValueError):
        raise ValueError(f"{report}: no report of errors") from None
    return series


def _save(figure: Any, output: Path_) -> None:
    is_svg = Path(output).suffix.lower() == ".svg"
    try:
        if not Path(output).suffix:
            raise ValueError(f"{output}: no ending, such as .svg, tells the format")
        figure.savefig(output, bbox_inches="tight", metadata={"Date": None} if is_svg else None)
    except OSError as error:
        raise ValueError(f"{output}: {error.strerror}") from error
    finally:
        pyplot.close(figure)


def plot_bench(runs: Sequence[Path_], output: Path_) -> int:
    """Draw the ratios of one or two runs of scripts/bench --json, with their quartiles and the wanted ones.

    Returns
    -------
    int
        Rows drawn: operations that have a ratio in every run.

    Raises
    ------
    ValueError
        A file is no such run, no operation is in all of them, or the output cannot be written.
    """
    found = [_operations(run) for run in runs]
    names = [name for name in found[0] if all(name in rows for rows in found)]
    if not names:
        raise ValueError("no operation has a ratio in " + " and ".join(map(str, runs)))
    figure, axes = pyplot.subplots(figsize=(9, 1 + 0.2 * len(names)))
    thick = 0.8 / len(found)
    for number, (run, rows) in enumerate(zip(runs, found)):
        places = [i + (number - (len(found) - 1) / 2) * thick for i in range(len(names))]
        ratios = [rows[name]["ratio"] for name in names]
        spread = [[max(0, rows[name]["ratio"] - rows[name].get("q1", rows[name]["ratio"])) for name in names],
                  [max(0, rows[name].get("q3", rows[name]["ratio"]) - rows[name]["ratio"]) for name in names]]
        axes.barh(places, ratios, thick, xerr=spread, label=Path(run).stem, error_kw={"linewidth": 0.6})
    wanted = [(found[0][name]["wanted"], i) for i, name in enumerate(names) if "wanted" in found[0][name]]
    if wanted:
        axes.plot(*zip(*wanted), "k|", markersize=7, label="wanted")
    axes.set_yticks(range(len(names)), names, fontsize=7)
    axes.set_ylim(len(names) - 0.4, -0.6)
    axes.set_xlabel("time of the yardstick / time of the operation: more is better")
    axes.legend(fontsize=7)
    _save(figure, output)
    return len(names)


def plot_errors(report: Path_, output: Path_) -> int:
    """Draw the relative error of each layer: of `morun pack --report`, or of read_text.py --compare --json.

    Returns
    -------
    int
        Layers drawn.

    Raises
    ------
    ValueError
        The file is no such report, has no layer, or the output cannot be written.
    """
    series = _errors(report)
    names = list(dict.fromkeys(name for errors in series.values() for name in errors))
    if not names:
        raise ValueError(f"{report}: no errors of layers")
    figure, axes = pyplot.subplots(figsize=(9, 1 + 0.18 * len(names)))
    for label, errors in series.items():
        places = [i for i, name in enumerate(names) if name in errors]
        axes.plot([errors[names[i]] for i in places], places, "o", markersize=4, label=label)
    axes.set_xscale("log")
    axes.set_yticks(range(len(names)), names, fontsize=7)
    axes.set_ylim(len(names) - 0.4, -0.6)
    axes.set_xlabel("relative error of the layer")
    axes.grid(axis="y", linewidth=0.3)
    axes.legend(fontsize=7)
    _save(figure, output)
    return len(names)


def main(arguments: Sequence[str] | None = None) -> int:
    parser = argparse.ArgumentParser(prog="python3 -m morun.plot", description="Draw measurements.")
    parser.add_argument("what", nargs="+", metavar="FILE",
                        help="one or two runs of scripts/bench --json; or the word error and a report")
    parser.add_argument("-o", "--output", help="default: the first file with .svg for its ending")
    options = parser.parse_args(arguments)
    is_error, files = options.what[0] == "error", options.what
    if is_error:
        files = files[1:]
    if not 1 <= len(files) <= (1 if is_error else 2):
        parser.error("one or two runs, or the word error and one report")
    try:
        output = options.output or str(Path(files[0]).with_suffix(".svg"))
        count = plot_errors(files[0], output) if is_error else plot_bench(files, output)
    except ValueError as error:
        print(f"morun.plot: {error}", file=sys.stderr)
        return 1
    print(f"{output}: {count} rows")
    return 0


if __name__ == "__main__":
    sys.exit(main())

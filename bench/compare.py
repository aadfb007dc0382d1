"""Prints the ratios of two revisions side by side: compare.py NAME-OF-OLD FOLDER, with old.N.json and new.N.json of each pair.

A ratio is the time of the yardstick divided by that of the operation, in one process and round, so what slows the machine
down slows both. The last column has the quotients of the pairs, `faster` or `SLOWER` behind them where the pairs agree.
Rows of one revision alone are listed behind the others.
"""

import json
import pathlib
import statistics
import sys


def ratios(path: pathlib.Path) -> dict[str, float]:
    rows = json.loads(path.read_text())["benchmarks"]
    return {row["name"].split("/iterations:")[0]: row["ratio"] for row in rows if row.get("ratio")}


def spread(values: list[float]) -> str:
    return f"{statistics.median(values):.3f} ({min(values):.3f} .. {max(values):.3f})"


def verdict(quotients: list[float]) -> str:
    """A change is told where all pairs agree on its direction and its median is beyond 5 %."""
    change = statistics.median(quotients)
    if min(quotients) > 1 and change > 1.05:
        return "faster"
    return "SLOWER" if max(quotients) < 1 and change < 0.95 else ""


def main() -> int:
    name, folder = sys.argv[1], pathlib.Path(sys.argv[2])
    pairs = [(ratios(old), ratios(folder / old.name.replace("old.", "new.")))
             for old in sorted(folder.glob("old.*.json"))]
    if not pairs or not pairs[0][0]:
        print("there is no row to compare", file=sys.stderr)
        return 1
    olds, news = ({row for pair in pairs for row in pair[side]} for side in (0, 1))
    both = [row for row in pairs[0][1] if all(row in old and row in new for old, new in pairs)]
    lines = [("operation / shape", name, "now", f"now / {name}", "")]
    for row in both:
        old, new = [pair[0][row] for pair in pairs], [pair[1][row] for pair in pairs]
        quotients = [n / o for o, n in zip(old, new)]
        lines.append((row, spread(old), spread(new), spread(quotients), verdict(quotients)))
    print(f"yardstick's time / operation's, so more is faster: median (least .. most) of {len(pairs)} runs each")
    widths = [max(map(len, column)) for column in zip(*lines)]
    for line in lines:
        print("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip())
    for what, rows in ((f"only in {name}", olds - news), ("only now", news - olds)):
        for row in sorted(rows):
            print(f"{row}: {what}")
    return 0


if __name__ == "__main__":
    sys.exit(main())

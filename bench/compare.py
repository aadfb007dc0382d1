"""Prints the ratios of two revisions side by side: compare.py NAME-OF-OLD FOLDER, with old.N.json and new.N.json of each pair.

A ratio is the time of the yardstick divided by that of the operation, in one process and round, so what slows the machine
down slows both. `new / old` is the median of the pairs' quotients, beside the least and the largest of them. Rows of one
revision alone are listed behind the others.
"""

import json
import pathlib
import statistics
import sys


def ratios(path: pathlib.Path) -> dict[str, float]:
    rows = json.loads(path.read_text())["benchmarks"]
    return {row["name"].split("/iterations:")[0]: row["ratio"] for row in rows if row.get("ratio")}


def spread(values: list[float]) -> str:
    return f"{statistics.median(values):7.3f}  {min(values):6.3f} .. {max(values):6.3f}"


def main() -> int:
    name, folder = sys.argv[1], pathlib.Path(sys.argv[2])
    pairs = [(ratios(old), ratios(folder / old.name.replace("old.", "new.")))
             for old in sorted(folder.glob("old.*.json"))]
    if not pairs or not pairs[0][0]:
        print("there is no row to compare", file=sys.stderr)
        return 1
    olds, news = ({row for pair in pairs for row in pair[side]} for side in (0, 1))
    both = [row for row in pairs[0][1] if all(row in old and row in new for old, new in pairs)]
    width = max(map(len, both), default=10) + 2
    heading = f"{'median':>7}  {'least':>6} .. {'most':>6}"
    print(f"{'ratio: yardstick / operation':{width}} {name + ', ' + heading:>38}   {'now, ' + heading:>33}   {'new / old, ' + heading}")
    for row in both:
        old, new = [pair[0][row] for pair in pairs], [pair[1][row] for pair in pairs]
        quotients = [n / o for o, n in zip(old, new)]
        # A change is told where all pairs agree on its direction and its median is beyond 5 %.
        change = statistics.median(quotients)
        mark = "faster" if min(quotients) > 1 and change > 1.05 else "SLOWER" if max(quotients) < 1 and change < 0.95 else ""
        print(f"{row:{width}} {spread(old):>38}   {spread(new):>33}   {spread(quotients):>38}  {mark}")
    for what, rows in ((f"only in {name}", olds - news), ("only now", news - olds)):
        for row in sorted(rows):
            print(f"{row}: {what}")
    return 0


if __name__ == "__main__":
    sys.exit(main())

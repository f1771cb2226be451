#!/usr/bin/env python3
"""The cost of reading one field of a record from Python, beside a dataclass attribute and str().

    PYTHONPATH=build/default/python python3 bench/python_fields.py [--repeats N]

Writes a table of 50 IGP results with the tool, reads record 7 from it and times, per read:
each kind of field (an identifier, a tag, an optional number, an enumeration, the community
list), a dataclass's attribute (the floor a Python user knows) and str() of the whole record.
Prints a Markdown table: the median of N repeats (each the best loop of timeit's autorange
divided by its count) with the lowest and highest, in nanoseconds. The goal of a field read is
at most 1 µs.
"""
import argparse
import dataclasses
import pathlib
import statistics
import subprocess
import sys
import tempfile
import timeit

import bgpcommon

GOAL_NS = 1000


@dataclasses.dataclass
class Plain:
    key: int
    tag: int
    community: list


def per_call_ns(stmt, env, repeats):
    timer = timeit.Timer(stmt, globals=env)
    number, _ = timer.autorange()
    return [t / number * 1e9 for t in timer.repeat(repeat=repeats, number=number)]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--repeats", type=int, default=15)
    args = parser.parse_args()
    tool = pathlib.Path(bgpcommon.__file__).resolve().parents[2] / "bin" / "bgpcommon"
    with tempfile.TemporaryDirectory() as root:
        subprocess.run([str(tool), "igp-results", "write", "bench", "--root", root, "--records", "50"], check=True,
                       capture_output=True)
        with bgpcommon.IgpResultTable("bench", root=root) as table:
            record = table[7]
    env = {"r": record, "p": Plain(7, 70, [1, 2])}
    rows = [
        ("r.key (identifier)", "r.key", True),
        ("r.tag (tag)", "r.tag", True),
        ("r.metric (optional number)", "r.metric", True),
        ("r.isisLevel (enumeration)", "r.isisLevel", True),
        ("r.community (2 communities)", "r.community", True),
        ("dataclass attribute", "p.tag", False),
        ("str(record)", "str(r)", False),
    ]
    print("| Python read | median ns (lowest–highest) | goal | met |")
    print("|---|---|---|---|")
    met_all = True
    for label, stmt, field in rows:
        times = per_call_ns(stmt, env, args.repeats)
        median = statistics.median(times)
        met = median <= GOAL_NS
        met_all &= met or not field
        goal = f"≤ {GOAL_NS} ns" if field else ""
        print(f"| {label} | {median:.0f} ({min(times):.0f}–{max(times):.0f}) | {goal} | "
              f"{('yes' if met else 'no') if field else ''} |")
    print()
    print(f"Python {sys.version.split()[0]}, bgpcommon {bgpcommon.__version__}, median of {args.repeats} repeats.")
    return 0 if met_all else 1


if __name__ == "__main__":
    sys.exit(main())

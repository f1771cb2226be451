#!/usr/bin/env python3
"""Turns Google Benchmark JSON files into the Markdown table README.md shows.

Benchmarks that compare report the counters ours_ns, peer_ns, ratio and goal (ratio = ours/peer,
lower is better, goal = the ratio to stay within); a benchmark whose goal is a minimum speed-up
reports speedup and goal_min instead. Other counters (bytes per key, ...) are listed as they are.
"""
import json
import pathlib
import platform
import re
import sys

# The comparison counters' names, as bench/PairedBench.h defines them (kOursNs = "ours_ns", ...).
_SUPPORT = (pathlib.Path(__file__).parent / "PairedBench.h").read_text()
NAMES = dict(re.findall(r'inline constexpr const char\* (k\w+) = "(\w+)";', _SUPPORT))


def fmt(v):
    if isinstance(v, float):
        if v == 0:
            return "0"
        if abs(v) >= 100:
            return f"{v:,.0f}"
        return f"{v:.3g}"
    return str(v)


def main(paths):
    rows = []
    context = None
    for path in paths:
        with open(path) as f:
            data = json.load(f)
        context = context or data.get("context", {})
        program = path.rsplit("/", 1)[-1].removesuffix(".json")
        for b in data.get("benchmarks", []):
            if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
                continue
            skip = {"name", "run_name", "run_type", "repetitions", "repetition_index", "threads",
                    "iterations", "real_time", "cpu_time", "time_unit", "family_index",
                    "per_family_instance_index", "aggregate_name", "aggregate_unit", "label",
                    "error_occurred", "error_message"}
            counters = {k: v for k, v in b.items() if k not in skip}
            ours = counters.pop(NAMES["kOursNs"], None)
            peer = counters.pop(NAMES["kPeerNs"], None)
            ratio = counters.pop(NAMES["kRatio"], None)
            goal = counters.pop(NAMES["kGoal"], None)
            speedup = counters.pop(NAMES["kSpeedup"], None)
            goal_min = counters.pop(NAMES["kGoalMin"], None)
            met = ""
            goal_text = ""
            ratio_text = ""
            if ratio is not None and goal:
                met = "yes" if ratio <= goal else "no"
                goal_text = f"≤ {fmt(goal)}x"
                ratio_text = f"{ratio:.2f}x"
            elif speedup is not None and goal_min:
                met = "yes" if speedup >= goal_min else "no"
                goal_text = f"≥ {fmt(goal_min)}x faster"
                ratio_text = f"{speedup:.2f}x faster"
            elif ratio is not None:
                ratio_text = f"{ratio:.2f}x"
            other = ", ".join(f"{k}={fmt(v)}" for k, v in counters.items()
                              if isinstance(v, (int, float)) and k not in ("bytes_per_second", "items_per_second"))
            if "items_per_second" in counters:
                other = (other + ", " if other else "") + f"{counters['items_per_second']:,.0f}/s"
            if ours is None:
                ours_text = f"{b['real_time']:.4g} {b['time_unit']}"
            else:
                ours_text = f"{ours:.4g} ns"
            rows.append((program, b["name"], ours_text, "" if peer is None else f"{peer:.4g} ns",
                         ratio_text, goal_text, met, other))
    ctx = context or {}
    print(f"Measured on {platform.node()}: {ctx.get('num_cpus', '?')} CPUs at "
          f"{ctx.get('mhz_per_cpu', '?')} MHz, {platform.machine()}, {ctx.get('date', '')[:10]}, "
          f"bgpcommon built RelWithDebInfo (g++ -O2).\n")
    print("| program | benchmark | ours | peer or limit | ratio | goal | met | other |")
    print("|---|---|---|---|---|---|---|---|")
    for r in rows:
        print("| " + " | ".join(x.replace("|", "\\|") for x in r) + " |")


if __name__ == "__main__":
    main(sys.argv[1:])

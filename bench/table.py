#!/usr/bin/env python3
"""Turns Google Benchmark JSON files into the Markdown table README.md shows.

Benchmarks that compare report the counters ours_ns, peer_ns, ratio and goal (ratio = ours/peer,
lower is better, goal = the ratio to stay within). A duel with a second yardstick (a physical floor)
adds floor_ns, floor_ratio and floor_goal, shown as a row of its own. A repeated benchmark shows its
median with the range of its repetitions. Other counters (bytes per key, ...) are listed as they are.
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


def cpu_model():
    """The processor's model name, family and model, and whether it has fast short string moves."""
    try:
        text = pathlib.Path("/proc/cpuinfo").read_text()
    except OSError:
        return platform.processor() or "unknown processor"
    fields = {}
    for line in text.splitlines():
        key, _, value = line.partition(":")
        fields.setdefault(key.strip(), value.strip())
        if not line.strip():
            break
    flags = fields.get("flags", "").split()
    return (f"{fields.get('model name', 'unknown')} ({fields.get('vendor_id', '?')} family "
            f"{fields.get('cpu family', '?')} model {fields.get('model', '?')}"
            f"{', FSRM' if 'fsrm' in flags else ''})")


SKIP = {"name", "run_name", "run_type", "repetitions", "repetition_index", "threads",
        "iterations", "real_time", "cpu_time", "time_unit", "family_index",
        "per_family_instance_index", "aggregate_name", "aggregate_unit", "label",
        "error_occurred", "error_message"}


def ranged(value, low, high, text):
    """A value with the range of its repetitions, when it has one."""
    if low is None or high is None:
        return text(value)
    return f"{text(value)} ({text(low)}–{text(high)})"


def verdict(value, low, high, goal):
    """yes when every repetition meets the goal, median when the median does, else no."""
    if high is not None and high <= goal:
        return "yes"
    if value <= goal:
        return "yes" if high is None else "median"
    return "no"


def collect(paths):
    """(program, benchmark, counters, spread) per benchmark: the single run, or for a repeated one
    the median's counters with the min and max of each counter across its repetitions."""
    runs = []
    context = None
    for path in paths:
        with open(path) as f:
            data = json.load(f)
        context = context or data.get("context", {})
        program = path.rsplit("/", 1)[-1].removesuffix(".json")
        spreads = {}
        for b in data.get("benchmarks", []):
            if b.get("run_type") == "aggregate" and b.get("aggregate_name") in ("min", "max"):
                spreads.setdefault(b["run_name"], {})[b["aggregate_name"]] = b
        for b in data.get("benchmarks", []):
            if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
                continue
            name = b["run_name"] if b.get("run_type") == "aggregate" else b["name"]
            runs.append((program, name, b, spreads.get(b.get("run_name"), {}), b.get("repetitions", 1)))
    return runs, context or {}


def main(paths):
    runs, ctx = collect(paths)
    rows = []
    for program, name, b, spread, repetitions in runs:
        counters = {k: v for k, v in b.items() if k not in SKIP}
        low = {k: v for k, v in spread.get("min", {}).items() if k not in SKIP}
        high = {k: v for k, v in spread.get("max", {}).items() if k not in SKIP}
        take = lambda key: (counters.pop(NAMES[key], None), low.get(NAMES[key]), high.get(NAMES[key]))
        ours, ours_lo, ours_hi = take("kOursNs")
        peer, peer_lo, peer_hi = take("kPeerNs")
        ratio, ratio_lo, ratio_hi = take("kRatio")
        goal, _, _ = take("kGoal")
        floor, floor_lo, floor_hi = take("kFloorNs")
        floor_ratio, floor_ratio_lo, floor_ratio_hi = take("kFloorRatio")
        floor_goal, _, _ = take("kFloorGoal")
        label = b.get("label", "")
        # A duel of something other than time names its unit: "unit: bytes per route".
        unit = label.removeprefix("unit: ") if label.startswith("unit: ") else "ns"
        ns = lambda v: f"{v:.4g} {unit}"
        times = lambda v: f"{v:.2f}x"
        met = goal_text = ratio_text = ""
        if ratio is not None and goal:
            met = verdict(ratio, ratio_lo, ratio_hi, goal)
            goal_text = f"≤ {fmt(goal)}x"
            ratio_text = ranged(ratio, ratio_lo, ratio_hi, times)
        elif ratio is not None:
            ratio_text = ranged(ratio, ratio_lo, ratio_hi, times)
        other = ", ".join(f"{k}={fmt(v)}" for k, v in counters.items()
                          if isinstance(v, (int, float)) and k not in ("bytes_per_second", "items_per_second"))
        if "items_per_second" in counters:
            other = (other + ", " if other else "") + f"{counters['items_per_second']:,.0f}/s"
        if repetitions > 1:
            other = (other + ", " if other else "") + f"median of {repetitions}"
        ours_text = f"{b['real_time']:.4g} {b['time_unit']}" if ours is None else ranged(ours, ours_lo, ours_hi, ns)
        peer_text = "" if peer is None else ranged(peer, peer_lo, peer_hi, ns)
        peer_name = label.split(";")[0].removeprefix("peer: ") if label.startswith("peer: ") else ""
        if label and not peer_name and not label.startswith(("goal:", "unit: ")):
            other = (other + ", " if other else "") + label
        rows.append((program, name + (f" vs {peer_name}" if peer_name else ""), ours_text, peer_text,
                     ratio_text, goal_text, met, other))
        if floor is not None:
            floor_name = label.split("floor: ", 1)[1] if "floor: " in label else "floor"
            rows.append((program, f"{name} vs {floor_name}", ours_text, ranged(floor, floor_lo, floor_hi, ns),
                         ranged(floor_ratio, floor_ratio_lo, floor_ratio_hi, times),
                         f"≤ {fmt(floor_goal)}x" if floor_goal else "",
                         verdict(floor_ratio, floor_ratio_lo, floor_ratio_hi, floor_goal) if floor_goal else "", ""))
    print(f"Measured on {platform.node()}: {ctx.get('num_cpus', '?')} CPUs at "
          f"{ctx.get('mhz_per_cpu', '?')} MHz, {cpu_model()}, {platform.machine()}, "
          f"{ctx.get('date', '')[:10]}, bgpcommon built RelWithDebInfo (g++ -O2).\n")
    print("Repeated rows show the median and, in parentheses, the lowest and highest of the "
          "repetitions; met is yes when every repetition meets the goal, median when only the "
          "median does.\n")
    print("| program | benchmark | ours | peer or limit | ratio | goal | met | other |")
    print("|---|---|---|---|---|---|---|---|")
    for r in rows:
        print("| " + " | ".join(x.replace("|", "\\|") for x in r) + " |")


if __name__ == "__main__":
    main(sys.argv[1:])

#!/usr/bin/env python3
"""`bgpcommon mrt --bgpdump` beside `bgpdump -m` on the same MRT files, and reading alone
(`bgpcommon mrt --summary`: every record decoded, every attribute set read, nothing printed).

Each file is measured as it ships (bzip2) and decompressed (a plain file, which the reader maps).
The commands take turns, five rounds; the table shows the median wall time of each (and its
median CPU time, user and system, steadier than wall time on a shared machine), its throughput in
decompressed MRT octets per second, and the ratios to bgpdump (higher is better), of wall and of
CPU time.

A bzip2 file also gets the floor under both: decompressing it and nothing else, by `bzip2 -dc`
(one thread, the same libbz2 bgpdump and the tool use) and by the tool's reader with its blocks
on every core (bench/Bzip2ReadBench, median of its five runs, wall time only). Printing or reading
a bzip2 file cannot take less wall time than the second, nor, counting CPU, less than the first:
where that floor alone is above a goal's time (bgpdump's time over the goal's ratio), the row
cannot meet the goal on this machine's cores, whatever the decoder does.

  bench/mrt_vs_bgpdump.py [--tool build/default/bin/bgpcommon]
                          [--bench build/default/bin/Bzip2ReadBench] [--rounds 5] [FILE...]
"""
import argparse
import bz2
import json
import pathlib
import resource
import statistics
import subprocess
import tempfile
import time

PYASN = pathlib.Path("/usr/lib/python3/dist-packages/data")
DUMPS = ["rib.20080501.0644_firstMB.bz2", "rib.20140523.0600_firstMB.bz2", "rib6.20151101.0600_firstMB.bz2"]


def run_once(command):
    """Wall seconds and CPU seconds (user + system) of one run, its output discarded."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.perf_counter()
    subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
    wall = time.perf_counter() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return wall, (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime)


def parallel_decompression(bench, path):
    """Median wall seconds of the tool's reader decompressing `path` on every core (one of the
    dumps the benchmark program knows), or None."""
    if path.name not in DUMPS or not pathlib.Path(bench).exists():
        return None
    result = subprocess.run([bench, f"--benchmark_filter=BM_Bzip2Read/{DUMPS.index(path.name)}/",
                             "--benchmark_format=json"], capture_output=True, text=True, check=False)
    try:
        rows = json.loads(result.stdout)["benchmarks"]
    except (ValueError, KeyError):
        return None
    medians = [r["ours_ns"] for r in rows if r.get("aggregate_name") == "median"]
    return medians[0] / 1e9 if medians else None


def decompressed_size(path):
    """The MRT octets in `path` (what decompresses, for a file cut short)."""
    data = path.read_bytes()
    if data[:3] != b"BZh":
        return len(data)
    out = 0
    decompressor = bz2.BZ2Decompressor()
    try:
        out = len(decompressor.decompress(data))
    except (OSError, EOFError):
        pass
    return out


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--tool", default="build/default/bin/bgpcommon")
    parser.add_argument("--bench", default="build/default/bin/Bzip2ReadBench")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("files", nargs="*")
    args = parser.parse_args()
    files = [pathlib.Path(f) for f in args.files] or [PYASN / d for d in DUMPS]
    with tempfile.TemporaryDirectory() as tmp:
        inputs = []
        for f in files:
            inputs.append(f)
            if f.read_bytes()[:3] == b"BZh":
                plain = pathlib.Path(tmp) / (f.name.removesuffix(".bz2") + ".mrt")
                decompressor = bz2.BZ2Decompressor()
                try:
                    plain.write_bytes(decompressor.decompress(f.read_bytes()))
                except (OSError, EOFError):
                    pass
                inputs.append(plain)
        print("| file | MB | bgpdump -m | mrt --bgpdump | ratio | mrt --summary | ratio "
              "| floor: bzip2 -dc | floor: parallel decompression |")
        print("|---|---|---|---|---|---|---|---|---|")
        for f in inputs:
            commands = {
                "bgpdump": ["bgpdump", "-m", str(f)],
                "print": [args.tool, "mrt", "--bgpdump", str(f)],
                "read": [args.tool, "mrt", "--summary", str(f)],
            }
            compressed = f.read_bytes()[:3] == b"BZh"
            if compressed:
                commands["bzip2"] = ["bzip2", "-dc", str(f)]
            walls = {k: [] for k in commands}
            cpus = {k: [] for k in commands}
            for _ in range(args.rounds):
                for k, c in commands.items():
                    wall, cpu = run_once(c)
                    walls[k].append(wall)
                    cpus[k].append(cpu)
            wall = {k: statistics.median(v) for k, v in walls.items()}
            cpu = {k: statistics.median(v) for k, v in cpus.items()}
            mb = decompressed_size(f) / 1e6

            def cell(k):
                return f"{wall[k]:.3f} s, {mb / wall[k]:.0f} MB/s (CPU {cpu[k]:.3f} s)"

            def ratio(k):
                return f"{wall['bgpdump'] / wall[k]:.1f}x (CPU {cpu['bgpdump'] / max(cpu[k], 1e-3):.1f}x)"

            floor_one = cell("bzip2") if compressed else "-"
            parallel = parallel_decompression(args.bench, f) if compressed else None
            floor_all = f"{parallel:.3f} s, {mb / parallel:.0f} MB/s" if parallel else "-"
            print(f"| {f.name} | {mb:.1f} | {cell('bgpdump')} | {cell('print')} | {ratio('print')} | "
                  f"{cell('read')} | {ratio('read')} | {floor_one} | {floor_all} |")


if __name__ == "__main__":
    main()

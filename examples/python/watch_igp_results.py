#!/usr/bin/python3
"""Prints each change of a shared IGP result table as it arrives.

    watch_igp_results.py NAME [--root DIR] [--seconds S]

One line per change: "KEY <record>" or "KEY deleted", "resync N" when the whole table must be
read again, and "writer closed" / "writer open".
"""
import argparse
import sys
import time

import bgpcommon


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("name")
    parser.add_argument("--root")
    parser.add_argument("--seconds", type=float, default=60.0)
    args = parser.parse_args()

    def damaged(message):
        print(f"corruption: {message}", file=sys.stderr)

    table = bgpcommon.IgpResultTable(args.name, root=args.root, on_corruption=damaged)
    end = time.monotonic() + args.seconds
    while time.monotonic() < end:
        table.wait(min(1.0, max(0.0, end - time.monotonic())))
        for change in table.changes():
            if change == bgpcommon.RESYNC:
                print(f"resync {len(table)}")
            elif isinstance(change, str):
                print(change)
            else:
                record = table.get(change)
                print(change, record if record is not None else "deleted")
        sys.stdout.flush()


if __name__ == "__main__":
    main()

#!/usr/bin/python3
"""Follows a shared IGP result table: prints its records, then each change as it arrives.

    follow_igp_results.py NAME [--root DIR] [--seconds S]

"KEY tag TAG" for each record, "KEY deleted", "resync N" when the whole table must be read again,
"writer closed" / "writer open". Stops after S seconds, or once the writer has closed.
"""
import argparse
import time

import bgpcommon


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("name")
    parser.add_argument("--root")
    parser.add_argument("--seconds", type=float, default=60.0)
    args = parser.parse_args()

    end = time.monotonic() + args.seconds
    with bgpcommon.IgpResultTable(args.name, root=args.root) as table:
        table.changes()  # the first attach: everything, which is printed next
        print(f"{len(table)} records")
        for key, record in table.items():
            print(key, "tag", record.tag)
        while time.monotonic() < end:
            if not table.wait(end - time.monotonic()):
                break
            for change in table.changes():
                if change == bgpcommon.RESYNC:
                    print(f"resync {len(table)}")
                elif change in (bgpcommon.WRITER_CLOSED, bgpcommon.WRITER_OPEN):
                    print(change, flush=True)
                    if change == bgpcommon.WRITER_CLOSED:
                        return
                else:
                    record = table.get(change)
                    print(change, "deleted" if record is None else f"tag {record.tag}", flush=True)


if __name__ == "__main__":
    main()

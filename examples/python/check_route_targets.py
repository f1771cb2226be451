#!/usr/bin/python3
"""Checks the route-target texts of a file, one per line; exits 1 if any is bad.

    check_route_targets.py FILE

Each good line prints with its value and the eight octets as they travel; each bad one with the
library's message.
"""
import sys

import bgpcommon


def main():
    bad = 0
    with open(sys.argv[1], encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            text = line.strip()
            if not text or text.startswith("#"):
                continue
            try:
                rt = bgpcommon.RouteTarget(text)
            except bgpcommon.RangeError as e:
                print(f"{number}: {e}")
                bad += 1
                continue
            print(f"{number}: {text} = {rt.text()} (asdot {rt.text(asdot=True)}) "
                  f"0x{rt.value:016x} {bytes(rt).hex(' ')}")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())

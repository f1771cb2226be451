#!/usr/bin/python3
"""Reads BGP messages given in hex and prints the routes their UPDATEs announce and withdraw.

    read_update.py [HEX ...]     (without HEX, the hex on standard input)

    $ build_update.py 10.1.0.0/16 | read_update.py
    10.1.0.0/16 via 192.0.2.1 path 65001 origin IGP

Each HEX may hold several messages one after another (four-octet AS numbers, as between speakers
that both announced the capability). A malformed message is named on standard error with what is
wrong, where, and what RFC 7606 says to do about it (exit status 1); the routes of one to be
treated as withdrawn print as withdrawn.
"""
import sys

import bgpcommon

ORIGINS = {bgpcommon.IGP: "IGP", bgpcommon.EGP: "EGP", bgpcommon.INCOMPLETE: "INCOMPLETE"}


def path_text(segments):
    # An AS_SET is an unordered set of the ASes an aggregate's routes passed: printed in braces.
    return " ".join("{" + ",".join(map(str, s.asns)) + "}" if s.type == bgpcommon.AS_SET else " ".join(map(str, s.asns))
                    for s in segments or [])


def route_lines(update, withdraw_all=False):
    a = update.attributes
    extras = [f"med {a.med}"] if a.med is not None else []
    extras += [f"community {c}" for c in a.communities or []]
    extras += [f"large-community {c}" for c in a.large_communities or []]
    extras += [f"rt {rt}" for rt in a.extended_communities or [] if rt.subtype == 2]
    for nlri, next_hop in update.routes():
        if withdraw_all:
            # RFC 7606 treat-as-withdraw: the attributes cannot be trusted, so every route the
            # UPDATE announces is handled as withdrawn.
            yield f"{nlri.prefix} withdrawn"
        else:
            yield " ".join([f"{nlri.prefix} via {next_hop} path {path_text(a.as_path)} origin {ORIGINS.get(a.origin, a.origin)}"] + extras)
    for nlri in update.withdrawals():
        yield f"{nlri.prefix} withdrawn"


def main():
    status = 0
    for text in sys.argv[1:] or sys.stdin.read().split():
        data = bytes.fromhex(text)
        while data:
            result = bgpcommon.read_message(data)
            if result.error is not None:
                print(f"malformed message: {result.error}", file=sys.stderr)
                status = 1
            if isinstance(result.message, bgpcommon.Update):
                withdraw_all = result.error is not None and result.error.action == "treatAsWithdraw"
                for line in route_lines(result.message, withdraw_all):
                    print(line)
            if result.message is None:
                break  # the session would be reset: nothing after it can be framed
            data = data[int.from_bytes(data[16:18], "big"):]
    return status


if __name__ == "__main__":
    sys.exit(main())

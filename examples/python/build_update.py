#!/usr/bin/python3
"""Builds one BGP UPDATE message (RFC 4271 section 4.3) and prints it in hex.

    build_update.py [PREFIX ...] [--next-hop ADDRESS] [--as ASN]

The route to each prefix (default 10.1.0.0/16) with ORIGIN IGP, an AS_PATH of one AS (four-octet
AS numbers, as between speakers that both announced the capability, RFC 6793) and a NEXT_HOP.
"""
import argparse
import ipaddress

import bgpcommon

ORIGIN, AS_PATH, NEXT_HOP = 1, 2, 3
TRANSITIVE = 0x40  # well-known attributes: optional 0, transitive 1
AS_SEQUENCE = 2


def update(prefixes, next_hop, asn):
    s = bgpcommon.Serialize()
    s.add_data(b"\xff" * 16)  # marker
    s.add_u16(0)  # message length, filled in at the end
    s.add_u8(2)  # UPDATE
    s.add_u16(0)  # no withdrawn routes
    with s.length(2):  # total path attribute length
        for code, value in [(ORIGIN, lambda: s.add_u8(0)),
                            (AS_PATH, lambda: (s.add_u8(AS_SEQUENCE), s.add_u8(1), s.add_as(asn))),
                            (NEXT_HOP, lambda: s.add_ipv4(next_hop))]:
            s.add_u8(TRANSITIVE)
            s.add_u8(code)
            with s.length(1):
                value()
    for prefix in prefixes:  # NLRI: the length in bits, then as many octets as it needs
        s.add_u8(prefix.prefixlen)
        s.add_data(prefix.network_address.packed[:(prefix.prefixlen + 7) // 8])
    s.patch_u16(16, len(s))
    return bytes(s)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("prefixes", nargs="*", type=ipaddress.IPv4Network, default=[ipaddress.IPv4Network("10.1.0.0/16")])
    parser.add_argument("--next-hop", type=ipaddress.IPv4Address, default=ipaddress.IPv4Address("192.0.2.1"))
    parser.add_argument("--as", dest="asn", type=int, default=65001)
    args = parser.parse_args()
    print(update(args.prefixes, args.next_hop, args.asn).hex())


if __name__ == "__main__":
    main()

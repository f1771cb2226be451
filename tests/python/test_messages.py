"""BGP messages read and written from Python."""
import ipaddress
import os
import pathlib
import subprocess
import sys

import pytest

import bgpcommon as b


def msg(type_, body):
    return b"\xff" * 16 + (19 + len(body)).to_bytes(2, "big") + bytes([type_]) + body


def update(attrs, nlri=b"\x10\x0a\x01"):  # NLRI 10.1.0.0/16
    return msg(2, b"\0\0" + len(attrs).to_bytes(2, "big") + attrs + nlri)


ORIGIN, AS_PATH, NEXT_HOP = bytes.fromhex("40010100"), bytes.fromhex("40020602010000fde9"), bytes.fromhex("400304c0000201")
# An UPDATE gobgpd sent: AS path 4200000001 4200000100 65001 70000, MED 42, communities 65000:1 and
# 65000:2, route target 65000:100, large community 4200000001:1:2, NEXT_HOP 192.0.2.1, 10.1.0.0/16.
GOBGP = msg(2, bytes.fromhex("0000004c400101004002120204fa56ea01fa56ea640000fde9000111708004040000002ac00808fde80001"
                             "fde80002c010080002fde800000064c0200cfa56ea010000000100000002400304c0000201100a01"))
WELL_FORMED = [
    (GOBGP, {}),
    # IPv6 in MP_REACH_NLRI, from gobgpd.
    (msg(2, bytes.fromhex("000000584001010240020a0202fa56ea01fa56ea6480040400000007c00804fde80003c010080002fde8"
                          "000000c8c0200c000000010000000200000003800e1c0002011020010db800000000000000000000000100"
                          "3020010db80001")), {}),
    # A two-octet session: AS_TRANS on AS_PATH, the four-octet path in AS4_PATH.
    (update(ORIGIN + bytes.fromhex("40020602025ba0fde9") + NEXT_HOP + bytes.fromhex("c0110a02020001117000" "00fde9")),
     {"four_octet_as": False}),
    # Add-path (path identifier 1), COMMUNITIES in the extended length form, an unknown attribute.
    (update(ORIGIN + AS_PATH + NEXT_HOP + bytes.fromhex("d0080004fde80001c06302abcd"), bytes.fromhex("0000000118c0a800")),
     {"add_path": [(1, 1)]}),
    # gobgpd's OPEN: capabilities route refresh, FQDN (kept raw), multiprotocol, four-octet AS 4200000001.
    (msg(1, bytes.fromhex("045ba0005ac00002fe2402220200490402766d000104000100010104000200014104fa56ea010506000100010002")), {}),
    (msg(3, bytes([6, 2]) + b"bye"), {}),
    (msg(4, b""), {}),
    (msg(5, bytes.fromhex("00010001")), {}),
]


@pytest.mark.parametrize("data, options", WELL_FORMED, ids=["gobgp-ipv4", "gobgp-ipv6", "as4-path", "add-path-extended-unknown",
                                                         "gobgp-open", "notification", "keepalive", "route-refresh"])
def test_read_then_write_gives_the_same_bytes(data, options):
    r = b.read_message(data, **options)
    assert r.error is None
    s = b.Serialize()
    s.add_message(r.message, **options)
    assert bytes(s) == data


def test_values_read_as_python_types():
    a = b.read_message(GOBGP).message.attributes
    assert [s.asns for s in a.as_path] == [[4200000001, 4200000100, 65001, 70000]] and a.med == 42
    assert [str(c) for c in a.communities] == ["65000:1", "65000:2"] and isinstance(a.communities[0], b.Community)
    assert a.extended_communities == [b.RouteTarget("65000:100")] and a.large_communities == [b.LargeCommunity(4200000001, 1, 2)]
    u = b.Update(nlri=[b.Nlri(ipaddress.ip_network("10.1.0.0/16"))], attributes=b.PathAttributes(
        origin=b.EGP, as_path=[b.AsPathSegment(b.AS_SEQUENCE, [70000]), b.AsPathSegment(b.AS_SET, [1, 2])],
        next_hop=ipaddress.ip_address("192.0.2.1"), med=5, communities=[b.Community("65000:1")],
        extended_communities=[b.RouteTarget("1.4464:7")], large_communities=[b.LargeCommunity(70000, 1, 2)],
        mp_reach=b.MpReach(2, 1, ipaddress.ip_address("2001:db8::1"), [b.Nlri(ipaddress.ip_network("2001:db8::/32"))])))
    s = b.Serialize()
    s.add_message(u)
    got = b.read_message(bytes(s)).message
    got.attributes.flags, got.attributes.order = {}, []
    assert got == u
    assert [(str(n.prefix), str(h)) for n, h in got.routes()] == [("10.1.0.0/16", "192.0.2.1"), ("2001:db8::/32", "2001:db8::1")]


@pytest.mark.parametrize("data, error", [
    (update(bytes.fromhex("40010103") + AS_PATH + NEXT_HOP), "badOrigin at offset 26 in attribute 1: treatAsWithdraw"),
    (update(ORIGIN + ORIGIN + AS_PATH + NEXT_HOP), "duplicateAttribute at offset 27 in attribute 1: attributeDiscard"),
    (update(ORIGIN + NEXT_HOP), "missingMandatory at offset 21 in attribute 2: treatAsWithdraw"),
    (update(bytes.fromhex("80010100") + AS_PATH + NEXT_HOP), "badAttributeFlags at offset 23 in attribute 1: treatAsWithdraw"),
    (update(ORIGIN + bytes.fromhex("40020602020000fde9") + NEXT_HOP), "badAsPathSegment at offset 30 in attribute 2: treatAsWithdraw"),
    (update(ORIGIN + AS_PATH + bytes.fromhex("400305c0000201")), "attributePastEnd at offset 36 in attribute 3: treatAsWithdraw"),
    (update(ORIGIN + AS_PATH + NEXT_HOP, b"\x18\x0a\x01"), "truncated at offset 43: sessionReset"),
    (msg(4, b"")[:18], "truncated at offset 0: sessionReset"),
])
def test_malformed_input_is_data(data, error):
    r = b.read_message(data)
    assert str(r.error) == error
    # What could be read stays for inspection, unless the session is to be reset.
    assert (r.message is None) == (r.error.action == "sessionReset")


V4 = ipaddress.ip_network


@pytest.mark.parametrize("call, error", [
    (lambda s: b.read_message("ffff"), TypeError),
    (lambda s: b.read_message(b"", add_path=[(1, safi) for safi in range(1, 10)]), ValueError),
    (lambda s: s.add_message(object()), TypeError),
    (lambda s: s.add_message(b.Update(attributes=b.PathAttributes(med=-1))), OverflowError),
    (lambda s: s.add_message(b.Update(attributes=b.PathAttributes(as_path=[b.AsPathSegment(2, [70000])])), four_octet_as=False),
     OverflowError),
    (lambda s: s.add_message(b.Update(nlri=[b.Nlri(V4(f"10.{i // 256}.{i % 256}.0/24")) for i in range(1100)])), OverflowError),
    (lambda s: s.add_message(b.Open(capabilities=[b.Capability(99, bytes(256))])), OverflowError),
    (lambda s: s.add_message(b.Update(nlri=[b.Nlri(V4("10.0.0.0/8"), path_id=5)])), ValueError),
    (lambda s: s.add_message(b.Update(nlri=[b.Nlri(V4("10.0.0.0/8"), label_fields=[0x101])])), ValueError),
    # Objects of the wrong type, also where a field is read from them.
    (lambda s: s.add_message(b.Update(nlri=[V4("10.0.0.0/8")])), TypeError),
    (lambda s: s.add_message(b.Update(attributes=b.PathAttributes(atomic_aggregate="yes"))), TypeError),
    (lambda s: s.add_message(b.Open(route_refresh=1)), TypeError),
])
def test_what_a_caller_gets_wrong_raises_and_writes_nothing(call, error):
    s = b.Serialize()
    with pytest.raises(error):
        call(s)
    assert len(s) == 0


def test_read_update_example():
    examples = pathlib.Path(__file__).resolve().parents[2] / "examples" / "python"
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path))
    built = subprocess.run([sys.executable, str(examples / "build_update.py"), "10.1.0.0/16"], check=True,
                           capture_output=True, text=True, env=env).stdout
    bad_origin = update(bytes.fromhex("40010103") + AS_PATH + NEXT_HOP, b"\x18\xc0\xa8\x00")  # treat as withdrawn
    read = subprocess.run([sys.executable, str(examples / "read_update.py")],
                          input=f"{built} {GOBGP.hex()} {bad_origin.hex()} ffff", capture_output=True, text=True, env=env)
    assert read.stdout == ("10.1.0.0/16 via 192.0.2.1 path 65001 origin IGP\n"
                           "10.1.0.0/16 via 192.0.2.1 path 4200000001 4200000100 65001 70000 origin IGP med 42 "
                           "community 65000:1 community 65000:2 large-community 4200000001:1:2 rt 65000:100\n"
                           "192.168.0.0/24 withdrawn\n")
    assert read.stderr == ("malformed message: badOrigin at offset 26 in attribute 1: treatAsWithdraw\n"
                           "malformed message: truncated at offset 0: sessionReset\n") and read.returncode == 1

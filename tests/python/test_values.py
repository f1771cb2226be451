"""Values of the registered types, route targets and the serializer, seen from Python."""
import re

import pytest

import bgpcommon


def _value_types():
    """Every value type with a default value whose text is the Value(...) long form."""
    out = []
    for name in bgpcommon.types():
        try:
            text = str(bgpcommon.parse(str(bgpcommon.default(name)), type=name))
        except (TypeError, bgpcommon.RangeError):  # no default or no text; an enumeration's unnamed zero
            continue
        if text.startswith("Value('"):
            out.append(name)
    return out


VALUE_TYPES = _value_types()

# Long forms with every kind of field set away from its default.
SAMPLES = [
    "Value('Routing::Bgp::MaxRoutes', ** {'routes': 1000, 'warningThreshold': 800, 'warningOnly': True})",
    "Value('Routing::Bgp::TristateOutDelay', ** {'value': Value('Routing::Bgp::OutDelay', ** "
    "{'delay': 30, 'apply': applyNew}), 'isSet': True})",
    "Value('Routing::Bgp::BgpTcpAuthKey', ** {'type': none, 'secret': 'it\\'s \\\\ \\xe9\\n', "
    "'keyChain': 'chain', 'keyId': 7})",
    "Value('Routing::BgpRedistribute::FilteredRoute', ** {'key': None, 'igpResultId': 42})",
]


@pytest.mark.parametrize("name", VALUE_TYPES)
def test_default_round_trips(name):
    v = bgpcommon.default(name)
    text = str(v)
    assert repr(v) == text
    assert bgpcommon.parse(text) == v
    assert bgpcommon.parse(text, type=name) == v
    # Rebuilt from the fields read off it.
    fields = {f: getattr(v, f) for _, f, kind in bgpcommon.attributes(name) if kind == "field"}
    assert bgpcommon.Value(name, **fields) == v
    try:
        compile(text, "<long form>", "eval")
    except SyntaxError:
        # Only a bare IPv6 address ("::") keeps a long form from being a Python expression.
        assert re.search(r"': [0-9a-fA-F:]*::", text), text
        return
    assert eval(text, bgpcommon.namespace()) == v


@pytest.mark.parametrize("text", SAMPLES)
def test_sample_round_trips(text):
    v = bgpcommon.parse(text)
    assert str(v) == text
    assert eval(text, bgpcommon.namespace()) == v
    assert v != bgpcommon.default(v.type_name)


def test_fields_and_equality():
    assert len(VALUE_TYPES) >= 30  # the tristates alone are sixteen: an empty registry would pass vacuously
    v = bgpcommon.parse(SAMPLES[1])
    assert v.isSet is True
    assert v.value.delay == 30 and v.value.apply == "applyNew"
    assert bgpcommon.Value("Routing::Bgp::OutDelay", delay=30) != v.value  # apply keeps its default
    assert bgpcommon.Value("Routing::Bgp::OutDelay", delay=30, apply="applyNew") == v.value
    key = bgpcommon.parse(SAMPLES[2])
    assert key.secret == "it's \\ \xe9\n"
    assert bgpcommon.Value(key.type_name, secret=key.secret, keyChain="chain", keyId=7) == key
    assert bool(v) and not bgpcommon.default("Routing::Bgp::MaxRoutes")
    assert v != 1 and v != bgpcommon.default("Routing::Bgp::MaxRoutes")
    assert bgpcommon.default("Routing::Bgp::MaxRoutes").toStrep() == "<routes=0;warningOnly=no;warningThreshold=0>"


def test_hash_follows_the_type():
    a = bgpcommon.parse("Value('Routing::Bgp::IpPlugin::Ipv4RouteKeyContent', ** {'addressNbo': 10, 'prefixLength': 8})")
    b = bgpcommon.Value(a.type_name, addressNbo=10, prefixLength=8)
    assert hash(a) == hash(b) and len({a, b}) == 1
    pytest.raises(TypeError, hash, bgpcommon.default("Routing::Bgp::MaxRoutes")).match("unhashable")


def test_bad_text_raises_range_error():
    with pytest.raises(bgpcommon.RangeError) as e:
        bgpcommon.parse("Value('Routing::Bgp::MaxRoutes', ** {'routes': 4294967296, 'warningThreshold': 2, "
                        "'warningOnly': True})")
    assert str(e.value) == "routes: number above 4294967295 at offset 47, found \"4294967296, 'warningThre...\""
    assert isinstance(e.value, ValueError)


@pytest.mark.parametrize("call, error", [
    (lambda: bgpcommon.default("Routing::BgpRedistribute::IgpResult"), TypeError),  # no default
    (lambda: bgpcommon.parse("x", type="Routing::BgpRedistribute::IgpResultLookup"), TypeError),  # holds one
    (lambda: bgpcommon.parse("7", type="Routing::Bgp::BgpIdAllocator"), TypeError),  # an entity
    (lambda: bgpcommon.parse("7"), ValueError),  # names no type
    (lambda: bgpcommon.default("No::Such"), ValueError),
    (lambda: bgpcommon.Value("Routing::Bgp::MaxRoutes", route=1), TypeError),
    (lambda: bgpcommon.Value("Routing::Bgp::MaxRoutes", routes=-1), bgpcommon.RangeError),
    (lambda: bgpcommon.Value("Routing::Bgp::MaxRoutes", warningOnly=1), bgpcommon.RangeError),
    (lambda: bgpcommon.Value("Routing::BgpRedistribute::IgpResult"), TypeError),  # key needed
    (lambda: bgpcommon.default("Routing::Bgp::MaxRoutes").nothing, AttributeError),
])
def test_misuse_raises(call, error):
    with pytest.raises(error):
        call()


# Route targets: text, value, octets (golden values of the library's own tests).
@pytest.mark.parametrize("text, value, plain, asdot", [
    ("100:5", 0x0002006400000005, "100:5", "100:5"),
    ("1.4464:5", 0x0202000111700005, "70000:5", "1.4464:5"),
    ("10.0.0.1:7", 0x01020A0000010007, "10.0.0.1:7", "10.0.0.1:7"),
])
def test_route_target(text, value, plain, asdot):
    rt = bgpcommon.RouteTarget(text)
    assert rt.value == value
    assert rt.text() == str(rt) == plain and rt.text(asdot=True) == asdot
    assert bytes(rt) == value.to_bytes(8, "big")
    assert bgpcommon.RouteTarget.from_bytes(bytes(rt)) == rt
    assert bgpcommon.RouteTarget(rt.text(asdot=True)) == rt and hash(bgpcommon.RouteTarget(plain)) == hash(rt)
    pytest.raises(ValueError, bgpcommon.RouteTarget.from_bytes, bytes(rt)[:7])  # needs eight


@pytest.mark.parametrize("text, message", [
    ("70000:65536", "RouteTarget: local admin exceeds 2 bytes"),
    ("zz0000000000000000", "stoull"),
    ("100000000000000000", "stoull"),
])
def test_route_target_bad_text(text, message):
    with pytest.raises(bgpcommon.RangeError) as e:
        bgpcommon.RouteTarget(text)
    assert str(e.value) == message




def test_serialize_writes_network_order():
    s = bgpcommon.Serialize()
    for add, *args in [(s.add_u8, 0xAB), (s.add_u16, 0x1234), (s.add_u32, 0x12345678), (s.add_as, 65536),
                       (s.add_ipv4, "192.0.2.1"), (s.add_ipv6, "2001:db8::102:304"), (s.add_data, b"\xff\x00")]:
        add(*args)
    s.add_as(65535, four_octet=False)
    assert s.bytes() == bytes.fromhex(
        "ab" "1234" "12345678" "00010000" "c0000201" "20010db8000000000000000001020304" "ff00" "ffff")
    assert len(s) == len(bytes(s)) == 35


def test_serialize_limits():
    s = bgpcommon.Serialize()
    s.add_data(b"\x01" * 65534)
    pytest.raises(OverflowError, s.add_u16, 1).match("^Serialized bytes exceed bgpMaxExtendedMessageSize$")
    s.add_u8(2)  # the last octet still fits
    pytest.raises(OverflowError, s.add_data, b"\x03")
    assert len(s) == 65535 and s.bytes()[-2:] == b"\x01\x02"
    pytest.raises(ValueError, s.add_as, 70000, four_octet=False)
    pytest.raises(bgpcommon.RangeError, s.add_ipv4, "192.0.2")
    pytest.raises(TypeError, s.add_u8, 256)

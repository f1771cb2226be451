"""Values of the registered types, route targets and the serializer, seen from Python."""
import ast
import copy
import inspect
import os
import ipaddress
import pathlib
import pickle
import re
import subprocess
import sys

import pytest

import bgpcommon

TOOL = pathlib.Path(bgpcommon.__file__).resolve().parents[2] / "bin" / "bgpcommon"


def _defaults():
    """Every registered type with a default value, as its name and that value."""
    out = []
    for name in bgpcommon.types():
        try:
            out.append((name, bgpcommon.default(name)))
        except TypeError:  # no default (an entity, a record keyed by an identifier)
            pass
    return out


DEFAULTS = _defaults()


def _reads_back(v):
    try:
        return bgpcommon.parse(str(v)) == v
    except TypeError:  # a type that holds a collection is not read from text
        return False


VALUE_TYPES = [n for n, v in DEFAULTS if isinstance(v, bgpcommon.Value) and str(v).startswith("Value('") and _reads_back(v)]

# Long forms with every kind of field set away from its default.
SAMPLES = [
    "Value('Routing::Bgp::MaxRoutes', ** {'routes': 1000, 'warningThreshold': 800, 'warningOnly': True})",
    "Value('Routing::Bgp::TristateOutDelay', ** {'value': Value('Routing::Bgp::OutDelay', ** "
    "{'delay': 30, 'apply': applyNew}), 'isSet': True})",
    "Value('Routing::Bgp::BgpTcpAuthKey', ** {'type': none, 'secret': 'it\\'s \\\\ \\xe9\\n', "
    "'keyChain': 'chain', 'keyId': 7})",
    "Value('Routing::BgpRedistribute::FilteredRoute', ** {'key': 10.1.0.0/16, 'igpResultId': 42})",
    "Value('Routing::Rib::RouteKey', ** {'prefix': 2001:db8::/32})",
]


@pytest.mark.parametrize("name, v", DEFAULTS, ids=[n for n, _ in DEFAULTS])
def test_default_round_trips(name, v):
    text = str(v)
    try:  # str of a route target is the operator's text; an enumeration's unnamed zero reads by number only
        unnamed = isinstance(v, bgpcommon.Enum) and v.name.isdigit()
        assert isinstance(v, bgpcommon.RouteTarget) or unnamed or bgpcommon.parse(text, type=name) == v
    except TypeError:  # a type that holds a collection is not read from text
        pass
    assert eval(repr(v), bgpcommon.namespace()) == v
    assert pickle.loads(pickle.dumps(v)) == v and copy.deepcopy(v) == v
    if isinstance(v, bgpcommon.Value) and name in VALUE_TYPES:
        assert bgpcommon.parse(text) == v
        fields = {f: getattr(v, f) for _, f, kind in bgpcommon.attributes(name) if kind == "field"}
        assert bgpcommon.Value(name, **fields) == v == v.replace(**fields)


def test_every_value_type_has_its_repr_checked():
    # Records (the one value type without a default) are checked as read from a table.
    assert set(bgpcommon._bgpcommon._python_types()) <= {repr(v).partition("(")[0] for _, v in DEFAULTS} | {"IgpResult"}


@pytest.mark.parametrize("call, signature", [
    (bgpcommon.parse, "(text, *, type=None)"),
    (bgpcommon.Serialize().add_as, "(asn, four_octet=True)"),
    (bgpcommon.RouteTarget, "(value, local_admin=None)"),
    (bgpcommon.IgpResultTable, "(name, root=None, *, missing_ok=False, on_corruption=None)"),
    (bgpcommon.MaxRoutes, "(text=None, /, *, routes=0, warningThreshold=0, warningOnly=False)"),
])
def test_signatures(call, signature):
    assert str(inspect.signature(call)) == signature
    # And every public callable has one: the package's names, their methods, the value constructors.
    public = [getattr(bgpcommon, n) for n in bgpcommon.__all__] + list(bgpcommon._bgpcommon._python_types().values())
    public += [m for c in public if isinstance(c, type) for n, m in vars(c).items() if n[0] != "_" and callable(m)]
    for f in public:
        if callable(f) and f is not bgpcommon.Table and not (isinstance(f, type) and issubclass(f, Exception)):
            inspect.signature(f)


@pytest.mark.parametrize("text", SAMPLES)
def test_sample_round_trips(text):
    v = bgpcommon.parse(text)
    assert str(v) == text and eval(repr(v), bgpcommon.namespace()) == v and pickle.loads(pickle.dumps(v)) == v
    assert v != bgpcommon.default(v.type_name)
    # JSON from the same description as the tool's.
    tool = subprocess.run([str(TOOL), "value", "parse", v.type_name, text, "--json"], capture_output=True, text=True)
    if tool.returncode == 0:
        assert v.to_json() == tool.stdout.strip()


def test_fields_read_as_python_objects():
    assert len(VALUE_TYPES) >= 30  # the tristates alone are sixteen: an empty registry would pass vacuously
    v = bgpcommon.parse(SAMPLES[1])
    assert v.isSet is True and v.value.delay == 30
    apply = v.value.apply
    assert apply == "applyNew" and apply == bgpcommon.parse("applyNew", type=apply.type_name)
    assert type(apply) is bgpcommon.OutDelayApplyType and apply.name == "applyNew" and int(apply) == 1
    # An enumeration's class lists its enumerators, as an enum.Enum class does.
    assert list(bgpcommon.Level) == ["level1", "level2", "level1And2", "levelUnset"] == list(map(bgpcommon.Level, range(1, 5)))
    assert bgpcommon.parse(SAMPLES[2]).secret == "it's \\ \xe9\n"
    typed = SAMPLES[2].replace("\\xe9", "\xe9")  # the text holds é itself: one character, one byte
    assert bgpcommon.parse(typed) == bgpcommon.Value("Routing::Bgp::BgpTcpAuthKey", typed) == bgpcommon.parse(SAMPLES[2])
    route = bgpcommon.parse(SAMPLES[3])
    assert route.key == ipaddress.ip_network("10.1.0.0/16") and route.igpResultId == 42
    assert route == bgpcommon.FilteredRoute(key=ipaddress.ip_network("10.1.0.0/16"), igpResultId=42)
    assert repr(route) == "FilteredRoute(key=IPv4Network('10.1.0.0/16'), igpResultId=IgpResultId(42))"
    asn = bgpcommon.parse("1.4464", type="Netzo::AutonomousSystem")
    assert asn == 70000 and str(asn) == "70000" and asn.displayString(True) == "1.4464"
    assert bgpcommon.default("Routing::Bgp::MaxRoutes").toStrep() == "<routes=0;warningOnly=no;warningThreshold=0>"
    assert sorted([bgpcommon.RouteTag(7), bgpcommon.RouteTag(3)]) == [3, 7]


def test_values_are_immutable_and_functions_return_copies():
    m = bgpcommon.parse(SAMPLES[0])
    with pytest.raises(AttributeError, match="immutable"):
        m.routes = 5
    assert m.replace(routes=5).routes == 5 and m.routes == 1000
    e = bgpcommon.default("Routing::Bgp::AddPathSendEffectiveConfig")
    merged = e.aggregate(e.replace(apBackupEnabled=True))
    assert merged.apBackupEnabled and not e.apBackupEnabled
    assert e < merged and sorted([merged, e]) == [e, merged]
    key = bgpcommon.Value("Routing::Bgp::IpPlugin::Ipv4RouteKeyContent", addressNbo=0, prefixLength=8)
    assert key.addressIs(ipaddress.IPv4Address("10.0.0.0")).address() == ipaddress.IPv4Address("10.0.0.0")


@pytest.mark.parametrize("fields, error, message", [
    ({"routes": "x"}, TypeError, "MaxRoutes.routes: expected an int, not str"),
    ({"routes": "1000"}, TypeError, "MaxRoutes.routes: expected an int, not str"),
    ({"routes": 1.5}, TypeError, "MaxRoutes.routes: expected an int, not float"),
    ({"routes": True}, TypeError, "MaxRoutes.routes: expected an int, not bool"),
    ({"routes": -1}, OverflowError, "MaxRoutes.routes: -1 is out of range 0..4294967295"),
    ({"routes": 1 << 32}, OverflowError, "MaxRoutes.routes: 4294967296 is out of range 0..4294967295"),
    ({"warningOnly": 1}, TypeError, "MaxRoutes.warningOnly: expected a bool, not int"),
    ({"route": 1}, TypeError, "MaxRoutes has no field 'route'"),
])
def test_wrong_fields_name_the_field(fields, error, message):
    with pytest.raises(error, match=f"^{re.escape(message)}$"):
        bgpcommon.Value("Routing::Bgp::MaxRoutes", **fields)


@pytest.mark.parametrize("call, error", [
    (lambda: bgpcommon.default("Routing::BgpRedistribute::IgpResult"), TypeError),  # no default
    (lambda: bgpcommon.parse("x", type="Routing::BgpRedistribute::IgpResultLookup"), TypeError),  # holds one
    (lambda: bgpcommon.parse("7", type="Routing::Bgp::BgpIdAllocator"), TypeError),  # an entity
    (lambda: bgpcommon.parse("7"), ValueError),  # names no type
    (lambda: bgpcommon.default("No::Such"), ValueError),
    (lambda: bgpcommon.Value("Routing::BgpRedistribute::IgpResult"), TypeError),  # key needed
    (lambda: bgpcommon.default("Routing::Bgp::MaxRoutes").nothing, AttributeError),
    (lambda: bgpcommon.parse("x", type="Routing::Isis::Level"), bgpcommon.RangeError),
    (lambda: bgpcommon.RouteTag(1 << 32), OverflowError),
    (lambda: bgpcommon.Community("65536:1"), ValueError),
    (lambda: bgpcommon.Community("\u0661:1"), ValueError),  # an Arabic-Indic one: a digit to str.isdigit()
    (lambda: hash(bgpcommon.default("Routing::Bgp::MaxRoutes")), TypeError),  # unhashable
])
def test_misuse_raises(call, error):
    with pytest.raises(error):
        call()


def test_threads_that_meet_the_module_together():
    # A type's first use runs Python code to make its class, letting other threads in halfway (this hung).
    use = f"b.MaxRoutes(routes=1).routes, b.Level(1), b.parse({SAMPLES[1]!r}).value.apply"
    code = ("import sys, threading, bgpcommon as b; sys.setswitchinterval(1e-6); go = threading.Barrier(4)\n"
            f"ts = [threading.Thread(target=lambda: (go.wait(), {use})) for _ in range(4)]\n"
            "[t.start() for t in ts]; [t.join() for t in ts]; print('done')\n")
    out = subprocess.run([sys.executable, "-X", "dev", "-c", code], capture_output=True, text=True, timeout=120)
    assert out.stdout == "done\n" and out.stderr == ""


def test_bad_text_raises_range_error():
    with pytest.raises(bgpcommon.RangeError) as e:
        bgpcommon.parse("Value('Routing::Bgp::MaxRoutes', ** {'routes': 4294967296, 'warningThreshold': 2, "
                        "'warningOnly': True})")
    assert str(e.value) == "routes: number above 4294967295 at offset 47, found \"4294967296, 'warningThre...\""
    assert isinstance(e.value, ValueError)


# Route targets: text, value, octets (golden values of the library's own tests).
@pytest.mark.parametrize("text, value, plain, asdot, parts", [
    ("100:5", 0x0002006400000005, "100:5", "100:5", (0, 2, 100, 5)),
    ("1.4464:5", 0x0202000111700005, "70000:5", "1.4464:5", (2, 2, 70000, 5)),
    ("10.0.0.1:7", 0x01020A0000010007, "10.0.0.1:7", "10.0.0.1:7", (1, 2, ipaddress.IPv4Address("10.0.0.1"), 7)),
])
def test_route_target(text, value, plain, asdot, parts):
    rt = bgpcommon.RouteTarget(text)
    assert rt.value == int(rt) == value and (rt.type, rt.subtype, rt.global_admin, rt.local_admin) == parts
    assert rt.text() == str(rt) == plain and rt.text(asdot=True) == asdot and eval(repr(rt), bgpcommon.namespace()) == rt
    octets = value.to_bytes(8, "big")
    assert bytes(rt) == octets and all(bgpcommon.RouteTarget.from_bytes(b) == rt
                                       for b in (octets, bytearray(octets), memoryview(octets)))
    assert bgpcommon.RouteTarget(value) == bgpcommon.RouteTarget(parts[2], parts[3]) == rt
    assert hash(bgpcommon.RouteTarget(plain)) == hash(rt) and pickle.loads(pickle.dumps(rt)) == rt
    assert rt != None and rt not in ["x", 1] and rt != value  # noqa: E711
    pytest.raises(TypeError, sorted, [rt, value]).match("not supported between")  # Python's own refusal
    pytest.raises(ValueError, bgpcommon.RouteTarget.from_bytes, octets[:7])  # needs eight


def test_route_targets_sort_by_value():
    texts = ["10.0.0.1:7", "100:5", "1.4464:5", "100:4"]
    assert [str(r) for r in sorted(map(bgpcommon.RouteTarget, texts))] == ["100:4", "100:5", "10.0.0.1:7", "70000:5"]


def test_serialize_writes_network_order():
    s = bgpcommon.Serialize()
    for add, *args in [(s.add_u8, 0xAB), (s.add_u16, 0x1234), (s.add_u32, 0x12345678), (s.add_as, 65536),
                       (s.add_ipv4, ipaddress.IPv4Address("192.0.2.1")), (s.add_ipv6, "2001:db8::102:304"),
                       (s.add_data, bytearray(b"\xff\x00"))]:
        add(*args)
    s.add_as(65535, four_octet=False)
    with s.length(2) as at:
        s.add_data(memoryview(b"\x01\x02\x03"))
    s.patch_u8(0, 0xAC)
    assert s.bytes() == bytes.fromhex(
        "ac" "1234" "12345678" "00010000" "c0000201" "20010db8000000000000000001020304" "ff00" "ffff" "0003010203")
    assert at == 35 and len(s) == len(bytes(s)) == 40


@pytest.mark.parametrize("call, error", [
    (lambda s: s.add_u8(256), OverflowError),
    (lambda s: s.add_u16(-1), OverflowError),
    (lambda s: s.add_u32(1.0), TypeError),
    (lambda s: s.add_as(70000, four_octet=False), OverflowError),
    (lambda s: s.add_ipv4("192.0.2"), bgpcommon.RangeError),
    (lambda s: s.add_ipv4(ipaddress.IPv6Address("::1")), TypeError),
    (lambda s: s.add_data("text"), TypeError),
    (lambda s: s.patch_u16(0, 1), IndexError),
    (lambda s: s.patch_u8(-1, 0), IndexError),
])
def test_serialize_refuses(call, error):
    with pytest.raises(error):
        call(bgpcommon.Serialize())


def test_serialize_limits():
    s = bgpcommon.Serialize()
    for block in (lambda: s.add_data(bytes(256)), lambda: s.add_u16(1 << 16)):  # overflows its length; raises
        with pytest.raises(OverflowError), s.length(1):  # either way taken back, length and all
            block()
    s.add_data(b"\x01" * 65534)
    pytest.raises(OverflowError, s.add_u16, 1).match("^Serialized bytes exceed bgpMaxExtendedMessageSize$")
    s.add_u8(2)  # the last octet still fits
    pytest.raises(OverflowError, s.add_data, b"\x03")
    assert len(s) == 65535 and s.bytes()[-2:] == b"\x01\x02"


def _rows():
    """The route-target rows every reader shares: (input bytes, (value, text) or message)."""
    path = pathlib.Path(__file__).resolve().parents[1] / "data" / "route-target-rows.tsv"
    for line in path.read_text(encoding="ascii").splitlines():
        if line and not line.startswith("#"):
            text, value, shown = line.split("\t")
            raw = text.encode("ascii").decode("unicode_escape").encode("latin-1")
            yield raw, (shown if value == "error" else (int(value, 16), shown))


@pytest.mark.skipif(not TOOL.exists(), reason="the bgpcommon tool is not built beside the module")
def test_route_target_rows_read_alike_by_module_and_tool():
    rows = list(_rows())
    assert len(rows) > 50
    for raw, expected in rows:
        try:
            rt = bgpcommon.RouteTarget(raw.decode("latin-1"))
            got = (rt.value, rt.text())
        except bgpcommon.RangeError as e:
            got = str(e)
        assert got == expected, raw
        if b"\0" in raw:
            continue  # a command line cannot carry it
        tool = subprocess.run([str(TOOL), "route-target", "--", raw], capture_output=True)
        shown = tool.stdout.decode("latin-1").split()
        tool_got = (int(shown[0], 16), shown[-1]) if tool.returncode == 0 else tool.stderr.decode("latin-1").strip()
        assert tool_got == got, raw


def test_update_example():
    example = pathlib.Path(__file__).resolve().parents[2] / "examples" / "python" / "build_update.py"
    out = subprocess.run([sys.executable, str(example), "10.1.0.0/16", "192.168.0.0/24"], check=True,
                         capture_output=True, text=True, env=dict(os.environ, PYTHONPATH=str(TOOL.parents[1] / "python")))
    # marker, length 50, UPDATE, no withdrawals, 20 octets of attributes: ORIGIN IGP, AS_PATH (AS 65001),
    # NEXT_HOP 192.0.2.1; then the two prefixes.
    assert out.stdout.strip() == ("ff" * 16 + "0032" "02" "0000" "0014" "40010100" "400206020100" "00fde9"
                                  "400304c0000201" "100a01" "18c0a800")


def test_stubs_name_what_the_package_has():
    stub = ast.parse((pathlib.Path(bgpcommon.__file__).parent / "__init__.pyi").read_text())
    assert (pathlib.Path(bgpcommon.__file__).parent / "py.typed").exists()
    named = set()
    for node in stub.body:
        name = getattr(node, "name", None) or getattr(getattr(node, "target", None), "id", None)
        if name is None:
            continue  # the docstring, the imports
        named.add(name)
        assert name == "__getattr__" or hasattr(bgpcommon, name), name
        for member in getattr(node, "body", []) if isinstance(node, ast.ClassDef) else []:
            assert not isinstance(member, ast.FunctionDef) or hasattr(getattr(bgpcommon, name), member.name)
    assert set(bgpcommon.__all__) <= named and bgpcommon.__version__ in subprocess.run(
        [str(TOOL), "--version"], capture_output=True, text=True).stdout

#!/usr/bin/env python3
"""Writes the type stubs of the bgpcommon package from the built package itself.

    make_stubs.py OUT.pyi      (with the built package on PYTHONPATH)

The compiled functions carry their signatures in the first lines of their docstrings, as pybind11
writes them ("name(arg: type = default) -> type", numbered when overloaded); the Python classes
have real signatures. Every public name of bgpcommon.__all__ gets a stub, so a test can check that
the stub names nothing the package lacks and lacks nothing it has.
"""
import dataclasses
import inspect
import re
import sys

sys.path.pop(0)  # this folder holds the package's sources, not the built package
import bgpcommon  # noqa: E402

HEADER = '''"""Type stubs of bgpcommon, generated from the built package (python/make_stubs.py)."""
import ipaddress
from typing import Any, Iterator, Optional, Union, overload

'''

# pybind11's spellings of types, as Python spells them.
REWRITE = [
    (r"\bbgpcommon\._bgpcommon\.", ""),
    (r"\bbgpcommon\._messages\.", ""),
    (r"\bNoneType\b", "None"),
    (r"\bhandle\b", "Any"),
    (r"\b_LengthScope\b", "Any"),
    (r"\bobject\b", "Any"),
    (r"\bnumpy\.\w+\b", "Any"),
    (r"\biterator\b", "Iterator[Any]"),
    (r"\bList\[", "list["),
    (r"\bTuple\[", "tuple["),
    (r"\bDict\[", "dict["),
    (r"= None\b", "= ..."),
    (r"= <[^>]*>", "= ..."),
]
SIGNATURE = re.compile(r"^(?:\d+\. )?(\w+)(\(.*\))(?: -> (.+))?$")


def clean(text):
    for pattern, replacement in REWRITE:
        text = re.sub(pattern, replacement, text)
    return text


def defaults_elided(params):
    # Any default the signature shows becomes "...": a stub states types, not values. A default
    # runs to the next comma or closing bracket outside the brackets it opens (IPv4Address('0.0.0.0')).
    out, i = [], 0
    while (at := params.find("= ", i)) >= 0:
        out.append(params[i:at] + "= ...")
        depth, i = 0, at + 2
        while i < len(params) and (depth > 0 or params[i] not in ",)]"):
            depth += (params[i] in "([{") - (params[i] in ")]}")
            i += 1
    return "".join(out) + params[i:]


def signatures(fn):
    """The (name, params, result) of each overload the docstring of a compiled function states."""
    out = []
    lines = (fn.__doc__ or "").splitlines()
    overloaded = "Overloaded function." in lines[:2]
    if not overloaded:
        lines = lines[:1]  # pybind11's own line; the text after it is prose
    for line in lines:
        if overloaded and not re.match(r"^\d+\. ", line):
            continue
        m = SIGNATURE.match(line.strip())
        if m and m.group(1) == fn.__name__:
            out.append((m.group(1), defaults_elided(clean(m.group(2))), clean(m.group(3) or "None")))
    return out


def function_stub(fn, indent=""):
    sigs = signatures(fn)
    if not sigs:
        try:
            params = defaults_elided(clean(str(inspect.signature(fn)).replace("'", "")))
            return [f"{indent}def {fn.__name__}{params}: ..."]
        except (TypeError, ValueError):
            return [f"{indent}def {fn.__name__}(*args: Any, **kwargs: Any) -> Any: ..."]
    lines = []
    for name, params, result in sigs:
        if len(sigs) > 1:
            lines.append(f"{indent}@overload")
        lines.append(f"{indent}def {name}{params} -> {result}: ...")
    return lines


def class_stub(name, cls):
    bases = [b.__name__ for b in cls.__bases__ if b.__name__ not in ("object", "pybind11_object")]
    lines = [f"class {name}({', '.join(bases)}):" if bases else f"class {name}:"]
    fields = {f.name: f for f in dataclasses.fields(cls)} if dataclasses.is_dataclass(cls) else {}
    for f in fields.values():  # a dataclass's fields, typed as declared
        lines.append(f"    {f.name}: {clean(inspect.formatannotation(f.type))}")
    for attr, member in sorted(vars(cls).items()):
        if attr in fields:
            continue
        if attr.startswith("_") and attr not in ("__init__", "__len__", "__iter__", "__getitem__", "__contains__",
                                                 "__enter__", "__exit__", "__bytes__", "__int__", "__new__"):
            continue
        if isinstance(member, property) or type(member).__name__ == "property":
            lines.append(f"    @property")
            lines.append(f"    def {attr}(self) -> Any: ...")
        elif isinstance(member, staticmethod):
            if attr != "__new__":
                lines.append("    @staticmethod")
            lines += function_stub(member.__func__, "    ")
        elif callable(member):
            stub = function_stub(member, "    ")
            if stub and "@staticmethod" not in stub[0] and type(member).__name__ == "builtin_function_or_method":
                lines.append("    @staticmethod")
            lines += stub
        elif not attr.startswith("_"):
            lines.append(f"    {attr}: {type(member).__name__}")
    if len(lines) == 1:
        lines.append("    ...")
    return lines


def main():
    out = [HEADER]
    for name in sorted(bgpcommon.__all__):
        obj = getattr(bgpcommon, name)
        if inspect.isclass(obj):
            out += class_stub(name, obj)
        elif callable(obj):
            out += function_stub(obj)
        else:
            out.append(f"{name}: {type(obj).__name__}")
        out.append("")
    out.append("# The Python type of each registered type (bgpcommon.RouteTag, bgpcommon.Level, ...).")
    out.append("def __getattr__(name: str) -> Any: ...")
    with open(sys.argv[1], "w", encoding="utf-8") as f:
        f.write("\n".join(out) + "\n")


if __name__ == "__main__":
    main()

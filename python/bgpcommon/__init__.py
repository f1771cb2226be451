"""Data types of the BGP routing agent, from Python.

- Values of every registered type: `parse`, `default`, `Value`, `types`, `namespace`. Fields read
  as native Python objects: number-like types as ints (`Number` subclasses), enumerations as
  `Enum` subclasses (str), communities as `Community` (int), addresses and prefixes as
  `ipaddress` objects; anything else as an immutable `Value`.
- `RouteTarget`, the route-target extended community, and `Serialize`, the BGP message writer.
- The shared-memory tables, read-only: `IgpResultTable` and `FilteredRouteTable`, mappings from a
  record's key to its record that can wait for the writer's changes.
"""
import collections.abc

from bgpcommon._bgpcommon import (
    FilteredRouteTable,
    IgpResultTable,
    RangeError,
    RouteTarget,
    Serialize,
    Table,
    TableCorruptionError,
    Value,
    RESYNC,
    WRITER_CLOSED,
    WRITER_OPEN,
    __version__,
    attributes,
    default,
    namespace,
    parse,
    python_type,
    types,
)
from bgpcommon._native import Community, Enum, Number

collections.abc.Mapping.register(Table)

__all__ = [
    "Community",
    "Enum",
    "FilteredRouteTable",
    "IgpResultTable",
    "Number",
    "RESYNC",
    "RangeError",
    "RouteTarget",
    "Serialize",
    "Table",
    "TableCorruptionError",
    "Value",
    "WRITER_CLOSED",
    "WRITER_OPEN",
    "__version__",
    "attributes",
    "default",
    "namespace",
    "parse",
    "python_type",
    "types",
]


def __getattr__(name):
    # The Python types of the registered types, made when first asked for: bgpcommon.RouteTag,
    # bgpcommon.Level, bgpcommon.MaxRoutes (a constructor of Values) ...
    from bgpcommon._bgpcommon import _python_types
    try:
        return _python_types()[name]
    except KeyError:
        raise AttributeError(f"module 'bgpcommon' has no attribute {name!r}") from None

"""Data types of the BGP routing agent, from Python.

- Values of every registered type: `parse`, `default`, `Value`, `types`, `namespace`. Fields read
  as native Python objects: number-like types as ints (`Number` subclasses), enumerations as
  `Enum` subclasses (str), communities as `Community` (int), addresses and prefixes as
  `ipaddress` objects; anything else as an immutable `Value`.
- `RouteTarget`, the route-target extended community, and `Serialize`, the BGP message writer.
- BGP messages: `read_message` reads one into an `Open`, `Update`, `Notification`, `Keepalive` or
  `RouteRefresh` (with its `PathAttributes`), and reports a malformed one as a `ReadError` (rule,
  offset, RFC 7606 action); `Serialize.add_message` and `Serialize.add_path_attributes` write them.
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
    read_message,
    types,
)
from bgpcommon._messages import (
    AS_CONFED_SEQUENCE,
    AS_CONFED_SET,
    AS_SEQUENCE,
    AS_SET,
    EGP,
    IGP,
    INCOMPLETE,
    Aggregator,
    AsPathSegment,
    Capability,
    Keepalive,
    LargeCommunity,
    MpReach,
    MpUnreach,
    Nlri,
    Notification,
    Open,
    PathAttributes,
    RawAttribute,
    ReadError,
    ReadResult,
    RouteRefresh,
    Update,
)
from bgpcommon._native import Community, Enum, Number

collections.abc.Mapping.register(Table)

__all__ = [
    "AS_CONFED_SEQUENCE",
    "AS_CONFED_SET",
    "AS_SEQUENCE",
    "AS_SET",
    "Aggregator",
    "AsPathSegment",
    "Capability",
    "Community",
    "EGP",
    "Enum",
    "FilteredRouteTable",
    "IGP",
    "INCOMPLETE",
    "IgpResultTable",
    "Keepalive",
    "LargeCommunity",
    "MpReach",
    "MpUnreach",
    "Nlri",
    "Notification",
    "Number",
    "Open",
    "PathAttributes",
    "RESYNC",
    "RangeError",
    "RawAttribute",
    "ReadError",
    "ReadResult",
    "RouteRefresh",
    "RouteTarget",
    "Serialize",
    "Table",
    "TableCorruptionError",
    "Update",
    "Value",
    "WRITER_CLOSED",
    "WRITER_OPEN",
    "__version__",
    "attributes",
    "default",
    "namespace",
    "parse",
    "python_type",
    "read_message",
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

"""BGP messages and their path attributes as Python objects.

bgpcommon.read_message() returns them, Serialize.add_message() and Serialize.add_path_attributes()
write them. Values are the types Python users reach for: prefixes and addresses are `ipaddress`
objects, standard communities `Community`, route targets `RouteTarget`, AS numbers ints.
Everything else a message carries is kept too (attribute flags, the order attributes came in,
unknown attributes and capabilities as bytes), so that a well-formed message read and written back
with the same options gives the same bytes (but for the trailing bits of a prefix's last octet,
which an `ipaddress` network does not hold: written as zero), and a program can change one
attribute and send the rest on. A malformed message reads without the attributes found broken.
"""
import ipaddress
from dataclasses import dataclass, field
from typing import Iterator, Optional, Union

# AS_PATH segment types (RFC 4271, RFC 5065).
AS_SET, AS_SEQUENCE, AS_CONFED_SEQUENCE, AS_CONFED_SET = 1, 2, 3, 4
# ORIGIN values.
IGP, EGP, INCOMPLETE = 0, 1, 2

Address = Union[ipaddress.IPv4Address, ipaddress.IPv6Address]
Network = Union[ipaddress.IPv4Network, ipaddress.IPv6Network]


@dataclass
class ReadError:
    """Why a message is malformed: the rule it broke ("badAttributeFlags"), the offset of the
    broken field in the message, the path attribute concerned (0: none), and the action RFC 7606
    gives for it: "attributeDiscard", "treatAsWithdraw", "afiSafiDisable" or "sessionReset"."""
    rule: str
    action: str
    offset: int
    attribute_type: int = 0

    def __str__(self):
        where = f" in attribute {self.attribute_type}" if self.attribute_type else ""
        return f"{self.rule} at offset {self.offset}{where}: {self.action}"


@dataclass
class Nlri:
    """One NLRI entry: a prefix, its add-path identifier (RFC 7911; 0 without add-path) and, for
    labelled unicast (RFC 8277), its three-octet label fields (label << 4 | bottom-of-stack bit).
    Writing refuses (ValueError) a non-zero path_id where the session has no add-path for the
    family, and label fields on a family that is not labelled: the entry has no room for them."""
    prefix: Network
    path_id: int = 0
    label_fields: list = field(default_factory=list)


@dataclass
class AsPathSegment:
    """An AS_PATH or AS4_PATH segment: AS_SEQUENCE, AS_SET, ... and its AS numbers."""
    type: int
    asns: list


@dataclass
class Aggregator:
    """AGGREGATOR or AS4_AGGREGATOR: the AS and the address of the speaker that aggregated."""
    asn: int
    address: ipaddress.IPv4Address


@dataclass(frozen=True)
class LargeCommunity:
    """A large community (RFC 8092), printed GLOBAL:DATA1:DATA2."""
    global_admin: int
    local_data1: int
    local_data2: int

    def __str__(self):
        return f"{self.global_admin}:{self.local_data1}:{self.local_data2}"


@dataclass
class MpReach:
    """MP_REACH_NLRI (RFC 4760). For IPv4 and IPv6 the next hop is an address (IPv6 with a
    link-local one when there are two, RFC 2545); for other families next_hop is None and the
    octets are in next_hop_octets."""
    afi: int
    safi: int
    next_hop: Optional[Address] = None
    nlri: list = field(default_factory=list)
    link_local_next_hop: Optional[ipaddress.IPv6Address] = None
    next_hop_octets: bytes = b""
    reserved: int = 0


@dataclass
class MpUnreach:
    """MP_UNREACH_NLRI (RFC 4760)."""
    afi: int
    safi: int
    withdrawn: list = field(default_factory=list)


@dataclass
class RawAttribute:
    """A path attribute this library does not type, as it came."""
    flags: int
    type: int
    value: bytes


@dataclass
class PathAttributes:
    """The path attributes of an UPDATE; None (False for atomic_aggregate) where absent.

    extended_communities holds RouteTargets, the other extended communities too (their type and
    subtype tell them apart). flags maps a type code to the flags octet it was read with; an
    attribute without an entry is written with its usual flags. order is the type codes in the
    order they were read: writing follows it, then writes the rest in type code order.
    """
    origin: Optional[int] = None
    as_path: Optional[list] = None
    next_hop: Optional[ipaddress.IPv4Address] = None
    med: Optional[int] = None
    local_pref: Optional[int] = None
    atomic_aggregate: bool = False
    aggregator: Optional[Aggregator] = None
    communities: Optional[list] = None
    originator_id: Optional[ipaddress.IPv4Address] = None
    cluster_list: Optional[list] = None
    mp_reach: Optional[MpReach] = None
    mp_unreach: Optional[MpUnreach] = None
    extended_communities: Optional[list] = None
    as4_path: Optional[list] = None
    as4_aggregator: Optional[Aggregator] = None
    large_communities: Optional[list] = None
    unknown: list = field(default_factory=list)
    flags: dict = field(default_factory=dict)
    order: list = field(default_factory=list)


@dataclass
class Update:
    """An UPDATE: IPv4 routes withdrawn and announced in its own fields, the others in the
    MP_REACH_NLRI and MP_UNREACH_NLRI attributes."""
    withdrawn: list = field(default_factory=list)
    attributes: PathAttributes = field(default_factory=PathAttributes)
    nlri: list = field(default_factory=list)

    def routes(self) -> Iterator[tuple]:
        """(Nlri, next hop) of every route the UPDATE announces, IPv4 fields first."""
        a = self.attributes
        for n in self.nlri:
            yield n, a.next_hop
        if a.mp_reach is not None:
            for n in a.mp_reach.nlri:
                yield n, a.mp_reach.next_hop

    def withdrawals(self) -> Iterator[Nlri]:
        """Every route the UPDATE withdraws."""
        yield from self.withdrawn
        if self.attributes.mp_unreach is not None:
            yield from self.attributes.mp_unreach.withdrawn


@dataclass
class Capability:
    """A capability as it came: code, the index of the optional parameter holding it, value."""
    code: int
    value: bytes = b""
    parameter: int = 0


@dataclass
class Open:
    """An OPEN. The typed capabilities are written when `capabilities` is empty; a read OPEN keeps
    every capability as it came in `capabilities` (clear it to have the typed ones written)."""
    my_as: int = 0
    hold_time: int = 0
    bgp_identifier: ipaddress.IPv4Address = ipaddress.IPv4Address(0)
    multiprotocol: list = field(default_factory=list)  # (afi, safi) pairs
    four_octet_as: Optional[int] = None
    add_path: list = field(default_factory=list)  # (afi, safi, send_receive): 1 receive, 2 send, 3 both
    route_refresh: bool = False
    enhanced_route_refresh: bool = False
    extended_message: bool = False
    capabilities: list = field(default_factory=list)
    other_parameters: list = field(default_factory=list)  # Capability, code being the parameter type
    version: int = 4

    @property
    def asn(self) -> int:
        """The speaker's AS: the four-octet capability's when present, else my_as."""
        return self.my_as if self.four_octet_as is None else self.four_octet_as


@dataclass
class Notification:
    code: int
    subcode: int = 0
    data: bytes = b""


@dataclass
class Keepalive:
    pass


@dataclass
class RouteRefresh:
    """ROUTE-REFRESH (RFC 2918), with the subtype of RFC 7313 (0 request, 1 BoRR, 2 EoRR)."""
    afi: int
    safi: int
    subtype: int = 0


@dataclass
class ReadResult:
    """What read_message() found: the message (None when the error resets the session) and the
    error (None for a well-formed message). With a milder error (treat-as-withdraw, attribute
    discard) the message is what could be read."""
    message: object
    error: Optional[ReadError] = None

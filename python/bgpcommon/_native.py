"""The Python types that the library's small values read as.

A field reads as the Python object a Python user would reach for:
- a number-like type (an identifier, a preference, a tag, an AS number, a label) as an int of a
  subclass named after the type (`RouteTag(70) == 70`), whose str() is the type's text form;
- an enumeration as a str subclass named after the type, equal to the enumerator's name, with
  `.name` and `int()` (`Level('level1') == 'level1'`, `int(Level('level1')) == 1`);
- a standard community as a Community, an int that prints as HIGH:LOW (`65000:1`);
- addresses and prefixes as `ipaddress` objects.

The C++ side makes one class per registered type the first time a value of it is read, through
number_type() and enum_type() below, and builds instances without calling __new__'s checks.
"""

_numbers = {}
_enums = {}


class Number(int):
    """A value of one of the library's number-like types: an int that remembers its type.

    Constructing one checks the number against the type (OverflowError when it does not fit).
    str() is the type's text form; the type's reflected functions are methods
    (`AutonomousSystem(70000).displayString(True) == '1.4464'`).
    """

    __slots__ = ()
    type_name = ""

    def __new__(cls, value: int = 0) -> "Number":
        if isinstance(value, bool) or not isinstance(value, int):
            raise TypeError(f"{cls.__name__}() takes an int, not {type(value).__name__}")
        return _core()._number_check(cls.type_name, value)

    def __repr__(self):
        return f"{type(self).__name__}({int(self)})"

    def __str__(self):
        return _core()._number_text(self.type_name, self)

    def __reduce__(self):
        return (type(self), (int(self),))

    def __copy__(self):
        return self

    def __deepcopy__(self, memo):
        return self

    def __getattr__(self, name):
        return _core()._number_attribute(self.type_name, self, name)


class _EnumClass(type):
    """The class of an enumeration, which, as an enum.Enum class does, iterates over its named
    enumerators in the order they are declared (`list(Level)`) and counts them (`len(Level)`)."""

    def __iter__(cls):
        return iter(cls._by_name.values())

    def __len__(cls):
        return len(cls._by_name)


class Enum(str, metaclass=_EnumClass):
    """An enumerator of one of the library's enumerations: a str equal to its name.

    `.name` is the name (the number's decimal text for a value without one), int() the number.
    Built from a name or a number: `Level('level1')`, `Level(1)`; anything else is ValueError.
    The class iterates over its named enumerators: `list(Level)`, `len(Level)`.
    A value without a name reads back from its number: the default of an enumeration whose zero
    has no name is `Level(0)`, and so is its repr.
    """

    type_name = ""
    _by_name = {}
    _by_number = {}

    def __new__(cls, value: "int | str") -> "Enum":
        if isinstance(value, Enum) and type(value) is cls:
            return value
        key = cls._by_number if isinstance(value, int) and not isinstance(value, bool) else cls._by_name
        found = key.get(value)
        if found is None:
            if isinstance(value, (int, str)) and not isinstance(value, bool):
                return _core()._enum_value(cls.type_name, value)
            raise TypeError(f"{cls.__name__}() takes a name or a number, not {type(value).__name__}")
        return found

    @property
    def name(self) -> str:
        return str.__str__(self)

    def __int__(self) -> int:
        return self._number

    def __index__(self):
        return self._number

    def __repr__(self):
        if str.isdigit(self):  # no name: names are identifiers
            return f"{type(self).__name__}({self._number})"
        return f"{type(self).__name__}({str.__repr__(self)})"

    def __str__(self):
        return str.__str__(self)

    def __eq__(self, other):
        return str.__eq__(self, other)

    def __ne__(self, other):
        return str.__ne__(self, other)

    __hash__ = str.__hash__

    def __reduce__(self):
        return (type(self), (self._number,))

    def __copy__(self):
        return self

    def __deepcopy__(self, memo):
        return self


def _make_enumerator(cls, name, number):
    e = str.__new__(cls, name)
    e._number = number
    return e


class Community(int):
    """A standard community (RFC 1997): an int that prints as HIGH:LOW.

    Built from an int or from text: `Community('65000:1') == Community(65000 << 16 | 1)`.
    """

    __slots__ = ()

    def __new__(cls, value: "int | str") -> "Community":
        if isinstance(value, str):
            high, sep, low = value.partition(":")
            # ASCII digits only: str.isdigit() also passes other scripts' digits and superscripts.
            digits = sep and high.isascii() and low.isascii() and high.isdigit() and low.isdigit()
            if not digits or int(high) > 0xFFFF or int(low) > 0xFFFF:
                raise ValueError(f"a community is HIGH:LOW with two numbers of 0..65535, not {value!r}")
            return int.__new__(cls, int(high) << 16 | int(low))
        if isinstance(value, bool) or not isinstance(value, int):
            raise TypeError(f"Community() takes an int or 'HIGH:LOW', not {type(value).__name__}")
        if not 0 <= value <= 0xFFFFFFFF:
            raise OverflowError(f"a community is 32 bits: {value} is out of range")
        return int.__new__(cls, value)

    @property
    def high(self) -> int:
        return int(self) >> 16

    @property
    def low(self) -> int:
        return int(self) & 0xFFFF

    def __str__(self):
        return f"{int(self) >> 16}:{int(self) & 0xFFFF}"

    def __repr__(self):
        return f"Community('{self}')"

    def __reduce__(self):
        return (Community, (int(self),))


def number_type(type_name, short_name):
    """The Number subclass of a registered number-like type."""
    cls = _numbers.get(type_name)
    if cls is None:
        cls = type(short_name, (Number,), {"__slots__": (), "type_name": type_name, "__module__": "bgpcommon",
                                           "__doc__": f"A {type_name}: an int (see bgpcommon.Number)."})
        _numbers[type_name] = cls
    return cls


def enum_type(type_name, short_name, entries, unnamed_default=None):
    """The Enum subclass of a registered enumeration; entries are (name, number) pairs.

    unnamed_default is the number of the type's default value where no enumerator names it.
    """
    cls = _enums.get(type_name)
    if cls is None:
        names = ", ".join(f"{name} ({number})" for name, number in entries)
        cls = type(short_name, (Enum,), {"type_name": type_name, "__module__": "bgpcommon",
                                         "__doc__": f"An enumerator of {type_name} (see bgpcommon.Enum): {names}."})
        cls._by_name = {}
        cls._by_number = {}
        for name, number in entries:
            e = _make_enumerator(cls, name, number)
            cls._by_name[name] = e
            cls._by_number.setdefault(number, e)
        if unnamed_default is not None:
            cls._by_number[unnamed_default] = _make_enumerator(cls, str(unnamed_default), unnamed_default)
        _enums[type_name] = cls
    return cls


def value_constructor(name, type_name, reads_text, fields):
    """The constructor of a registered value type that reads as a Value: `MaxRoutes(routes=1000)`
    builds one from its fields (those left out keep the type's default) and, where the type has a
    long text form, `MaxRoutes(text)` reads that. fields are (name, default) pairs, or (name,)
    alone for a type without a default value, whose fields must all be given.
    """
    import inspect

    def build(text=None, /, **values):
        if text is None:
            return from_fields(type_name, values)
        if not reads_text:
            raise TypeError(f"{name}() takes fields by name: {type_name} is not read from text")
        if values:
            raise TypeError(f"{name}() takes a text or fields, not both")
        if not isinstance(text, str):
            raise TypeError(f"{name}() takes the long text form as a str, not {type(text).__name__}")
        return from_text(type_name, text)

    p = inspect.Parameter
    params = [p("text", p.POSITIONAL_ONLY, default=None)] if reads_text else []
    params += [p(f[0], p.KEYWORD_ONLY, default=f[1] if len(f) > 1 else p.empty) for f in fields]
    build.__signature__ = inspect.Signature(params)
    build.__name__ = build.__qualname__ = name
    build.__module__ = "bgpcommon"
    build.__doc__ = f"A {type_name} value (a bgpcommon.Value): from its fields by name" + (
        ", or from its long text form." if reads_text else ".")
    return build


def unnamed_enumerator(cls, number):
    """A value of an enumeration that takes numbers without a name (an AFI a peer sent, say)."""
    return _make_enumerator(cls, str(number), number)


def _core():
    from bgpcommon import _bgpcommon
    return _bgpcommon


def from_text(type_name, text):
    """The value of a long text form: how values pickle."""
    return _core()._from_text(type_name, text)


def from_fields(type_name, fields):
    """The value of its fields: how values of types that cannot be read from text pickle."""
    return _core()._from_fields(type_name, fields)

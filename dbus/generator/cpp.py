"""C++ text: the types of D-Bus signatures, and names and parameters."""

import dataclasses
import re

# The limits of the D-Bus specification.
MAX_SIGNATURE_LENGTH = 255
MAX_ARRAY_DEPTH = 32

KEYWORDS = frozenset("""
    alignas alignof and and_eq asm auto bitand bitor bool break case catch char char16_t char32_t
    char8_t class co_await co_return co_yield compl concept const const_cast consteval constexpr
    constinit continue decltype default delete do double dynamic_cast else enum explicit export
    extern false float for friend goto if inline int long mutable namespace new noexcept not not_eq
    nullptr operator or or_eq private protected public register reinterpret_cast requires return
    short signed sizeof static static_assert static_cast struct switch template this thread_local
    throw true try typedef typeid typename union unsigned using virtual void volatile wchar_t while
    xor xor_eq""".split())


@dataclasses.dataclass(frozen=True)
class Type:
    # Of a variable.
    value: str
    # Of a function's parameter.
    parameter: str
    # That declare the type.
    headers: tuple


def _by_reference(value, *headers):
    return Type(value, f"const {value}&", headers)


# Each has a kestle::dbus_utils::DBusType.
_SCALARS = {
    "y": Type("uint8_t", "uint8_t", ("<cstdint>",)),
    "b": Type("bool", "bool", ()),
    "i": Type("int32_t", "int32_t", ("<cstdint>",)),
    "x": Type("int64_t", "int64_t", ("<cstdint>",)),
    "d": Type("double", "double", ()),
    "s": _by_reference("std::string", "<string>"),
}
_OTHERS = {
    "v": _by_reference("kestle::Any", '"kestle/any.h"'),
    "ay": _by_reference("std::vector<uint8_t>", "<cstdint>", "<vector>"),
    "a{sv}": _by_reference("kestle::VariantDictionary", '"kestle/any.h"'),
}
_DICTIONARY = re.compile(r"a\{(.)(.+)\}")


def type_of(signature):
    """None if the signature is not a single type with bindings."""
    if len(signature) > MAX_SIGNATURE_LENGTH or signature.count("a") > MAX_ARRAY_DEPTH:
        return None
    known = _SCALARS.get(signature) or _OTHERS.get(signature)
    dictionary = _DICTIONARY.fullmatch(signature)
    if known or not dictionary:
        return known
    key = _SCALARS.get(dictionary[1])
    mapped = type_of(dictionary[2])
    if not key or not mapped:
        return None
    return _by_reference(f"std::map<{key.value}, {mapped.value}>",
                         "<map>", *key.headers, *mapped.headers)


def snake_case(name):
    """QTDBootstrapState becomes qtd_bootstrap_state."""
    words = re.sub(r"([A-Z]+)([A-Z][a-z])", r"\1_\2", name)
    return re.sub(r"([a-z0-9])([A-Z])", r"\1_\2", words).lower()


def parameters(arguments, prefix=""):
    """Of a function with these inputs."""
    return [f"{a.type.parameter} {prefix}{a.name}" for a in arguments]


def outputs(arguments, prefix=""):
    """Of a function with these outputs."""
    return [f"{a.type.value}* {prefix}{a.name}" for a in arguments]


def names(arguments, prefix=""):
    return [prefix + a.name for a in arguments]

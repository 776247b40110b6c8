"""Reads D-Bus interface descriptions, and rejects what would not become working C++.

A fault is a DescriptionError that names the file and the element.
"""

import dataclasses
import re
import xml.etree.ElementTree as ElementTree

import cpp

_MEMBER_NAME = re.compile(r"[A-Za-z_][A-Za-z0-9_]*")
_INTERFACE_NAME = re.compile(
    r"[A-Za-z_][A-Za-z0-9_]*(\.[A-Za-z_][A-Za-z0-9_]*)+")
_OBJECT_PATH = re.compile(r"/|(/[A-Za-z0-9_]+)+")
_IGNORED = {"annotation"}
# Generated names in the scopes of the description's names.
_OWN_MEMBERS = ("GetObjectPath", "GetObjectProxy", "GetWeakPtr", "PropertyChangedCallback",
                "PropertySet", "SetPropertyChangedCallback")
_OWN_PROPERTY_ARGUMENTS = ("object_proxy", "on_changed")
_OWN_ARGUMENTS = ("error",)


class DescriptionError(Exception):
    """The text is for the author of the description."""


@dataclasses.dataclass
class Argument:
    name: str
    type: cpp.Type


@dataclasses.dataclass
class Method:
    name: str
    inputs: list
    outputs: list


@dataclasses.dataclass
class Property:
    name: str
    type: cpp.Type

    @property
    def member(self):
        return cpp.snake_case(self.name)


@dataclasses.dataclass
class Interface:
    name: str
    # If a single object has the interface; otherwise None.
    fixed_path: str
    methods: list
    properties: list

    @property
    def namespace(self):
        return "::".join(self.name.split(".")[:-1])

    @property
    def short_name(self):
        return self.name.split(".")[-1]

    def classes(self):
        return [self.short_name + ending for ending in (
            "Adaptor", "Interface", "Proxy", "ProxyInterface")]

    def members(self):
        """The members of the description and their names in a generated class."""
        return [*((f"method {m.name}", m.name) for m in self.methods),
                *((f"method {m.name}", name) for m in self.methods
                  for name in (f"{m.name}Async", f"New{m.name}Call")),
                *((f"property {p.name}", p.name) for p in self.properties)]


def clash(own, names):
    """A fault, if two of the pairs of a thing and its C++ name share a name, or one has a name in
    `own`; otherwise None."""
    taken = {name: "a generated name" for name in own}
    for thing, name in names:
        if name in taken:
            return f"{thing} and {taken[name]} are both '{name}' in C++"
        taken[name] = thing
    return None


def read(path):
    """The interface that the file describes."""
    try:
        node = ElementTree.parse(path).getroot()
    except OSError as error:
        raise DescriptionError(f"{path}: {error.strerror}") from error
    # An unknown encoding raises one of the last two.
    except (ElementTree.ParseError, LookupError, ValueError) as error:
        raise DescriptionError(f"{path}: not well-formed: {error}") from error
    return _Reader(path).node(node)


class _Reader:
    """Walks the tree, and keeps the path of elements for error messages."""

    def __init__(self, path):
        self._trail = [path]

    def node(self, node):
        if node.tag != "node":
            self._fail(f"the root element is <{node.tag}>, not <node>")
        fixed_path = node.get("name")
        if fixed_path is not None and not _OBJECT_PATH.fullmatch(fixed_path):
            self._fail(f"<node>: invalid object path '{fixed_path}'")
        interfaces = self._children(node, {"interface": self._interface})
        if len(interfaces) != 1:
            self._fail(f"expected one interface, found {len(interfaces)}")
        return dataclasses.replace(interfaces[0], fixed_path=fixed_path)

    def _interface(self, element):
        members = self._children(
            element, {"method": self._method, "property": self._property})
        interface = Interface(
            name=self._name(element, _INTERFACE_NAME),
            fixed_path=None,
            methods=[m for m in members if isinstance(m, Method)],
            properties=[m for m in members if isinstance(m, Property)])
        self._distinct([*_OWN_MEMBERS, *interface.classes()], interface.members())
        self._distinct(_OWN_PROPERTY_ARGUMENTS, [
            (f"property {p.name}", p.member) for p in interface.properties])
        return interface

    def _method(self, element):
        arguments = self._children(element, {"arg": self._argument})
        self._distinct(_OWN_ARGUMENTS, [(f"arg {a.name}", a.name) for _, a in arguments])
        return Method(
            name=self._name(element, _MEMBER_NAME),
            inputs=[a for direction, a in arguments if direction == "in"],
            outputs=[a for direction, a in arguments if direction == "out"])

    def _argument(self, element):
        direction = element.get("direction", "in")
        if direction not in ("in", "out"):
            self._fail(f"unknown direction '{direction}'")
        argument = Argument(self._name(element, _MEMBER_NAME),
                            self._type(element))
        return direction, argument

    def _property(self, element):
        if element.get("access") != "read":
            self._fail("only the access 'read' is supported")
        return Property(self._name(element, _MEMBER_NAME), self._type(element))

    def _name(self, element, pattern):
        name = element.get("name")
        if not pattern.fullmatch(name):
            self._fail(f"invalid name '{name}'")
        if not cpp.KEYWORDS.isdisjoint([*name.split("."), cpp.snake_case(name)]):
            self._fail(f"'{name}' is not a name in C++")
        return name

    def _distinct(self, own, names):
        if fault := clash(own, names):
            self._fail(fault)

    def _type(self, element):
        signature = element.get("type")
        if signature is None:
            self._fail("missing type")
        cpp_type = cpp.type_of(signature)
        if cpp_type is None:
            self._fail(f"unknown signature '{signature}'")
        return cpp_type

    def _children(self, element, readers):
        """The results of the readers, which are keyed by tag, in the order of the children."""
        results, names = [], set()
        for child in element:
            if child.tag in _IGNORED:
                continue
            name = child.get("name")
            label = f"<{child.tag}>" if name is None else f"{child.tag} {name}"
            self._trail.append(label)
            if child.tag not in readers:
                self._fail("unexpected element")
            if not name:
                self._fail("missing name")
            if (child.tag, name) in names:
                self._fail("duplicate")
            names.add((child.tag, name))
            results.append(readers[child.tag](child))
            self._trail.pop()
        return results

    def _fail(self, fault):
        # One line, even if the description contains control characters.
        text = ": ".join(self._trail + [fault])
        raise DescriptionError("".join(
            c if c.isprintable() else repr(c)[1:-1] for c in text))

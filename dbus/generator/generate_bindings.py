#!/usr/bin/env python3
"""Generates C++ bindings from D-Bus interface descriptions.

    generate_bindings.py adaptor --header H --source S --include I FILE
    generate_bindings.py proxies --header H --source S --include I --service NAME
                                 [--object-manager PATH] FILE...

An adaptor exports an object with the interface. Proxies are the client's side
of all the interfaces of one service; with an object manager, they follow its
objects. Properties need an object manager.
"""

import argparse
import pathlib
import sys

import cpp
import descriptions
import jinja2

_PROXY_HEADERS = [
    '"base/callback.h"', '"base/ref_counted.h"', '"dbus/bus.h"',
    '"dbus/object_proxy.h"', '"dbus/types.h"', '"kestle/dbus_utils/calls.h"',
    '"kestle/error.h"']
_OBJECT_MANAGER_HEADERS = [
    "<map>", "<memory>", "<string>", '"base/weak_ptr.h"',
    '"dbus/object_manager.h"', '"dbus/property_set.h"',
    '"kestle/dbus_utils/property.h"']


def _environment():
    environment = jinja2.Environment(
        loader=jinja2.FileSystemLoader(
            pathlib.Path(__file__).parent / "templates"),
        undefined=jinja2.StrictUndefined, trim_blocks=True,
        lstrip_blocks=True, keep_trailing_newline=True)
    for function in (cpp.names, cpp.outputs, cpp.parameters):
        environment.globals[function.__name__] = function
    return environment


def _headers(interfaces, own):
    """The system headers and the others, each sorted and without duplicates."""
    types = [part.type for interface in interfaces for part in (
        *interface.properties,
        *(a for m in interface.methods for a in m.inputs + m.outputs))]
    headers = set(own).union(*(each.headers for each in types))
    return (sorted(h for h in headers if h.startswith("<")),
            sorted(h for h in headers if h.startswith('"')))


def _render(options, template, interfaces, own_headers):
    system_headers, headers = _headers(interfaces, own_headers)
    values = {
        **vars(options),
        "descriptions": [pathlib.Path(file).name for file in options.files],
        "interfaces": interfaces,
        "namespace": interfaces[0].namespace,
        "system_headers": system_headers,
        "headers": headers,
    }
    environment = _environment()
    for suffix, output in (("h", options.header), ("cc", options.source)):
        text = environment.get_template(f"{template}.{suffix}.j2")
        pathlib.Path(output).write_text(text.render(values), encoding="utf-8")


def _generate_adaptor(options):
    interface = descriptions.read(options.files[0])
    unsupported = [*interface.properties,
                   *(m for m in interface.methods if m.outputs)]
    if unsupported:
        raise descriptions.DescriptionError(
            f"{options.files[0]}: interface {interface.name}: "
            f"{unsupported[0].name}: adaptors support neither outputs nor "
            "properties")
    _render(options, "adaptor", [interface], [
        '"kestle/dbus_utils/dbus_object.h"', '"kestle/error.h"'])


def _class_clash(interfaces):
    return descriptions.clash(["ObjectManagerProxy"], [
        (f"interface {each.name}", name) for each in interfaces
        for name in (f"{each.short_name}Proxy", f"{each.short_name.lower()}_proxies_")])


def _generate_proxies(options):
    interfaces = [descriptions.read(file) for file in options.files]
    names = set()
    for index, (file, interface) in enumerate(zip(options.files, interfaces)):
        if interface.namespace != interfaces[0].namespace:
            raise descriptions.DescriptionError(
                f"{file}: interface {interface.name}: not in the namespace "
                f"of {interfaces[0].name}")
        if interface.name in names:
            raise descriptions.DescriptionError(
                f"{file}: interface {interface.name}: duplicate")
        names.add(interface.name)
        if interface.properties and not options.object_manager:
            raise descriptions.DescriptionError(
                f"{file}: interface {interface.name}: "
                f"{interface.properties[0].name}: properties need an object "
                "manager")
        if fault := _class_clash(interfaces[:index + 1]):
            raise descriptions.DescriptionError(f"{file}: {fault}")
    headers = _PROXY_HEADERS
    if options.object_manager:
        headers += _OBJECT_MANAGER_HEADERS
    _render(options, "proxies", interfaces, headers)


def _parse(arguments):
    parser = argparse.ArgumentParser(
        description="Generates C++ bindings of D-Bus interfaces.")
    kinds = parser.add_subparsers(required=True)
    adaptor = kinds.add_parser("adaptor")
    adaptor.set_defaults(generate=_generate_adaptor)
    proxies = kinds.add_parser("proxies")
    proxies.set_defaults(generate=_generate_proxies)
    for kind in (adaptor, proxies):
        kind.add_argument("--header", required=True, help="header to write")
        kind.add_argument("--source", required=True, help="source to write")
        kind.add_argument("--include", required=True,
                          help="the header as the source includes it")
        kind.add_argument("files", nargs="+" if kind is proxies else 1,
                          help="interface description")
    proxies.add_argument("--service", required=True)
    proxies.add_argument("--object-manager", default="")
    return parser.parse_args(arguments)


def main(arguments):
    options = _parse(arguments)
    try:
        options.generate(options)
    except descriptions.DescriptionError as error:
        print(f"error: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

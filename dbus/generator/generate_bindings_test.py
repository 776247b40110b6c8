"""Tests of the bindings generator: what it refuses, and what it writes."""

import pathlib
import subprocess

import cpp
import generate_bindings as generate
import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]

DESCRIPTIONS = ROOT / "dbus"


class Generator:
    def __init__(self, folder):
        self.folder = folder
        self.outputs = [folder / "out.h", folder / "out.cc"]

    def description(self, text, name="a.xml"):
        path = self.folder / name
        path.write_text(text)
        return path

    def run(self, kind, *files):
        """Of an adaptor, of proxies with an object manager, or of those of a
        client, which have none."""
        arguments = ["proxies" if kind == "client" else kind,
                     "--header", self.outputs[0], "--source", self.outputs[1],
                     "--include", "bindings/out.h"]
        if kind != "adaptor":
            arguments += ["--service", "org.example"]
        if kind == "proxies":
            arguments += ["--object-manager", "/org/example"]
        return generate.main([str(each) for each in [*arguments, *files]])


@pytest.fixture(name="generator")
def fixture_generator(tmp_path):
    return Generator(tmp_path)


def node(members, interface='name="org.example.Toy"'):
    return f"<node><interface {interface}>{members}</interface></node>"


def method(arguments):
    return node(f'<method name="Play">{arguments}</method>')


PROPERTY = '<property name="Name" type="s" access="read"/>'

TOO_DEEP = "a{s" * 33 + "s" + "}" * 33
TOO_LONG = "a{s" * 2000 + "s" + "}" * 2000

BAD_DESCRIPTIONS = [
    ("<node>", "not well-formed: no element found: line 1, column 6"),
    ("<interface/>", "the root element is <interface>, not <node>"),
    ("<node/>", "0 interfaces where one is expected"),
    ('<node><interface name="a.B"/><interface name="a.C"/></node>',
     "2 interfaces where one is expected"),
    ('<node name="no/path"><interface name="a.B"/></node>',
     "<node>: invalid object path 'no/path'"),
    (node("", interface=""), "<interface>: missing name"),
    (node("", interface='name=""'), "interface : missing name"),
    (node("", interface='name="nodots"'),
     "interface nodots: invalid name 'nodots'"),
    (node("<method/>"), "interface org.example.Toy: <method>: missing name"),
    (node('<method name="a-b"/>'),
     "interface org.example.Toy: method a-b: invalid name 'a-b'"),
    (node('<method name="Play"/><method name="Play"/>'),
     "interface org.example.Toy: method Play: duplicate"),
    (node('<signal name="Broke"/>'),
     "interface org.example.Toy: signal Broke: unexpected element"),
    (method('<arg type="s"/>'),
     "interface org.example.Toy: method Play: <arg>: missing name"),
    (method('<arg name="a"/>'),
     "interface org.example.Toy: method Play: arg a: missing type"),
    (method('<arg name="a" type=""/>'),
     "interface org.example.Toy: method Play: arg a: unknown signature ''"),
    (method('<arg name="a" type="z"/>'),
     "interface org.example.Toy: method Play: arg a: unknown signature 'z'"),
    (method('<arg name="a" type="ss"/>'),
     "interface org.example.Toy: method Play: arg a: unknown signature 'ss'"),
    (method('<arg name="a" type="a{vs}"/>'),
     "interface org.example.Toy: method Play: arg a: "
     "unknown signature 'a{vs}'"),
    (method('<arg name="a" type="a{s"/>'),
     "interface org.example.Toy: method Play: arg a: unknown signature 'a{s'"),
    (method('<arg name="a" type="s" direction="up"/>'),
     "interface org.example.Toy: method Play: arg a: unknown direction 'up'"),
    (method('<arg name="a" type="s"/><arg name="a" type="i"/>'),
     "interface org.example.Toy: method Play: arg a: duplicate"),
    (node(PROPERTY + PROPERTY),
     "interface org.example.Toy: property Name: duplicate"),
    (node('<property name="Name" access="read"/>'),
     "interface org.example.Toy: property Name: missing type"),
    (node('<property type="s" access="read"/>'),
     "interface org.example.Toy: <property>: missing name"),
    (node('<property name="Name" type="s" access="readwrite"/>'),
     "interface org.example.Toy: property Name: "
     "only the access 'read' has bindings"),
    ('<?xml version="1.0" encoding="none"?><node/>',
     "not well-formed: unknown encoding: none"),
    ('<?xml version="1.0" encoding="shift_jis"?><node/>',
     "not well-formed: multi-byte encodings are not supported"),
    (node('<method name="Play&#10;"/>'),
     "interface org.example.Toy: method Play\\n: invalid name 'Play\\n'"),
    (node('<method name="delete"/>'),
     "interface org.example.Toy: method delete: 'delete' is no name in C++"),
    (node('<property name="Class" type="s" access="read"/>'),
     "interface org.example.Toy: property Class: 'Class' is no name in C++"),
    (node("", interface='name="org.int.Toy"'),
     "interface org.int.Toy: 'org.int.Toy' is no name in C++"),
    (method(f'<arg name="a" type="{TOO_DEEP}"/>'),
     "interface org.example.Toy: method Play: arg a: "
     f"unknown signature '{TOO_DEEP}'"),
    (method(f'<arg name="a" type="{TOO_LONG}"/>'),
     "interface org.example.Toy: method Play: arg a: "
     f"unknown signature '{TOO_LONG}'"),
    (node('<property name="DeviceId" type="s" access="read"/>'
          '<property name="DeviceID" type="s" access="read"/>'),
     "interface org.example.Toy: property DeviceID and property DeviceId "
     "are both 'device_id' in C++"),
    (node('<property name="ObjectProxy" type="s" access="read"/>'),
     "interface org.example.Toy: property ObjectProxy and the bindings' own "
     "are both 'object_proxy' in C++"),
    (node('<method name="PlayAsync"/><method name="Play"/>'),
     "interface org.example.Toy: method Play and method PlayAsync "
     "are both 'PlayAsync' in C++"),
    (node('<method name="Name"/>' + PROPERTY),
     "interface org.example.Toy: property Name and method Name "
     "are both 'Name' in C++"),
    (node('<method name="GetObjectPath"/>'),
     "interface org.example.Toy: method GetObjectPath and the bindings' own "
     "are both 'GetObjectPath' in C++"),
    (node('<method name="ToyInterface"/>'),
     "interface org.example.Toy: method ToyInterface and the bindings' own "
     "are both 'ToyInterface' in C++"),
    (method('<arg name="error" type="s"/>'),
     "interface org.example.Toy: method Play: arg error and the bindings' own "
     "are both 'error' in C++"),
]


@pytest.mark.parametrize("kind", ["adaptor", "proxies", "client"])
@pytest.mark.parametrize("text, fault", BAD_DESCRIPTIONS)
def test_a_bad_description_is_refused_by_file_and_element(
        generator, capsys, kind, text, fault):
    path = generator.description(text)
    assert generator.run(kind, path) == 1
    assert capsys.readouterr().err == f"error: {path}: {fault}\n"
    assert not any(output.exists() for output in generator.outputs)


@pytest.mark.parametrize("member, name", [
    (PROPERTY, "Name"),
    ('<method name="Ask"><arg name="a" type="s" direction="out"/></method>',
     "Ask"),
])
def test_an_adaptor_has_neither_outputs_nor_properties(
        generator, capsys, member, name):
    path = generator.description(node(member))
    assert generator.run("adaptor", path) == 1
    assert capsys.readouterr().err == (
        f"error: {path}: interface org.example.Toy: {name}: "
        "adaptors have neither outputs nor properties\n")


def test_without_an_object_manager_there_are_no_properties(generator, capsys):
    path = generator.description(node(PROPERTY))
    assert generator.run("client", path) == 1
    assert capsys.readouterr().err == (
        f"error: {path}: interface org.example.Toy: Name: "
        "properties need an object manager\n")


def test_a_missing_file_is_named(generator, capsys):
    path = generator.folder / "missing.xml"
    assert generator.run("adaptor", path) == 1
    assert capsys.readouterr().err == (
        f"error: {path}: No such file or directory\n")


def test_an_interface_described_twice_is_refused(generator, capsys):
    first = generator.description(node(""))
    second = generator.description(node(""), "b.xml")
    assert generator.run("proxies", first, second) == 1
    assert capsys.readouterr().err == (
        f"error: {second}: interface org.example.Toy: duplicate\n")


def test_interfaces_of_several_namespaces_are_refused(generator, capsys):
    first = generator.description(node(""))
    second = generator.description(
        node("", interface='name="org.other.Toy"'), "b.xml")
    assert generator.run("proxies", first, second) == 1
    assert capsys.readouterr().err == (
        f"error: {second}: interface org.other.Toy: "
        "not in the namespace of org.example.Toy\n")


@pytest.mark.parametrize("other, fault", [
    ("TOY", "interface org.example.TOY and interface org.example.Toy "
            "are both 'toy_proxies_' in C++"),
    ("ObjectManager", "interface org.example.ObjectManager and the bindings' "
                      "own are both 'ObjectManagerProxy' in C++"),
])
def test_interfaces_whose_proxies_clash_are_refused(
        generator, capsys, other, fault):
    first = generator.description(node(""))
    second = generator.description(
        node("", interface=f'name="org.example.{other}"'), "b.xml")
    assert generator.run("proxies", first, second) == 1
    assert capsys.readouterr().err == f"error: {second}: {fault}\n"


def test_the_command_fails_on_a_bad_description(generator):
    path = generator.description("<node/>")
    result = subprocess.run(
        ["python3", "-B", ROOT / "dbus/generator/generate_bindings.py",
         "adaptor", "--header", generator.outputs[0],
         "--source", generator.outputs[1], "--include", "out.h", path],
        capture_output=True, text=True, check=False)
    assert result.returncode == 1
    assert result.stderr.startswith(f"error: {path}: 0 interfaces")


@pytest.mark.parametrize("kind, files", [
    ("adaptor", ["org.quintara.ap.Pelmor.Manager.xml"]),
    ("proxies", ["org.quintara.Larder.Manager.xml", "org.quintara.Larder.Command.xml"]),
    ("client", ["org.quintara.ap.Pelmor.Manager.xml"]),
])
def test_headers_are_included_once_and_in_order(generator, kind, files):
    assert generator.run(kind, *(DESCRIPTIONS / file for file in files)) == 0
    lines = generator.outputs[0].read_text().splitlines()
    included = [line for line in lines if line.startswith("#include")]
    system = [line for line in included if "<" in line]
    own = [line for line in included if '"' in line]
    assert system and own
    assert included == sorted(set(system)) + sorted(set(own))


def test_methods_and_properties_keep_their_order(generator):
    path = generator.description(node(
        PROPERTY + '<property name="Age" type="i" access="read"/>'
        '<method name="Stop"/><method name="Play"/>'))
    assert generator.run("proxies", path) == 0
    header = generator.outputs[0].read_text()
    places = [header.index(f"virtual {text}") for text in (
        "~ToyProxyInterface", "bool Stop(", "void StopAsync(", "bool Play(",
        "void PlayAsync(", "const std::string& Name()", "int32_t Age()",
        "const dbus::ObjectPath& GetObjectPath()",
        "dbus::ObjectProxy* GetObjectProxy()",
        "void SetPropertyChangedCallback(")]
    assert places == sorted(places)


def test_without_an_object_manager_no_objects_are_followed(generator):
    path = generator.description(method('<arg name="tune" type="ay"/>'))
    assert generator.run("client", path) == 0
    text = "".join(output.read_text() for output in generator.outputs)
    assert "bool Play(const std::vector<uint8_t>& in_tune" in text
    assert "void PlayAsync(const std::vector<uint8_t>& in_tune" in text
    for absent in ("ObjectManager", "Property", "properties", "WeakPtr"):
        assert absent not in text, absent


@pytest.mark.parametrize("name, maker", [
    ("", "ToyProxy(const scoped_refptr<dbus::Bus>& bus, "
         "const dbus::ObjectPath& path);"),
    (' name="/toy"', "explicit ToyProxy(const scoped_refptr<dbus::Bus>& bus);"),
])
def test_a_proxy_is_told_its_path_unless_it_is_fixed(generator, name, maker):
    path = generator.description(
        f'<node{name}><interface name="org.example.Toy"/></node>')
    assert generator.run("client", path) == 0
    assert f"  {maker}\n" in generator.outputs[0].read_text()


@pytest.mark.parametrize("signature, value", [
    ("y", "uint8_t"), ("b", "bool"), ("i", "int32_t"), ("x", "int64_t"),
    ("d", "double"), ("s", "std::string"), ("v", "kestle::Any"),
    ("ay", "std::vector<uint8_t>"), ("a{sv}", "kestle::VariantDictionary"),
    ("a{ss}", "std::map<std::string, std::string>"),
    ("a{ia{sd}}", "std::map<int32_t, std::map<std::string, double>>"),
])
def test_signatures_have_types(signature, value):
    assert cpp.type_of(signature).value == value


@pytest.mark.parametrize("name, member", [
    ("Name", "name"), ("DeviceId", "device_id"),
    ("QTDBootstrapState", "qtd_bootstrap_state"), ("OAuth2Id", "o_auth2_id"),
])
def test_property_names_become_member_names(name, member):
    assert cpp.snake_case(name) == member

"""Tests of the bindings generator: the descriptions that it rejects, and its output."""

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
        """Generates an adaptor, proxies with an object manager, or those of a client, without
        one."""
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
    ("<node/>", "expected one interface, found 0"),
    ('<node><interface name="a.B"/><interface name="a.C"/></node>',
     "expected one interface, found 2"),
    ('<node name="no/path"><interface name="a.B"/></node>',
     "<node>: invalid object path 'no/path'"),
    (node("", interface=""), "<interface>: missing name"),
    (node("", interface='name=""'), "interface : missing name"),
    (node("", interface='name="nodots"'), "interface nodots: invalid name 'nodots'"),
    (node("", interface='name="org.int.Toy"'),
     "interface org.int.Toy: 'org.int.Toy' is not a name in C++"),
    ('<?xml version="1.0" encoding="none"?><node/>', "not well-formed: unknown encoding: none"),
    ('<?xml version="1.0" encoding="shift_jis"?><node/>',
     "not well-formed: multi-byte encodings are not supported"),
]
BAD_MEMBERS = [
    ("<method/>", "<method>: missing name"),
    ('<method name="a-b"/>', "method a-b: invalid name 'a-b'"),
    ('<method name="Play&#10;"/>', "method Play\\n: invalid name 'Play\\n'"),
    ('<method name="delete"/>', "method delete: 'delete' is not a name in C++"),
    ('<method name="Play"/><method name="Play"/>', "method Play: duplicate"),
    ('<method name="PlayAsync"/><method name="Play"/>',
     "method Play and method PlayAsync are both 'PlayAsync' in C++"),
    ('<method name="NewPlayCall"/><method name="Play"/>',
     "method Play and method NewPlayCall are both 'NewPlayCall' in C++"),
    ('<method name="GetObjectPath"/>',
     "method GetObjectPath and a generated name are both 'GetObjectPath' in C++"),
    ('<method name="ToyInterface"/>',
     "method ToyInterface and a generated name are both 'ToyInterface' in C++"),
    ('<signal name="Broke"/>', "signal Broke: unexpected element"),
    (PROPERTY + PROPERTY, "property Name: duplicate"),
    ('<property name="Name" access="read"/>', "property Name: missing type"),
    ('<property type="s" access="read"/>', "<property>: missing name"),
    ('<property name="Name" type="s" access="readwrite"/>',
     "property Name: only the access 'read' is supported"),
    ('<property name="Class" type="s" access="read"/>',
     "property Class: 'Class' is not a name in C++"),
    ('<property name="DeviceId" type="s" access="read"/>'
     '<property name="DeviceID" type="s" access="read"/>',
     "property DeviceID and property DeviceId are both 'device_id' in C++"),
    ('<property name="ObjectProxy" type="s" access="read"/>',
     "property ObjectProxy and a generated name are both 'object_proxy' in C++"),
    ('<method name="Name"/>' + PROPERTY, "property Name and method Name are both 'Name' in C++"),
]
BAD_ARGUMENTS = [
    ('type="s"', "<arg>: missing name"),
    ('name="a"', "arg a: missing type"),
    *((f'name="a" type="{signature}"', f"arg a: unknown signature '{signature}'")
      for signature in ("", "z", "ss", "a{vs}", "a{s", TOO_DEEP, TOO_LONG)),
    ('name="a" type="s" direction="up"', "arg a: unknown direction 'up'"),
    ('name="a" type="s"/><arg name="a" type="i"', "arg a: duplicate"),
    ('name="error" type="s"', "arg error and a generated name are both 'error' in C++"),
]
TOY = "interface org.example.Toy: "


@pytest.mark.parametrize("kind", ["adaptor", "proxies", "client"])
@pytest.mark.parametrize("text, fault", [
    *BAD_DESCRIPTIONS,
    *((node(text), TOY + fault) for text, fault in BAD_MEMBERS),
    *((method(f"<arg {text}/>"), f"{TOY}method Play: {fault}") for text, fault in BAD_ARGUMENTS),
])
def test_a_bad_description_is_rejected_with_its_file_and_element(
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
def test_an_adaptor_supports_neither_outputs_nor_properties(
        generator, capsys, member, name):
    path = generator.description(node(member))
    assert generator.run("adaptor", path) == 1
    assert capsys.readouterr().err == (
        f"error: {path}: interface org.example.Toy: {name}: "
        "adaptors support neither outputs nor properties\n")


def test_properties_need_an_object_manager(generator, capsys):
    path = generator.description(node(PROPERTY))
    assert generator.run("client", path) == 1
    assert capsys.readouterr().err == (
        f"error: {path}: interface org.example.Toy: Name: "
        "properties need an object manager\n")


def test_a_missing_file_is_reported(generator, capsys):
    path = generator.folder / "missing.xml"
    assert generator.run("adaptor", path) == 1
    assert capsys.readouterr().err == (
        f"error: {path}: No such file or directory\n")


def test_a_duplicate_interface_is_rejected(generator, capsys):
    first = generator.description(node(""))
    second = generator.description(node(""), "b.xml")
    assert generator.run("proxies", first, second) == 1
    assert capsys.readouterr().err == (
        f"error: {second}: interface org.example.Toy: duplicate\n")


def test_interfaces_of_several_namespaces_are_rejected(generator, capsys):
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
    ("ObjectManager", "interface org.example.ObjectManager and a generated name "
                      "are both 'ObjectManagerProxy' in C++"),
])
def test_interfaces_whose_proxies_clash_are_rejected(
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
    assert result.stderr.startswith(f"error: {path}: expected one interface")


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


def test_a_client_without_an_object_manager_follows_no_objects(generator):
    path = generator.description(method('<arg name="tune" type="ay"/>'))
    assert generator.run("client", path) == 0
    text = "".join(output.read_text() for output in generator.outputs)
    assert "bool Play(const std::vector<uint8_t>& in_tune" in text
    assert "void PlayAsync(const std::vector<uint8_t>& in_tune" in text
    assert "dbus::MethodCall NewPlayCall(const std::vector<uint8_t>& in_tune) const;" in text
    for absent in ("ObjectManager", "Property", "properties", "WeakPtr"):
        assert absent not in text, absent


@pytest.mark.parametrize("name, maker", [
    ("", "ToyProxy(const scoped_refptr<dbus::Bus>& bus, "
         "const dbus::ObjectPath& path);"),
    (' name="/toy"', "explicit ToyProxy(const scoped_refptr<dbus::Bus>& bus);"),
])
def test_a_proxy_takes_a_path_unless_it_is_fixed(generator, name, maker):
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
def test_signatures_become_types(signature, value):
    assert cpp.type_of(signature).value == value


@pytest.mark.parametrize("name, member", [
    ("Name", "name"), ("DeviceId", "device_id"),
    ("QTDBootstrapState", "qtd_bootstrap_state"), ("OAuth2Id", "o_auth2_id"),
])
def test_property_names_become_member_names(name, member):
    assert cpp.snake_case(name) == member

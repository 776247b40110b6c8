"""The description of the cloud's interface: it is valid OpenAPI, and it rejects invalid requests.
The device tests compare every request of the daemon with it."""

import copy
import json
import re
from collections.abc import Callable, Iterator
from typing import Any
from urllib.parse import urlencode

import jsonschema
import pytest
import yaml

from lab.common.errors import LabError
from lab.common.names import Endpoint, Host
from lab.common.tree import ROOT
from lab.device import api
from lab.device.events import Event
from lab.device.programs import Request

DESCRIPTION = yaml.safe_load(api.PATH.read_text())
METRICS = "/v1/devices/device-0001/metrics:batchCreatePoints"
STRUCTURED = "/v1/devices/device-0001/structuredLogs"
OFFLINE = "/v1/devices/device-0001/writeLogs"
JSON_HEADERS = {"authorization": "Bearer access-1", "content-type": "application/json"}
FORM_HEADERS = {"content-type": "application/x-www-form-urlencoded"}

POINT = {"labels": {"band": "5g"}, "startTime": {"seconds": 1700000000},
         "endTime": {"seconds": 1700000300}, "int64Value": "12"}
METRICS_BODY = {"metricPoints": [{"metricName": "ap/clients", "points": [POINT]}]}
LOG_BODY = {"typeUrl": "type.example/ap.Event", "value": "-_8B"}
OFFLINE_BODY = {"properties": {"softwareVersion": "9000.1.0", "updateChannel": "unknown",
                               "hardwareId": "board-a"},
                "deviceTimestamp": {"seconds": 1700000400}, "writeLog": [LOG_BODY]}
EXCHANGE_FORM = {"code": "code-1", "client_id": "client-1", "client_secret": "secret-1",
                 "redirect_uri": "oob", "scope": "scope-1", "grant_type": "authorization_code"}
REFRESH_FORM = {"refresh_token": "refresh-1", "client_id": "client-1",
                "client_secret": "secret-1", "grant_type": "refresh_token"}


def post(path: str, body: Any, **changes: Any) -> Request:
    form = path == "/token"
    text = body if isinstance(body, str) else urlencode(body) if form else json.dumps(body)
    values = {"number": 7, "event": Event(0, 0.0, "cloud.request", {}),
              "endpoint": Endpoint.UNKNOWN, "method": "POST",
              "host": str(Host.IDENTITY if form else Host.MONITORING), "path": path,
              "headers": FORM_HEADERS if form else JSON_HEADERS, "body": text}
    return Request(**(values | changes))


def faults(request: Request) -> list[str]:
    return api.of_the_cloud().faults(request)


def changed(body: dict[str, Any], change: Callable[[Any], Any]) -> dict[str, Any]:
    copied = copy.deepcopy(body)
    change(copied)
    return copied


def point_with(**members: Any) -> dict[str, Any]:
    """A metrics body whose point has these members; None takes one out."""
    merged = POINT | members
    point = {name: value for name, value in merged.items() if value is not None}
    return {"metricPoints": [{"metricName": "m", "points": [point]}]}


def value_of(**value: Any) -> dict[str, Any]:
    return {"metricPoints": [{"metricName": "m", "points": [
        {name: part for name, part in POINT.items() if name != "int64Value"} | value]}]}


# The description.

def objects(value: Any) -> Iterator[dict[str, Any]]:
    if isinstance(value, dict):
        yield value
    for child in value.values() if isinstance(value, dict) else value:
        if isinstance(child, (dict, list)):
            yield from objects(child)


def operations() -> Iterator[tuple[str, dict[str, Any], dict[str, Any]]]:
    for path, item in DESCRIPTION["paths"].items():
        yield path, item, item["post"]


def media() -> Iterator[tuple[str, dict[str, Any]]]:
    """Every body of a request or an answer."""
    for path, _, operation in operations():
        parts = [operation["requestBody"], *operation["responses"].values()]
        for part in parts:
            for each in part.get("content", {}).values():
                yield path, each


def test_the_description_is_openapi() -> None:
    rules = yaml.safe_load((ROOT / "tests/openapi_3_1.yaml").read_text())
    errors = jsonschema.Draft202012Validator(rules).iter_errors(DESCRIPTION)
    assert [f"{error.json_path}: {error.message}" for error in errors] == []


@pytest.mark.parametrize("fault, at", [
    (lambda d: d.update(openapi="3.0.3"), ["openapi"]),
    (lambda d: d["info"].pop("version"), ["info"]),
    (lambda d: d["paths"]["/token"]["post"].pop("responses"), ["paths", "/token", "post"]),
    (lambda d: d["paths"]["/token"]["post"].update(respones={}), ["paths", "/token", "post"]),
    (lambda d: d["paths"]["/token"]["post"]["responses"].update({"4xx": {"description": "x"}}),
     ["paths", "/token", "post", "responses"]),
    (lambda d: d["components"]["parameters"]["DeviceId"].pop("required"),
     ["components", "parameters", "DeviceId"]),
    (lambda d: d["components"]["schemas"]["Log"].update(type="objekt"),
     ["components", "schemas", "Log", "type"]),
])
def test_a_violation_of_openapi_is_detected(fault: Callable[[Any], Any], at: list[str]) -> None:
    rules = yaml.safe_load((ROOT / "tests/openapi_3_1.yaml").read_text())
    errors = jsonschema.Draft202012Validator(rules).iter_errors(changed(DESCRIPTION, fault))
    assert at in [list(error.absolute_path) for error in errors]


def test_every_reference_has_a_target() -> None:
    references = [each["$ref"] for each in objects(DESCRIPTION) if "$ref" in each]
    assert len(references) > 10
    for reference in references:
        assert api.pointed_at(reference, DESCRIPTION), reference


def test_every_component_is_used() -> None:
    references = {each["$ref"] for each in objects(DESCRIPTION) if "$ref" in each}
    for kind, named in DESCRIPTION["components"].items():
        if kind != "securitySchemes":
            assert {f"#/components/{kind}/{name}" for name in named} <= references


def test_every_operation_has_its_own_name_and_declares_its_path() -> None:
    names = [operation["operationId"] for _, _, operation in operations()]
    assert len(names) == len(set(names)) == 4
    for path, item, _ in operations():
        parameters = [api.pointed_at(each["$ref"], DESCRIPTION)
                      for each in item.get("parameters", [])]
        assert re.findall(r"{(\w+)}", path) == [each["name"] for each in parameters], path


def test_every_credential_and_tag_and_variable_is_defined() -> None:
    schemes = DESCRIPTION["components"]["securitySchemes"]
    tags = [tag["name"] for tag in DESCRIPTION["tags"]]
    for _, _, operation in operations():
        for need in operation.get("security", DESCRIPTION["security"]):
            assert set(need) <= set(schemes)
        assert operation["tags"][0] in tags
    for server in DESCRIPTION["servers"]:
        assert re.findall(r"{(\w+)}", server["url"]) == list(server["variables"])


def test_every_request_documents_the_effect_of_each_answer() -> None:
    for path, _, operation in operations():
        answers = operation["responses"]
        assert "default" in answers, path
        if path != "/token":
            assert set(answers) == {"2XX", "401", "default"}
        assert "transport error" in operation["description"], path


def test_request_objects_restrict_their_members() -> None:
    for name, schema in DESCRIPTION["components"]["schemas"].items():
        for each in objects(schema):
            if each.get("type") == "object" and name != "TokenAnswer":
                assert "additionalProperties" in each, name


def test_every_example_follows_its_schema() -> None:
    shown = 0
    for path, each in media():
        schema = {"$ref": "#/schema", "schema": each["schema"],
                  "components": DESCRIPTION["components"]}
        for name, example in each["examples"].items():
            errors = list(api.Validator(schema).iter_errors(example["value"]))
            assert errors == [], f"{path}, {name}"
            shown += 1
    assert shown == 11


# Requests.

@pytest.mark.parametrize("request_", [
    post(METRICS, METRICS_BODY),
    post(METRICS, value_of(doubleValue=0.25)),
    post(METRICS, value_of(doubleValue=None)),
    post(METRICS, value_of(doubleValue=3)),
    post(METRICS, value_of(boolValue=False)),
    post(METRICS, value_of(stringValue="")),
    post(METRICS, value_of(int64Value="0")),
    post(METRICS, value_of(int64Value="-9223372036854775808")),
    post(METRICS, point_with(labels={})),
    post(METRICS, point_with(endTime={"seconds": -2147483648})),
    post("/device-0001/metrics:batchCreatePoints", METRICS_BODY),
    post(STRUCTURED, LOG_BODY),
    post(STRUCTURED, LOG_BODY, headers=JSON_HEADERS | {
        "content-type": "application/json; charset=utf-8"}),
    post(STRUCTURED, {"typeUrl": "", "value": ""}),
    post(STRUCTURED, LOG_BODY | {"value": "AA=="}),
    post(OFFLINE, OFFLINE_BODY),
    post("/token", EXCHANGE_FORM),
    post("/token", REFRESH_FORM),
], ids=lambda request: f"{request.path} {request.body}"[-40:])
def test_a_valid_request_has_no_faults(request_: Request) -> None:
    assert faults(request_) == []


WRONG: dict[str, tuple[Request, str]] = {
    # Host, path and method.
    "no operation": (post("/v1/devices/device-0001/metrics", METRICS_BODY), "no such operation"),
    "no device": (post("/metrics:batchCreatePoints", METRICS_BODY), "no such operation"),
    "empty device": (post("//structuredLogs", LOG_BODY), "no such operation"),
    "query": (post(METRICS + "?a=b", METRICS_BODY), "no such operation"),
    "method": (post(METRICS, METRICS_BODY, method="PUT"), "no such operation"),
    "token at the monitoring service": (
        post("/token", REFRESH_FORM, host=str(Host.MONITORING)), "no such operation"),
    "token below a base": (post("/v1/token", REFRESH_FORM, host=str(Host.IDENTITY)),
                           "no such operation"),
    # Credentials.
    "no bearer": (post(METRICS, METRICS_BODY, headers={"content-type": "application/json"}),
                  "authorization: not a bearer token"),
    "empty bearer": (post(STRUCTURED, LOG_BODY, headers=JSON_HEADERS | {
        "authorization": "Bearer "}), "authorization: not a bearer token"),
    "basic": (post(OFFLINE, OFFLINE_BODY, headers=JSON_HEADERS | {
        "authorization": "Basic YTpi"}), "authorization: not a bearer token"),
    "bearer to the identity provider": (
        post("/token", REFRESH_FORM, headers=FORM_HEADERS | {"authorization": "Bearer a"}),
        "authorization: not allowed here"),
    # Media type.
    "text": (post(METRICS, METRICS_BODY, headers=JSON_HEADERS | {"content-type": "text/plain"}),
             "content-type: 'text/plain', not application/json"),
    "no type": (post(METRICS, METRICS_BODY, headers={"authorization": "Bearer a"}),
                "content-type: '', not application/json"),
    "JSON to the identity provider": (post("/token", json.dumps(REFRESH_FORM),
                                           headers={"content-type": "application/json"}),
                                      "content-type"),
    # Text that is not JSON.
    "no JSON": (post(METRICS, "{"), "body: Expecting"),
    "no UTF-8": (post(METRICS, '{"a": "\\xff"}'), "body: Invalid \\escape"),
    "NaN": (post(METRICS, '{"a": NaN}'), "body: JSON has no NaN"),
    "twice": (post(STRUCTURED, '{"typeUrl": "", "value": "", "value": ""}'), "duplicate names"),
    # Metrics.
    "a list": (post(METRICS, [METRICS_BODY]), "$: "),
    "no metrics": (post(METRICS, {}), "'metricPoints' is a required property"),
    "empty metrics": (post(METRICS, {"metricPoints": []}), "$.metricPoints: "),
    "empty points": (post(METRICS, {"metricPoints": [{"metricName": "m", "points": []}]}),
                     "$.metricPoints[0].points: "),
    "too many points": (post(METRICS, {"metricPoints": [
        {"metricName": "m", "points": [POINT] * 1001}]}), "$.metricPoints[0].points: "),
    "no name": (post(METRICS, {"metricPoints": [{"points": [POINT]}]}), "'metricName' is a req"),
    "more": (post(METRICS, METRICS_BODY | {"more": 1}), "'more' was unexpected"),
    "more in a metric": (post(METRICS, {"metricPoints": [
        METRICS_BODY["metricPoints"][0] | {"more": 1}]}), "'more' was unexpected"),
    "more in a point": (post(METRICS, point_with(timestamp=5)), "'timestamp' was unexpected"),
    "more in a time": (post(METRICS, point_with(endTime={"seconds": 1, "nanos": 2})),
                       "'nanos' was unexpected"),
    "no value": (post(METRICS, value_of()), "$.metricPoints[0].points[0]: "),
    "two values": (post(METRICS, point_with(boolValue=True)), "is valid under each of"),
    "nested value": (post(METRICS, value_of(value={"int64Value": "1"})), "'value' was unexpected"),
    "number as integer": (post(METRICS, value_of(int64Value=12)), "12 is not of type 'string'"),
    "leading zero": (post(METRICS, value_of(int64Value="012")), "'012' does not match"),
    "plus": (post(METRICS, value_of(int64Value="+1")), "'+1' does not match"),
    "negative zero": (post(METRICS, value_of(int64Value="-0")), "'-0' does not match"),
    "no digits": (post(METRICS, value_of(int64Value="")), "'' does not match"),
    "newline": (post(METRICS, value_of(int64Value="1\n")), "does not match"),
    "double as text": (post(METRICS, value_of(doubleValue="0.5")), "'0.5' is not of type"),
    "boolean as number": (post(METRICS, value_of(boolValue=1)), "1 is not of type 'boolean'"),
    "string as number": (post(METRICS, value_of(stringValue=1)), "1 is not of type 'string'"),
    "label": (post(METRICS, point_with(labels={"band": 5})), "labels.band: 5 is not of type"),
    "no labels": (post(METRICS, point_with(labels=None)), "'labels' is a required property"),
    "no start": (post(METRICS, point_with(startTime=None)), "'startTime' is a required property"),
    "plain time": (post(METRICS, point_with(endTime=1700000300)), "is not of type 'object'"),
    "time past 32 bits": (post(METRICS, point_with(endTime={"seconds": 2 ** 31})),
                          "2147483648 is greater than the maximum"),
    "time before 32 bits": (post(METRICS, point_with(startTime={"seconds": -2 ** 31 - 1})),
                            "is less than the minimum"),
    "time as text": (post(METRICS, point_with(endTime={"seconds": "1"})), "is not of type"),
    "time as double": (post(METRICS, point_with(endTime={"seconds": 1.0})), "is not of type"),
    "boolean time": (post(METRICS, point_with(endTime={"seconds": True})), "is not of type"),
    # Logs.
    "standard alphabet": (post(STRUCTURED, LOG_BODY | {"value": "+/8B"}), "does not match"),
    "no padding": (post(STRUCTURED, LOG_BODY | {"value": "-_8"}), "does not match"),
    "wrong padding": (post(STRUCTURED, LOG_BODY | {"value": "A==="}), "does not match"),
    "padding inside": (post(STRUCTURED, LOG_BODY | {"value": "AA==AAAA"}), "does not match"),
    "line break": (post(STRUCTURED, LOG_BODY | {"value": "-_8B\n"}), "does not match"),
    "no type URL": (post(STRUCTURED, {"value": ""}), "'typeUrl' is a required property"),
    "a time": (post(STRUCTURED, LOG_BODY | {"deviceTimestamp": {"seconds": 1}}),
               "'deviceTimestamp' was unexpected"),
    "offline to structured": (post(STRUCTURED, OFFLINE_BODY), "were unexpected"),
    "structured to offline": (post(OFFLINE, LOG_BODY), "'properties' is a required property"),
    "dotted": (post(OFFLINE, {"properties.softwareVersion": "1", **OFFLINE_BODY}),
               "'properties.softwareVersion' was unexpected"),
    "no channel": (post(OFFLINE, changed(OFFLINE_BODY, lambda body: body["properties"].pop(
        "updateChannel"))), "$.properties: 'updateChannel' is a required property"),
    "no records": (post(OFFLINE, OFFLINE_BODY | {"writeLog": []}), "$.writeLog: "),
    "two records": (post(OFFLINE, OFFLINE_BODY | {"writeLog": [LOG_BODY] * 2}), "$.writeLog: "),
    # Forms.
    "no grant": (post("/token", {"refresh_token": "a"}), "body: $"),
    "other grant": (post("/token", REFRESH_FORM | {"grant_type": "password"}), "body: $"),
    "no code": (post("/token", EXCHANGE_FORM | {"code": ""}), "body: $"),
    "scope of a refresh": (post("/token", REFRESH_FORM | {"scope": "s"}), "body: $"),
    "redirect": (post("/token", EXCHANGE_FORM | {"redirect_uri": "https://a.example"}), "body: $"),
    "code twice": (post("/token", urlencode(EXCHANGE_FORM) + "&code=2"), "duplicate names"),
    "no form": (post("/token", "refresh_token"), "body: bad query field"),
}


@pytest.mark.parametrize("request_, fault", WRONG.values(), ids=WRONG.keys())
def test_an_invalid_request_is_detected(request_: Request, fault: str) -> None:
    found = faults(request_)
    assert any(fault in each for each in found), found


def test_invalid_requests_are_reported_with_their_faults() -> None:
    wrong = post(METRICS, value_of(int64Value=12))
    with pytest.raises(LabError) as raised:
        api.check([post(STRUCTURED, LOG_BODY), wrong])
    found = str(raised.value).splitlines()
    assert found[0] == ("Request 7, POST https://pelmor.quintara.example" + METRICS +
                        ", does not match cloud-api.yaml:")
    assert found[1:] == ["  body: $.metricPoints[0].points[0].int64Value: 12 is not of type "
                         "'string'"]

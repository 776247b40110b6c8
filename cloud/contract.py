"""Checks request bodies against docs/cloud-api.yaml, by validators that fastjsonschema compiles."""

import json
from collections.abc import Callable
from pathlib import Path
from typing import Any

import fastjsonschema
import yaml

_DESCRIPTION = Path(__file__).resolve().parents[1] / "docs/cloud-api.yaml"
_DRAFT = "http://json-schema.org/draft-07/schema#"


class MalformedBody(Exception):
    """The text says what is wrong, and where."""


def _refuse(constant: str) -> None:
    raise ValueError(f"JSON has no {constant}")


def _compiled(components: dict[str, Any], schema: str) -> Callable[[Any], Any]:
    # The schemas use nothing newer than draft 7. Their format describes an integer, and the library
    # knows formats of texts only; the range is stated by minimum and maximum too.
    return fastjsonschema.compile({"$schema": _DRAFT, "components": components,
                                   "$ref": f"#/components/schemas/{schema}"},
                                  formats={"int32": lambda _: True})


def _components() -> dict[str, Any]:
    """Those of the description, with a rule that says the same of points in a third of the time:
    for each alternative of a oneOf that fails, the validator raises and formats an exception."""
    components = yaml.safe_load(_DESCRIPTION.read_text())["components"]
    point = components["schemas"]["Point"]
    alternatives = {name for one in point.pop("oneOf") for name in one["required"]}
    assert point["additionalProperties"] is False
    assert alternatives == set(point["properties"]) - set(point["required"])
    point["minProperties"] = point["maxProperties"] = len(point["required"]) + 1
    return components


_COMPONENTS = _components()
_VALIDATORS = {path: _compiled(json.loads(json.dumps(_COMPONENTS)), schema) for path, schema in {
    "metrics:batchCreatePoints": "MetricsRequest",
    "structuredLogs": "Log",
    "writeLogs": "OfflineLogRequest"}.items()}
METHODS = tuple(_VALIDATORS)


def parsed(method: str, body: bytes) -> dict[str, Any]:
    """The body of a request of this method; raises a `MalformedBody`."""
    try:
        content = json.loads(body.decode(), parse_constant=_refuse)
        # An escaped half of a surrogate pair is JSON, but not a text.
        if b"\\u" in body:
            json.dumps(content, ensure_ascii=False).encode()
    except (ValueError, RecursionError) as error:
        raise MalformedBody(f"the body is not JSON: {_reason(error)}") from None
    try:
        _VALIDATORS[method](content)
    except fastjsonschema.JsonSchemaValueException as error:
        raise MalformedBody(error.message.replace("data", "body", 1)) from None
    return content


def _reason(error: Exception) -> str:
    # Without the offending text, which can be anything.
    if isinstance(error, json.JSONDecodeError):
        return f"{error.msg} at line {error.lineno}, column {error.colno}"
    if isinstance(error, UnicodeEncodeError):
        return "a text has half of a surrogate pair"
    if isinstance(error, UnicodeDecodeError):
        return f"it is not UTF-8 at byte {error.start}"
    return "it is nested too deeply" if isinstance(error, RecursionError) else str(error)[:100]

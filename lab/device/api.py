"""Checks the requests that a cloud received against docs/cloud-api.yaml."""

import functools
import json
import re
from collections.abc import Iterable, Iterator
from typing import Any
from urllib.parse import urlsplit

import jsonschema
import yaml

from lab.common.errors import LabError
from lab.common.tree import ROOT
from lab.device.programs import Request

PATH = ROOT / "docs/cloud-api.yaml"
_FORM = "application/x-www-form-urlencoded"
_REFERENCE = "$ref"


def _pattern(_: Any, pattern: str, value: Any, __: Any) -> Iterator[jsonschema.ValidationError]:
    # In Python, "$" also matches before a final line feed.
    if isinstance(value, str) and not re.search(pattern.replace("$", r"\Z"), value):
        yield jsonschema.ValidationError(f"{value!r} does not match {pattern!r}")


# JSON Schema, except that a number with a fraction or an exponent is never an integer.
Validator = jsonschema.validators.extend(
    jsonschema.Draft202012Validator, {"pattern": _pattern},
    type_checker=jsonschema.Draft202012Validator.TYPE_CHECKER.redefine(
        "integer", lambda _, value: type(value) is int))


class Api:
    """An OpenAPI description whose paths, methods, credentials and bodies requests must follow."""

    def __init__(self, description: dict[str, Any]) -> None:
        self._description = _resolved(description, description)
        self._validators: dict[str, Any] = {}

    def faults(self, request: Request) -> list[str]:
        """The violations of the description; empty when there are none."""
        operation = self._operation(request)
        if not operation:
            return ["there is no such operation"]
        return [*self._credential_faults(operation, request),
                *self._body_faults(operation, request)]

    def _operation(self, request: Request) -> dict[str, Any] | None:
        for template, item in self._description["paths"].items():
            pattern = re.sub(r"\\{\w+\\}", "[^/]+", re.escape(template))
            # Below any base URL, unless the description names the server.
            hosts = [urlsplit(server["url"]).netloc for server in item.get("servers", [])]
            base = "" if hosts else "(?:/[^?#]*)?"
            if hosts and request.host not in hosts:
                continue
            if re.fullmatch(base + pattern, request.path):
                return item.get(request.method.lower())
        return None

    def _credential_faults(self, operation: dict[str, Any], request: Request) -> Iterator[str]:
        credentials = request.headers.get("authorization")
        if operation.get("security", self._description["security"]):
            if not re.fullmatch("Bearer .+", credentials or ""):
                yield "authorization: not a bearer token"
        elif credentials is not None:
            yield "authorization: not allowed here"

    def _body_faults(self, operation: dict[str, Any], request: Request) -> Iterator[str]:
        media_type = request.headers.get("content-type", "").split(";")[0].strip()
        content = operation["requestBody"]["content"]
        if media_type not in content:
            yield f"content-type: '{media_type}', not {' or '.join(content)}"
            return
        try:
            body = _form(request) if media_type == _FORM else _json(request.body)
        except ValueError as error:
            yield f"body: {error}"
            return
        validator = self._validator(operation["operationId"], content[media_type]["schema"])
        yield from (_fault_text(error) for error in validator.iter_errors(body))

    def _validator(self, operation_id: str, schema: dict[str, Any]) -> Any:
        if operation_id not in self._validators:
            self._validators[operation_id] = Validator(schema)
        return self._validators[operation_id]


def _resolved(value: Any, root: dict[str, Any]) -> Any:
    """The value with its references replaced by their targets, which speeds up validation."""
    if isinstance(value, list):
        return [_resolved(item, root) for item in value]
    if not isinstance(value, dict):
        return value
    own = {key: _resolved(item, root) for key, item in value.items() if key != _REFERENCE}
    if _REFERENCE not in value:
        return own
    return _resolved(pointed_at(value[_REFERENCE], root), root) | own


def pointed_at(reference: str, root: dict[str, Any]) -> Any:
    target: Any = root
    for key in reference.removeprefix("#/").split("/"):
        target = target[key.replace("~1", "/").replace("~0", "~")]
    return target


def _json(text: str) -> Any:
    return json.loads(text, object_pairs_hook=_object, parse_constant=_refuse)


def _form(request: Request) -> dict[str, str]:
    return _object(request.form)


def _object(pairs: list[tuple[str, Any]]) -> dict[str, Any]:
    found = dict(pairs)
    if len(found) != len(pairs):
        raise ValueError(f"duplicate names among {', '.join(name for name, _ in pairs)}")
    return found


def _refuse(constant: str) -> None:
    raise ValueError(f"JSON has no {constant}")


def _fault_text(error: Any) -> str:
    deepest = jsonschema.exceptions.best_match([error])
    return f"body: {deepest.json_path}: {deepest.message}"


@functools.cache
def of_the_cloud() -> Api:
    return Api(yaml.safe_load(PATH.read_text()))


def check(requests: Iterable[Request]) -> None:
    """Raises a `LabError` that lists every request that violates the description, and why."""
    lines = []
    for request in requests:
        if faults := of_the_cloud().faults(request):
            lines += [f"Request {request.number}, {request.method} https://{request.host}"
                      f"{request.path}, does not match {PATH.name}:"]
            lines += [f"  {fault}" for fault in faults]
    if lines:
        raise LabError("\n".join(lines))

"""The fields of controls; each field validates its values."""

import math
from dataclasses import dataclass
from typing import Any, Protocol


class FieldError(Exception):
    """An invalid value; the message names the field and what it accepts."""


class Field(Protocol):
    def read(self, name: str, value: Any) -> Any:
        """Returns the value for the control; raises a `FieldError`."""


@dataclass(frozen=True)
class Text:
    least: int = 0
    most: int = 4096

    def read(self, name: str, value: Any) -> str:
        if not isinstance(value, str) or not self.least <= len(value) <= self.most:
            raise FieldError(
                f"{name}: a text of {self.least} to {self.most} characters is required")
        # The bus disconnects the sender of such a text.
        if "\0" in value or any("\ud800" <= letter <= "\udfff" for letter in value):
            raise FieldError(f"{name}: D-Bus allows no zero bytes and no unpaired surrogates")
        return value


@dataclass(frozen=True)
class Number:
    least: float
    most: float
    whole: bool = False

    def read(self, name: str, value: Any) -> float:
        is_number = isinstance(value, (int, float)) and not isinstance(value, bool)
        if (not is_number or not math.isfinite(value) or not self.least <= value <= self.most
                or (self.whole and value != int(value))):
            what = "a whole number" if self.whole else "a number"
            raise FieldError(f"{name}: {what} from {self.least:g} to {self.most:g} is required")
        return int(value) if self.whole else value


@dataclass(frozen=True)
class Choice:
    values: tuple[str, ...]

    def read(self, name: str, value: Any) -> str:
        if value not in self.values:
            raise FieldError(f"{name}: one of {', '.join(self.values)} is required")
        return value


@dataclass(frozen=True)
class Names:
    """Names of metrics, separated by commas."""

    most: int

    def read(self, name: str, value: Any) -> list[str]:
        found = [part.strip() for part in Text(1).read(name, value).split(",") if part.strip()]
        if not 1 <= len(found) <= self.most:
            raise FieldError(f"{name}: 1 to {self.most} names separated by commas are required")
        return found


@dataclass(frozen=True)
class Labels:
    """`band=5g site=lab`: one label set. With `most` above 1, `band=2g,5g` means one set per
    value, and several such labels mean every combination."""

    most: int = 1

    def read(self, name: str, value: Any) -> Any:
        sets: list[dict[str, str]] = [{}]
        for part in Text().read(name, value).split():
            key, equals, values = part.partition("=")
            if not key or not equals:
                raise FieldError(f"{name}: {part}: key=value is required")
            choices = values.split(",") if self.most > 1 else [values]
            if len(sets) * len(choices) > self.most:
                raise FieldError(f"{name}: at most {self.most} label sets are allowed")
            sets = [one | {key: choice} for one in sets for choice in choices]
        return sets if self.most > 1 else sets[0]


def read_all(fields: dict[str, Field], given: Any) -> dict[str, Any]:
    """All values; raises a `FieldError` for a missing, an invalid or an unknown field."""
    if not isinstance(given, dict):
        raise FieldError("an object of fields is required")
    if unknown := set(given) - set(fields):
        raise FieldError(f"{min(unknown)}: no such field")
    if missing := set(fields) - set(given):
        raise FieldError(f"{min(missing)}: missing")
    return {name: field.read(name, given[name]) for name, field in fields.items()}

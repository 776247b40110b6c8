"""What may come with a control: each field knows which values it takes."""

import math
from dataclasses import dataclass
from typing import Any, Protocol


class FieldError(Exception):
    """A value that a control can't be given; its text names the field and what it takes."""


class Field(Protocol):
    def read(self, name: str, value: Any) -> Any:
        """The value as the control wants it; raises a `FieldError`."""


@dataclass(frozen=True)
class Text:
    least: int = 0
    most: int = 4096

    def read(self, name: str, value: Any) -> str:
        if not isinstance(value, str) or not self.least <= len(value) <= self.most:
            raise FieldError(f"{name}: a text of {self.least} to {self.most} letters is wanted")
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
            raise FieldError(f"{name}: {what} from {self.least:g} to {self.most:g} is wanted")
        return int(value) if self.whole else value


@dataclass(frozen=True)
class Choice:
    values: tuple[str, ...]

    def read(self, name: str, value: Any) -> str:
        if value not in self.values:
            raise FieldError(f"{name}: one of {', '.join(self.values)} is wanted")
        return value


@dataclass(frozen=True)
class Names:
    """Names of metrics, by commas."""

    most: int

    def read(self, name: str, value: Any) -> list[str]:
        found = [part.strip() for part in Text(1).read(name, value).split(",") if part.strip()]
        if not 1 <= len(found) <= self.most:
            raise FieldError(f"{name}: 1 to {self.most} names by commas are wanted")
        return found


@dataclass(frozen=True)
class Labels:
    """`band=5g site=lab`: one label set. With `most` above 1, `band=2g,5g` stands for one set of
    each value, and several such for every combination."""

    most: int = 1

    def read(self, name: str, value: Any) -> Any:
        sets: list[dict[str, str]] = [{}]
        for part in Text().read(name, value).split():
            key, equals, values = part.partition("=")
            if not key or not equals:
                raise FieldError(f"{name}: {part}: key=value is wanted")
            choices = values.split(",") if self.most > 1 else [values]
            if len(sets) * len(choices) > self.most:
                raise FieldError(f"{name}: at most {self.most} label sets are wanted")
            sets = [one | {key: choice} for one in sets for choice in choices]
        return sets if self.most > 1 else sets[0]


def read_all(fields: dict[str, Field], given: Any) -> dict[str, Any]:
    """All values; raises a `FieldError` for a missing, a wrong, or an unknown one."""
    if not isinstance(given, dict):
        raise FieldError("an object of fields is wanted")
    if unknown := set(given) - set(fields):
        raise FieldError(f"{min(unknown)}: no such field")
    if missing := set(fields) - set(given):
        raise FieldError(f"{min(missing)}: missing")
    return {name: field.read(name, given[name]) for name, field in fields.items()}

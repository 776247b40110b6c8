"""The verbs of the simulated programs. Each verb is stated here once: the classes in `inside`
implement it, and a handle in `programs` forwards it to that implementation over the link."""

import functools
import inspect
from collections.abc import Callable
from typing import Any

from lab.common import names


def verb(method: Callable) -> Callable:
    """Allows calls of the method from outside. The decorated function forwards its arguments, with
    their defaults, to `self._call`, unless a subclass overrides it."""
    signature = inspect.signature(method)

    @functools.wraps(method)
    def forward(self: Any, *args: Any, **kwargs: Any) -> Any:
        bound = signature.bind(self, *args, **kwargs)
        bound.apply_defaults()
        arguments = dict(bound.arguments)
        del arguments["self"]
        return self._call(method.__name__, **arguments)

    forward.is_verb = True
    return forward


class SimulatedProgram:
    @verb
    def start(self) -> None:
        """Connects to the bus and takes the program's name."""

    @verb
    def stop(self) -> None:
        """Leaves the bus as a program does that ends; it keeps its state until `start`."""

    @verb
    def refuse(self, method: str, error: str = "org.quintara.Error.Refused",
               message: str = "refused", times: int | None = None) -> None:
        """Answers the next `times` calls (all, by default) with a D-Bus error."""

    @verb
    def delay(self, method: str, seconds: float, times: int | None = None) -> None: ...

    @verb
    def never_answer(self, method: str, times: int | None = None) -> None: ...

    @verb
    def answer_with(self, method: str, signature: str, *values: Any,
                    times: int | None = None) -> None:
        """Answers with these values, of any signature, in place of the right ones."""

    @verb
    def behave(self, method: str | None = None) -> None:
        """Undoes what was set for one method, or for all."""


class Larder(SimulatedProgram):
    """The cloud-registration daemon."""

    @verb
    def register(self, device_id: str = "device-0001") -> None: ...

    @verb
    def add_manager(self, path: str = names.LARDER_MANAGER_PATH) -> None:
        """Announces a manager object; one at the usual path exists from the start."""

    @verb
    def remove_manager(self, path: str = names.LARDER_MANAGER_PATH) -> None: ...

    @verb
    def add_command(self, path: str, name: str, state: str = "queued",
                    parameters: dict[str, Any] | None = None) -> None: ...

    @verb
    def remove_command(self, path: str) -> None: ...

    @verb
    def replace_command(self, path: str, name: str, state: str = "queued",
                        parameters: dict[str, Any] | None = None) -> None:
        """Adds another command at the same path, just after announcing the end of the old one."""

    @verb
    def change_property(self, path: str, name: str, value: Any) -> None:
        """Sets a property of a command or a manager, and announces it."""

    @verb
    def invalidate_property(self, path: str, name: str) -> None:
        """Announces a change of a property without its value, which a client must then get."""


class TimeDaemon(SimulatedProgram):
    """The daemon that sets the clock from the network (tlsdate)."""

    @verb
    def set_source(self, source: str, synced: bool = True) -> None:
        """Sets the source of the time that it reports; "network" at first."""

    @verb
    def emit_time_updated(self, source: str = "network") -> None: ...

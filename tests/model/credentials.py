"""The rules of credentials: tokens, the commands of Larder, and the state that it receives."""

from dataclasses import dataclass, field
from typing import Any

from tests.model.account import token_error
from tests.model.wire import Answer, exchange_form, refresh_form

SECOND = 1_000_000
REFRESH_INTERVAL = 30 * SECOND
ANSWER_DEADLINE = 10 * SECOND
CREDENTIALS_COMMAND = "_apCredentials._setPelmorCredentials"
# The end of a text that the rules do not determine.
WHATEVER = "…"


@dataclass(eq=False)
class Command:
    """A command of Larder, compared by identity."""

    name: str
    code: str
    state: str


@dataclass
class World:
    """The daemon's environment, and its files."""

    wall: int
    monotonic: int
    larder_runs: bool = True
    device_id: str = "device-0001"
    refused: set[str] = field(default_factory=set)
    commands: dict[str, Command] = field(default_factory=dict)
    # None: tlsdate does not run.
    time_source: str | None = "network"
    refresh_token: str = ""
    start_time: int | None = None


@dataclass(eq=False)
class Sent:
    """A request without an answer."""

    channel: str
    due: int
    request: Any
    # The records in it.
    records: tuple[Any, ...] = ()


class Credentials:
    def __init__(self, world: World) -> None:
        self.world = world
        # The acts that the daemon must have done, each with its channel, in order.
        self.acts: list[tuple[str, Any]] = []
        self._forget()

    def _forget(self) -> None:
        self.sent: list[Sent] = []
        # The start of the last refresh.
        self.refreshed: int | None = None
        self._access_token = self._refresh_token = ""
        self._has_manager = False
        self._commands: dict[str, Command] = {}
        self._exchanging: tuple[str, Command] | None = None
        # The results of the last requests, by section of the status.
        self._last: dict[str, dict[str, Any]] = {}

    def publish(self) -> None:
        """The daemon publishes its status."""
        raise NotImplementedError

    def _note_end(self, section: str, status: int | None, error: str = "") -> None:
        self._last[section] = {"time": self.world.wall // SECOND} | (
            {"error": WHATEVER} if status is None else {"status": status}) | (
            {"error": error} if error else {})

    def act(self, channel: str, act: Any) -> None:
        self.acts.append((channel, act))

    def _say(self, line: str) -> None:
        self.act("log line", line)

    def _send(self, channel: str, request: Any, records: tuple[Any, ...] = ()) -> None:
        self.act(channel, request)
        due = self.world.monotonic + ANSWER_DEADLINE
        self.sent.append(Sent(channel, due, request, records))

    def send_again(self, sent: Sent) -> None:
        """As HTTP clients do when a reused connection closes without a byte."""
        self.sent.remove(sent)
        self.sent.append(sent)
        self.act(sent.channel, sent.request)

    @property
    def is_provisioned(self) -> bool:
        return bool(self._refresh_token)

    # Tokens.

    def _access(self) -> str:
        if not self._access_token and self._refresh_token:
            self._refresh()
        return self._access_token

    def _refresh(self) -> None:
        now = self.world.monotonic
        if self.refreshed is not None and now - self.refreshed < REFRESH_INTERVAL:
            return
        self.refreshed = now
        self._say("INFO Refreshing access token.")
        self._send("refresh", refresh_form(self._refresh_token))

    def _token_was_good(self, status: int) -> bool:
        if status != 401:
            return True
        self._say("INFO Access token invalidated")
        self._access_token = ""
        self._refresh()
        return False

    def _refresh_answered(self, answer: Answer) -> None:
        self._note_end("token", answer.status)
        if answer.status is None:
            self._access_token = ""
            return self._say("WARNING Error fetching access token: " + WHATEVER)
        self._say(f"INFO Successfully fetched access token: {answer.status}")
        self._access_token = self._fields(answer).get("access_token", "")
        if self._access_token:
            return
        self._note_end("token", answer.status, token_error(answer.status, answer.fields))
        self._refresh_token = ""
        if self.world.refresh_token:
            self.act("file", ("refresh token", None))
        self.world.refresh_token = ""

    def _fields(self, answer: Answer) -> dict[str, str]:
        fields = answer.fields
        if answer.status >= 400 and fields is not None:
            reason = fields.get("error", "unexpected_response")
            self._say(f"ERROR Error parsing oauth2 response: {reason} - {answer.status}")
            return {}
        return fields or {}

    def _exchange(self, code: str, path: str, command: Command) -> None:
        if self._exchanging:
            self._say("WARNING Request already outstanding: rejecting new request")
            return self._provisioned(path, command, False)
        self._exchanging = (path, command)
        self._say("INFO Fetching refresh token")
        self._refresh_token = self._access_token = ""
        self._send("exchange", exchange_form(code))

    def _exchange_answered(self, answer: Answer) -> None:
        self._note_end("token", answer.status)
        if answer.status is None:
            self._say("WARNING Error fetching refresh token: " + WHATEVER)
            return self._end_exchange(False)
        self._say(f"INFO Successfully fetched refresh token: {answer.status}")
        fields = self._fields(answer)
        # Valid members are kept, even if others are missing.
        if "access_token" in fields:
            self._access_token = fields["access_token"]
            self._refresh_token = fields.get("refresh_token", self._refresh_token)
        both = "access_token" in fields and "refresh_token" in fields
        if not (both and self._access_token and self._refresh_token):
            self._note_end("token", answer.status, token_error(answer.status, answer.fields))
            self._say("ERROR Unable to fetch refresh token")
            return self._end_exchange(False)
        self._end_exchange(True)
        self.world.refresh_token = self._refresh_token
        self.act("file", ("refresh token", self._refresh_token.encode()))

    def _end_exchange(self, success: bool) -> None:
        exchanging, self._exchanging = self._exchanging, None
        self._provisioned(*exchanging, success)

    # Larder.

    def larder_starts(self) -> None:
        self._has_manager = True
        self._tell_state(bool(self._refresh_token))
        for path in self.world.commands:
            self.command_is_added(path)

    def larder_stops(self) -> None:
        self._has_manager = False
        self._commands = {}

    def command_is_removed(self, path: str) -> None:
        self._commands.pop(path, None)

    def command_is_added(self, path: str) -> None:
        command = self.world.commands[path]
        known = self._commands[path] = Command(command.name, command.code, command.state)
        if command.state not in ("queued", "inProgress") or command.name != CREDENTIALS_COMMAND:
            return
        if not command.code:
            self._say("ERROR No pelmor authorization code provided")
            return self._tell_command(path, "Abort", "aborted", "", "")
        self._tell_command(path, "SetProgress", "inProgress", {})
        self._exchange(command.code, path, known)
        self.publish()

    def _provisioned(self, path: str, command: Command, success: bool) -> None:
        self._tell_state(success)
        if self._commands.get(path) is not command:
            self._say("WARNING QTD command is no longer present")
        elif success:
            self._tell_command(path, "Complete", "done", {})
        else:
            self._tell_command(path, "Abort", "aborted", "", "")

    def _tell_command(self, path: str, method: str, state: str, *arguments: Any) -> None:
        self.act("bus", (method, path, *arguments))
        self.world.commands[path].state = state

    def _tell_state(self, provisioned: bool) -> None:
        nonce = 0 if provisioned else self.world.wall // SECOND
        if self._has_manager:
            self.act("bus", ("UpdateState", provisioned, nonce))
        if not self._has_manager or "UpdateState" in self.world.refused:
            self._say("WARNING Failed to write QTD state")

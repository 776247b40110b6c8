"""python3 -m cloud.check: exits with 0 if no rule failed, 1 if one failed, 2 if the check could not
be made."""

import argparse
import contextlib
import re
import socket
import ssl
import sys
import time
from pathlib import Path
from typing import Any

from cloud.check import report
from cloud.check.all_rules import ALL
from cloud.check.cloud import Cloud, Settings
from cloud.check.daemon import Client, Target
from cloud.check.run import Outcome, Result, Run, selected

FAILED = 1
UNUSABLE = 2
_CONNECT_SECONDS = 10
# Without a code, all rules about requests are skipped.
_FIRST = "exchange-accepted"


class _Parser(argparse.ArgumentParser):
    """Its messages quote no values, which may be secrets."""

    def parse_args(self, *arguments: Any) -> argparse.Namespace:  # type: ignore[override]  # fewer
        parsed, unknown = self.parse_known_args(*arguments)
        if unknown:
            names = [one.split("=")[0] for one in unknown if one.startswith("-")]
            self.error(f"unknown options: {' '.join(names)}" if names else
                       f"{len(unknown)} arguments that belong to no option")
        return parsed


def _target(url: str) -> Target:
    try:
        return Target.of(url)
    except ValueError as error:
        raise argparse.ArgumentTypeError(str(error)) from None


def _secret(path: str) -> str:
    """The content of a file, without the line break at its end."""
    try:
        secret = Path(path).read_text(encoding="utf-8").rstrip("\r\n")
    except (OSError, UnicodeDecodeError) as error:
        raise argparse.ArgumentTypeError(f"cannot read {path}: {error}") from None
    if not secret:
        raise argparse.ArgumentTypeError(f"{path} is empty")
    return secret


def _device(device: str) -> str:
    if not re.fullmatch(r"[^\s/?#\x00-\x1f\x7f]+", device):
        raise argparse.ArgumentTypeError("no segment of a URL's path")
    return device


def _authorities(path: str) -> str:
    try:
        ssl.create_default_context(cafile=path)
    except OSError as error:
        raise argparse.ArgumentTypeError(f"no certificates in {path}: {error}") from None
    return path


def _output(path: str) -> Path:
    """A file that can be written."""
    try:
        Path(path).touch()
    except OSError as error:
        raise argparse.ArgumentTypeError(f"cannot write {path}: {error}") from None
    return Path(path)


def _output_or_none(path: str) -> Path | None:
    """None for the standard output."""
    return None if path == "-" else _output(path)


def _rule(name: str) -> str:
    if name not in ALL:
        raise argparse.ArgumentTypeError(f"no rule {name!r}; --list shows all")
    return name


def _parser() -> argparse.ArgumentParser:
    parser = _Parser(
        prog="pelmor-cloud-check", allow_abbrev=False,
        description="Checks whether a fleet of ap-pelmor daemons can live with a cloud: sends it "
        "the daemon's requests, and judges its answers.",
        epilog="exits with 0 if no rule failed, 1 if one failed, and 2 if the check could not be "
        "made. docs/cloud.md explains the rules.")
    add = parser.add_argument
    add("--service", type=_target, metavar="URL", help="base URL of the service, PELMOR_URL")
    add("--token-url", type=_target, metavar="URL", help="the token endpoint")
    add("--ca", type=_authorities, metavar="FILE",
        help="the CA bundle of the devices (default: the system's)")
    add("--client-id", metavar="ID", help="PELMOR_CLIENT_ID")
    add("--client-secret-file", type=_secret, metavar="FILE", help="has PELMOR_CLIENT_SECRET")
    add("--scope", default="", help="PELMOR_SCOPE (default: empty)")
    add("--device", type=_device, default=Settings.device, metavar="ID",
        help=f"the id of the code's device (default: {Settings.device})")
    code = parser.add_mutually_exclusive_group()
    code.add_argument("--code", default="", help="an authorization code")
    code.add_argument("--code-command", metavar="COMMAND",
                      help="a shell command that prints a new code each time")
    add("--foreign-device", type=_device, metavar="ID",
        help="another device that exists, for one of the rules")
    add("--expired-token-file", type=_secret, metavar="FILE",
        help="has an access token of the device that has expired, for one of the rules")
    add("--interval", type=int, default=Settings.interval, metavar="SECONDS",
        help=f"the fleet's upload interval (default: {Settings.interval})")
    add("--idle", type=float, default=Settings.idle_seconds, metavar="SECONDS",
        help=f"how long a connection stays unused (default: {Settings.idle_seconds:g})")
    add("--only", type=_rule, action="append", default=[], metavar="RULE",
        help="check this rule, and those that it needs; can be repeated")
    add("--junit", type=_output, metavar="FILE", help="write the results as JUnit's XML")
    add("--json", type=_output_or_none, default=False, metavar="FILE",
        help="write the results as JSON; to the output, in place of the text, for -")
    add("--list", action="store_true", help="print the rules, and check nothing")
    add("--markdown", action="store_true", help="print the rules as in docs/cloud.md")
    return parser


def _settings(parser: argparse.ArgumentParser, arguments: argparse.Namespace) -> Settings:
    required = ("service", "token_url", "client_id", "client_secret_file")
    if missing := [name for name in required if getattr(arguments, name) is None]:
        parser.error("needs " + ", ".join("--" + name.replace("_", "-") for name in missing))
    if not arguments.code and not arguments.code_command:
        parser.error("needs --code or --code-command")
    if arguments.interval < 1 or not 0 < arguments.idle < 120:
        parser.error("--interval must be positive, and --idle below 120 seconds")
    return Settings(
        service=arguments.service, token=arguments.token_url, ca_file=arguments.ca,
        client=Client(arguments.client_id, arguments.client_secret_file, arguments.scope),
        device=arguments.device, foreign_device=arguments.foreign_device, code=arguments.code,
        code_command=arguments.code_command, expired_token=arguments.expired_token_file or "",
        interval=arguments.interval, idle_seconds=arguments.idle)


def _reach(target: Target) -> None:
    try:
        socket.create_connection((target.host, target.port), timeout=_CONNECT_SECONDS).close()
    except OSError as error:
        raise OSError(f"cannot connect to {target.authority}: {error}") from None


def _write(results: list[Result], seconds: float, arguments: argparse.Namespace) -> None:
    if arguments.junit:
        arguments.junit.write_text(report.as_junit(results, seconds), encoding="utf-8")
    if arguments.json is None:
        sys.stdout.write(report.as_json(results))
    elif arguments.json:
        arguments.json.write_text(report.as_json(results), encoding="utf-8")


def check(settings: Settings, arguments: argparse.Namespace) -> int:
    began = time.monotonic()
    with contextlib.closing(Cloud(settings)) as cloud:
        for target in cloud.targets().values():
            _reach(target)
        show = arguments.json is not None
        run = Run(cloud, lambda result: print(report.line(result), flush=True) if show else None)
        results = run.check(selected(arguments.only))
    seconds = time.monotonic() - began
    if show:
        print(report.summary(results, seconds))
    _write(results, seconds, arguments)
    if any(result.outcome == Outcome.FAILED for result in results):
        return FAILED
    if unchecked := [one for one in results if one.rule.name == _FIRST and
                     one.outcome == Outcome.SKIPPED]:
        raise OSError(f"no rule about requests could be checked: {unchecked[0].text}")
    return 0


def main(argv: list[str]) -> int:
    parser = _parser()
    arguments = parser.parse_args(argv)
    if arguments.list or arguments.markdown:
        print((report.markdown if arguments.markdown else report.listing)(ALL.values()))
        return 0
    settings = _settings(parser, arguments)
    try:
        return check(settings, arguments)
    except OSError as error:
        print(f"pelmor-cloud-check: {error}", file=sys.stderr)
        return UNUSABLE
    except KeyboardInterrupt:
        return 130


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

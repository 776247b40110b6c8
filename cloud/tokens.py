"""The identity provider: Authlib decides, PostgreSQL has the state.

Authlib's server is synchronous and does no I/O here. A request first reads the rows that its form
names, Authlib then judges it by these, and what it issued is written, all in one transaction.

The refresh token is not rotated: the daemon keeps the first. Secrets are stored as hashes."""

import hashlib
import hmac
import time
from types import SimpleNamespace
from typing import Any

import asyncpg
from authlib.common.security import generate_token
from authlib.oauth2 import OAuth2Error
from authlib.oauth2.rfc6749 import AuthorizationServer, OAuth2Request, grants
from authlib.oauth2.rfc6750 import BearerTokenGenerator, BearerTokenValidator

from cloud.database import Database

_TOKEN_CHARACTERS = 48
_CODE_SECONDS = 24 * 3600
_REDIRECT = "oob"
_KNOWN_SECONDS = 60
_MOST_KNOWN = 100_000
Form = dict[str, str]


def hashed(secret: str) -> bytes:
    return hashlib.sha256(secret.encode()).digest()


def _new_token(**_: Any) -> str:
    return generate_token(_TOKEN_CHARACTERS)


class _Client:
    """The daemon's client id, the same for all devices of a vendor."""

    def __init__(self, row: asyncpg.Record) -> None:
        self.client_id = row["client_id"]
        self._secret_hash = row["secret_hash"]

    def check_client_secret(self, secret: str) -> bool:
        return hmac.compare_digest(self._secret_hash, hashed(secret))

    def check_endpoint_auth_method(self, method: str, _: str) -> bool:
        return method == "client_secret_post"

    def check_grant_type(self, grant: str) -> bool:
        return grant in ("authorization_code", "refresh_token")

    def get_allowed_scope(self, scope: str) -> str:
        return scope


class _Credential:
    """A code or a refresh token."""

    def __init__(self, row: asyncpg.Record) -> None:
        self.hash = row["hash"]
        self.device = row["device"]
        self._client_id = row["client_id"]

    def check_client(self, client: _Client) -> bool:
        return client.client_id == self._client_id

    def get_redirect_uri(self) -> str:
        return _REDIRECT

    def get_scope(self) -> str:
        return ""

    def get_expires_in(self) -> None:
        """The generator's."""


class _CodeGrant(grants.AuthorizationCodeGrant):
    TOKEN_ENDPOINT_AUTH_METHODS = ["client_secret_post"]

    def query_authorization_code(self, _: str, client: _Client) -> _Credential | None:
        code = self.server.code
        return code if code and code.check_client(client) else None

    def authenticate_user(self, code: _Credential) -> str:
        return code.device

    def delete_authorization_code(self, code: _Credential) -> None:
        self.server.used_code = code.hash


class _RefreshGrant(grants.RefreshTokenGrant):
    TOKEN_ENDPOINT_AUTH_METHODS = ["client_secret_post"]

    def authenticate_refresh_token(self, _: str) -> _Credential | None:
        return self.server.refresh_token

    def authenticate_user(self, token: _Credential) -> str:
        return token.device

    def revoke_old_credential(self, _: _Credential) -> None:
        """The refresh token stays, and the earlier access token until it expires."""


class _Request(OAuth2Request):
    # Properties in newer releases of Authlib.
    form = args = data = None

    def __init__(self, form: Form) -> None:
        super().__init__("POST", "https://localhost/token")
        self.form = self.data = form
        self.args: Form = {}
        names = ("client_id", "grant_type", "redirect_uri", "scope", "state", "response_type")
        self.payload = SimpleNamespace(
            data=form, datalist={name: [value] for name, value in form.items()},
            **{name: form.get(name) for name in names})


class _Server(AuthorizationServer):
    """Judges one request by the rows that it names."""

    def __init__(self, client: _Client | None, code: _Credential | None,
                 refresh_token: _Credential | None, lifetime: int) -> None:
        super().__init__()
        self.code = code
        self.refresh_token = refresh_token
        self._client = client
        # What it decided.
        self.used_code: bytes | None = None
        self.issued: tuple[Any, str, Form] | None = None
        self.register_token_generator("default", BearerTokenGenerator(
            _new_token, _new_token, lambda *_: lifetime))
        self.register_grant(_CodeGrant)
        self.register_grant(_RefreshGrant)

    def query_client(self, client_id: str) -> _Client | None:
        return self._client

    def save_token(self, token: Form, request: Any) -> None:
        self.issued = request.client, request.user, token

    def send_signal(self, *_: Any, **__: Any) -> None:
        pass

    def create_oauth2_request(self, request: Form) -> _Request:
        return _Request(request)

    def handle_response(self, status: int, body: Any, _: Any) -> tuple[int, Any]:
        return status, body


async def answer(connection: asyncpg.Connection, form: Form, lifetime: int) -> tuple[int, Any]:
    """The status and the JSON of the response to a token request; the caller commits."""
    client = await connection.fetchrow("SELECT * FROM clients WHERE client_id = $1",
                                       _text(form, "client_id"))
    # Locked, so that a code is used once.
    code = await connection.fetchrow(
        "SELECT * FROM codes WHERE hash = $1 AND expires_at > $2 FOR UPDATE",
        hashed(form.get("code", "")), int(time.time()))
    refresh_token = await connection.fetchrow("SELECT * FROM refresh_tokens WHERE hash = $1",
                                              hashed(form.get("refresh_token", "")))
    server = _Server(client and _Client(client), code and _Credential(code),
                     refresh_token and _Credential(refresh_token), lifetime)
    response = server.create_token_response(form)
    if server.issued:
        await _save(connection, *server.issued)
    if server.used_code:
        await connection.execute("DELETE FROM codes WHERE hash = $1", server.used_code)
    return response


def _text(form: Form, name: str) -> str:
    return form.get(name, "").replace("\0", "")


async def _save(connection: asyncpg.Connection, client: _Client, device: str, token: Form) -> None:
    await connection.execute("INSERT INTO access_tokens VALUES ($1, $2, $3)",
                             hashed(token["access_token"]), device,
                             int(time.time()) + int(token["expires_in"]))
    if "refresh_token" in token:
        await connection.execute("INSERT INTO refresh_tokens VALUES ($1, $2, $3)",
                                 hashed(token["refresh_token"]), client.client_id, device)


async def issue_code(connection: asyncpg.Connection, client_id: str, device: str) -> str:
    """A code for one exchange, valid for a day."""
    code = _new_token()
    await connection.execute("INSERT INTO codes VALUES ($1, $2, $3, $4)", hashed(code), client_id,
                             device, int(time.time()) + _CODE_SECONDS)
    return code


class _AccessToken:
    def __init__(self, row: asyncpg.Record) -> None:
        self.device = row["device"]
        self._expires_at = row["expires_at"]

    def is_expired(self) -> bool:
        return self._expires_at <= time.time()

    def is_revoked(self) -> bool:
        """A revoked token is deleted."""
        return False

    def get_scope(self) -> str:
        return ""


class AccessTokens:
    """Remembers valid tokens for a while: a revoked one can be used that long."""

    def __init__(self, database: Database) -> None:
        self._database = database
        self._validator = BearerTokenValidator()
        # By their hash, with when to read the row again.
        self._known: dict[bytes, tuple[float, _AccessToken]] = {}

    async def device_of(self, header: str) -> str | None:
        """The device that may use this Authorization header, or None."""
        scheme, _, secret = header.partition(" ")
        if scheme != "Bearer" or not secret:
            return None
        token = await self._find(hashed(secret))
        try:
            self._validator.validate_token(token, None, None)
        except OAuth2Error:
            return None
        return token.device if token else None

    async def _find(self, key: bytes) -> _AccessToken | None:
        due, token = self._known.get(key, (0.0, None))
        if time.monotonic() < due:
            return token
        async with self._database.transaction() as connection:
            row = await connection.fetchrow("SELECT * FROM access_tokens WHERE hash = $1", key)
        if not row:
            return None
        if len(self._known) >= _MOST_KNOWN:
            self._known.clear()
        self._known[key] = time.monotonic() + _KNOWN_SECONDS, _AccessToken(row)
        return self._known[key][1]

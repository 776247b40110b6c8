"""The identity provider's and the monitoring service's endpoints, and their usual answers."""

from typing import Any
from urllib.parse import parse_qs

from lab.common.names import METHOD_ENDPOINTS, Endpoint, Host

_TOKEN_PATH = "/token"
_GRANTS = {"refresh_token": Endpoint.REFRESH, "authorization_code": Endpoint.EXCHANGE}


def endpoint_of(host: Host, path: str, body: str) -> Endpoint:
    """`path` is decoded and has no query."""
    if host == Host.IDENTITY:
        grant = parse_qs(body).get("grant_type", [""])[0] if path == _TOKEN_PATH else ""
        return _GRANTS.get(grant, Endpoint.UNKNOWN)
    return next((endpoint for ending, endpoint in METHOD_ENDPOINTS.items()
                 if path.endswith(ending)), Endpoint.UNKNOWN)


def usual_body(endpoint: Endpoint) -> dict[str, Any]:
    """The body of a successful answer."""
    if endpoint not in (Endpoint.REFRESH, Endpoint.EXCHANGE):
        return {}
    extra = {"refresh_token": "refresh-1"} if endpoint == Endpoint.EXCHANGE else {}
    return token_response("access-1") | extra


def token_response(access_token: str) -> dict[str, Any]:
    return {"access_token": access_token, "token_type": "Bearer", "expires_in": 3600}

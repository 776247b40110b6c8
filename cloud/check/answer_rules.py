"""The rules that hold for every answer. The requests of all other rules check them."""

from cloud.check.cloud import Cloud, Skip
from cloud.check.rules import TRANSPORT, Section

RULES = Section("Every answer")
# With one of them selected, these requests check it.
_FIRST = ("exchange-accepted", "refresh-accepted", "points-accepted", "structured-log-accepted",
          "offline-log-accepted")


def holds(name: str, demand: str, reason: str, consequence: str, remedy: str) -> None:
    @RULES.rule(
        name, demand,
        reason=reason, consequence=consequence, remedy=remedy, after=_FIRST)
    def check(cloud: Cloud) -> None:
        if not cloud.answers:
            raise Skip("no request was answered")


holds("response-time", "An answer is complete within 10 seconds of its request's start.",
      "The daemon then gives the request up. With an interval below 10 seconds it sends the "
      "points again even earlier.",
      "A transport error. If the service has stored the points all the same, it receives them "
      "again in the next cycle.",
      "Answer as soon as the records are stored safely; process them later.")
holds("response-complete", "Each request gets an answer, and the answer is complete.",
      "A connection that ends before is a transport error.", TRANSPORT,
      "Finish running requests before an instance or a load balancer closes connections.")
holds("response-framed", "An answer has `Content-Length` or chunks, unless its status is 204.",
      "Otherwise its end cannot be told from an attacker's cut.", TRANSPORT,
      "Let the framework send `Content-Length`, also for an empty body.")
holds("http-1.1", "An answer is HTTP/1.1.",
      "The daemon speaks HTTP/1.1 only, and offers nothing else in ALPN.",
      "Anything but HTTP/1 is a transport error; HTTP/1.0 costs a connection per request.",
      "Enable HTTP/1.1 in the load balancer, beside HTTP/2.")
holds("response-header-size", "The headers of an answer take 256 KiB at most.",
      "The daemon's memory is limited.", TRANSPORT, "Send fewer cookies and traces.")
holds("response-body-size", "The body of an answer takes 1 MiB at most.",
      "The daemon keeps the first MiB and closes the connection.",
      "A longer token answer is unusable; for others each request costs a connection.",
      "Answer with a short text; the daemon only logs it.")
holds("no-redirect", "No answer is a redirection.",
      "The daemon follows none, since it would pass its token on to another server.",
      "As for any other error: points are dropped, logs wait. At the token endpoint: the "
      "device loses its credentials.",
      "Serve the URLs as configured, without a slash or another host name appended.")

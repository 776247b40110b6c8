"""What happens when in each minute of the run."""

MINUTE = 60.0
FAULT_SECONDS = 10.0
# Of each minute. By its start a fault is mended and got over: a refresh of the token may wait for
# 30 seconds after the last, and a request for 10. By its end a point has its cycle before the next.
QUIET = (48.0, 56.0)


def is_quiet(seconds: float) -> bool:
    """At so many seconds since the load began."""
    return QUIET[0] <= seconds % MINUTE < QUIET[1]

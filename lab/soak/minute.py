"""The course of each minute of the run."""

MINUTE = 60.0
FAULT_SECONDS = 10.0
# Of each minute. Before it the daemon has recovered: a token refresh may be due 30 seconds after
# the last one, and a request may take 10. After it a point still has a cycle before the next fault.
QUIET = (48.0, 56.0)


def is_quiet(seconds: float) -> bool:
    """At so many seconds since the load began."""
    return QUIET[0] <= seconds % MINUTE < QUIET[1]

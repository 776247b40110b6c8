"""The errors of the lab."""


class LabError(Exception):
    """A command failed, or an awaited event did not happen."""

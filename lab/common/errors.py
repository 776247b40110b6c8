"""What the lab raises."""


class LabError(Exception):
    """The lab could not do what was asked, or what was waited for did not happen."""

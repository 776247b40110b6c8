"""Marks tests that do not apply to the daemon or the bus of a run."""

# Prefix of the reason with which such a test is skipped.
NOT_APPLICABLE = "not applicable: "

"""Which tests apply to the daemon and the bus that a run is about."""

# What a test that does not apply is skipped with, before its reason.
NOT_APPLICABLE = "not applicable: "

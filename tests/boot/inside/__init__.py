"""Programs that run in the booted device."""

"""What runs in the booted device."""

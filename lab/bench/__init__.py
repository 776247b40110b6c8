"""What the daemon costs, next to what the same work costs with nothing in between."""

"""What the parts of the lab share."""

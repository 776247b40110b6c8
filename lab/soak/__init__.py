"""Months of a device in an hour: a cycle each second, and a fault each minute."""

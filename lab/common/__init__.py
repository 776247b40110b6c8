"""Shared by the parts of the lab."""

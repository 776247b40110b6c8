"""Breaks the daemon's code in one place at a time, and sees whether a test notices."""

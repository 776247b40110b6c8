"""A whole device in a sandbox, around the daemon that ships.

This file imports nothing, so that the half that runs in the sandbox starts fast.
"""

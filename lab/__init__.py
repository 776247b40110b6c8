"""The device lab: a whole device in a sandbox, around the very daemon that ships.

`lab.device.Device` is the way in; `lab.inside` is the half that runs in the sandbox. This file
imports nothing, so that the inside half starts fast.
"""

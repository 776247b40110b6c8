"""Everything that exercises the daemon; `lab.device.device.Device` is where to start."""

"""The half of the lab that runs in the sandbox: the bus, the programs on it, the cloud and the
daemon's parent, all on one asyncio loop, driven over a link from outside."""

"""Many devices and one cloud: what a fleet costs its cloud, and where each of its records went."""

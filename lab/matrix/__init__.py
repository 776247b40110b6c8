"""Builds and tests the tree in each environment that it must work in: `./dev matrix`."""

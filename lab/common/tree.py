"""Where the source tree is."""

from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]

"""An endurance run: a cycle each second and a fault each minute."""

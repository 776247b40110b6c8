"""The simulated cloud: one HTTPS service for the lab's devices, the fleet and the benchmark."""

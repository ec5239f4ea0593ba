"""The simulated installation around a base unit: board, peers, journal and scenes. See bench/README.md."""

"""What bench/run measures, and what it makes of the results."""

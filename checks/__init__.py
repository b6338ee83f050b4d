"""What the module promises, proven at length: `make check` prints a figure for each promise."""

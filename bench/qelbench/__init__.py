"""The benchmarks: what measures, and what writes down what was measured. The command is bench/run."""

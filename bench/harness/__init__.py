'''The pieces of bench/compare.py: the private mount view, the simulated
worlds, running and measuring processes, and the result table.'''

"""Kills the agent, its applications and its broker under load, and counts what was confirmed against what arrived."""

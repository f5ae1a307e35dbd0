"""Runs the tests."""

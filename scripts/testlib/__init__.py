"""What runs the tests."""

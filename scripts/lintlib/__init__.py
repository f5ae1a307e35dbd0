"""The rules of scripts/lint, and the tree that they check."""

"""The rules of scripts/lint, and what they look at."""

"""The measurements of scripts/look, and their output."""

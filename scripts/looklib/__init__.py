"""What scripts/look measures, and how it shows it."""

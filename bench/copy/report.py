"""Prints the results of the races, and records which of them have broken their bounds."""
MEBIBYTE = 1 << 20
GIBIBYTE = 1 << 30


class Report:
    """Prints results, and records which of them have broken their bounds."""

    def __init__(self):
        self.broken = []

    def title(self, text):
        print(f"\n{text}", flush=True)

    def line(self, name, *columns):
        print(f"  {name:34}" + "".join(f"{column:>14}" for column in columns), flush=True)

    def bound(self, name, value, bound, unit=""):
        verdict = "" if value <= bound else "  BROKEN"
        print(f"  {name}: {value:.2f}{unit}, at most {bound:.2f}{unit}{verdict}", flush=True)
        if verdict:
            self.broken.append(name)


def numbers(*values):
    """Formats the columns of a line."""
    return tuple(f"{value:.2f}" for value in values)

"""What the races print, and which of them have broken their bounds."""
MEBIBYTE = 1 << 20
GIBIBYTE = 1 << 30


class Report:
    """Prints, and keeps in mind what has broken its bound."""

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
    """Columns of a line."""
    return tuple(f"{value:.2f}" for value in values)

"""The release of clang's tools whose verdict counts, one that Debian 12 and Debian 13 both have.

Each release lays out some lines in its own way and finds other things: with whatever release is there, what
is clean on one machine would be refused on another.
"""

RELEASE = 19
FORMAT = f"clang-format-{RELEASE}"
TIDY = f"clang-tidy-{RELEASE}"

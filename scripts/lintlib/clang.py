"""The release of clang's tools whose verdict counts; Debian 12 and Debian 13 both have it.

Releases differ in the layout of some lines and in their findings. If any installed release were used, code
that is clean on one machine would be refused on another.
"""

RELEASE = 19
FORMAT = f"clang-format-{RELEASE}"
TIDY = f"clang-tidy-{RELEASE}"

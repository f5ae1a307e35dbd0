"""The output of scripts/look: the figures of one tree, or of two beside each other."""

from lintlib.tree import Tree
from looklib.comments import Share, shares_by_folder
from looklib.functions import functions_of, quantile
from looklib.includes import edges_of

MEDIAN, MOST = 0.5, 0.9
# Lines of a source file; a longer one has more than one job.
LONGEST_FILE = 400


class Figures:
    """All measurements of a tree."""

    def __init__(self, root):
        tree = Tree(root)
        self.sources = [file for file in tree.files if file.is_cpp or file.is_python]
        self.functions = functions_of(tree)
        self.files = sorted(self.sources, key=lambda file: (-len(file.lines), file.path))
        self.shares = shares_by_folder(self.sources)
        self.edges = edges_of(tree)

    def rows(self):
        """(what, value) of each figure of the whole tree."""
        for language, suffixes in (("C++", True), ("Python", False)):
            functions = [each for each in self.functions if each.path.endswith((".cpp", ".h")) == suffixes]
            yield f"{language} functions", len(functions)
            yield f"{language} functions, median lines", quantile(functions, MEDIAN)
            yield f"{language} functions, 90th percentile", quantile(functions, MOST)
            yield f"{language} functions, longest", quantile(functions, 1)
        yield "files", len(self.files)
        yield f"files over {LONGEST_FILE} lines", sum(len(file.lines) > LONGEST_FILE for file in self.files)
        whole = sum(self.shares.values(), Share())
        yield "lines", whole.lines
        yield "comments, percent", round(whole.percent, 1)
        yield "folders that include another", len(self.edges)


def report(root, worst, before=None):
    """The lines to print. `before` is the root of the other tree."""
    now = Figures(root)
    if before:
        yield from table(["now", "before"], [now, Figures(before)])
    else:
        yield from table(["now"], [now])
    yield from listed("Longest functions", [(each.lines, f"{each.path}:{each.line} {each.name}")
                                            for each in now.functions[:worst]])
    yield from listed("Longest files", [(len(file.lines), file.path) for file in now.files[:worst]])
    shares = sorted(now.shares.items(), key=lambda item: item[1].percent)
    yield from listed("Least comments, percent", [(round(share.percent, 1), folder)
                                                  for folder, share in shares[:worst]])


def table(headings, trees):
    rows = [("", *headings)]
    for (what, value), *others in zip(*(tree.rows() for tree in trees)):
        rows.append((what, value, *(other for _, other in others)))
    for what, *values in rows:
        yield f"{what:36}" + "".join(f"{value:>9}" for value in values)


def listed(title, rows):
    yield f"\n{title}"
    for value, what in rows:
        yield f"{value:>6}  {what}"

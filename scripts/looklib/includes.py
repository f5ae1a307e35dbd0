"""Which folder of C++ sources includes which, as a graph and as a picture.

There is an edge if a source or header of one folder includes a header of another. The picture leaves out
edges that follow from others: if a includes b, and b includes c, no edge from a to c is drawn.
"""

import os
import subprocess

FOLDERS = ("src", "platform", "tools")
PICTURE = "docs/includes.svg"
# Where an include line may begin.
ROOTS = ("", "src", "platform", "platform/tolvubd", "platform/zephane")
HEADING = "<!--"


def folder_of(path):
    return os.path.dirname(path)


def edges_of(tree):
    """Pairs of folders, sorted."""
    paths = {file.path for file in tree.cpp}
    edges = set()
    for file in tree.cpp:
        if not file.is_below(*FOLDERS):
            continue
        for _, _, name in file.includes:
            target = resolved(file, name, paths)
            if target and folder_of(target) != folder_of(file.path):
                edges.add((folder_of(file.path), folder_of(target)))
    return sorted(edges)


def resolved(file, name, paths):
    """The path of the file that an include line names; None if it is none of the tree's."""
    for root in (folder_of(file.path), *ROOTS):
        path = os.path.normpath(os.path.join(root, name))
        if path in paths:
            return path
    return None


def without_implied(edges):
    """The edges without those that follow from others."""
    kept = set(edges)
    for edge in sorted(edges):
        kept.discard(edge)
        if edge[1] not in reached_from(edge[0], kept):
            kept.add(edge)
    return sorted(kept)


def reached_from(folder, edges):
    reached, waiting = set(), [folder]
    while waiting:
        current = waiting.pop()
        for begin, end in edges:
            if begin == current and end not in reached:
                reached.add(end)
                waiting.append(end)
    return reached


def picture(edges):
    """The SVG of a graph, which begins with its edges as a comment: versions of Graphviz draw differently,
    and the comment alone shows whether a picture is up to date."""
    done = subprocess.run(["dot", "-Tsvg"], input=dot(without_implied(edges)), capture_output=True, text=True,
                          check=True)
    drawn = "".join(f"{line.rstrip()}\n" for line in done.stdout.splitlines())
    head, body = drawn.split("<svg", 1)
    return f"{head}{edges_comment(edges)}<svg{body}"


def edges_comment(edges):
    """The comment in which a picture lists all of its edges, also those that aren't drawn."""
    return HEADING + "".join(f"\n{begin} > {end}" for begin, end in edges) + "\n-->\n"


def dot(edges):
    """The graph in the language of Graphviz, with a box around the folders of each of FOLDERS."""
    lines = ["digraph includes {", "rankdir=TB; ranksep=0.6; nodesep=0.15;",
             'node [shape=box, style="rounded,filled", fillcolor=white, fontname="sans-serif", fontsize=11];',
             'graph [fontname="sans-serif", style="rounded,filled", fillcolor="#eef2f6", color="#b8c4d0"];',
             'edge [color="#5a6b7b", arrowsize=0.6];']
    folders = sorted({folder for edge in edges for folder in edge})
    for top in FOLDERS:
        inside = [f'"{folder}" [label="{folder.removeprefix(top + "/")}"];'
                  for folder in folders if folder.startswith(top + "/")]
        lines.append(f'subgraph "cluster_{top}" {{ label="{top}"; {" ".join(inside)} }}')
    lines += [f'"{begin}" -> "{end}";' for begin, end in edges]
    return "\n".join([*lines, "}"])

"""The rules about layers: who includes whom, and whether the pictures of it are up to date."""

import itertools
import os
import re

from lintlib.tree import Finding
from looklib import includes

# The layers below src/, lowest first. A folder includes only itself and the folders above it in this list. A
# file belongs to the deepest listed folder that contains it.
LAYERS = [
    "os",
    "common",
    "common/json",
    "info/log",
    "common/config",
    "info",
    "db",
    "core/operation",
    "core/checksum",
    "core/fs",
    "core/block",
    "core/transport",
    "core/script",
    "core/backup",
    "core",
    "install",
    "ordak",
    "app",
]

# The one layer that the snapshot driver's stand-in includes too. All others belong to the agent alone.
SHARED_WITH_PLATFORM = LAYERS[0]

# The document that shows the layers, highest first.
PICTURE = "docs/architecture.md"


def layer_of(path):
    """The position in LAYERS of a path below src/; None if no layer contains it."""
    containing = [layer for layer in LAYERS if path.startswith(layer + "/")]
    return LAYERS.index(max(containing, key=len)) if containing else None


def check_layers(tree):
    """A folder of src/ includes only itself and lower layers; nothing else includes the agent, except for the
    layer that the platform shares with it."""
    for file in tree.cpp:
        if file.is_below("src"):
            yield from upward_includes(tree, file)
        elif file.is_below("platform", "lab"):
            yield from agent_includes(tree, file)


def upward_includes(tree, file):
    own = layer_of(file.path.removeprefix("src/"))
    if own is None:
        yield file.finding(1, "layers", "the folder is in no layer")
        return
    for line, quote, path in file.includes:
        if ".." in path.split("/") or (quote == '"' and not is_below_src(tree, path)):
            yield file.finding(line, "layers", f"there is no src/{path}")
        elif quote == '"' and layer_of(path) is None:
            yield file.finding(line, "layers", f"{path} is in no layer")
        elif quote == '"' and layer_of(path) > own:
            yield file.finding(line, "layers", f"{LAYERS[own]} includes {path} of the higher "
                                               f"layer {LAYERS[layer_of(path)]}")


def is_below_src(tree, path):
    """Whether the header exists, or the build makes it from a template."""
    return tree.exists(f"src/{path}") or tree.exists(f"src/{path}.in")


def agent_includes(tree, file):
    for line, _, path in file.includes:
        if file.is_below("platform") and os.path.normpath(path).startswith(SHARED_WITH_PLATFORM + "/"):
            continue
        beside = os.path.normpath(os.path.join(os.path.dirname(file.path), path))
        if beside.startswith("src/") or (tree.exists(f"src/{path}") and not tree.exists(beside)):
            yield file.finding(line, "layers", f"{file.path.split('/')[0]}/ includes {path} of the agent")


def check_picture(tree):
    """The picture of the layers, the first block below `## Layers`, shows the layers that exist."""
    rows = [row for file in tree.files if file.path == PICTURE for row in pictured_layers(file.lines)]
    missing = [(1, "nothing")] * max(0, len(LAYERS) - len(rows))
    layers = itertools.chain(reversed(LAYERS), itertools.repeat("nothing"))
    for (line, name), layer in zip(rows + missing, layers):
        if name != layer:
            yield Finding(PICTURE, line, "picture", f"{name} stands where the layers have {layer}")
            return


def pictured_layers(lines):
    """(line, name) of each line of the picture that begins with a name, after one space."""
    section = itertools.dropwhile(lambda row: row[1] != "## Layers", enumerate(lines, 1))
    below = itertools.dropwhile(lambda row: not row[1].startswith("```"), section)
    block = itertools.takewhile(lambda row: not row[1].startswith("```"), itertools.islice(below, 1, None))
    return [(number, name[1]) for number, line in block if (name := re.match(r" (\w\S*)", line))]


def check_includes(tree):
    """The picture of the includes is up to date."""
    shown = next((file.text for file in tree.files if file.path == includes.PICTURE), "")
    if includes.edges_comment(includes.edges_of(tree)) not in shown:
        yield Finding(includes.PICTURE, 1, "includes", "run scripts/look --picture")

"""Everything that the documents name exists: files of the tree, programs, their commands and options."""
import re

import pytest

from lab.daemon import ROOT

DOCUMENTS = sorted(path for pattern in ("*.md", "docs/**/*.md", "lab/*.md", "platform/*/*.md", "tests/*/*.md")
                   for path in ROOT.glob(pattern))
MANUALS = ROOT / "packaging" / "man"
# Paths are relative to the page, or to the tree.
PLACES = "scripts lab docs tests bench platform tools packaging src debian cmake".split()

FENCE = re.compile(r"^```.*?^```$", re.MULTILINE | re.DOTALL)
CODE = re.compile(r"`([^`\n]+)`")
PATH = re.compile(rf"(?<![\w/.<~-])((?:{'|'.join(PLACES)})/[\w./*{{}},-]*[\w*}}/])(?![\w….])")
CALL = re.compile(r"(bekctl|tolvuctl|zephaned|bek-usedmap)((?: [\w.=/:-]+)*)")
# Placeholders, for which a user puts a word of his own.
OWN_WORDS = re.compile(r"X|KIND|NAME|PRESET|COMMAND")


def code_of(path):
    """The parts of a page that are commands, or names in code."""
    text = path.read_text(encoding="utf-8")
    fences = [line for fence in FENCE.findall(text) for line in fence.splitlines()[1:-1]]
    return [*fences, *CODE.findall(FENCE.sub("", text))]


def paths_in(pieces):
    return {name for piece in pieces for name in PATH.findall(piece) if not OWN_WORDS.search(name)}


def stated(program):
    """The commands and options in a program's manual page."""
    text = (MANUALS / f"{program}.8.scd").read_text(encoding="utf-8")
    terms = re.findall(r"^\*.*$", text, re.MULTILINE)
    commands = {term.split("*")[1].split()[0] for term in terms if term[1].islower()}
    return commands - {program}, set(re.findall(r"(?<![\w-])--?[a-z][\w-]*", text))


def is_wrong(program, words):
    """Whether the first word is no command, though the program has commands, or an option doesn't exist."""
    commands, options = stated(program)
    if commands and words and words[0].isalpha() and words[0].islower() and words[0] not in commands:
        return True
    return any(word.startswith("-") and word.partition("=")[0] not in options for word in words)


def wrong_calls(pieces):
    calls = [call for call in map(CALL.match, pieces) if call]
    return [call[0] for call in calls if is_wrong(call[1], call[2].split())]


@pytest.mark.parametrize("path", DOCUMENTS, ids=lambda path: str(path.relative_to(ROOT)))
def test_what_a_page_names(path):
    pieces = code_of(path)
    missing = {name for name in paths_in(pieces)
               if not any(any(base.glob(name)) for base in (ROOT, path.parent))}
    assert not missing
    assert not wrong_calls(pieces)


def test_that_something_is_looked_at():
    """A page that names something that doesn't exist is found."""
    pieces = ["scripts/build release", "lab/no-such-thing --x", "tolvuctl list", "tolvuctl lisst",
              "zephaned --chek", "bek-usedmap --json FILE"]
    assert paths_in(pieces) == {"scripts/build", "lab/no-such-thing"}
    assert wrong_calls(pieces) == ["tolvuctl lisst", "zephaned --chek"]
    assert len(DOCUMENTS) > 15
    assert sum(len(paths_in(code_of(path))) for path in DOCUMENTS) > 100

"""The manual pages against the programs: options, commands and keys must be in both."""
import json
import os
import re
import subprocess

import pytest

from lab.daemon import ROOT, program

MANUALS = ROOT / "packaging" / "man"
PAGES = sorted(MANUALS.glob("*.scd"))
TABLE = ROOT / "src" / "app" / "AgentConfigOptions.cpp"
SECONDS = 60

DEFINITION = re.compile(r"^(\*.*)\n\t(.*(?:\n\t.*)*)", re.MULTILINE)
OPTION = re.compile(r"(?<![\w-])--?[A-Za-z][\w-]*")
SOURCE_ROW = re.compile(r'\{"([\w.]+)", (flag|text|number)\("([^"]*)"(?:, (\d+), (\d+))?\)\}')
PAGE_ROW = re.compile(r'(Boolean|Text|Number)(?:, (\d+) to (\d+))?; "?(\w+)"? by default\.')
DOCUMENT_ROW = re.compile(r"^\| `([\w.]+)` \| (boolean|text|number) \| (\w+) \| (?:(\d+) )?\| (?:(\d+) )?\|$",
                          re.MULTILINE)
KINDS = {"flag": "boolean", "text": "text", "number": "number"}


def page(name):
    return (MANUALS / f"{name}.scd").read_text(encoding="utf-8")


def section(text, title):
    """The text below that heading."""
    return re.search(rf"^# {title}\n(.*?)(?=^# |\Z)", text, re.MULTILINE | re.DOTALL)[1]


def definitions(text):
    """The terms that a part of a page defines, without markup, each with its definition."""
    return {re.sub(r"[*\\]|\b_|_\b", "", term): " ".join(words.split())
            for term, words in DEFINITION.findall(text)}


def options_in(text):
    return set(OPTION.findall(text))


def run(*command, check=True):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, check=False,
                          timeout=SECONDS)
    assert not check or done.returncode == 0, done.stderr
    return done


def help_of(*command):
    return run(*command, "--help").stdout


def options_of(text):
    """The options at the beginning of lines of a help."""
    return {option for line in re.findall(r"^\s+(-[^\s]+(?:, *-[^\s]+)*)", text, re.MULTILINE)
            for option in options_in(line.replace(",", " "))}


def commands_of(text):
    found = re.search(r"^subcommands:\n((?:\s+\S.*\n)*)", text, re.MULTILINE | re.IGNORECASE)
    return set(re.findall(r"^ {1,4}([\w-]+)", found[1], re.MULTILINE)) if found else set()


def rendered(path, directory):
    """The file, rendered as a manual page."""
    target = directory / path.stem
    with open(path, encoding="utf-8") as source:
        done = subprocess.run(["scdoc"], stdin=source, capture_output=True, text=True, check=False,
                              timeout=SECONDS)
    assert (done.returncode, done.stderr) == (0, "")
    target.write_text(done.stdout, encoding="utf-8")
    return target


@pytest.mark.parametrize("path", PAGES, ids=lambda path: path.stem)
def test_page_is_well_made(path, tmp_path):
    """The page has the name of its file, can be found by that name, and man reports no error."""
    name, number = path.stem.rsplit(".", 1)
    assert path.read_text(encoding="utf-8").startswith(f"{name}({number})\n")
    made = rendered(path, tmp_path)
    assert run("lexgrog", made).stdout.startswith(f'{made}: "{name} - ')
    shown = subprocess.run(["man", "--warnings=all", "-l", made], capture_output=True, text=True, check=False,
                           timeout=SECONDS, env={**os.environ, "MANWIDTH": "80", "LC_ALL": "C.UTF-8"})
    assert (shown.returncode, shown.stderr) == (0, "")
    assert "NAME" in shown.stdout and "SEE ALSO" in shown.stdout
    assert max(map(len, shown.stdout.splitlines())) <= 80


@pytest.mark.parametrize("path", PAGES, ids=lambda path: path.stem)
def test_pages_that_are_referred_to(path):
    """Each of our own programs and files that a page refers to has a page."""
    ours = {page.stem for page in PAGES}
    text = path.read_text(encoding="utf-8")
    named = {f"{name}.{number}" for name, number in re.findall(r"\*([\w.-]+)\*\((\d)\)", text)}
    assert {name for name in named if name.startswith(("bek", "tolvu", "zephaned"))} <= ours
    assert named


def test_bekd():
    usage = run(program(), "-h", check=False).stdout
    stated = definitions(section(page("bekd.8"), "OPTIONS"))
    assert set(stated) == set(re.findall(r"^  (-\w, --\w+)$", usage, re.MULTILINE))
    assert len(stated) == 2


def test_tolvuctl():
    usage = run(program("tolvuctl"), check=False).stderr
    signatures = re.findall(r"^(?:usage:)? +tolvuctl (.+?)(?: {2,}|$)", usage, re.MULTILINE)
    text = page("tolvuctl.8")
    stated = {**definitions(section(text, "COMMANDS")),
              **definitions(section(text, "COMMANDS FOR STARTING AND STOPPING"))}
    assert set(stated) == set(signatures)
    assert len(signatures) > 10


@pytest.mark.parametrize("name", ["bek-restore", "bek-usedmap", "bekctl", "zephaned"])
def test_program_with_a_help(name):
    """All options, including those of commands, and all commands are in the page."""
    text = page(f"{name}.8")
    shown = help_of(program(name))
    commands = commands_of(shown)
    shown += "".join(help_of(program(name), command) for command in commands)
    stated = options_in(" ".join(definitions(section(text, "OPTIONS"))))
    assert stated == options_of(shown)
    assert options_in(section(text, "SYNOPSIS")) == stated - {"-h", "--help"}
    if commands:
        assert {term.split()[0] for term in definitions(section(text, "COMMANDS"))} == commands


def source_table():
    """Key, kind, default, minimum and maximum of each setting, from the program's source."""
    source = TABLE.read_text(encoding="utf-8")
    rows = SOURCE_ROW.findall(source)
    assert len(rows) == len(re.findall(r'^ +\{"', source, re.MULTILINE)) > 10
    return {key: (KINDS[kind], default, least, most) for key, kind, default, least, most in rows}


def page_table():
    table = {}
    for key, words in definitions(section(page("bekd-config.5"), "KEYS")).items():
        if row := PAGE_ROW.match(words):
            table[key] = (row[1].lower(), row[4], row[2] or "", row[3] or "")
    return table


def document_table():
    """The same table in docs/operations.md."""
    rows = DOCUMENT_ROW.findall((ROOT / "docs" / "operations.md").read_text(encoding="utf-8"))
    return {key: tuple(values) for key, *values in rows}


def test_settings():
    assert page_table() == source_table()
    assert document_table() == source_table()
    others = set(definitions(section(page("bekd-config.5"), "KEYS"))) - set(source_table())
    assert others == {"volumes.UUID.cowFileSizeMiB"}


def bounds(key, kind, least, most):
    """Valid and invalid values for a key."""
    if kind == "number":
        return [int(least), int(most)], [int(most) + 1, "1", int(least) - 1]
    return ([True, False], [1, "true"]) if kind == "boolean" else (["any"], [1, True])


def test_settings_as_the_daemon_takes_them(appliance):
    """Values that the page calls valid are accepted, values beyond the limits are refused, and so are unknown
    keys."""
    for key, (kind, _default, least, most) in page_table().items():
        right, wrong = bounds(key, kind, least, most)
        assert [appliance.set_config({key: value}).status for value in right] == [200] * len(right), key
        assert [appliance.set_config({key: value}).status for value in wrong] == [400] * len(wrong), key
    assert appliance.set_config({"volumes.0f1e.cowFileSizeMiB": 0}).status == 200
    assert appliance.set_config({"no.such.key": 1}).status == 400


@pytest.mark.parametrize("config, title", [({"?": 0}, "KEYS"), ({"images": [{"?": 0}]}, "KEYS OF AN IMAGE")])
def test_keys_of_the_image_server(config, title, tmp_path):
    """If the configuration has an unknown key, the program lists the keys that it knows."""
    file = tmp_path / "zephaned.json"
    file.touch(mode=0o600)
    file.write_text(json.dumps(config), encoding="utf-8")
    said = run(program("zephaned"), "--config", file, "--check", check=False).stderr
    known = said.strip().rpartition("there are: ")[2].split(", ")
    assert set(definitions(section(page("zephaned.json.5"), title))) == set(known)
    assert len(known) > 3

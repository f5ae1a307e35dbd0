"""The shell completions offer what the programs accept: they are compared with each program's own help."""
import re
import subprocess

import pytest

from lab.daemon import ROOT, program

COMPLETION = ROOT / "packaging" / "completion"
PROGRAMS = ("bekctl", "bek-restore", "bek-usedmap", "bekd", "tolvuctl", "zephaned")
COMMANDS = {"bekctl": ("status", "volumes", "backups", "pairing", "certificates", "check", "log",
                       "reasons"),
            "bek-restore": ("info", "check", "mount", "umount", "ls", "get", "write", "audit"),
            "zephaned": ("add", "list", "remove")}


def help_of(name, *words):
    done = subprocess.run([program(name), *words, "--help"], capture_output=True, text=True, check=False,
                          timeout=60)
    return done.stdout + done.stderr


def options_in(text):
    return set(re.findall(r"(?<![\w-])--[a-z][a-z-]*", text))


def usage_of(name, *words):
    """The options at the beginning of the lines below "Options:", or of the whole help if there is no such
    heading."""
    text = help_of(name, *words)
    if "Options:" not in text:
        return options_in(text)
    lines = text.partition("Options:")[2].partition("Subcommands:")[0].splitlines()
    return {option for line in lines if re.match(r"  -", line)
            for option in options_in(line.partition("Excludes:")[0])}


def commands_of(name):
    """The commands in the program's own help."""
    text = help_of(name)
    if name == "tolvuctl":
        return set(re.findall(r"tolvuctl ([a-z-]+)(?= )", text.partition("usage:")[2]))
    return set(re.findall(r"^  ([a-z]+) ", text.partition("Subcommands:")[2], re.MULTILINE))


def offered_by_bash(name, *words):
    """The words that bash offers after these words: for an empty word, and for one that begins like an
    option."""
    script = f"""
        source {COMPLETION}/bash/{name}
        compopt() {{ :; }}
        function=$(complete -p {name} | sed 's/.*-F \\([^ ]*\\).*/\\1/')
        for word in "" "--"; do
            COMP_WORDS=({name} {" ".join(words)} "$word")
            COMP_CWORD=$((${{#COMP_WORDS[@]}} - 1))
            $function
            printf '%s\\n' "${{COMPREPLY[@]}}"
        done"""
    done = subprocess.run(["bash", "-c", script], capture_output=True, text=True, check=True, timeout=60,
                          cwd="/")
    assert done.stderr == "", done.stderr
    return set(done.stdout.split())


def test_there_is_one_for_each_program_and_shell():
    assert {path.name for path in (COMPLETION / "bash").iterdir()} == set(PROGRAMS)
    assert {path.name for path in (COMPLETION / "zsh").iterdir()} == {f"_{name}" for name in PROGRAMS}


@pytest.mark.parametrize("name", ["bekctl", "bek-restore", "bek-usedmap", "bekd", "zephaned"])
def test_bash_offers_the_options(name):
    offered = {word for word in offered_by_bash(name) if word.startswith("--")}
    assert offered == usage_of(name)


@pytest.mark.parametrize("name", ["bekctl", "bek-restore", "zephaned"])
def test_bash_offers_commands_and_their_options(name):
    assert commands_of(name) == set(COMMANDS[name])
    assert {word for word in offered_by_bash(name) if not word.startswith("-")} == commands_of(name)
    for command in COMMANDS[name]:
        assert offered_by_bash(name, command) == usage_of(name, command), command


def test_bash_offers_the_commands_of_the_driver():
    assert offered_by_bash("tolvuctl") == commands_of("tolvuctl")
    for command, option in ("adopt", "--undo"), ("reinsert", "--all"), ("close", "--wait"):
        assert option in offered_by_bash("tolvuctl", command)
        assert option in help_of("tolvuctl")


@pytest.mark.parametrize("name", PROGRAMS)
def test_zsh_knows_the_same(name):
    text = (COMPLETION / "zsh" / f"_{name}").read_text(encoding="utf-8")
    assert text.startswith(f"#compdef {name}\n")
    expected = usage_of(name) | {option for command in COMMANDS.get(name, ())
                                 for option in usage_of(name, command)}
    described = set(re.findall(r"(--[a-z][a-z-]*)\[", text))
    assert described == (expected - {"--help"} if name == "tolvuctl" else expected)
    if commands_of(name):
        assert set(re.findall(r"^ +'([a-z-]+):", text, re.MULTILINE)) == commands_of(name)

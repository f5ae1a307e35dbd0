"""How documents are run as they are printed: a page that is wrong is found and reported."""
import pytest

from pages import (CEPH, MACHINE, PYTHON, ROOT, SH, Block, Page, check_blocks, check_program, commands_in,
                   missing_line, shell_in)

PAGE = """# First
```sh
# Not a heading
true
```
```text
a
```
## Second
```
for reading ...
```
```sh machine
true
```
```python ceph
print()
```
### Third
```sh
false
```
"""
HERE_DOCUMENT = "cat >call <<'END'\n#!/bin/sh\nfalse && \\\nEND\n"
LOOP = "until true; do\n    false\ndone\n"
LONG = 'echo "a \\\n    b" |\n    cat\n'


@pytest.fixture
def page(tmp_path):
    """page(TEXT) makes a Page of a text."""
    def make(text):
        path = tmp_path / "page.md"
        path.write_text(text, encoding="utf-8")
        return Page(path)
    return make


def test_blocks_of_a_page(page):
    made = page(PAGE)
    assert made.headings == ["First", "Third"]
    assert made["First"] == [Block(SH, "# Not a heading\ntrue\n", "First", ("a",))]
    assert [block.text for block in made.of(SH)] == ["# Not a heading\ntrue\n", "false\n"]
    assert [block.heading for kind in (MACHINE, CEPH, "") for block in made.of(kind)] == ["Second"] * 3
    with pytest.raises(AssertionError, match="no commands below 'Second'"):
        print(made["Second"])


@pytest.mark.parametrize("text, said", [
    ("```text\na\n```\n", "printed by no command: a"),
    ("```python\n```\n```text\na\n```\n", "printed by no command: a"),
    ("```sh\n```\n```text\na\n```\n```text\nb\n```\n", "printed by no command: b"),
    ("```sh\ntrue\n```\n```sh\ntrue\n", "a block without an end")])
def test_a_page_that_is_put_wrong(page, text, said):
    with pytest.raises(ValueError, match=said):
        page(text)


@pytest.mark.parametrize("shown, missing", [
    (["a 1 ... b", "c"], None), (["c", "a 1 b"], "a 1 b"), (["d"], "d"), (["a", "c"], "a"), ([""], None),
    (["c", "c"], "c")])
def test_what_a_page_shows_is_looked_for_in_its_order(shown, missing):
    assert missing_line(shown, "a 22  xx b\nc\n") == missing


@pytest.mark.parametrize("shown, is_there", [
    ("e1ddc84e-9ab7-4b40-928b-b352c081e84d /mnt", True), ("e1ddc84e /mnt", False),
    ("3CAB0FFF4A1537E4 /mnt", False), ("481257ad-26b4-40d7-a70f-8c4ad55443ff /srv", False)])
def test_identifiers_vary(shown, is_there):
    printed = "f1c98d5b-f1ce-4d24-b68e-182ec45c3e2c  /mnt\n"
    assert (missing_line([shown], printed) is None) == is_there
    assert missing_line(["3CAB0FFF4A1537E4 (...)"], "0123456789ABCDEF (ntfs)\n") is None


def test_commands_have_all_of_their_lines():
    commands = ["true\n", HERE_DOCUMENT, LOOP, "# why\n", LONG]
    assert commands_in("".join(commands)) == commands
    with pytest.raises(ValueError, match="no command: done"):
        commands_in("true\ndone\n")


def test_what_is_as_printed(tmp_path):
    """The blocks share a shell, and standard input is empty."""
    blocks = [Block(SH, "a=1\ncat\n"), Block(SH, "echo -n b\necho $a$((1 + 1))\n", printed=("b7",))]
    assert check_blocks(blocks, shell_in(tmp_path)) == ["", "b12\n"]


@pytest.mark.parametrize("printed", ["c\na 1", "a 1\nd"])
def test_what_is_not_as_printed_is_found(tmp_path, printed):
    block = Block(SH, "printf 'a 1\\nb\\nc'\n", printed=tuple(printed.splitlines()))
    with pytest.raises(AssertionError) as found:
        check_blocks([Block(SH, "true\n"), block], shell_in(tmp_path))
    line = printed.splitlines()[-1]
    assert str(found.value) == f"not printed: {line!r}\n--- by\n{block.text}--- but\na 1\nb\nc"


@pytest.mark.parametrize("command, said", [
    ("sh -c 'echo why >&2; exit 3'\n", "status 3"), ("{ echo why; false; } && true\n", "status 1"),
    ("{ echo why; false; } | cat\n", "status 1"), ("echo why\\\n; (exit 4)\n", "status 4"),
    ("echo why; exit\n", "status 0")])
def test_command_that_fails_is_told_with_what_it_printed(tmp_path, command, said):
    blocks = [Block(SH, f"echo then\n{command}"), Block(SH, "touch there\n")]
    with pytest.raises(AssertionError) as found:
        check_blocks(blocks, shell_in(tmp_path))
    assert str(found.value) == f"{said} of\n{command}--- printed\nwhy\n"
    assert not (tmp_path / "there").exists()


def test_command_that_does_not_end_is_told(tmp_path):
    with pytest.raises(AssertionError) as found:
        check_blocks([Block(SH, "echo then\necho why; exec sleep 60\n")], shell_in(tmp_path, seconds=1))
    assert str(found.value) == "status none after 1 s of\necho why; exec sleep 60\n--- printed\nwhy\n"


def test_program_that_fails_is_told():
    check_program(Block(PYTHON, "print('all is well')\n"), ROOT)
    with pytest.raises(AssertionError) as found:
        check_program(Block(PYTHON, "print('then')\nraise OSError('gone')\n"), ROOT)
    told = str(found.value)
    assert told.startswith("status 1 of\nprint('then')\n") and "\nthen\n" in told and "OSError: gone" in told

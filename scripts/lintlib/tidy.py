"""Runs clang-tidy over the C++ sources, and remembers which of them were clean.

For each source, a small file in build/.tidy-cache holds a digest of everything that the verdict depends on:
each .clang-tidy file, the compile commands, the source with all headers of the tree that it includes directly
or indirectly, and the versions of the packages that bring clang-tidy and the system's headers. Only a clean
verdict is remembered.

Most of the time goes into the headers, so sources with the same compile command are first checked together.
If nothing is found, all of them are clean. Otherwise the sources with findings, some of which may come from
names that two sources use, are checked apart from the others, down to single sources; only the findings of
single sources are reported. The checks in ALONE always see a source by itself.
"""

import concurrent.futures
import hashlib
import json
import os
import re
import shlex
import subprocess

from lintlib import clang, joined
from lintlib.tree import Finding, SourceFile

FOLDERS = ("src", "platform", "bench", "tests", "tools")
COMMANDS = "build/debug/compile_commands.json"
CACHE = "build/.tidy-cache"
# The verdict of these checks would depend on the other sources of a group: the analyzer follows the calls of
# a function, and skips the called functions later; and a declaration that one source doesn't use may be used
# by another.
ALONE = re.compile(r"clang-analyzer-.*|misc-new-delete-overloads|misc-unused-(alias|using)-decls")
FINDING = re.compile(r"^(.+?):(\d+):\d+: (?:fatal )?(?:error|warning): (.*)$", re.MULTILINE)


def check_tidy(tree, paths=None):
    """clang-tidy finds nothing in the sources: in all, or in those that a change of the given paths can
    reach."""
    sources = [file for file in tree.cpp if not file.is_header and file.is_below(*FOLDERS)]
    if not sources:
        return []
    configure(tree)
    checker = Checker(tree)
    if paths is not None:
        sources = touched(sources, checker, paths)
    new = [file for file in sources if not checker.remembers(file)]
    groups = joined.groups_of_sources(new, checker.commands)
    with concurrent.futures.ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
        return sorted(set().union(*pool.map(checker.check, groups)))


def configure(tree):
    """Updates the compile commands if the build files have changed."""
    commands = tree.root / COMMANDS
    inputs = [file.absolute for file in tree.files if "cmake" in file.name.lower()]
    if commands.exists() and all(path.stat().st_mtime <= commands.stat().st_mtime for path in inputs):
        return
    done = subprocess.run(["cmake", "--preset", "debug"], cwd=tree.root, capture_output=True, text=True,
                          check=False)
    if done.returncode != 0 or not commands.exists():
        raise RuntimeError(f"no {COMMANDS}: {done.stderr.strip()}")
    os.utime(commands)


def touched(sources, checker, paths):
    """The sources that a change can reach: those that are changed, or include a changed file."""
    changed = set(paths)
    return [file for file in sources if not changed.isdisjoint(checker.closure(file))]


class Checker:
    """Runs clang-tidy, and holds what the verdicts of all sources of a tree have in common."""

    def __init__(self, tree):
        self.tree = tree
        self.files = {file.path: file for file in tree.cpp}
        commands = json.loads((tree.root / COMMANDS).read_text())
        self.commands = {os.path.relpath(entry["file"], tree.root): text_of(entry) for entry in commands}
        # A source that is not built in this configuration is checked with the command of a similar one.
        self.all_commands = "\n".join(sorted(self.commands.values()))
        self.folders = sorted({folder for text in self.commands.values() for folder in self._folders(text)})
        self.common = self._common()

    def check(self, files):
        """The findings in sources with the same compile command."""
        if len(files) == 1:
            return self._check_alone(files[0])
        alone = [check for check in self._enabled(files[0]) if ALONE.fullmatch(check)]
        refused = self._refused_together(files, alone)
        if not refused:
            return set().union(*(self._check_alone(file, alone) for file in files))
        return self.check(refused) | self.check([file for file in files if file not in refused])

    def remembers(self, file):
        """Whether the source was clean at its last check, and is still the same."""
        memory = self._memory(file)
        return memory.exists() and memory.read_text() == self._digest(file)

    def _refused_together(self, files, without):
        """The sources in which something is found; if that isn't certain, the first half of them."""
        with joined.overlay(files) as overlay:
            done = self._run(files[0], f"--vfsoverlay={overlay}", "--checks=" + ",-".join(["", *without]))
        if done.returncode == 0 and not FINDING.search(done.stdout):
            return []
        refused = [joined.source_at(files, int(line)) for path, line, _ in FINDING.findall(done.stdout)
                   if path == str(files[0].absolute)]
        refused = [file for file in files if file in refused]
        return refused if 0 < len(refused) < len(files) else files[:len(files) // 2]

    def _check_alone(self, file, checks=None):
        """The findings of these checks in one source; of all checks if None. Remembers a clean source."""
        findings = set()
        if checks is None:
            findings = self._findings(file)
        elif checks:
            findings = self._findings(file, "--checks=-*," + ",".join(checks))
        if not findings:
            memory = self._memory(file)
            memory.parent.mkdir(parents=True, exist_ok=True)
            memory.write_text(self._digest(file))
        return findings

    def _findings(self, file, *options):
        done = self._run(file, *options)
        findings = {self._finding(*match) for match in FINDING.findall(done.stdout)}
        if done.returncode != 0 and not findings:
            return {Finding(file.path, 1, "tidy", f"{clang.TIDY} failed: {done.stderr.strip()}")}
        return findings

    def _run(self, file, *options):
        command = [clang.TIDY, "--quiet", "-p", os.path.dirname(COMMANDS), *options, file.path]
        return subprocess.run(command, cwd=self.tree.root, capture_output=True, text=True, check=False)

    def _enabled(self, file):
        """The names of the checks that are enabled for a source, without the compiler's own warnings."""
        return re.findall(r"^ +(\S+)$", self._run(file, "--list-checks").stdout, re.MULTILINE)

    def _memory(self, file):
        return self.tree.root / CACHE / file.path.replace("/", "+")

    def closure(self, file):
        """The paths of the tree's files that a source consists of, itself included."""
        reached = set()
        waiting = [file.path]
        while waiting:
            path = waiting.pop()
            if path not in reached:
                reached.add(path)
                waiting += self._included(path)
        return reached

    def _included(self, path):
        """The files of the tree that the include lines of a file may mean."""
        if path not in self.files: # a generated header, which the tree doesn't list
            self.files[path] = SourceFile(self.tree.root, path)
        for _, _, name in self.files[path].includes:
            for folder in [os.path.dirname(path), *self.folders]:
                candidate = os.path.normpath(os.path.join(folder, name))
                if not candidate.startswith("..") and (self.tree.root / candidate).is_file():
                    yield candidate

    def _digest(self, file):
        parts = [self.common, self.commands.get(file.path, self.all_commands)]
        for path in sorted(self.closure(file)):
            parts += [path, self.files[path].text]
        return hashlib.sha256("\0".join(parts).encode()).hexdigest()

    def _common(self):
        configuration = [f"{file.path}\0{file.text}" for file in self.tree.files
                         if file.name in (".clang-tidy", ".clang-format")]
        return "\0".join([*configuration, output_of(clang.TIDY, "--version"),
                          output_of("dpkg-query", "-W", "*-dev", "clang-tidy*")])

    def _folders(self, command):
        """The folders of the tree that a compile command searches for headers."""
        for folder in re.findall(r"(?:^|\s)-(?:I|isystem|iquote)\s*(\S+)", command):
            relative = os.path.relpath(folder, self.tree.root)
            if not relative.startswith(".."):
                yield relative

    def _finding(self, path, line, message):
        relative = os.path.relpath(os.path.join(self.tree.root, path), self.tree.root)
        return Finding(relative, int(line), "tidy", message.replace(",-warnings-as-errors]", "]"))


def text_of(entry):
    return entry.get("command") or shlex.join(entry["arguments"])


def output_of(*command):
    return subprocess.run(command, capture_output=True, text=True, check=False).stdout

"""One Debian package, as dpkg-deb shows it."""
import dataclasses
import pathlib
import re
import subprocess

ENTRY = re.compile(r"(\S+) (\S+) +(\d+) (\S+ \S+) \.(/.*?)(?: -> (.*))?$")


def output_of(*words):
    return subprocess.run([str(word) for word in words], capture_output=True, text=True, check=True).stdout


@dataclasses.dataclass(frozen=True)
class Entry:
    mode: str
    owner: str
    path: str


class PackageFile:
    def __init__(self, path):
        self.path = pathlib.Path(path)
        self.name = self.path.name.split("_")[0]

    def field(self, name):
        return output_of("dpkg-deb", "--field", self.path, name).strip()

    def depends(self):
        """The names of the dependencies; alternatives are one entry: "a | b"."""
        bare = re.sub(r" *\([^)]*\)", "", self.field("Depends"))
        return {" | ".join(word.strip() for word in one.split("|")) for one in bare.split(",")}

    def entries(self):
        lines = output_of("dpkg-deb", "--contents", self.path).splitlines()
        found = [ENTRY.match(line) for line in lines]
        return [Entry(one[1], one[2], one[5]) for one in found if one]

    def files(self):
        return {entry.path: entry for entry in self.entries() if not entry.mode.startswith("d")}

    def unpack(self, directory):
        output_of("dpkg-deb", "--extract", self.path, directory)
        return pathlib.Path(directory)

    def changed(self, directory, **fields):
        """The same package with other fields, in `directory`. Dependencies on its version are changed to the
        new one."""
        tree = pathlib.Path(directory, f"{self.name}-tree")
        output_of("dpkg-deb", "--raw-extract", self.path, tree)
        control = tree / "DEBIAN/control"
        text = control.read_text(encoding="utf-8")
        text = text.replace(f"(= {self.field('Version')})", f"(= {fields.get('Version', '')})")
        for name, value in fields.items():
            text = re.sub(rf"^{name}: .*", f"{name}: {value}", text, flags=re.M)
        control.write_text(text, encoding="utf-8")
        return pack(tree, pathlib.Path(directory, f"{self.name}_changed.deb"))


def pack(tree, path):
    output_of("dpkg-deb", "--root-owner-group", "-Znone", "--build", tree, path)
    return PackageFile(path)

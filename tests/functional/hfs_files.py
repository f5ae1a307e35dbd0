"""The files of HFS+ volumes, read by a program, as the lab can't mount them."""
import re
import subprocess

from lab.commands import SECONDS, run

FILE = re.compile(r"^r/r (\d+):\t(d\d/f\d+)$", re.MULTILINE)


def files_of(image):
    """The contents of the files of a volume, by path."""
    return {path: subprocess.run(["icat", "-f", "hfs", image, number], check=True, capture_output=True,
                                 timeout=SECONDS).stdout
            for number, path in FILE.findall(run("fls", "-r", "-p", "-f", "hfs", image))}

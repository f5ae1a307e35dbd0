"""The packages of build/packages, and a Debian system to install them in."""
import os
import pathlib
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))
pytest.register_assert_rewrite("debian_system")

from debian_system import DebianSystem # noqa: E402
from package_file import PackageFile # noqa: E402

NAMES = ("bekd", "libtolvubd0", "libzephane0", "zephaned", "bek-restore")


@pytest.fixture(scope="session")
def packages():
    """{name: package}"""
    found = {file.name.split("_")[0]: PackageFile(file) for file in (ROOT / "build/packages").glob("*.deb")}
    assert sorted(found) == sorted(NAMES), "scripts/package makes them"
    return found


@pytest.fixture(scope="session")
def build():
    return ROOT / os.environ["BEKD_BUILD"]


@pytest.fixture
def system():
    """A Debian system without the packages, but with their dependencies."""
    with DebianSystem() as made:
        yield made


@pytest.fixture
def installed(system, packages):
    """A Debian system with all packages just installed."""
    system.install(*packages.values())
    return system

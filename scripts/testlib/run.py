"""Runs parts of the tests: run.py SECONDS PART..., as scripts/test describes them."""

import os
import signal
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from testlib.display import Display  # noqa: E402
from testlib.lanes import Lanes  # noqa: E402
from testlib.step import Step  # noqa: E402

ROOT = Path(__file__).resolve().parents[2]
BUILD = ROOT / "build"
PYTHON = "/usr/bin/python3"

# The functional tests mostly wait for devices and services. The builds get the processor time that they
# leave, and clang-tidy gets what is left then.
NICE_BUILD = 10
NICE_LINT = 19


def build(preset, *targets, nice=0, name=""):
    return Step(name or f"build {preset}", ["scripts/build", preset, *targets], nice=nice,
                progress=BUILD / f"{preset}.log")


def unit_chain(preset):
    # Without address space randomisation: some kernels randomise more than ThreadSanitizer can take.
    run = ["setarch", "-R", "ctest", "--test-dir", f"build/{preset}", "--output-on-failure",
           "--parallel", str(len(os.sched_getaffinity(0)))]
    return [build(preset, nice=NICE_BUILD),
            Step(f"unit tests ({preset})", run, reports=BUILD / preset / "reports")]


def functional_chain(name="functional tests", *files):
    return [build("release"),
            Step(name, [PYTHON, "scripts/testlib/functional.py", "build/release", *files],
                 reports=BUILD / "release" / "reports")]


def package_chain():
    reports = BUILD / "package-reports"
    image = Step("image of machines for packages", ["lab/machine", "build"], nice=NICE_BUILD)
    return [Step("packages, twice", ["scripts/package", "--again"], nice=NICE_BUILD, is_test=True,
                 progress=BUILD / "package.log"),
            image, build("release", nice=NICE_BUILD, name="programs for packages"),
            Step("tests of packages", ["lab/namespace", "env", "BEKD_BUILD=build/release", PYTHON, "-m",
                                       "pytest", "-q", "-p", "no:cacheprovider",
                                       f"--junitxml={reports}/package.xml", "tests/package"],
                 reports=reports)]


def ceph_chain():
    return functional_chain("tests on Ceph", *sorted((ROOT / "tests/functional/ceph").glob("test_*.py")))


def machine_chain(is_nightly):
    reports = BUILD / "machine" / "reports"
    images = [Step("image of machines", ["lab/machine", "build"], nice=NICE_BUILD)]
    if is_nightly:
        images.append(Step("image of machines of QEMU", ["lab/machine", "build", "--qemu"], nice=NICE_BUILD))
    return [*images, build("release", nice=NICE_BUILD, name="programs for machines"),
            Step("packages for machines", ["scripts/package"], nice=NICE_BUILD,
                 progress=BUILD / "package.log"),
            Step("tests in machines", [PYTHON, "scripts/testlib/machine.py",
                                       *(["--nightly"] if is_nightly else []), reports],
                 reports=reports, nice=NICE_BUILD)]


def lint_tests_chain():
    reports = BUILD / "lint-reports"
    return [Step("tests of the scripts", [PYTHON, "-m", "pytest", "-q", "-p", "no:cacheprovider",
                                          f"--junitxml={reports}/lint.xml", "tests/lint"], reports=reports)]


def fuzz_chain(seconds):
    """Inputs that reach new code go to build/fuzz/corpus; those that fail go to build/fuzz as well."""
    names = sorted(path.name for path in (ROOT / "tests/fuzz/corpus").iterdir())
    return [build("fuzz", "fuzzers"), *(fuzz(name, seconds) for name in names)]


def fuzz(name, seconds):
    corpus = BUILD / "fuzz/corpus" / name
    corpus.mkdir(parents=True, exist_ok=True)
    return Step(f"fuzz {name}",
                [f"build/fuzz/fuzz_{name}", f"-max_total_time={seconds}", "-timeout=20", "-rss_limit_mb=1500",
                 "-print_final_stats=1", f"-artifact_prefix=build/fuzz/{name}-", corpus,
                 f"tests/fuzz/corpus/{name}"], is_test=True, shown="stat::number_of_executed_units")


def lanes_of(parts, seconds):
    """The lanes, which run side by side: steps that mostly wait, steps that boot machines, steps that mostly
    compute, and steps that have time until the end."""
    waiting = [functional_chain()] if "functional" in parts else []
    computing = [unit_chain("asan"), unit_chain("tsan")] if "unit" in parts else []
    low_priority = []
    if "package" in parts:
        computing.append(package_chain())
    if "lint" in parts:
        computing.append(lint_tests_chain())
        low_priority.append([Step("lint", ["scripts/lint", "--all"], nice=NICE_LINT, is_test=True,
                             shown="^lint: ")])
    if "ceph" in parts:
        waiting.append(ceph_chain())
    if "fuzz" in parts:
        computing.append(fuzz_chain(seconds))
    booting = [machine_chain("machine" in parts)] if {"uml", "machine"} & set(parts) else []
    return [waiting, booting, computing, low_priority]


def main():
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    seconds, *parts = sys.argv[1:]
    lanes = lanes_of(parts, seconds)
    display = Display(sum(len(chain) for lane in lanes for chain in lane), what=", ".join(parts))
    logs = BUILD / "logs"
    logs.mkdir(parents=True, exist_ok=True)
    Lanes(ROOT, logs, display).run(lanes)
    return 0 if display.finish() else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(128 + signal.SIGINT)

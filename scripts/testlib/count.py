"""Prints how many tests have passed and how many have failed, by the JUnit reports named."""

import sys
import xml.etree.ElementTree as ElementTree


def main():
    passed = failed = 0
    for path in sys.argv[1:]:
        try:
            cases = list(ElementTree.parse(path).iter("testcase"))
        except (OSError, ElementTree.ParseError):
            continue # a program that died before its report; its step has failed
        for case in cases:
            if any(child.tag in ("failure", "error") for child in case):
                failed += 1
            else:
                passed += 1
    print(passed, failed)


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Checks that two build trees ran the same unit tests: the GoogleTest tests of
the executables built from tests/*_test.cpp (directly in <build>/tests), by
name. Tests of subdirectories (the daemon's, end-to-end, consumer and package
checks) are left out: some of them exist for the host only.

Usage: scripts/same-tests.py BUILD_A BUILD_B     (after ctest ran in both)
"""
import json
import os
import subprocess
import sys


def unit_tests(build):
    """Names of the tests whose program lies directly in <build>/tests."""
    listing = subprocess.run(
        ["ctest", "--test-dir", build, "--show-only=json-v1"],
        check=True, capture_output=True, text=True).stdout
    tests_dir = os.path.realpath(os.path.join(build, "tests"))
    names = set()
    for test in json.loads(listing)["tests"]:
        command = test.get("command") or []
        # The program is the first argument that lies in the build tree; an
        # emulator may come before it.
        program = next((c for c in command if os.path.realpath(c).startswith(tests_dir)), None)
        if program and os.path.dirname(os.path.realpath(program)) == tests_dir:
            # A parameterised test's name carries its parameter's printout,
            # which may differ by target (the bytes of a struct); the name
            # before it identifies the test.
            names.add(test["name"].split("  # GetParam() = ")[0])
    return names


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    a, b = sys.argv[1], sys.argv[2]
    tests_a, tests_b = unit_tests(a), unit_tests(b)
    only_a, only_b = sorted(tests_a - tests_b), sorted(tests_b - tests_a)
    for name in only_a:
        print(f"only in {a}: {name}")
    for name in only_b:
        print(f"only in {b}: {name}")
    if not tests_a or only_a or only_b:
        print(f"same-tests: the unit tests of {a} and {b} differ", file=sys.stderr)
        return 1
    print(f"same-tests: {a} and {b} ran the same {len(tests_a)} unit tests")
    return 0


if __name__ == "__main__":
    sys.exit(main())

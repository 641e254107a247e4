#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Tallies the Windows test suite against the Linux one.

Usage:
  python3 scripts/windows-tally.py LINUX_BUILD WINDOWS_BUILD CTEST_LOG [--markdown]

LINUX_BUILD and WINDOWS_BUILD are the build directories of the release and
windows presets (their tests are listed with ctest -N); CTEST_LOG is the
LastTest.log of a whole ctest run of the windows preset, which holds each
test's output.

Every test of the Linux suite that the Windows build leaves out must be in
tests/windows-left-out.txt with the POSIX means it needs, and every listed
test must still be left out; a test that skips under Wine must say why in
its output (GTEST_SKIP's message). The script prints the counts, the tests
left out, the tests that skipped with their reasons and the tests only
Windows has, and exits 1 when the list and the builds disagree or a skip
gives no reason. --markdown prints the tables of docs/windows.md.
"""

import os
import re
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
LEFT_OUT = os.path.join(ROOT, "tests", "windows-left-out.txt")


def list_tests(build_dir):
    """The names of the tests ctest knows in `build_dir`."""
    env = dict(os.environ, WINEDEBUG="-all")
    out = subprocess.run(["ctest", "--test-dir", build_dir, "-N"], check=True,
                         capture_output=True, text=True, env=env).stdout
    return set(re.findall(r"^\s*Test\s+#\d+: (\S+)$", out, re.MULTILINE))


def read_left_out():
    """The listed tests and their reasons, in the file's order."""
    listed = {}
    with open(LEFT_OUT, encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            line = line.rstrip("\n")
            if not line or line.startswith("#"):
                continue
            name, tab, reason = line.partition("\t")
            if not tab or not reason.strip():
                sys.exit(f"{LEFT_OUT}:{number}: a name, a tab and a reason are expected")
            listed[name] = reason.strip()
    return listed


def skipped_tests(log_path):
    """The tests that skipped in the run logged at `log_path`, each with the
    message its skip gave (empty when it gave none)."""
    with open(log_path, encoding="utf-8", errors="replace") as f:
        text = f.read()
    skipped = {}
    blocks = re.split(r"^\d+/\d+ Testing: ", text, flags=re.MULTILINE)[1:]
    for block in blocks:
        name = block.split("\n", 1)[0].strip()
        if "Skip regular expression found in output" not in block:
            continue
        match = re.search(r": Skipped\n(.*?)\n\[  SKIPPED \]", block, re.DOTALL)
        skipped[name] = " ".join(match.group(1).split()) if match else ""
    return skipped


def main():
    args = [a for a in sys.argv[1:] if not a.startswith("--")]
    markdown = "--markdown" in sys.argv[1:]
    if len(args) != 3:
        sys.exit(__doc__)
    linux = list_tests(args[0])
    windows = list_tests(args[1])
    skipped = skipped_tests(args[2])
    listed = read_left_out()

    left_out = linux - windows
    problems = []
    for name in sorted(left_out - set(listed)):
        problems.append(f"{name}: left out of the Windows build but not listed in "
                        f"tests/windows-left-out.txt with its reason")
    for name in sorted(set(listed) - left_out):
        where = "built on Windows" if name in windows else "not a test of the Linux suite"
        problems.append(f"{name}: listed in tests/windows-left-out.txt but {where}")
    for name, reason in sorted(skipped.items()):
        if not reason:
            problems.append(f"{name}: skips under Wine without saying why")
    only_windows = sorted(windows - linux)
    ran = len(windows) - len(skipped)

    if markdown:
        print(f"| | tests |\n|---|---:|\n| Linux suite | {len(linux)} |\n"
              f"| left out of the Windows build | {len(left_out)} |\n"
              f"| only on Windows | {len(only_windows)} |\n"
              f"| Windows suite ({len(linux)} − {len(left_out)} + {len(only_windows)}) "
              f"| {len(windows)} |\n| skipped under Wine | {len(skipped)} |\n"
              f"| run under Wine | {ran} |\n")
        print("| left out of the Windows build | what it needs |\n|---|---|")
        for name in sorted(left_out):
            print(f"| `{name}` | {listed.get(name, '(not listed)')} |")
        print("\n| skipped under Wine | its reason |\n|---|---|")
        for name, reason in sorted(skipped.items()):
            print(f"| `{name}` | {reason} |")
        print("\n| only on Windows |\n|---|")
        for name in only_windows:
            print(f"| `{name}` |")
    else:
        print(f"windows tally: Linux suite {len(linux)}, left out {len(left_out)}, "
              f"only on Windows {len(only_windows)}: Windows suite {len(windows)} "
              f"(= {len(linux)} - {len(left_out)} + {len(only_windows)}); "
              f"skipped under Wine {len(skipped)}, run {ran}")
        for name in sorted(left_out):
            print(f"  left out: {name}: {listed.get(name, '(not listed)')}")
        for name, reason in sorted(skipped.items()):
            print(f"  skipped:  {name}: {reason or '(no reason given)'}")
    for problem in problems:
        print(f"windows tally: {problem}", file=sys.stderr)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())

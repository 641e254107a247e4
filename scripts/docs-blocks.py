#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Runs the code blocks of the documentation and compares their output.

Usage: docs-blocks.py --prefix <install prefix> --work <dir> <page.md>...

Rules (docs/testing.md, "The docs stage"):
- A block tagged cpp or c++ is a complete program: compiled against the
  library installed under --prefix, then run. A block tagged sh, bash or
  shell runs with `bash -euo pipefail`. Both run in the page's scratch
  directory, which the blocks of one page share, in order; the last C++
  block's source stays there as main.cpp.
- A runnable block is followed by an `output` block holding its exact
  standard output, in which {{time}}, {{tid}}, {{num}} and {{any}} stand for
  a log time (MM-DD hh:mm:ss.mmm), a thread id, a number and any text on a
  line; or by the line <!-- prints nothing -->.
- The line right before a block may be <!-- not run: <reason> --> (the
  block is skipped) or <!-- file: <name> --> (the block is written to that
  file of the scratch directory, not run).
- Blocks of other languages (text, cmake, sql, json, ini, ...) are shown
  as they are; a block without a language, or an `output` block that
  follows no runnable block, fails the stage.
Exits non-zero naming the page, the line and a diff for every failure.
"""

import argparse
import difflib
import os
import re
import shutil
import subprocess
import sys

RUN_CPP = {"cpp", "c++"}
RUN_SH = {"sh", "bash", "shell"}
PATTERNS = {
    "{{time}}": r"\d\d-\d\d \d\d:\d\d:\d\d\.\d\d\d",
    "{{tid}}": r"\d+",
    "{{num}}": r"-?\d+(?:\.\d+)?",
    "{{any}}": r".*",
}
MARK = re.compile(r"^<!--\s*(not run|file):\s*(.+?)\s*-->\s*$")
NOTHING = re.compile(r"^<!--\s*prints nothing\s*-->\s*$")


def blocks_of(path):
    """Yields (line number, tag, body, the line before, the line after)."""
    with open(path, encoding="utf-8") as f:
        lines = f.read().split("\n")
    i = 0
    while i < len(lines):
        m = re.match(r"^(\s*)(```+)(.*)$", lines[i])
        if not m:
            i += 1
            continue
        fence, tag, start = m.group(2), m.group(3).strip(), i
        body = []
        i += 1
        while i < len(lines) and not re.match(r"^\s*" + fence + r"\s*$", lines[i]):
            body.append(lines[i][len(m.group(1)):] if lines[i].startswith(m.group(1)) else lines[i])
            i += 1
        before = lines[start - 1] if start > 0 else ""
        # The first non-empty line after the block.
        j = i + 1
        while j < len(lines) and lines[j].strip() == "":
            j += 1
        after = lines[j] if j < len(lines) else ""
        yield start + 1, tag, "\n".join(body) + "\n", before.strip(), after.strip()
        i += 1


def line_matches(expected, actual):
    parts = re.split(r"(\{\{(?:time|tid|num|any)\}\})", expected)
    regex = "".join(PATTERNS.get(p, re.escape(p)) for p in parts)
    return re.fullmatch(regex, actual) is not None


def output_matches(expected, actual):
    exp = expected.rstrip("\n").split("\n") if expected.strip("\n") else []
    act = actual.rstrip("\n").split("\n") if actual.strip("\n") else []
    return len(exp) == len(act) and all(line_matches(e, a) for e, a in zip(exp, act))


class Runner:
    def __init__(self, prefix, work):
        self.prefix = prefix
        self.work = work
        self.failures = 0
        self.counts = {}
        self.env = {k: v for k, v in os.environ.items()
                    if not k.startswith("ZEL_") and k != "APPDATA"}
        self.env["PKG_CONFIG_PATH"] = os.path.join(prefix, "lib", "pkgconfig")
        self.env["CMAKE_PREFIX_PATH"] = prefix
        # A home of the stage's own: what a block installs for "your user"
        # (lnav's formats) stays out of the real one.
        self.env["HOME"] = os.path.join(work, "home")
        os.makedirs(self.env["HOME"], exist_ok=True)

    def fail(self, page, line, what, detail=""):
        self.failures += 1
        print(f"docs: {page}:{line}: {what}", file=sys.stderr)
        if detail:
            print(detail.rstrip("\n"), file=sys.stderr)

    def run_block(self, page, line, tag, body, scratch, n):
        if tag in RUN_CPP:
            src = os.path.join(scratch, "main.cpp")
            exe = os.path.join(scratch, f"prog{n}")
            with open(src, "w", encoding="utf-8") as f:
                f.write(body)
            inc = os.path.join(self.prefix, "include", "zel")
            lib = os.path.join(self.prefix, "lib")
            cmd = ["g++", "-std=c++17", "-Wall", "-Wextra", "-Werror", "-I", inc, src,
                   "-L", lib, "-lzel_utils", "-lzel_tracer", "-pthread",
                   "-Wl,-rpath," + lib, "-o", exe]
            built = subprocess.run(cmd, cwd=scratch, capture_output=True, text=True)
            if built.returncode != 0:
                self.fail(page, line, "the program does not build", built.stderr)
                return None
            argv = [exe]
        else:
            script = os.path.join(scratch, f"block{n}.sh")
            with open(script, "w", encoding="utf-8") as f:
                f.write(body)
            argv = ["bash", "-euo", "pipefail", script]
        try:
            ran = subprocess.run(argv, cwd=scratch, env=self.env, capture_output=True,
                                 text=True, timeout=600)
        except subprocess.TimeoutExpired:
            self.fail(page, line, "the block ran for more than 600 s")
            return None
        if ran.returncode != 0:
            self.fail(page, line, f"the block exited with status {ran.returncode}",
                      ran.stdout + ran.stderr)
            return None
        return ran.stdout

    def page(self, path, root):
        page = os.path.relpath(path, root)
        scratch = os.path.join(self.work, page.replace("/", "_").replace(".md", ""))
        shutil.rmtree(scratch, ignore_errors=True)
        os.makedirs(scratch)
        # The README's blocks work from the directory holding the tree as `zel`.
        os.symlink(root, os.path.join(scratch, "zel"))
        run = skipped = 0
        pending = None  # (line, actual output) of the last runnable block
        for n, (line, tag, body, before, after) in enumerate(blocks_of(path)):
            mark = MARK.match(before)
            if tag == "output":
                if pending is None:
                    self.fail(page, line, "an output block that follows no runnable block")
                    continue
                run_line, actual = pending
                pending = None
                if actual is not None and not output_matches(body, actual):
                    diff = difflib.unified_diff(body.rstrip("\n").split("\n"),
                                                actual.rstrip("\n").split("\n"),
                                                "documented", "printed", lineterm="")
                    self.fail(page, run_line, "the output differs", "\n".join(diff))
                continue
            if pending is not None:
                self.fail(page, pending[0], "a runnable block without its output block "
                          "or <!-- prints nothing -->")
                pending = None
            if mark and mark.group(1) == "not run":
                skipped += 1
                continue
            if mark and mark.group(1) == "file":
                name = os.path.join(scratch, mark.group(2))
                os.makedirs(os.path.dirname(name), exist_ok=True)
                with open(name, "w", encoding="utf-8") as f:
                    f.write(body)
                continue
            if tag == "":
                self.fail(page, line, "a block without a language (tag it, or mark it "
                          "<!-- not run: <reason> -->)")
                continue
            if tag not in RUN_CPP | RUN_SH:
                continue
            run += 1
            actual = self.run_block(page, line, tag, body, scratch, n)
            if NOTHING.match(after):
                if actual is not None and actual != "":
                    self.fail(page, line, "the block prints although the page says it "
                              "prints nothing", actual)
            elif after.startswith("```output"):
                pending = (line, actual)
            else:
                self.fail(page, line, "a runnable block without its output block "
                          "or <!-- prints nothing -->")
        if pending is not None:
            self.fail(page, pending[0], "a runnable block without its output block")
        self.counts[page] = (run, skipped)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--prefix", required=True)
    ap.add_argument("--work", required=True)
    ap.add_argument("pages", nargs="+")
    args = ap.parse_args()
    root = os.getcwd()
    runner = Runner(os.path.abspath(args.prefix), os.path.abspath(args.work))
    for path in args.pages:
        runner.page(os.path.abspath(path), root)
    for page, (run, skipped) in runner.counts.items():
        print(f"docs: {page}: {run} run, {skipped} not run")
    if runner.failures:
        print(f"docs: {runner.failures} failure(s)", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())

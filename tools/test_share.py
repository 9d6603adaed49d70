#!/usr/bin/env python3
"""Share of test code in all C++ code of the repository.

Counts git-tracked .cpp/.h files: non-blank lines that are not only a `//`
comment. Tests are tests/ and fuzz/; examples and benchmarks count as code.
Exits 1 when the share is above --max percent (default 33).
"""
import argparse
import os
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def count(path):
    n = 0
    with open(os.path.join(ROOT, path), errors="replace") as f:
        for line in f:
            s = line.strip()
            if s and not s.startswith("//"):
                n += 1
    return n


def group(path):
    parts = path.split("/")
    top = parts[0]
    if top in ("events", "log", "util"):
        return "library"
    if top in ("bench", "examples"):
        return "bench+examples"
    if top == "fuzz":
        return "fuzz"
    if top == "tests":
        sub = parts[1] if len(parts) > 2 else ""
        return "tests/" + {"support": "support", "soak": "soak", "consumer": "consumer"}.get(sub, "unit")
    return "other"


def main():
    ap = argparse.ArgumentParser(description=__doc__)
    ap.add_argument("--max", type=float, default=33.0)
    args = ap.parse_args()
    files = subprocess.run(["git", "ls-files", "--", "*.cpp", "*.h"], cwd=ROOT, check=True,
                           stdout=subprocess.PIPE, universal_newlines=True).stdout.split()
    lines = {}
    for f in files:
        if os.path.isfile(os.path.join(ROOT, f)):
            g = group(f)
            lines[g] = lines.get(g, 0) + count(f)
    order = ["library", "bench+examples", "other", "tests/unit", "tests/support", "tests/soak",
             "tests/consumer", "fuzz"]
    total = sum(lines.values())
    tests = sum(v for k, v in lines.items() if k.startswith("tests/") or k == "fuzz")
    for k in order:
        if k in lines:
            print("%-16s %6d" % (k, lines[k]))
    print("%-16s %6d" % ("all C++", total))
    share = 100.0 * tests / total if total else 0.0
    print("%-16s %6d  %.1f%% of all C++ (limit %.0f%%)" % ("tests+fuzz", tests, share, args.max))
    if share > args.max:
        print("share: tests+fuzz above %.0f%%: fold repeated cases, drop ones that restate the code" % args.max)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())

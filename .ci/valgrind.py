#!/usr/bin/env python3
"""Runs the example programs and the ctest cases labelled `valgrind` of a
build tree under valgrind's memory checker.

    .ci/valgrind.py BUILD_DIR [JOBS]

A run passes when the program exits 0 and valgrind reports no error and
nothing definitely or indirectly lost. Logs go to BUILD_DIR/valgrind/.
"""
import concurrent.futures
import json
import os
import re
import subprocess
import sys

VALGRIND = [
    "valgrind",
    "--leak-check=full",
    "--show-leak-kinds=definite,indirect",
    "--errors-for-leak-kinds=definite,indirect",
    "--error-exitcode=1",
    "--num-callers=30",
]
TIMEOUT = 900  # seconds per program; valgrind runs code 20 to 50 times slower


def examples(build):
    d = os.path.join(build, "examples")
    if not os.path.isdir(d):
        return []
    out = []
    for name in sorted(os.listdir(d)):
        path = os.path.join(d, name)
        if os.path.isfile(path) and os.access(path, os.X_OK) and "." not in name:
            out.append({"name": "example " + name, "command": [path], "cwd": d, "env": {}})
    return out


def labelled_tests(build):
    res = subprocess.run(["ctest", "--test-dir", build, "-L", "valgrind", "--show-only=json-v1"],
                         check=True, capture_output=True, text=True)
    out = []
    for t in json.loads(res.stdout).get("tests", []):
        props = {p["name"]: p["value"] for p in t.get("properties", [])}
        env = {}
        for kv in props.get("ENVIRONMENT", []):
            k, _, v = kv.partition("=")
            env[k] = v
        out.append({"name": "test " + t["name"], "command": t["command"],
                    "cwd": props.get("WORKING_DIRECTORY", build), "env": env})
    return out


def run(item, logdir):
    safe = re.sub(r"[^A-Za-z0-9_.-]", "_", item["name"])
    log = os.path.join(logdir, safe + ".log")
    env = dict(os.environ, **item["env"])
    try:
        res = subprocess.run(VALGRIND + ["--log-file=" + log] + item["command"], cwd=item["cwd"], env=env,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace",
                             timeout=TIMEOUT)
        code, output = res.returncode, res.stdout
    except subprocess.TimeoutExpired as e:
        out = e.stdout or ""
        code, output = "timeout", out.decode(errors="replace") if isinstance(out, bytes) else out
    with open(log, errors="replace") as f:
        report = f.read()
    m = re.search(r"ERROR SUMMARY: (\d+) errors", report)
    errors = int(m.group(1)) if m else -1
    ok = code == 0 and errors == 0
    return item["name"], ok, code, errors, output, report


def main():
    build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else "build")
    jobs = int(sys.argv[2]) if len(sys.argv) > 2 else os.cpu_count() or 1
    items = examples(build)
    if not items:
        print("valgrind: no example program in %s/examples" % build)
        return 1
    items += labelled_tests(build)
    logdir = os.path.join(build, "valgrind")
    os.makedirs(logdir, exist_ok=True)
    print("valgrind: %d programs (%d jobs)" % (len(items), jobs), flush=True)
    passed = failed = 0
    with concurrent.futures.ThreadPoolExecutor(max_workers=jobs) as pool:
        for name, ok, code, errors, output, report in pool.map(lambda i: run(i, logdir), items):
            if ok:
                passed += 1
                print("  ok    %s" % name, flush=True)
                continue
            failed += 1
            print("  FAIL  %s (exit %s, %s valgrind errors)" % (name, code, errors if errors >= 0 else "?"))
            print("---- output ----\n%s---- valgrind ----\n%s----" % (output[-8000:], report[-16000:]),
                  flush=True)
    print("valgrind: %d passed, %d failed" % (passed, failed))
    return 0 if failed == 0 else 1


if __name__ == "__main__":
    sys.exit(main())

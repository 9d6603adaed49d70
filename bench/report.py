#!/usr/bin/env python3
"""Runs every benchmark binary and prints one table: each measurement beside
its baseline from the same run, as min / median / max over the repetitions,
and the ratio of each repetition's pair (higher is better for kel).

Usage: bench/report.py BUILD_DIR [--min-time SECONDS] [--repetitions N] [--runs]
  --runs  also prints every repetition's figures and ratio
"""
import json
import statistics
import subprocess
import sys
from pathlib import Path

# (kel benchmark, its baseline, what is compared). Time-based pairs compare
# real time per iteration; throughput pairs compare items per second.
PAIRS = [
    ("BM_NewEvtGc", "BM_MallocFree", "allocate + release an event vs malloc + free"),
    ("BM_LoopRoundTrip", "BM_CondVarRoundTrip", "post to procSubMsg round trip vs cv hand-off"),
    ("BM_LoopThroughput", "BM_CondVarQueueThroughput", "1 producer, 2 CPUs vs mutex+cv queue"),
    ("BM_LoopOneCpu/1", "BM_CondVarQueueOneCpu/1", "1 producer, 1 CPU vs mutex+cv queue"),
    ("BM_LoopOneCpu/2", "BM_CondVarQueueOneCpu/2", "2 producers, 1 CPU vs mutex+cv queue"),
    ("BM_LoopOneCpu/4", "BM_CondVarQueueOneCpu/4", "4 producers, 1 CPU vs mutex+cv queue"),
    ("BM_LoopOneCpu/2", "BM_LoopOneCpu/1", "2 producers vs 1 producer, 1 CPU (kel)"),
    ("BM_LoopOneCpu/4", "BM_LoopOneCpu/1", "4 producers vs 1 producer, 1 CPU (kel)"),
    ("BM_WorkQueueAsync", "BM_BaselineMutexCondExecutor", "work queue throughput vs mutex+cv executor"),
    ("BM_DaemonThreadWarmStart", "BM_BaselineStdThreadCreate", "warm pooled start vs std::thread"),
    ("BM_Throughput_Dispatch/-1", "BM_Throughput_CvExecutor/-1", "dispatch enqueue+process, 2 CPUs vs executor"),
    ("BM_Throughput_Dispatch/0", "BM_Throughput_CvExecutor/0", "dispatch enqueue+process, 1 CPU vs executor"),
    ("BM_Enqueue_Dispatch", "BM_Enqueue_CvExecutor", "dispatch enqueue, worker on other CPU"),
    ("BM_RoundTrip_Dispatch", "BM_RoundTrip_CvExecutor", "dispatch run() round trip vs cv hand-off"),
    ("BM_TimerLateness10ms_Dispatch", "BM_TimerLateness10ms_CvExecutor", "10 ms one-shot, time per shot"),
    ("BM_FdLatency_Loop", "BM_FdLatency_Epoll", "readiness to handler, main loop vs epoll thread"),
    ("BM_FdLatency_Dispatch", "BM_FdLatency_Epoll", "readiness to handler, dispatch loop vs epoll"),
    ("BM_IdleWakeups_Loop", "BM_IdleWakeups_Epoll", "idle 0.5 s, 10 fds watched (see wakeups)"),
]

SUFFIXES = ("/real_time", "/manual_time", "/iterations:1", "/iterations:200")


def key(b):
    name = b.get("run_name", b["name"])
    changed = True
    while changed:
        changed = False
        for s in SUFFIXES:
            if name.endswith(s):
                name, changed = name[: -len(s)], True
    return name


def run(binary, min_time, reps):
    cmd = [str(binary), "--benchmark_format=json", f"--benchmark_min_time={min_time}",
           f"--benchmark_repetitions={reps}"]
    out = subprocess.run(cmd, capture_output=True, text=True, check=True).stdout
    results = {}
    for b in json.loads(out)["benchmarks"]:
        if b.get("run_type") == "aggregate":
            continue
        results.setdefault(key(b), []).append(b)
    return results


def value(b):
    """(number, is_rate): items per second if reported, else real time."""
    if "items_per_second" in b:
        return b["items_per_second"], True
    return b["real_time"], False


def fmt(v, rate, unit):
    return f"{v / 1e6:.2f} M/s" if rate else f"{v:.0f} {unit}"


def spread(vals, f):
    s = sorted(vals)
    return f"{f(s[0])} / {f(statistics.median(s))} / {f(s[-1])}"


def main():
    args = sys.argv[1:]
    if not args:
        print(__doc__)
        return 2
    build = Path(args[0])
    min_time = args[args.index("--min-time") + 1] if "--min-time" in args else "0.3"
    reps = int(args[args.index("--repetitions") + 1]) if "--repetitions" in args else 5
    show_runs = "--runs" in args
    results = {}
    for binary in sorted((build / "bench").glob("bench_*")):
        if binary.is_file() and binary.stat().st_mode & 0o111:
            results.update(run(binary, min_time, reps))

    print(f"min / median / max over {reps} repetitions")
    print(f"{'comparison':46} {'kel':>32} {'baseline':>32} {'ratio':>20}")
    for ours, base, what in PAIRS:
        if ours not in results or base not in results:
            continue
        a, b = results[ours], results[base]
        unit = a[0]["time_unit"]
        rate = value(a[0])[1] and value(b[0])[1]
        ka = [value(x)[0] if rate else x["real_time"] for x in a]
        kb = [value(x)[0] if rate else x["real_time"] for x in b]
        ratios = [(x / y if rate else y / x) for x, y in zip(ka, kb)]
        f = lambda v: fmt(v, rate, unit)
        r = lambda v: f"{v:.2f}x"
        print(f"{what:46} {spread(ka, f):>32} {spread(kb, f):>32} {spread(ratios, r):>20}")
        for label, runs in (("kel", a), ("baseline", b)):
            extra = {k for x in runs for k in x if k.startswith(("late_", "cs_per_evt", "wakeups"))}
            for k in sorted(extra):
                vals = [x[k] for x in runs if k in x]
                print(f"{'':4}{label} {k}: " + spread(vals, lambda v: f"{v:.3g}"))
        if show_runs:
            print(f"{'':4}runs kel:      " + ", ".join(f(v) for v in ka))
            print(f"{'':4}runs baseline: " + ", ".join(f(v) for v in kb))
            print(f"{'':4}runs ratio:    " + ", ".join(r(v) for v in ratios))
    print("ratio: baseline time / kel time, or kel rate / baseline rate; above 1 means kel is faster")
    return 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Runs every benchmark binary and prints one table: each measurement beside
its baseline from the same run, and the ratio (higher is better for kel).

Usage: bench/report.py BUILD_DIR [--min-time SECONDS] [--repetitions N]
"""
import json
import subprocess
import sys
from pathlib import Path

# (kel benchmark, its baseline, what is compared). Time-based pairs compare
# real time per iteration; throughput pairs compare items per second.
PAIRS = [
    ("BM_NewEvtGc", "BM_MallocFree", "allocate + release an event vs malloc + free"),
    ("BM_LoopRoundTrip", "BM_CondVarRoundTrip", "post to procSubMsg round trip vs cv hand-off"),
    ("BM_LoopThroughput", "BM_CondVarQueueThroughput", "one-producer throughput vs mutex+cv queue"),
    ("BM_WorkQueueAsync", "BM_BaselineMutexCondExecutor", "work queue throughput vs mutex+cv executor"),
    ("BM_DaemonThreadWarmStart", "BM_BaselineStdThreadCreate", "warm pooled start vs std::thread"),
    ("BM_Throughput_Dispatch", "BM_Throughput_CvExecutor", "dispatch enqueue+process vs mutex+cv executor"),
    ("BM_RoundTrip_Dispatch", "BM_RoundTrip_CvExecutor", "dispatch run() round trip vs cv hand-off"),
    ("BM_TimerLateness10ms_Dispatch", "BM_TimerLateness10ms_CvExecutor", "10 ms one-shot, time per shot"),
]


def run(binary, min_time, reps):
    cmd = [str(binary), "--benchmark_format=json", f"--benchmark_min_time={min_time}"]
    if reps > 1:
        cmd += [f"--benchmark_repetitions={reps}", "--benchmark_report_aggregates_only=true"]
    out = subprocess.run(cmd, capture_output=True, text=True, check=True).stdout
    results = {}
    for b in json.loads(out)["benchmarks"]:
        if b.get("aggregate_name") not in (None, "median"):
            continue
        name = b.get("run_name", b["name"]).split("/")[0]
        results[name] = b
    return results


def main():
    args = sys.argv[1:]
    if not args:
        print(__doc__)
        return 2
    build = Path(args[0])
    min_time = args[args.index("--min-time") + 1] if "--min-time" in args else "0.3"
    reps = int(args[args.index("--repetitions") + 1]) if "--repetitions" in args else 3
    results = {}
    for binary in sorted((build / "bench").glob("bench_*")):
        if binary.is_file() and binary.stat().st_mode & 0o111:
            results.update(run(binary, min_time, reps))

    print(f"{'comparison':48} {'kel':>14} {'baseline':>14} {'ratio':>7}")
    for ours, base, what in PAIRS:
        if ours not in results or base not in results:
            continue
        a, b = results[ours], results[base]
        if "items_per_second" in a and "items_per_second" in b:
            ka, kb = a["items_per_second"], b["items_per_second"]
            ratio = ka / kb
            fa, fb = f"{ka / 1e6:.2f} M/s", f"{kb / 1e6:.2f} M/s"
        else:
            ta, tb = a["real_time"], b["real_time"]
            unit = a["time_unit"]
            ratio = tb / ta
            fa, fb = f"{ta:.0f} {unit}", f"{tb:.0f} {unit}"
        print(f"{what:48} {fa:>14} {fb:>14} {ratio:6.2f}x")
        for label, r in (("kel", a), ("baseline", b)):
            late = {k: v for k, v in r.items() if k.startswith("late_")}
            if late:
                print(f"{'':4}{label} lateness: " + ", ".join(f"{k[5:]} {v:.0f}" for k, v in sorted(late.items())))
    print("ratio: baseline time / kel time, or kel rate / baseline rate; above 1 means kel is faster")
    return 0


if __name__ == "__main__":
    sys.exit(main())

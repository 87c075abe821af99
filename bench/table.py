"""Reads Google Benchmark's JSON output and prints the table of bench/run.

The pairing of each benchmark with its baseline, and its target, lives in
PAIRS below and nowhere else: a benchmark's ratio is its median time divided
by its baseline's median time from the same run. Benchmarks that PAIRS does
not name are printed as reported, with no baseline.

Usage: table.py full|smoke partial=yes|no results.json
Exit status: 0 when every gated target is met (always in smoke mode, unless
a paired benchmark did not run), 1 when a target is missed or a benchmark
named in PAIRS is absent, 2 on bad input.
"""

import json
import sys

# (benchmark name, baseline name or None, largest ratio allowed or None), in
# the order of the table. A benchmark may stand in more than one row. A
# target of None is reported, not gated.
PAIRS = [
    ("BM_Bootstrap_SerializeSpecs", "BM_Baseline_MemcpySpecsBytes", 8.0),
    ("BM_Bootstrap_DeserializeSpecs", "BM_Baseline_MemcpySpecsBytes", 8.0),
    ("BM_Update_NoDifference/1000", "BM_Baseline_CompareHandles/1000", None),
    ("BM_Update_NoDifference/100000", "BM_Baseline_CompareHandles/100000", 4.0),
    ("BM_Update_InsertMiddle/100000", "BM_Update_NoDifference/100000", 3.0),
    ("BM_Update_MoveFirstToEnd_Bulk/10000", "BM_Baseline_FourHandleChanges/10000", 1.3),
    ("BM_WriteEnd_NoDifference/100000", None, None),
    ("BM_WriteEnd_Reverse/100000", "BM_WriteEnd_NoDifference/100000", 100.0),
    ("BM_WriteEnd_Rotate/100000", "BM_WriteEnd_NoDifference/100000", 100.0),
    ("BM_WriteEnd_Shuffle/100000", "BM_WriteEnd_NoDifference/100000", 100.0),
    # The growth of a reversal from 10,000 to 100,000 variables.
    ("BM_WriteEnd_Reverse/100000", "BM_WriteEnd_Reverse/10000", 20.0),
    ("BM_Access_ReadFreeItem", "BM_Baseline_SixAtomicOps", 1.3),
    ("BM_Access_ReadFreeItem", "BM_Baseline_SharedMutexReadLock", None),
    ("BM_Access_WriteNoChangeNoObserver", "BM_Baseline_SharedMutexWriteLock", 4.0),
    ("BM_Access_WriteRename4Observers/1000", "BM_Access_WriteNoChange4Observers/1000", None),
    ("BM_Registry_GetDataSetById", None, None),
    ("BM_Registry_AddThenDelete", None, None),
]


def format_time(ns):
    for unit, scale in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if ns >= scale:
            return "%.3g %s" % (ns / scale, unit)
    return "%.3g ns" % ns


def medians(results, mode):
    """Median CPU time in ns per benchmark name; in smoke mode, the one run."""
    scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
    times = {}
    for bench in results.get("benchmarks", []):
        if bench.get("error_occurred"):
            raise SystemExit("bench: %s failed: %s" % (bench["name"], bench.get("error_message")))
        if mode == "full":
            if bench.get("run_type") != "aggregate" or bench.get("aggregate_name") != "median":
                continue
            name = bench["run_name"]
        else:
            if bench.get("run_type", "iteration") != "iteration":
                continue
            name = bench.get("run_name", bench["name"])
        times[name] = bench["cpu_time"] * scale[bench.get("time_unit", "ns")]
    return times


def main():
    if len(sys.argv) != 4 or sys.argv[1] not in ("full", "smoke") or sys.argv[2] not in ("yes", "no"):
        print(__doc__, file=sys.stderr)
        return 2
    mode, partial = sys.argv[1], sys.argv[2] == "yes"
    with open(sys.argv[3]) as f:
        times = medians(json.load(f), mode)

    rows = []
    failed = False
    named = {pair[0] for pair in PAIRS} | {pair[1] for pair in PAIRS}
    rest = sorted(n for n in times if n not in named and not n.startswith("BM_Baseline_"))
    for name, baseline, target in PAIRS + [(n, None, None) for n in rest]:
        if name not in times or (baseline is not None and baseline not in times):
            if not partial:
                rows.append((name, "absent", baseline or "", "", "", "ABSENT"))
                failed = True
            continue
        ratio = times[name] / times[baseline] if baseline is not None else None
        if mode == "smoke":
            verdict = "smoke"
        elif target is None:
            verdict = "reported"
        elif ratio <= target:
            verdict = "met"
        else:
            verdict = "MISSED"
            failed = True
        rows.append((
            name,
            format_time(times[name]),
            "%s (%s)" % (baseline, format_time(times[baseline])) if baseline else "none",
            "%.2fx" % ratio if ratio is not None else "",
            "<= %gx" % target if target is not None else "reported",
            verdict,
        ))

    header = ("benchmark", "median (cpu)" if mode == "full" else "one run (cpu)", "baseline",
              "ratio", "target", "result")
    widths = [max(len(str(r[i])) for r in rows + [header]) for i in range(len(header))]
    line = lambda r: "  ".join(str(c).ljust(w) for c, w in zip(r, widths)).rstrip()
    print(line(header))
    print(line(tuple("-" * w for w in widths)))
    for r in rows:
        print(line(r))
    if mode == "smoke":
        print("\nsmoke run: each benchmark ran once, briefly; times are not gated")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())

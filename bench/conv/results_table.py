#!/usr/bin/env python3
"""Runs bench_conv and prints the results as a Markdown table with the ratios
that the conversion targets are stated in (all from the same run).

usage: results_table.py path/to/bench_conv [extra benchmark arguments]
"""
import json
import subprocess
import sys

LINE_KINDS = ["Mono8_24", "Mono12_24", "Mono12p_24", "RGB8_24", "BGRA8_32", "UYVY_24",
              "YUYV_24", "YUV411_24", "RGB10p32_24"]


def main():
    exe, extra = sys.argv[1], sys.argv[2:]
    # Repetitions of all cases interleaved in random order, so that a noisy
    # spell of a shared machine spreads over the cases instead of spoiling
    # the few that ran during it.
    out = subprocess.run([exe, "--benchmark_format=json", "--benchmark_repetitions=9",
                          "--benchmark_enable_random_interleaving=true",
                          "--benchmark_report_aggregates_only=true", "--benchmark_min_time=0.1"] + extra,
                         check=True, capture_output=True, text=True).stdout
    data = json.loads(out)
    med = {}
    for b in data["benchmarks"]:
        if b.get("aggregate_name") == "median":
            med[b["run_name"].replace("/real_time", "")] = b["real_time"]
    ctx = data["context"]
    print(f"Run: {ctx['date']}, {ctx['num_cpus']} CPUs at {ctx['mhz_per_cpu']} MHz, "
          f"load average {', '.join(f'{x:.2f}' for x in ctx.get('load_avg', []))}\n")
    print("| Case | Size | Threads | Median ms | Compared with | Its ms | Ratio | Target |")
    print("|---|---|---|---|---|---|---|---|")

    def row(name, size, t, ref, ratio_fn, target):
        key = f"{name}/{size}/t{t}"
        if key not in med:
            return
        if ref and ref in med:
            r = ratio_fn(med[key], med[ref])
            verdict = "" if target[1] is None else (" (met)" if target[1](r) else " (missed)")
            print(f"| {name} | {size} | {t} | {med[key]:.3f} | {ref} | {med[ref]:.3f} | {r:.2f} | {target[0]}{verdict} |")
        else:
            print(f"| {name} | {size} | {t} | {med[key]:.3f} | | | | |")

    for size in ("1920x1200", "4096x3000"):
        for t in (1, 2):
            for name in ("Bayer8_24", "Bayer8_32"):
                if name == "Bayer8_24" and t == 1:
                    target = ("OpenCV time / ours >= 1", lambda r: r >= 1)
                else:
                    target = ("OpenCV time / ours, no target", None)
                row(name, size, t, f"cv_{name}/{size}/t{t}", lambda a, b: b / a, target)
            if t == 2:
                row("Bayer8_24", size, 2, f"Bayer8_24/{size}/t1", lambda a, b: b / a,
                    ("1 thread / 2 threads >= 1.7", lambda r: r >= 1.7))
            if t == 2:
                row("Bayer8smooth_24", size, 2, f"Bayer8smooth_24/{size}/t1", lambda a, b: b / a,
                    ("1 thread / 2 threads, no target", None))
            for name in (("Bayer8smooth_24",) if t == 1 else ()) + ("Bayer16_24", "Bayer12p_24"):
                row(name, size, t, None, None, None)
            for name in LINE_KINDS:
                mc = f"memcpy_{name[-2:]}/{size}/t1"
                row(name, size, t, mc, lambda a, b: a / b, ("ours / memcpy <= 2", lambda r: r <= 2))
            for name in ("UYVY_24", "YUYV_24"):
                row(name, size, t, f"cv_{name}/{size}/t{t}", lambda a, b: b / a,
                    ("OpenCV time / ours >= 1.5", lambda r: r >= 1.5))
            for name in ("Mono8_24", "RGB8_24"):
                row(name, size, t, f"cv_{name}/{size}/t{t}", lambda a, b: b / a, ("OpenCV time / ours, no target", None))


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Runs bench_acquisition once and prints the medians as Markdown tables with
the ratios the acquisition targets are stated in (all from the same run).

usage: results_table.py path/to/bench_acquisition [repetitions] [extra benchmark arguments]

Each paired benchmark times blocks of frames of its loops in turn and reports
per loop the median time per frame over its blocks; its ratios are medians of
the per-round ratios. Over the repetitions this script takes the median again.
"""
import json
import os
import statistics
import subprocess
import sys


def main():
    exe = sys.argv[1]
    reps = int(sys.argv[2]) if len(sys.argv) > 2 else 5
    extra = sys.argv[3:]
    # LoopAlone runs one loop at a time, for profiling; not part of the table.
    if not any(a.startswith("--benchmark_filter") for a in extra):
        extra = ["--benchmark_filter=-LoopAlone"] + extra
    out = subprocess.run([exe, "--benchmark_format=json", f"--benchmark_repetitions={reps}",
                          "--benchmark_enable_random_interleaving=true", "--benchmark_min_time=0.5"] + extra,
                         check=True, capture_output=True, text=True).stdout
    data = json.loads(out)
    runs = {}
    for b in data["benchmarks"]:
        if b.get("run_type") != "iteration":
            continue
        if b.get("error_occurred"):
            sys.exit(f"{b['run_name']}: {b.get('error_message')}")
        runs.setdefault(b["run_name"].replace("/real_time", ""), []).append(b)

    def med(name, field):
        return statistics.median(r[field] for r in runs[name])

    def span(name, field):
        v = [r[field] for r in runs[name]]
        return f"{min(v):.2f} to {max(v):.2f}"

    ctx = data["context"]
    usable = len(os.sched_getaffinity(0))
    where = (f"{ctx['num_cpus']} CPUs" if usable == ctx['num_cpus'] else
             f"pinned to {usable} of {ctx['num_cpus']} CPUs")
    print(f"Run: {ctx['date']}, {where} at {ctx['mhz_per_cpu']} MHz, "
          f"load average {', '.join(f'{x:.2f}' for x in ctx.get('load_avg', []))}, "
          f"{reps} repetitions interleaved\n")

    def verdict(ok):
        return "met" if ok else "missed"

    print("| measurement | median | over the repetitions | target |")
    print("|---|---|---|---|")
    n = "PairedRequestComplete/64x64/Mono8"
    if n in runs:
        for field, text in (("raw_us", "raw GenTL loop, µs per frame"),
                            ("raw_info_us", "raw loop asking for status and value too, µs per frame"),
                            ("lib_us", "request/complete, µs per frame"),
                            ("raw_cpu_us", "raw loop, this thread's CPU µs per frame"),
                            ("raw_info_cpu_us", "raw loop with status and value, CPU µs per frame"),
                            ("lib_cpu_us", "request/complete, CPU µs per frame")):
            print(f"| 64x64 Mono8: {text} | {med(n, field):.2f} | {span(n, field)} | |")
        r = med(n, "lib_per_raw")
        print(f"| 64x64 Mono8: request/complete / raw loop | **{r:.2f}** | {span(n, 'lib_per_raw')} "
              f"| <= 1.10 ({verdict(r <= 1.10)}) |")
        print(f"| 64x64 Mono8: request/complete / raw loop with status and value | {med(n, 'lib_per_raw_info'):.2f} "
              f"| {span(n, 'lib_per_raw_info')} | |")
    for batch in (32, 1):
        n = f"CallbackOnDemand/64x64/batch:{batch}"
        if n not in runs:
            continue
        fps = med(n, "items_per_second")
        raw = med(f"RawOnDemand/64x64/batch:{batch}", "items_per_second")
        target = f">= 50,000 ({verdict(fps >= 50000)})" if batch == 32 else ""
        print(f"| callback, on demand in batches of {batch}: frames/s | **{fps:,.0f}** | "
              f"{span(n, 'items_per_second')} | {target} |")
        print(f"| raw GenTL loop, same batches: frames/s | {raw:,.0f} | "
              f"{span(f'RawOnDemand/64x64/batch:{batch}', 'items_per_second')} | |")
        print(f"| callback, batches of {batch}: delivery to callback, median / 99th percentile µs | "
              f"{med(n, 'lat_p50_us'):.1f} / {med(n, 'lat_p99_us'):.1f} | "
              f"{span(n, 'lat_p50_us')} / {span(n, 'lat_p99_us')} | "
              f"{sum(r['dropped'] for r in runs[n]):.0f} frames dropped |")
    for t in (2, 1):
        n = f"PairedGrabAndConvert/1920x1200/BayerRG8_24/t{t}"
        if n not in runs:
            continue
        label = f"1920x1200 BayerRG8 to 24-bit, {t} thread{'s' if t > 1 else ''}"
        for field, text in (("fill_us", "producer fill (raw loop), µs per frame"),
                            ("convert_us", "conversion alone, µs per frame"),
                            ("grab_convert_us", "grab + conversion, µs per frame")):
            print(f"| {label}: {text} | {med(n, field):.0f} | {span(n, field)} | |")
        r = med(n, "ratio")
        target = f"<= 1.2 ({verdict(r <= 1.2)})" if t == 2 else ""
        print(f"| {label}: grab + conversion / (fill + conversion) | **{r:.2f}** | {span(n, 'ratio')} | {target} |")


if __name__ == "__main__":
    main()

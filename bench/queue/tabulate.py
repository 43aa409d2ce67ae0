#!/usr/bin/env python3
"""Turns queue_bench's JSON output into the Markdown table of docs/benchmarks.md.

    queue_bench --benchmark_out=queue.json --benchmark_out_format=json
    bench/queue/tabulate.py queue.json

One row per configuration and bulk size, one column per queue, each cell the
cycles per element of the given aggregate over the repetitions ("min" unless
a third argument names another); the last column is LocklessQueue relative
to rte_ring (+10% = 10% more cycles).
"""
import json
import sys

# Column order: ours, the reference, then the others as queue_bench lists them.
QUEUES = ["LocklessQueue", "rte_ring", "moodycamel", "atomic_queue", "boost_lockfree",
          "tbb_bounded", "mutex_deque"]
# Row order: as queue_bench registers them.
CONFIGURATIONS = ["one_core/spsc", "one_core/mpmc", "two_cores/spsc", "two_cores/mpmc",
                  "two_cores_both_ways/mpmc", "oversubscribed_2p2c/mpmc"]


def row_key(row):
    config, bulk = row.rsplit("/bulk:", 1)
    known = config in CONFIGURATIONS
    return (CONFIGURATIONS.index(config) if known else len(CONFIGURATIONS), config, int(bulk))


def main(path, aggregate):
    with open(path) as f:
        runs = json.load(f)["benchmarks"]
    cells = {}
    rows = []
    queues = []
    for run in runs:
        if run.get("aggregate_name", aggregate) != aggregate:
            continue
        # name: <configuration>/<mode>/bulk:<n>/<queue>[/...]
        parts = run["run_name"].split("/")
        row, queue = "/".join(parts[:3]), parts[3]
        if row not in rows:
            rows.append(row)
        if queue not in queues:
            queues.append(queue)
        cells[(row, queue)] = run["cycles_per_elem"]

    rows.sort(key=row_key)
    queues.sort(key=lambda q: QUEUES.index(q) if q in QUEUES else len(QUEUES))
    print("| configuration | " + " | ".join(queues) + " | LocklessQueue vs rte_ring |")
    print("|---|" + "---:|" * (len(queues) + 1))
    for row in rows:
        values = [cells.get((row, q)) for q in queues]
        text = ["%.1f" % v if v is not None else "-" for v in values]
        ours, ring = cells.get((row, "LocklessQueue")), cells.get((row, "rte_ring"))
        ratio = "%+.0f%%" % ((ours / ring - 1) * 100) if ours and ring else "-"
        print("| %s | %s | %s |" % (row, " | ".join(text), ratio))


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2] if len(sys.argv) > 2 else "min")

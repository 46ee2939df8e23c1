#!/usr/bin/env python3
"""Turns the JSON output of the benchmark programs into the results table.

    report.py --out docs/benchmarks [--readme README.md] [--load load.txt] change.json ...

Writes OUT/results.md (machine and its load, medians, ratios to the floors, the verdict of
every goal) and OUT/change_cost.dat (the data of the change-cost plot). With --readme, the
section of that README between the benchmark-results markers is replaced by the same
text. --load names the lines "<program> <load average, 1 5 15 min>" that scripts/bench.sh
wrote before each program. Standard library only.
"""

import argparse
import json
import pathlib
import re
import sys

TO_US = {"ns": 1e-3, "us": 1.0, "ms": 1e3, "s": 1e6}
SIZES = (1000, 10000, 100000, 1000000)
OPERATIONS = ("SetValue", "SetSetting", "SetAttribute", "CreateSetting", "DeleteSetting")
README_BEGIN = "<!-- benchmark-results:begin -->"
README_END = "<!-- benchmark-results:end -->"


def key_of(run_name):
    """'change/SetValue/lib/1000/iterations:40/real_time' -> 'change/SetValue/lib/1000'."""
    kept = [p for p in run_name.split("/")
            if p not in ("real_time", "manual_time")
            and not re.match(r"^(iterations|repeats|min_time|min_warmup_time):", p)]
    return "/".join(kept)


class Results:
    def __init__(self, files):
        self.rows, self.reps, self.contexts, self.errors = {}, {}, {}, []
        for name in files:
            path = pathlib.Path(name)
            if not path.exists():
                self.errors.append(f"{path.stem}: no results (the program did not run)")
                continue
            data = json.loads(path.read_text())
            self.contexts[path.stem] = data.get("context", {})
            for b in data.get("benchmarks", []):
                self.reps[path.stem] = max(self.reps.get(path.stem, 1), b.get("repetitions", 1))
                if b.get("error_occurred"):
                    self.errors.append(f"{b['run_name']}: {b.get('error_message', '?')}")
                    continue
                if b["run_type"] == "aggregate" and b.get("aggregate_name") != "median":
                    continue
                # A benchmark repeated once has no aggregates: its single run counts.
                if b["run_type"] == "iteration" and b.get("repetitions", 1) > 1:
                    continue
                self.rows[key_of(b["run_name"])] = b
        self.context = next(iter(self.contexts.values()), {})

    def us(self, key, cpu=False):
        b = self.rows.get(key)
        if b is None:
            return None
        return b["cpu_time" if cpu else "real_time"] * TO_US[b.get("time_unit", "ns")]

    def counter(self, key, name):
        b = self.rows.get(key)
        return None if b is None else b.get(name)


def fmt_time(us):
    if us is None:
        return "n/a"
    if us >= 1000:
        return f"{us / 1000:.3g} ms"
    if us >= 1:
        return f"{us:.3g} us"
    return f"{us * 1000:.3g} ns"


def fmt_ratio(r):
    return "n/a" if r is None else f"{r:.2f}x"


def ratio(a, b):
    return None if a is None or b is None or b == 0 else a / b


def nodes_of(res, key, n):
    nodes = res.counter(key, "nodes")
    return f"{int(nodes):,}" if nodes else f"{n:,}"


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|" + "|".join("---" for _ in header) + "|"]
    lines += ["| " + " | ".join(str(c) for c in row) + " |" for row in rows]
    return "\n".join(lines)


def machine(res, loads):
    c = res.context
    cpus = c.get("num_cpus", "?")
    reps = ", ".join(f"{name} {n}" for name, n in res.reps.items())
    text = (f"Measured {c.get('date', '?')} on `{c.get('host_name', '?')}`: {cpus} CPUs at "
            f"{c.get('mhz_per_cpu', '?')} MHz, shared with other work; SQLite "
            f"{c.get('sqlite', '?')}, compiler {c.get('compiler', '?')}, release build. Medians "
            f"over repetitions (per program: {reps}), the repetitions of all benchmarks of a "
            f"program randomly interleaved; every floor measured in the same program and run.")
    if loads:
        listed = ", ".join(f"{name} {one:.2f}" for name, one in loads)
        top = max(one for _, one in loads)
        text += (f"\n\n**Load:** load average over the last minute when each program started: "
                 f"{listed} (highest {top:.2f} on {cpus} CPUs).")
        if isinstance(cpus, int) and top > cpus / 2:
            text += (" Other work took much of the machine: real-time figures include waiting "
                     "for a CPU and for the disk.")
    return text


def change_section(res, goals):
    fsync = res.us("floor/fsync")
    rows, met, total, worst = [], 0, 0, None
    for op in OPERATIONS:
        for n in SIZES:
            lib = res.us(f"change/{op}/lib/{n}")
            if lib is None:
                continue
            floor, rng = res.us(f"change/{op}/floor/{n}"), res.us(f"change/{op}/range/{n}")
            to_fsync = ratio(lib, fsync)
            total += 1
            ok = to_fsync is not None and to_fsync <= 2.0
            met += ok
            if to_fsync is not None and (worst is None or to_fsync > worst[0]):
                worst = (to_fsync, f"{op} at {n // 1000}k")
            rows.append([op, nodes_of(res, f"change/{op}/lib/{n}", n), fmt_time(lib),
                         fmt_time(floor), fmt_time(rng), fmt_ratio(ratio(lib, floor)),
                         fmt_ratio(ratio(rng, fsync)), fmt_ratio(to_fsync),
                         "met" if ok else "missed"])
    text = ["## Durable changes",
            "",
            "Library: the manager's operation on a file of the tree. Floor: the statements the "
            "library runs, prepared once, with the raw C API on an identical copy of the file "
            "and the same connection settings (WAL, synchronous=FULL, the same log bound): "
            "BEGIN IMMEDIATE, the index-range DELETE and the INSERTs (SetAttribute: the UPDATE), "
            "the change-log row, COMMIT. Range: the data rows alone through the index range, "
            "without the change log (SetAttribute's UPDATE and DeleteSetting's DELETE each on "
            "its own). fsync: one small write made durable in the same folder, "
            f"{fmt_time(fsync)} in this run. CreateSetting adds a leaf to a small map deep in "
            "the tree. Goal: library <= 2 x one fsync at every size.",
            "",
            table(["Operation", "Nodes", "Library", "Floor", "Range", "Library / floor",
                   "Range / fsync", "Library / fsync", "<= 2 x fsync"], rows),
            "",
            "The library's own work per change, without the disk: SetValue on a manager "
            "without a database, 10k leaves: "
            f"{fmt_time(res.us('change/SetValue/lib_without_database/10000'))}."]
    if total:
        goals.append(["1", "Durable change <= 2 x one fsync, 1k to 1M nodes",
                      f"met in {met} of {total}; highest {fmt_ratio(worst[0])} ({worst[1]}); "
                      f"one fsync {fmt_time(fsync)}" if worst else "",
                      "met" if met == total else f"missed in {total - met}"])
    return "\n".join(text)


def read_section(res, goals):
    def rate(side, threads):
        b = res.rows.get(f"read/GetSetting/{side}/threads:{threads}")
        return None if b is None else b.get("items_per_second")

    def per_read(side, threads):
        r = rate(side, threads)
        return None if not r else 1e6 / r * threads

    rows = []
    for side, label in (("lib", "GetSetting (library)"), ("floor", "std::map walk + copy (floor)")):
        one, two = rate(side, 1), rate(side, 2)
        rows.append([label, fmt_time(per_read(side, 1)), fmt_time(per_read(side, 2)),
                     f"{one / 1e6:.2f} M/s" if one else "n/a",
                     f"{two / 1e6:.2f} M/s" if two else "n/a", fmt_ratio(ratio(two, one))])
    lib1, floor1, lib2 = rate("lib", 1), rate("floor", 1), rate("lib", 2)
    text = ["## Reads",
            "",
            "GetSetting of an int32 at depth 3 (`a3/b7/c50`) in a tree of 10k leaves, against "
            "the floor: the same walk over a std::map tree of the same shape and a copy of the "
            "node under a std::shared_mutex held shared. Time per read: one thread's wall time "
            "for one read. Goals: library >= 0.8 x the floor's rate; two reader threads >= "
            "1.8 x one.",
            "",
            table(["", "Time per read, 1 thread", "Time per read, 2 threads", "Rate, 1 thread",
                   "Rate, 2 threads", "2 / 1"], rows),
            "",
            f"Where the library's extra time goes: the path check every operation makes "
            f"{fmt_time(res.us('read/alone/check'))}; the floor's walk over an sm::Setting tree "
            f"with uvc::GetItem {fmt_time(res.us('read/alone/setting_walk'))}."]
    r = ratio(lib1, floor1)
    if r is not None:
        scaled = ratio(lib2, lib1)
        goals.append(["2", "Reads >= 0.8 x floor; 2 threads >= 1.8 x one",
                      f"{fmt_ratio(r)} of the floor ({fmt_time(per_read('lib', 1))} a read); "
                      f"2 threads {fmt_ratio(scaled)} (floor "
                      f"{fmt_ratio(ratio(rate('floor', 2), floor1))})",
                      ("met" if r >= 0.8 else "missed") + " (rate); threads: " +
                      ("met" if (scaled or 0) >= 1.8 else "missed")])
    return "\n".join(text)


def startup_section(res, goals):
    rows, per_node, floor_per_node, verdicts = [], {}, {}, []
    for n in SIZES:
        key = f"startup/CreateSettingsManager/lib/{n}"
        lib, floor = res.us(key), res.us(f"startup/CreateSettingsManager/floor/{n}")
        nodes = res.counter(key, "nodes")
        if lib is None or floor is None or not nodes:
            continue
        per_node[n], floor_per_node[n] = lib / nodes, floor / nodes
        r = ratio(lib, floor)
        if n >= 10000:
            verdicts.append(r <= 1.5)
        rows.append([f"{int(nodes):,}", fmt_time(lib), fmt_time(floor), fmt_ratio(r),
                     fmt_time(res.us(f"startup/alone/read/{n}")),
                     f"{lib / nodes * 1000:.0f} ns", f"{floor / nodes * 1000:.0f} ns"])
    growth = ratio(per_node.get(1000000), per_node.get(100000))
    text = ["## Start-up",
            "",
            "CreateSettingsManager on a file of the tree (the manager's destruction untimed), "
            "against the floor: the same connection settings, the store's own SELECT stepped "
            "to the end, and a std::map tree built from the rows. Reading alone: opening the "
            "store and reading every row as start-up does, building nothing. Goals: <= 1.5 x "
            "the floor from 10k nodes on; the cost per node at 1M within 10% of that at 100k.",
            "",
            table(["Nodes", "Library", "Floor", "Ratio", "Reading alone", "Library per node",
                   "Floor per node"], rows),
            "",
            f"Cost per node at 1M / at 100k: library {fmt_ratio(growth)}, floor "
            f"{fmt_ratio(ratio(floor_per_node.get(1000000), floor_per_node.get(100000)))}."]
    if verdicts:
        goals.append(["3", "Start-up <= 1.5 x floor; per node at 1M within 10% of 100k",
                      ", ".join(f"{r[0]}: {r[3]}" for r in rows[1:]) +
                      f"; per node 1M / 100k {fmt_ratio(growth)}",
                      "met" if all(verdicts) and growth is not None and growth <= 1.10
                      else "missed"])
    return "\n".join(text)


def notify_section(res, goals):
    rows = []
    for key, label in (("notify/latency/lib/db", "library, file of 1k leaves"),
                       ("notify/latency/lib/memory", "library, no database")):
        c = lambda name: res.counter(key, name)  # noqa: E731
        rows.append([label, fmt_time(c("median_us")), fmt_time(c("p99_us")),
                     fmt_time(c("call_median_us")), fmt_time(c("call_p99_us")),
                     fmt_time(c("return_median_us")), fmt_time(c("return_p99_us"))])
    alone = "notify/call/lib/memory_unsubscribed"
    rows.append(["library, no database, nobody subscribed", "", "",
                 fmt_time(res.counter(alone, "call_median_us")),
                 fmt_time(res.counter(alone, "call_p99_us")), "", ""])
    for key, label in (("notify/latency/floor/thread_start", "floor: start a std::thread"),
                       ("notify/latency/floor/condvar_wake", "floor: condition-variable wake")):
        rows.append([label, fmt_time(res.counter(key, "median_us")),
                     fmt_time(res.counter(key, "p99_us")), "", "", "", ""])
    bursts = []
    for key, label in (("notify/burst/lib/free", "back to back"),
                       ("notify/burst/lib/gated", "first Update held until all are issued")):
        total, changes = res.us(key), res.counter(key, "changes") or 1000
        threads = res.counter(key, "threads_max")
        bursts.append([label, "n/a" if threads is None else f"{threads:.0f}",
                       fmt_time(res.counter(key, "issue_us")), fmt_time(total),
                       fmt_time(None if total is None else total / changes)])
    text = ["## Notification",
            "",
            "SetValue with an observer subscribed at the root, per change: from the call to the "
            "observer's Update; the call itself (the time SetValue spends, the subscriber's "
            "share included); from the call's return to Update (0 when Update came first). "
            "Goal: from the call to Update, median <= 50 us without a database (with one, the "
            "call holds a durable change).",
            "",
            table(["", "Call to Update, median", "p99", "Call, median", "Call, p99",
                   "Return to Update, median", "p99"], rows),
            "",
            "Bursts of 1000 SetValue on distinct leaves, manager without a database. Threads: "
            "the most event threads that delivered one burst (goal: exactly one).",
            "",
            table(["Burst", "Threads", "Issuing the 1000 changes", "Until the last Update",
                   "Per change"], bursts)]
    median = res.counter("notify/latency/lib/memory", "median_us")
    threads = res.counter("notify/burst/lib/gated", "threads_max")
    if median is not None:
        goals.append(["4", "Notification, call to Update <= 50 us (median); one thread per burst",
                      f"median {fmt_time(median)}, p99 "
                      f"{fmt_time(res.counter('notify/latency/lib/memory', 'p99_us'))}; the call "
                      f"{fmt_time(res.counter('notify/latency/lib/memory', 'call_median_us'))} "
                      f"with a subscriber, "
                      f"{fmt_time(res.counter(alone, 'call_median_us'))} without; threads per "
                      f"held burst {'n/a' if threads is None else f'{threads:.0f}'}",
                      "met" if median <= 50 and threads == 1 else "missed"])
    return "\n".join(text)


def throughput_section(res, goals):
    rows, rates = [], {}
    for key, label in (("throughput/SetValue/lib", "library: SetValue"),
                       ("throughput/put/lmdb", "LMDB: mdb_put, synced commit"),
                       ("throughput/put/leveldb", "LevelDB: Put, sync")):
        row = [label]
        for threads in (1, 2):
            b = res.rows.get(f"{key}/threads:{threads}")
            r = None if b is None else b.get("items_per_second")
            rates[(key, threads)] = r
            row.append("n/a" if r is None else f"{r:,.0f}/s")
        rows.append(row)
    text = ["## Changes per second",
            "",
            "Durable changes of a leaf in a tree of 10k leaves, each writer thread its own leaf "
            "(one manager), beside two embedded key-value stores making writes of the same "
            "bytes durable (keys: the path texts; values: the value and attribute records), "
            "each holding the same 10k keys.",
            "",
            table(["", "1 writer thread", "2 writer threads"], rows)]
    lib = rates.get(("throughput/SetValue/lib", 1))
    if lib:
        goals.append(["7", "Changes per second at 10k, beside LMDB and LevelDB",
                      f"library {lib:,.0f}/s (2 threads "
                      f"{rates.get(('throughput/SetValue/lib', 2)) or 0:,.0f}/s); LMDB "
                      f"{rates.get(('throughput/put/lmdb', 1)) or 0:,.0f}/s; LevelDB "
                      f"{rates.get(('throughput/put/leveldb', 1)) or 0:,.0f}/s", "reported"])
    return "\n".join(text)


def memory_section(res, goals):
    rows = []
    for key, label in (("memory/lib/100000", "library: CreateSettingsManager on the file"),
                       ("memory/setting_tree/100000", "the sm::Setting tree alone"),
                       ("memory/floor/100000", "floor: std::map tree of int32")):
        heap, rss = res.counter(key, "heap_bytes_per_node"), res.counter(key, "rss_bytes_per_node")
        rows.append([label, "n/a" if heap is None else f"{heap:.0f}",
                     "n/a" if rss is None else f"{rss:.0f}"])
    heap = res.counter("memory/lib/100000", "heap_bytes_per_node")
    rss = res.counter("memory/lib/100000", "rss_bytes_per_node")
    if heap is not None:
        goals.append(["5", "Memory <= 200 bytes per node", f"{heap:.0f} (heap), {rss:.0f} (resident)",
                      "met" if max(heap, rss or 0) <= 200 else "missed"])
    return "\n".join(["## Memory",
                      "",
                      "Bytes per node at 100k int32 leaves with short keys (c0..c999; 100,111 "
                      "nodes): malloc's bytes in use, and the growth of the resident set after "
                      "free memory is returned to the system. Goal: at most 200.",
                      "",
                      table(["", "Heap bytes / node", "Resident bytes / node"], rows)])


def coherence_section(res, goals):
    c = lambda key, name: res.counter(key, name)  # noqa: E731
    rows = []
    for key, label in (("coherence/visibility/cross_process",
                        "a value set by another process, until a GetSetting here answers it"),
                       ("coherence/event/cross_process",
                        "the same change, until an observer here is told")):
        rows.append([label, f"median {fmt_time(c(key, 'median_us'))}, p99 "
                            f"{fmt_time(c(key, 'p99_us'))}", ""])
    for kind, label in (("subtree", "taking in another manager's change of a leaf"),
                        ("whole", "taking in a new top-level key (the whole file read again)")):
        rows.append([f"{label}, 10k / 100k nodes",
                     " / ".join(fmt_time(res.us(f"coherence/refresh/{kind}/{n}"))
                                for n in (10000, 100000)),
                     "start-up " + " / ".join(fmt_time(res.us(f"coherence/startup/{n}"))
                                              for n in (10000, 100000))])
    lib, floor = res.us("coherence/read/lib"), res.us("coherence/read/floor")
    rows.append(["GetSetting of a leaf when nothing changed", fmt_time(lib),
                 f"{fmt_time(floor)}: the same steps without the stale check"])
    logged, plain = (res.us("coherence/change/store.logged/1000"),
                     res.us("coherence/change/store.Set/1000"))
    rows.append(["a change's store work when no one else wrote (in memory, 1k nodes)",
                 fmt_time(logged), f"{fmt_time(plain)} without generation and log row"])
    if logged is not None and plain is not None:
        goals.append(["6", "Coherence: a change's added store work (in memory)",
                      f"{fmt_time(logged - plain)} ({fmt_time(logged)} against "
                      f"{fmt_time(plain)})", "reported"])
    return "\n".join(["## Several managers on one file",
                      "",
                      "What keeping several managers of one file coherent costs, each figure "
                      "beside its floor in the same run.",
                      "",
                      table(["Figure", "Measured", "Floor, same run"], rows)])


def plot_data(res, path):
    lines = ["# nodes fsync_ms " + " ".join(f"{op}_lib_ms {op}_floor_ms {op}_range_ms"
                                            for op in OPERATIONS)]
    fsync = res.us("floor/fsync")
    for n in SIZES:
        values = ["NaN" if fsync is None else f"{fsync / 1000:.6g}"]
        for op in OPERATIONS:
            for side in ("lib", "floor", "range"):
                us = res.us(f"change/{op}/{side}/{n}")
                values.append("NaN" if us is None else f"{us / 1000:.6g}")
        nodes = res.counter(f"change/SetValue/lib/{n}", "nodes") or n
        lines.append(f"{int(nodes)} " + " ".join(values))
    path.write_text("\n".join(lines) + "\n")


def read_loads(path):
    loads = []
    if path and path.exists():
        for line in path.read_text().splitlines():
            parts = line.split()
            if len(parts) >= 2:
                loads.append((parts[0], float(parts[1])))
    return loads


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--out", required=True, type=pathlib.Path)
    parser.add_argument("--readme", type=pathlib.Path)
    parser.add_argument("--load", type=pathlib.Path)
    parser.add_argument("json", nargs="+")
    args = parser.parse_args()

    res = Results(args.json)
    goals = []
    sections = [change_section(res, goals), read_section(res, goals),
                startup_section(res, goals), notify_section(res, goals),
                memory_section(res, goals), coherence_section(res, goals),
                throughput_section(res, goals)]
    body = [machine(res, read_loads(args.load)), "", table(["Goal", "", "Measured", "Verdict"], goals),
            ""]
    if res.errors:
        body += ["**Benchmarks that failed:**", ""] + [f"- {e}" for e in res.errors] + [""]
    body += ["![Change cost against tree size](change_cost.png)", ""]
    for section in sections:
        body += [section, ""]
    text = "\n".join(body)

    args.out.mkdir(parents=True, exist_ok=True)
    (args.out / "results.md").write_text(
        "# Benchmark results\n\nWritten by `scripts/bench.sh`; see the README's Performance "
        "section.\n\n" + text)
    plot_data(res, args.out / "change_cost.dat")

    if args.readme:
        readme = args.readme.read_text()
        begin, end = readme.find(README_BEGIN), readme.find(README_END)
        if begin < 0 or end < begin:
            print(f"report.py: no results markers in {args.readme}; left as it is", file=sys.stderr)
        else:
            # One heading level down inside the README's Performance section; the plot's
            # path from the README's folder.
            embedded = re.sub(r"^## ", "#### ", text, flags=re.M)
            embedded = embedded.replace("](change_cost.png)", "](docs/benchmarks/change_cost.png)")
            readme = readme[:begin + len(README_BEGIN)] + "\n" + embedded + "\n" + readme[end:]
            args.readme.write_text(readme)
    return 1 if res.errors else 0


if __name__ == "__main__":
    sys.exit(main())

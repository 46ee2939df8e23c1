#!/usr/bin/env bash
# Builds the benchmarks in release mode, runs every one of them with its floor, and writes
# the results: docs/benchmarks/results.md (machine and its load, medians, ratios, goals),
# docs/benchmarks/change_cost.png (plot), docs/benchmarks/raw/*.json (Google Benchmark's
# own output) and raw/load.txt (the load average before each program), and the same text
# into the README's Performance section.
#
#   scripts/bench.sh               everything, about 10 to 15 minutes on a quiet machine
#   scripts/bench.sh --no-readme   leave README.md as it is
#   SM_BENCH_REPETITIONS=3 scripts/bench.sh   fewer repetitions (default 10, and twice
#                                  as many for the durable changes, whose fsync is the
#                                  noisiest figure; a quiet machine needs fewer)
#
# Installs what is missing (scripts/setup.sh bench) with apt-get; builds the bench preset.
# The machine's load matters most: run it when `uptime` shows the least.
set -euo pipefail
cd "$(dirname "$0")/.."

readme=README.md
for arg in "$@"; do
  case "$arg" in
    --no-readme) readme="" ;;
    *) echo "usage: $0 [--no-readme]" >&2; exit 2 ;;
  esac
done
repetitions="${SM_BENCH_REPETITIONS:-10}"

scripts/setup.sh bench

build=build/bench
cmake --preset bench >/dev/null
cmake --build --preset bench -j "$(nproc)"

out=docs/benchmarks
raw="$out/raw"
mkdir -p "$raw"
rm -f "$raw"/*.json
: > "$raw/load.txt"
# Database files go to a temporary folder of each program's own (under $TMPDIR).
run() {
  local name="$1" reps="$2"
  if [ ! -x "$build/bench/sm_bench_$name" ]; then
    echo "bench: $name not built, left out" >&2
    return
  fi
  echo "bench: $name (load $(cut -d' ' -f1-3 /proc/loadavg))"
  echo "$name $(cut -d' ' -f1-3 /proc/loadavg)" >> "$raw/load.txt"
  "$build/bench/sm_bench_$name" \
    --benchmark_repetitions="$reps" \
    --benchmark_enable_random_interleaving=true \
    --benchmark_report_aggregates_only=true \
    --benchmark_out="$raw/$name.json" --benchmark_out_format=json
}
# Memory first, in a process that has done nothing else; each figure is taken once.
run memory "$repetitions"
run change $((2 * repetitions))
run read "$repetitions"
run startup "$repetitions"
run notify "$repetitions"
run throughput "$repetitions"
run coherence 3
echo "after $(cut -d' ' -f1-3 /proc/loadavg)" >> "$raw/load.txt"

# A benchmark that failed is listed in the table and fails the script, after the plot.
status=0
python3 bench/report.py --out "$out" ${readme:+--readme "$readme"} --load "$raw/load.txt" \
  "$raw"/{change,read,startup,notify,memory,coherence,throughput}.json || status=$?
gnuplot -e "datafile='$out/change_cost.dat'; outfile='$out/change_cost.png'" bench/change_cost.gp
echo "bench: wrote $out/results.md and $out/change_cost.png"
exit "$status"

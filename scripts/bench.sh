#!/usr/bin/env bash
# Builds the benchmarks in release mode, runs every one of them with its floor, and writes
# the results: docs/benchmarks/results.md (machine, medians, ratios, goals),
# docs/benchmarks/change_cost.png (plot), docs/benchmarks/raw/*.json (Google Benchmark's
# own output), and the same table into the README's Performance section.
#
#   scripts/bench.sh               everything, about 5 to 10 minutes
#   scripts/bench.sh --no-readme   leave README.md as it is
#   SM_BENCH_REPETITIONS=3 scripts/bench.sh   fewer repetitions (default 10, and twice
#                                  as many for the durable changes, whose fsync is the
#                                  noisiest figure; a quiet machine needs fewer)
#
# Installs what is missing (scripts/setup.sh bench) with apt-get; builds the bench preset.
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
# Database files go to a temporary folder of each program's own (under $TMPDIR).
run() {
  local name="$1" reps="$2"
  echo "bench: $name"
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
run like "$repetitions"
run coherence 3

# A benchmark that failed is listed in the table and fails the script, after the plot.
status=0
python3 bench/report.py --out "$out" ${readme:+--readme "$readme"} \
  "$raw"/{change,read,startup,notify,memory,like}.json || status=$?
gnuplot -e "datafile='$out/change_cost.dat'; outfile='$out/change_cost.png'" bench/change_cost.gp
echo "bench: wrote $out/results.md and $out/change_cost.png"
exit "$status"

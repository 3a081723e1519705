#!/usr/bin/env bash
# Builds the benchmarks in the release preset, runs them pinned to one core (with taskset, when
# there is one) and rewrites the results between the markers of docs/benchmarks.md.
# Usage: scripts/bench.sh [--cpu N] [--no-docs] [benchmark options...]
#   --cpu N    the core to pin to (default: the last one)
#   --no-docs  print the table, leave docs/benchmarks.md as it is
# Other options go to kelr_bench, e.g. --benchmark_filter=GetProfile for a short look.
set -euo pipefail
cd "$(dirname "$0")/.."

cpu=$(($(nproc) - 1))
write_docs=1
bench_args=()
while (($#)); do
  case "$1" in
    --cpu) cpu="$2"; shift 2 ;;
    --no-docs) write_docs=0; shift ;;
    *) bench_args+=("$1"); shift ;;
  esac
done

scripts/deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target kelr_bench

out_dir=build/release/bench
json="${out_dir}/results.json"
pin=()
pinning="not pinned (no taskset)"
if command -v taskset >/dev/null; then
  pin=(taskset -c "${cpu}")
  pinning="pinned to core ${cpu} with taskset: the benchmark, the library's worker, the simulated modems and the floors' threads all share that core"
fi
# The core's times from /proc/stat: on a virtual machine, "steal" is time its host gave to others,
# which falls on whatever was running then and shows in the latency tails.
core_times() { grep "^cpu${cpu} " /proc/stat; }
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
times_before=$(core_times)
"${pin[@]}" "${out_dir}/kelr_bench" --benchmark_report_aggregates_only=true \
  --benchmark_out="${json}" --benchmark_out_format=json "${bench_args[@]}"
times_after=$(core_times)
load_after=$(cut -d' ' -f1-3 /proc/loadavg)
steal=$(awk -v before="${times_before}" -v after="${times_after}" 'BEGIN {
  n = split(before, b, " "); split(after, a, " ")
  for (i = 2; i <= n; ++i) { total += a[i] - b[i] }
  printf "%.1f", (total > 0 ? 100 * (a[9] - b[9]) / total : 0) }')

docs=()
((write_docs)) && docs=(--docs docs/benchmarks.md)
python3 scripts/bench_table.py "${json}" "${docs[@]}" \
  --machine "$(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//')" \
  --pinning "${pinning}" --load "load average ${load_before} before, ${load_after} after; the host took ${steal}% of the core's time (steal)"

#!/usr/bin/env bash
# Applies small faults to the sources one at a time, rebuilds the default preset and runs the
# suite against each, to show which faults the tests catch. Each fault is one line of a
# tab-separated list (default: scripts/mutate-faults.tsv): file, exact original text (found exactly
# once in the file), replacement. The mutated file is restored after every fault, also on Ctrl-C.
#
# usage: scripts/mutate.sh [--faults FILE] [--only N[,N...]] [--timeout SECONDS] [--tests REGEX]
# Prints "caught", "missed" or "unbuilt" per fault, then "N caught, M missed".
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
faults="$root/scripts/mutate-faults.tsv"
only=""
limit=600
tests=""
while [[ $# -gt 0 ]]; do
    case "$1" in
        --faults) faults=$2; shift 2 ;;
        --only) only=",$2,"; shift 2 ;;
        --timeout) limit=$2; shift 2 ;;
        --tests) tests=$2; shift 2 ;;
        *) echo "usage: $0 [--faults FILE] [--only N,...] [--timeout S] [--tests REGEX]" >&2; exit 2 ;;
    esac
done
cd "$root"

# Every original must be present exactly once before anything is touched.
python3 - "$faults" <<'PY'
import sys
bad = 0
for n, line in enumerate(open(sys.argv[1], encoding="utf-8"), 1):
    if not line.strip() or line.startswith("#"):
        continue
    path, original, replacement = line.rstrip("\n").split("\t")
    count = open(path, encoding="utf-8").read().count(original)
    if count != 1 or original == replacement:
        print(f"fault {n}: {path}: original found {count} times: {original}", file=sys.stderr)
        bad += 1
sys.exit(1 if bad else 0)
PY

backup=""
target=""
restore() {
    if [[ -n "$backup" ]]; then
        cp "$backup" "$target"  # a fresh mtime, so that the next build recompiles it
        rm -f "$backup"
        backup=""
    fi
}
trap restore EXIT
trap 'restore; exit 130' INT TERM

substitute() {  # file original replacement
    python3 - "$1" "$2" "$3" <<'PY'
import sys
path, original, replacement = sys.argv[1:4]
text = open(path, encoding="utf-8").read()
open(path, "w", encoding="utf-8").write(text.replace(original, replacement, 1))
PY
}

cmake --preset default >/dev/null
caught=0
missed=0
unbuilt=0
n=0
while IFS=$'\t' read -r path original replacement; do
    [[ -z "$path" || "$path" == \#* ]] && continue
    n=$((n + 1))
    [[ -n "$only" && "$only" != *",$n,"* ]] && continue
    target=$path
    backup=$(mktemp)
    cp -p "$path" "$backup"
    substitute "$path" "$original" "$replacement"
    start=$(date +%s)
    if ! cmake --build --preset default -j2 >/dev/null 2>&1; then
        result=unbuilt
        unbuilt=$((unbuilt + 1))
    elif timeout "$limit" ctest --preset default ${tests:+-R "$tests"} --stop-on-failure \
            >/dev/null 2>&1; then
        result=missed
        missed=$((missed + 1))
    else
        result=caught
        caught=$((caught + 1))
    fi
    restore
    printf '%3d %-7s %4ss %s: %s -> %s\n' "$n" "$result" "$(($(date +%s) - start))" "$path" \
        "$original" "$replacement"
done < "$faults"
# Rebuild the restored tree so that the build matches the sources again.
cmake --build --preset default -j2 >/dev/null 2>&1 || true
echo "$caught caught, $missed missed${unbuilt:+, $unbuilt unbuilt}"

#!/usr/bin/env bash
# Applies small faults to the sources one at a time, rebuilds the default preset and runs the
# suite against each, to show which faults the tests catch. Each fault is one line of a
# tab-separated list (default: scripts/mutate-faults.tsv): file, exact original text (found exactly
# once in the file), replacement. The mutated file is restored after every fault, also on Ctrl-C.
#
# usage: scripts/mutate.sh [--faults FILE] [--only N[,N...]] [--timeout SECONDS] [--tests REGEX]
# Faults are numbered in list order, comment and blank lines not counted. Prints "caught",
# "missed" or "unbuilt" per fault, then "N caught, M missed" (and ", K unbuilt" if any).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
faults="$root/scripts/mutate-faults.tsv"
only=""
limit=600
tests=""
while [[ $# -gt 0 ]]; do
    case "$1" in
        --faults) faults=$(realpath "$2"); shift 2 ;;
        --only) only=",$2,"; shift 2 ;;
        --timeout) limit=$2; shift 2 ;;
        --tests) tests=$2; shift 2 ;;
        *) echo "usage: $0 [--faults FILE] [--only N,...] [--timeout S] [--tests REGEX]" >&2; exit 2 ;;
    esac
done
cd "$root"
scripts/deps.sh

# Every original must be present exactly once before anything is touched.
python3 - "$faults" <<'PY'
import sys
bad = 0
n = 0
for line in open(sys.argv[1], encoding="utf-8"):
    if not line.strip() or line.startswith("#"):
        continue
    n += 1
    path, original, replacement = line.rstrip("\n").split("\t")
    count = open(path, encoding="utf-8").read().count(original)
    if count != 1:
        print(f"fault {n}: {path}: original found {count} times: {original}", file=sys.stderr)
        bad += 1
    elif original == replacement:
        print(f"fault {n}: {path}: the replacement changes nothing: {original}", file=sys.stderr)
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
# ctest runs in the background so that Ctrl-C is handled at once, not when the suite ends.
suite=""
trap '[[ -n "$suite" ]] && kill -TERM "$suite" 2>/dev/null; restore; exit 130' INT TERM

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
# The list is read on descriptor 3, so that no build or test can take lines from it.
while IFS=$'\t' read -r -u 3 path original replacement; do
    [[ -z "$path" || "$path" == \#* ]] && continue
    n=$((n + 1))
    [[ -n "$only" && "$only" != *",$n,"* ]] && continue
    copy=$(mktemp)
    cp -p "$path" "$copy"
    target=$path
    backup=$copy  # only a complete copy may be restored
    substitute "$path" "$original" "$replacement"
    start=$(date +%s)
    if ! cmake --build --preset default -j2 >/dev/null 2>&1 </dev/null; then
        result=unbuilt
        unbuilt=$((unbuilt + 1))
    else
        timeout "$limit" ctest --preset default ${tests:+-R "$tests"} --stop-on-failure \
            >/dev/null 2>&1 </dev/null &
        suite=$!
        if wait "$suite"; then
            result=missed
            missed=$((missed + 1))
        else
            result=caught
            caught=$((caught + 1))
        fi
        suite=""
    fi
    restore
    printf '%3d %-7s %4ss %s: %s -> %s\n' "$n" "$result" "$(($(date +%s) - start))" "$path" \
        "$original" "$replacement"
done 3< "$faults"
# Rebuild the restored tree so that the build matches the sources again.
cmake --build --preset default -j2 >/dev/null 2>&1 || true
summary="$caught caught, $missed missed"
((unbuilt == 0)) || summary+=", $unbuilt unbuilt"
echo "$summary"

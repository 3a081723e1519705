#!/usr/bin/env bash
# Runs the README's sh blocks as a reader would: in order, in one shell, in a fresh copy of the
# repository (its tracked and new files, as a clone would have them, plus uncommitted changes).
# scripts/test.sh is left out: it is what runs this script.
# Usage: scripts/readme-test.sh [README]
set -euo pipefail
cd "$(dirname "$0")/.."
readme=$(realpath "${1:-README.md}")

# Under build/, which git ignores; the copy builds in its own build/ there.
work=$(realpath -m build/readme-test)
rm -rf "$work"
mkdir -p "$work"
git ls-files -z --cached --others --exclude-standard |
  while IFS= read -r -d '' file; do [[ -e $file ]] && printf '%s\0' "$file"; done |
  tar --null -T - -cf - | tar -xf - -C "$work"

# A compiler cache, when there is one, serves the copy as it serves the repository.
if command -v ccache >/dev/null && [[ -z ${CMAKE_CXX_COMPILER_LAUNCHER:-} ]]; then
  export CMAKE_CXX_COMPILER_LAUNCHER=ccache CMAKE_C_COMPILER_LAUNCHER=ccache
fi
export CCACHE_BASEDIR="$work" CCACHE_NOHASHDIR=1

# The README's paths under /tmp are the reader's to pick; here they go to a private directory,
# so that nothing another user may have put at /tmp/kelr or /tmp/my-modem is used or written.
private=$(mktemp -d)
trap 'rm -rf "$private"' EXIT

blocks="$work/readme-blocks.sh"
{
  echo 'set -euo pipefail'
  # A block that fails half-way leaves nothing running behind it.
  echo 'trap '"'"'jobs -p | xargs -r kill 2>/dev/null || true'"'"' EXIT'
  awk '/^```sh$/ { inside = 1; next } /^```/ { inside = 0 } inside' "$readme" |
    grep -v '^scripts/test\.sh' | sed "s#/tmp/#${private}/#g"
} >"$blocks"

echo "readme-test: running $(grep -c . "$blocks") lines of $readme in $work"
(cd "$work" && bash -x "$blocks")
echo "readme-test: every block ran"

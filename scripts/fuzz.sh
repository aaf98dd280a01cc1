#!/usr/bin/env bash
# Runs every built fuzz target, from its seeds, for a number of seconds each.
# Usage: scripts/fuzz.sh SECONDS
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
seconds=${1:?Usage: scripts/fuzz.sh SECONDS}

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
ran=0
while IFS= read -r target; do
  name=$(basename "$target")
  seeds=fuzz/corpus/$name
  mkdir -p "$scratch/$name"
  echo "Fuzzing $name for $seconds s…"
  "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -verbosity=0 \
    -artifact_prefix="$scratch/$name-" "$scratch/$name" "$seeds" || {
    mkdir -p build/fuzz/findings
    cp "$scratch/$name"-* build/fuzz/findings/
    echo "$name failed; the input is in build/fuzz/findings" >&2
    exit 1
  }
  ran=$((ran + 1))
done < <(find build/fuzz -type f -name '*_fuzz' -executable | sort)
((ran > 0)) || { echo "No fuzz target is built: cmake --build --preset fuzz" >&2; exit 1; }

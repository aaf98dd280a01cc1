#!/usr/bin/env bash
# Runs the checks of .clang-tidy over the sources. Every finding is an error.
# Usage: scripts/check_tidy.sh [FILES…]   (default: all of src and tools; needs the release preset)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
[[ -f build/release/compile_commands.json ]] || { echo "Run cmake --preset release first" >&2; exit 1; }

if (($# > 0)); then
  files=("$@")
else
  mapfile -t files < <(git ls-files 'src/*.cpp' 'tools/*.cpp')
fi
printf '%s\0' "${files[@]}" |
  xargs -0 -P "$(nproc)" -n 4 clang-tidy -p build/release --quiet \
    --extra-arg=-Wno-unknown-warning-option 2> >(grep -v 'warnings generated' >&2 || true)
echo "check_tidy: ${#files[@]} files are fine"

#!/usr/bin/env bash
# Measures the controller beside nginx, HAProxy and @portkey-ai/gateway on this machine and prints one
# table of ratios. Usage: scripts/bench.sh [--quick] [--only ROW]...   (--help tells the rows)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

for argument in "$@"; do
  case "$argument" in
    -h | --help | --build | --build=*) exec python3 bench/compare/compare.py "$@" ;;
  esac
done

if [ -x scripts/install-deps.sh ]; then scripts/install-deps.sh --bench; fi
if [ ! -f build/release/build.ninja ]; then cmake --preset release; fi
cmake --build --preset release --target tavrel-controller tavrel-load-generator tavrel-bench-backend
ulimit -n "$(ulimit -Hn)"
exec python3 bench/compare/compare.py "$@"

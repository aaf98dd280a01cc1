#!/usr/bin/env bash
# Lets clang check the lock annotations of every source file, without generating code.
# Usage: scripts/check_thread_safety.sh [PRESET]   (default release; must be configured)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
build=build/${1:-release}
[[ -f $build/compile_commands.json ]] || { echo "Run cmake --preset ${1:-release} first" >&2; exit 1; }

# The recorded commands with clang in place of the compiler and no output.
check_one() {
  local command=$1
  command=${command//\\\"/\"}
  command=$(sed -E 's/^[^ ]*(ccache )?[^ ]* //; s/ -o [^ ]+//; s/ -c / /' <<<"$command")
  (cd "$BUILD" && eval "clang++ -fsyntax-only -Wthread-safety -Werror -Wno-unknown-warning-option \
    -Wno-unused-command-line-argument $command")
}
export -f check_one
export BUILD=$build

sed -nE 's/^ *"command": "(.*)",?$/\1/p' "$build/compile_commands.json" |
  grep -E "/(src|tools|bench)/[^ ]+\.cpp$" |
  tr '\n' '\0' | xargs -0 -P "$(nproc)" -I{} bash -c 'check_one "$1"' _ {}
echo "check_thread_safety: fine"

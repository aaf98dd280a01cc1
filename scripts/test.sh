#!/usr/bin/env bash
# Installs what is missing, builds everything and runs the tests.
# Usage: scripts/test.sh [--asan] [--tsan] [--in-process] [--fuzz-seconds N]
#   --asan, --tsan      also the same tests built with sanitizers
#   --in-process        of the sanitizer builds, only the tests that start no programs
#   --fuzz-seconds N    also every fuzz target for N seconds
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
quiet=--quiet
if [[ -t 1 ]]; then quiet=; fi  # a person sees the build advance

presets=(release)
in_process=
fuzz_seconds=0
while (($# > 0)); do
  case $1 in
    --asan) presets+=(asan) ;;
    --tsan) presets+=(tsan) ;;
    --in-process) in_process=1 ;;
    --fuzz-seconds)
      fuzz_seconds=${2:-}
      [[ $fuzz_seconds =~ ^[0-9]+$ ]] || { echo "--fuzz-seconds needs a number" >&2; exit 2; }
      shift
      ;;
    *) sed -n '2,6s/^# //p' "$0" >&2; exit 2 ;;
  esac
  shift
done

scripts/install-deps.sh --test
if [[ -f tests/openai_client/package.json && ! -d tests/openai_client/node_modules ]]; then
  echo "Installing the OpenAI client for the compatibility tests…"
  npm ci --prefix tests/openai_client --no-audit --no-fund --silent
fi

# With --in-process a sanitizer preset is limited to the tests of its own process.
limited() { [[ -n $in_process && $1 != release ]]; }

for preset in "${presets[@]}"; do
  echo "Building $preset…"
  cmake --preset "$preset" >/dev/null
  targets=(all)
  if limited "$preset"; then targets=(unit_tests route_tests contract_tests); fi
  cmake --build --preset "$preset" --target "${targets[@]}" -- ${quiet:+"$quiet"}
done

if ((fuzz_seconds > 0)) && [[ -d fuzz ]]; then
  echo "Building fuzz…"
  cmake --preset fuzz >/dev/null
  cmake --build --preset fuzz -- ${quiet:+"$quiet"}
  scripts/fuzz.sh "$fuzz_seconds"
fi

# The tests come last, so that the summary ends the output.
for preset in "${presets[@]}"; do
  echo "Testing $preset…"
  if limited "$preset"; then
    ctest --preset "$preset" -j 2 -R '^(unit_|route_tests|contract_tests)'
  else
    ctest --preset "$preset" -j 2
  fi
done

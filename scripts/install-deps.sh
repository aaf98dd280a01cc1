#!/usr/bin/env bash
# Installs what is missing to build this project on Debian. With --run also what scripts/run.sh
# uses, with --test the test and analysis tools, with --bench what the comparison runs measure
# against. Works as root or through sudo. Does nothing when everything is there.
set -euo pipefail

build_packages=(g++ cmake ninja-build pkg-config ccache lld libcpp-httplib-dev nlohmann-json3-dev
  libcurl4-openssl-dev libsqlite3-dev libssl-dev libgtest-dev libgmock-dev libbenchmark-dev libboost-context-dev)
run_packages=(curl)
test_packages=(curl ca-certificates git clang clang-tidy clang-format libclang-rt-14-dev
  openssl python3-aiosmtpd iproute2)
bench_packages=(curl python3 nginx haproxy wrk)
# Wanted for one program each, which may also have come from elsewhere: program, package.
test_programs=(node nodejs npm npm promtool prometheus)
bench_programs=(node nodejs npm npm)

wanted=("${build_packages[@]}")
programs=()
for option in "$@"; do
  case $option in
    --run) wanted+=("${run_packages[@]}") ;;
    --test) wanted+=("${test_packages[@]}"); programs+=("${test_programs[@]}") ;;
    --bench) wanted+=("${bench_packages[@]}"); programs+=("${bench_programs[@]}") ;;
    *) echo "Usage: $0 [--run] [--test] [--bench]" >&2; exit 2 ;;
  esac
done

installed() {
  [[ $(dpkg-query -W -f '${Status}' "$1" 2>/dev/null) == "install ok installed" ]]
}

missing=()
for package in "${wanted[@]}"; do
  installed "$package" || missing+=("$package")
done
for ((i = 0; i < ${#programs[@]}; i += 2)); do
  command -v "${programs[i]}" >/dev/null || missing+=("${programs[i + 1]}")
done
if ((${#missing[@]} == 0)); then
  echo "Dependencies: everything is installed."
  exit 0
fi

as_root=()
if ((EUID != 0)); then
  if ! command -v sudo >/dev/null; then
    echo "Missing packages: ${missing[*]}" >&2
    echo "Run this script as root, or install sudo." >&2
    exit 1
  fi
  as_root=(sudo)
fi

# Packages of servers start them; only those that were not here before are stopped again.
stop_service() {
  if [[ -d /run/systemd/system ]]; then
    "${as_root[@]}" systemctl disable --now "$1" >/dev/null 2>&1 || true
  else
    "${as_root[@]}" service "$1" stop >/dev/null 2>&1 || true
  fi
}

echo "Dependencies: installing ${missing[*]}"
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
for package in "${missing[@]}"; do
  case $package in
    nginx | haproxy) stop_service "$package" ;;
    prometheus)
      stop_service prometheus
      stop_service prometheus-node-exporter
      ;;
  esac
done
echo "Dependencies: done."

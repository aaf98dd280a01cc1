#!/usr/bin/env bash
# Builds the controller, starts it with a development worker, and shows what to try.
# Usage: scripts/run.sh [PORT]     (or PORT=… in the environment; default 8080)
# It listens on loopback only; BIND=0.0.0.0 opens it to the network, without authentication.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
quiet=--quiet
if [[ -t 1 ]]; then quiet=; fi  # a person sees the build advance

port=${1:-${PORT:-8080}}
bind=${BIND:-127.0.0.1}
model=dev-echo
if ! [[ $port =~ ^[0-9]+$ ]] || ((port < 1 || port > 65535)); then
  echo "Usage: $0 [PORT]   (1 to 65535)" >&2
  exit 2
fi
if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
  echo "Port $port is taken by another program. Choose another one: $0 $((port + 1))" >&2
  exit 1
fi

scripts/install-deps.sh --run
echo "Building…"
cmake --preset release >/dev/null
cmake --build --preset release --target tavrel-controller tavrel-dev-worker -- ${quiet:+"$quiet"}

logs=$(mktemp -d "${TMPDIR:-/tmp}/tavrel-run.XXXXXX")
pids=()

stop_all() {
  trap - EXIT INT TERM
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
}
trap 'stop_all' EXIT
trap 'echo; echo "Stopping…"; stop_all; exit 0' INT TERM

fail() {
  echo "$1" >&2
  tail -n 20 "$logs"/*.log >&2
  exit 1
}

# Process groups of their own: Ctrl-C reaches this script only, which then ends each one once.
set -m
build/release/tavrel-controller --port "$port" --bind "$bind" >"$logs/controller.log" 2>&1 &
pids+=($!)
build/release/tavrel-dev-worker --controller "http://127.0.0.1:$port" --port 0 --model "$model" \
  --id dev-worker --heartbeat-ms 1000 >"$logs/worker.log" 2>&1 &
pids+=($!)
set +m

online=
for _ in {1..150}; do
  kill -0 "${pids[0]}" 2>/dev/null || fail "The controller did not start:"
  kill -0 "${pids[1]}" 2>/dev/null || fail "The worker did not start:"
  if curl -fsS -m 2 "http://127.0.0.1:$port/api/v1/workers" 2>/dev/null | grep -q '"online"'; then
    online=yes
    break
  fi
  sleep 0.2
done
[[ $online ]] || fail "The worker did not come online within 30 seconds:"

base=http://127.0.0.1:$port
cat <<TEXT

The controller runs on $base with one development worker (model $model).

Ask it something:
  curl -s $base/api/v1/chat/completions -H 'Content-Type: application/json' \\
    -d '{"model":"$model","messages":[{"role":"user","content":"Hello"}]}'

The same, streamed:
  curl -sN $base/api/v1/chat/completions/stream -H 'Content-Type: application/json' \\
    -d '{"model":"$model","messages":[{"role":"user","content":"Hello"}]}'

Dashboard  $base/dashboard
Metrics    $base/metrics
Events     curl -sN $base/api/v1/events/stream
Workers    $base/api/v1/workers
Logs       $logs

Ctrl-C stops both.
TEXT

wait -n "${pids[@]}" || true
fail "One of the two has ended:"

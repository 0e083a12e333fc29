#!/usr/bin/env bash
# One push to a loopback HTTPS server, timed beside curl doing the same
# request (the same JSON webhook body, certificate checks on), inside a
# private network namespace so nothing leaves the machine.
#
# Usage: push-bench.sh BIN_DIR [RUNS]   (as root: it enters a network namespace)
# Prints the median wall time of RUNS separate processes of each, and of
# warm pushes inside one agent process.
set -euo pipefail
BIN=$(cd "${1:?usage: push-bench.sh BIN_DIR [RUNS]}" && pwd)
RUNS=${2:-30}
SRC=$(cd "$(dirname "$0")/.." && pwd)
[ -x "$BIN/quillon-push-bench" ] || { echo "push-bench: $BIN/quillon-push-bench is not built" >&2; exit 1; }

exec unshare -n bash -s "$BIN" "$RUNS" "$SRC" <<'INNER'
set -euo pipefail
BIN=$1 RUNS=$2 SRC=$3
ip link set lo up
WORK=$(mktemp -d /tmp/quillon-push-bench.XXXXXX)
SERVER=
cleanup() { [ -n "$SERVER" ] && kill "$SERVER" 2>/dev/null; rm -rf "$WORK"; }
trap cleanup EXIT
openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost \
  -addext subjectAltName=DNS:localhost,IP:127.0.0.1 -keyout "$WORK/key.pem" -out "$WORK/cert.pem" >/dev/null 2>&1
/usr/bin/python3 "$SRC/tests/support/push-server.py" --cert "$WORK/cert.pem" --key "$WORK/key.pem" \
  --out "$WORK/requests" --ready "$WORK/port" &
SERVER=$!
for _ in $(seq 100); do [ -e "$WORK/port" ] && break; sleep 0.1; done
PORT=$(cat "$WORK/port")
export CURL_CA_BUNDLE=$WORK/cert.pem SSL_CERT_FILE=$WORK/cert.pem HOME=$WORK
unset https_proxy HTTPS_PROXY all_proxy ALL_PROXY
URL="https://127.0.0.1:$PORT/hook"
BODY='{"event":"render.finished","type":"watchFile","fileName":"Quillon test.mov","title":"Quillon test.mov Finished","message":"The file \"Quillon test.mov\" finished rendering."}'

median() { sort -n | awk '{a[NR]=$1} END {print (NR%2 ? a[(NR+1)/2] : (a[NR/2]+a[NR/2+1])/2)}'; }
time_runs() {  # command... ; prints one wall time in microseconds per run
  local i start
  for i in $(seq "$RUNS"); do
    start=${EPOCHREALTIME/./}
    "$@" >/dev/null || { echo "push-bench: $1 failed" >&2; exit 1; }
    echo $(( ${EPOCHREALTIME/./} - start ))
  done
}
curl_us=$(time_runs curl -sS -o /dev/null -X POST -H 'Content-Type: application/json' --data "$BODY" "$URL" | median)
push_us=$(time_runs "$BIN/quillon-push-bench" "jsons://127.0.0.1:$PORT/hook" | median)
warm_us=$("$BIN/quillon-push-bench" "jsons://127.0.0.1:$PORT/hook" "$RUNS" | tail -n +2 | median)
printf 'push-bench: %s runs, median wall time per process\n' "$RUNS"
printf '  curl (one request)                 %8.1f ms\n' "$(echo "$curl_us / 1000" | bc -l)"
printf '  quillon-push-bench (one push)      %8.1f ms  (%.2fx curl)\n' "$(echo "$push_us / 1000" | bc -l)" "$(echo "$push_us / $curl_us" | bc -l)"
printf '  one push inside a running process  %8.1f ms\n' "$(echo "$warm_us / 1000" | bc -l)"
INNER

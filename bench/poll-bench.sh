#!/usr/bin/env bash
# Polling shares, side by side: the agent's event stream (quillon-watch-bench,
# which polls a FUSE mount by itself) beside fswatch's poll monitor and
# python3-watchdog's PollingObserver, each polling every 2 s, on the same
# bindfs mounts of trees of 1,000 and 10,000 files in 100 folders. For each:
# processor time per idle minute, resident memory (and what each further
# entry costs, from the difference between the two trees), and the delay
# from the end of a write (appended by "another machine" to a file in the
# folder under the mount) to the first line the watcher prints about it.
#
# Usage: poll-bench.sh BIN_DIR   (normally through scripts/bench.sh)
# Environment: IDLE_SECONDS (30), SIZES ("1000 10000"), LATENCY_RUNS (5),
#   BENCH_OUT (copy of the table), KEEP_WORK (keep /var/tmp/quillon-poll-bench.*).
# Needs root: the mounts are made in a private mount namespace.
set -uo pipefail

BIN=$(cd "${1:?usage: poll-bench.sh BIN_DIR}" && pwd)
IDLE_SECONDS=${IDLE_SECONDS:-30}
SIZES=${SIZES:-"1000 10000"}
LATENCY_RUNS=${LATENCY_RUNS:-5}
INTERVAL=2
PY=/usr/bin/python3

[ "$(id -u)" -eq 0 ] || { echo "poll-bench: run as root (mounts in a private namespace)" >&2; exit 1; }
for tool in bindfs fswatch unshare; do
  command -v "$tool" >/dev/null || { echo "poll-bench: $tool is missing" >&2; exit 1; }
done
$PY -c 'import watchdog.observers.polling' 2>/dev/null || { echo "poll-bench: python3-watchdog is missing" >&2; exit 1; }
[ -x "$BIN/quillon-watch-bench" ] || { echo "poll-bench: $BIN/quillon-watch-bench is not built" >&2; exit 1; }

if [ -z "${QUILLON_POLL_BENCH_NS:-}" ]; then
  exec env QUILLON_POLL_BENCH_NS=1 unshare --mount --propagation private bash "$0" "$@"
fi

WORK=$(mktemp -d /var/tmp/quillon-poll-bench.XXXXXX)
RESULTS=$WORK/results.tsv
: >"$RESULTS"
WATCHERS=
cleanup() {
  local pid mount
  for pid in $(jobs -p) $WATCHERS; do kill "$pid" 2>/dev/null; done
  for mount in "$WORK"/mnt*; do umount -l "$mount" 2>/dev/null; done
  [ -n "${KEEP_WORK:-}" ] || rm -rf "$WORK"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
log() { printf '[%s] %s\n' "$(date +%T)" "$*" >&2; }

cat >"$WORK/watchdog-poll.py" <<'EOF'
import sys, time
from watchdog.events import FileSystemEventHandler
from watchdog.observers.polling import PollingObserver

class Printer(FileSystemEventHandler):
    def on_any_event(self, event):
        print(event.event_type, event.src_path, flush=True)

observer = PollingObserver(timeout=float(sys.argv[2]))
observer.schedule(Printer(), sys.argv[1], recursive=True)
observer.start()
try:
    while True:
        time.sleep(3600)
except KeyboardInterrupt:
    observer.stop()
EOF

ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
rss_kib() { awk '/^VmRSS:/ {print $2}' "/proc/$1/status"; }
now_ns() { date +%s%N; }

start_tool() {  # tool mount out err
  case $1 in
    quillon) "$BIN/quillon-watch-bench" "$2" >"$3" 2>"$4" & ;;
    fswatch) fswatch -m poll_monitor -r -l "$INTERVAL" "$2" >"$3" 2>"$4" & ;;
    watchdog) $PY "$WORK/watchdog-poll.py" "$2" "$INTERVAL" >"$3" 2>"$4" & ;;
  esac
  echo $!
}

HZ=$(getconf CLK_TCK)
for size in $SIZES; do
  src=$WORK/src$size mnt=$WORK/mnt$size
  log "tree of $size files in 100 folders"
  for ((d = 0; d < 100; d++)); do
    folder=$src/$(printf 'd%03d' "$d")
    mkdir -p "$folder"
    for ((f = 0; f < size / 100; f++)); do printf 'frame' >"$folder/$(printf 'clip%05d.mov' "$f")"; done
  done
  mkdir -p "$mnt"
  bindfs "$src" "$mnt" || { echo "poll-bench: bindfs failed" >&2; exit 1; }

  for tool in quillon fswatch watchdog; do
    out=$WORK/$tool-$size.out err=$WORK/$tool-$size.err
    pid=$(start_tool "$tool" "$mnt" "$out" "$err")
    WATCHERS="$WATCHERS $pid"
    sleep $((INTERVAL * 3))  # the first full reading of the tree
    log "$tool on $size files: idle for ${IDLE_SECONDS}s"
    t0=$(ticks "$pid")
    sleep "$IDLE_SECONDS"
    t1=$(ticks "$pid")
    rss=$(rss_kib "$pid")
    cpu_ms_per_min=$(awk -v t="$((t1 - t0))" -v hz="$HZ" -v s="$IDLE_SECONDS" 'BEGIN {printf "%.0f", t * 1000 / hz * 60 / s}')

    delays=()
    for ((run = 0; run < LATENCY_RUNS; run++)); do
      folder=$(printf 'd%03d' $((run * 17 % 100)))
      lines=$(wc -l <"$out")
      # Writes land at different points of the polling round.
      sleep "0.$((RANDOM % 10))"
      printf ' more frames' >>"$src/$folder/clip00000.mov"
      written=$(now_ns)
      seen=
      while [ -z "$seen" ] && [ $(($(now_ns) - written)) -lt $((INTERVAL * 5 * 1000000000)) ]; do
        if tail -n +"$((lines + 1))" "$out" | grep -q "/$folder"; then seen=$(now_ns); else sleep 0.01; fi
      done
      delays+=("$([ -n "$seen" ] && echo $(((seen - written) / 1000000)) || echo missed)")
      sleep "$INTERVAL"
    done
    # Started in a command substitution, so not a child to wait for.
    kill -TERM "$pid" 2>/dev/null
    while kill -0 "$pid" 2>/dev/null; do sleep 0.05; done
    record_entry=$(sed -n 's/.*(\([0-9.]*\) bytes each).*/\1/p' "$err")
    printf '%s\t%s\t%s\t%s\t%s\t%s\n' "$size" "$tool" "$cpu_ms_per_min" "$rss" "${delays[*]}" \
      "${record_entry:--}" >>"$RESULTS"
    log "$tool on $size files: ${cpu_ms_per_min} ms CPU/min, ${rss} KiB, delays ${delays[*]} ms"
  done
  umount -l "$mnt"
done

{
  echo
  echo "| Files | Watcher | CPU per idle minute | RSS | RSS per further entry | Snapshot per entry | Write to first event (ms) |"
  echo "|---|---|---|---|---|---|---|"
  awk -F'\t' '
    { size[NR] = $1; tool[NR] = $2; rss[$1 "/" $2] = $4; row[NR] = $0; sizes[$1] = 1 }
    END {
      n = 0; for (s in sizes) list[++n] = s + 0
      lo = list[1]; hi = list[1]; for (i = 1; i <= n; i++) { if (list[i] < lo) lo = list[i]; if (list[i] > hi) hi = list[i] }
      for (i = 1; i <= NR; i++) {
        split(row[i], f, "\t")
        per = "-"
        if (f[1] == hi && hi > lo && (lo "/" f[2]) in rss)
          per = sprintf("%.0f B", (rss[hi "/" f[2]] - rss[lo "/" f[2]]) * 1024 / (hi - lo))
        snap = f[6] == "-" ? "-" : f[6] " B"
        printf "| %s | %s | %.2f s | %.1f MiB | %s | %s | %s |\n", f[1], f[2], f[3] / 1000, f[4] / 1024, per, snap, f[5]
      }
    }' "$RESULTS"
  echo
  echo "Polling interval ${INTERVAL} s for all; idle ${IDLE_SECONDS} s per watcher; delays of ${LATENCY_RUNS} appends each."
} | tee "${BENCH_OUT:-/dev/null}"

#!/usr/bin/env bash
# The whole-process comparison: the agent's event stream (quillon-watch-bench)
# and the agent itself (quillon-helper) beside the tools a Linux user would
# otherwise reach for (inotifywait -r -m, fswatch -r, msmtp) and beside the
# floor that the kernel sets (fswalk-floor), all on the same generated trees
# in the same run. Prints the micro-benchmarks and then one table.
#
# Usage: run-bench.sh BIN_DIR   (normally through scripts/bench.sh)
# Environment: IDLE_SECONDS (60), SIZES ("1000 10000 100000"), REPEAT (3),
#   LATENCY_RUNS (3), PHASES ("micro setup idle burst latency mail"),
#   SKIP_MICRO, BENCH_OUT (copy of the table), KEEP_WORK (keep the trees and
#   the raw output in /var/tmp/quillon-bench.*).
# Needs root: it raises fs.inotify.max_user_watches for the run and puts it
# back afterwards, and runs the agent in a private mount namespace so that
# its log goes to a scratch /var/log.
set -uo pipefail

BIN=$(cd "${1:?usage: run-bench.sh BIN_DIR}" && pwd)
IDLE_SECONDS=${IDLE_SECONDS:-60}
SIZES=${SIZES:-"1000 10000 100000"}
REPEAT=${REPEAT:-3}
LATENCY_RUNS=${LATENCY_RUNS:-3}
PHASES=${PHASES:-"micro setup idle burst latency mail"}
PY=/usr/bin/python3

for tool in inotifywait fswatch msmtp dbus-daemon unshare; do
  command -v "$tool" >/dev/null || { echo "run-bench: $tool is missing (run scripts/bench.sh)" >&2; exit 1; }
done
for program in quillon-watch-bench quillon-helper fswalk-floor quillon-microbench; do
  [ -x "$BIN/$program" ] || { echo "run-bench: $BIN/$program is not built" >&2; exit 1; }
done
[ "$(id -u)" -eq 0 ] || { echo "run-bench: run as root (the watch limit is raised for the run)" >&2; exit 1; }

# On the disk, not tmpfs: watchers are meant for real file systems.
WORK=$(mktemp -d /var/tmp/quillon-bench.XXXXXX)
RESULTS=$WORK/results.tsv
: >"$RESULTS"
OLD_WATCHES=$(cat /proc/sys/fs/inotify/max_user_watches)
BUS_PID=

cleanup() {
  # Only this script's own jobs that are still running.
  local pid
  for pid in $(jobs -p); do kill "$pid" 2>/dev/null; done
  [ -n "$BUS_PID" ] && kill "$BUS_PID" 2>/dev/null
  echo "$OLD_WATCHES" >/proc/sys/fs/inotify/max_user_watches
  [ -n "${KEEP_WORK:-}" ] || rm -rf "$WORK"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# 100,000 folders per watcher, and other users' watches beside them.
if [ "$OLD_WATCHES" -lt 524288 ]; then echo 524288 >/proc/sys/fs/inotify/max_user_watches; fi

log() { printf '[%s] %s\n' "$(date +%T)" "$*" >&2; }
record() { printf '%s\n' "$(IFS=$'\t'; echo "$*")" >>"$RESULTS"; }

# --- Reading a process from /proc, without forking in the polling loops ----

exec {NAP_FD}<> <(:)
nap() { read -r -t "$1" -u "$NAP_FD" _ 2>/dev/null; }
now_us() { NOW=${EPOCHREALTIME/./}; }

# CPU time of every thread of PID in nanoseconds (scheduler accounting).
cpu_ns() {
  local sum=0 run rest f
  for f in /proc/"$1"/task/*/schedstat; do
    [ -e "$f" ] || continue
    read -r run rest <"$f" 2>/dev/null && sum=$((sum + run))
  done
  CPU=$sum
}

# Voluntary and non-voluntary context switches summed over the threads.
switches() {
  local vol=0 invol=0 key value f
  for f in /proc/"$1"/task/*/status; do
    [ -e "$f" ] || continue
    while read -r key value _; do
      case $key in
        voluntary_ctxt_switches:) vol=$((vol + value)) ;;
        nonvoluntary_ctxt_switches:) invol=$((invol + value)) ;;
      esac
    done <"$f" 2>/dev/null
  done
  VOL=$vol INVOL=$invol
}

status_kb() {  # status_kb PID FIELD -> KB
  local key value
  KB=0
  while read -r key value _; do
    [ "$key" = "$2:" ] && KB=$value && return
  done <"/proc/$1/status"
}

pss_kb() {  # proportional set size: shared library pages divided among their users
  local key value
  KB=0
  while read -r key value _; do
    [ "$key" = "Pss:" ] && KB=$value && return
  done <"/proc/$1/smaps_rollup"
}

watch_count() { cat /proc/"$1"/fdinfo/* 2>/dev/null | grep -c '^inotify wd:'; }

# Waits until PID's main thread has used no CPU for QUIET_MS; SETTLED_US is
# the moment it last ran (the end of its set-up). Fails when the process
# died or did not settle within LIMIT_S seconds.
wait_settled() {
  local pid=$1 quiet_us=$(($2 * 1000)) limit_us=$(($3 * 1000000)) start last=-1 run rest
  now_us; start=$NOW; SETTLED_US=$NOW
  while :; do
    if ! read -r run rest <"/proc/$pid/schedstat" 2>/dev/null; then return 1; fi
    now_us
    if [ "$run" != "$last" ]; then last=$run; SETTLED_US=$NOW; fi
    [ $((NOW - SETTLED_US)) -ge "$quiet_us" ] && return 0
    [ $((NOW - start)) -ge "$limit_us" ] && return 1
    nap 0.002
  done
}

stop_process() {
  kill -TERM "$1" 2>/dev/null
  for _ in $(seq 50); do kill -0 "$1" 2>/dev/null || break; nap 0.1; done
  kill -KILL "$1" 2>/dev/null
  wait "$1" 2>/dev/null
}

# --- The watchers -----------------------------------------------------------

WATCHERS="floor quillon inotifywait fswatch"

# start_watcher NAME TREE OUT ERR: starts it in the background; PID is set.
start_watcher() {
  case $1 in
    floor) "$BIN/fswalk-floor" --hold "$2" >"$3" 2>"$4" & ;;
    quillon) "$BIN/quillon-watch-bench" "$2" >"$3" 2>"$4" & ;;
    inotifywait) inotifywait -r -m "$2" >"$3" 2>"$4" & ;;
    fswatch) fswatch -r "$2" >"$3" 2>"$4" & ;;
  esac
  PID=$!
}

# --- Trees ------------------------------------------------------------------

# make_tree DIR N: N folders below DIR, ten to a folder, breadth first (five
# levels for 100,000); DIR.list names them all.
make_tree() {
  "$PY" - "$1" "$2" <<'EOF'
import os, sys
root, count = sys.argv[1], int(sys.argv[2])
os.makedirs(root)
folders, made, next_parent = [root], 0, 0
while made < count:
    parent = folders[next_parent]
    next_parent += 1
    for child in range(10):
        if made == count:
            break
        path = os.path.join(parent, "Shot%02d_Render_Files" % child)
        os.mkdir(path)
        folders.append(path)
        made += 1
with open(root + ".list", "w") as out:
    out.write("\n".join(folders[1:]) + "\n")
EOF
}

# --- Micro-benchmarks ---------------------------------------------------------

run_micro() {
  log "micro-benchmarks"
  # A private /var/log: the benchmark keeps its log in its temporary home,
  # and nothing may reach the machine's logs either way.
  unshare --mount sh -c 'mount -t tmpfs tmpfs /var/log && exec "$0" "$@"' "$BIN/quillon-microbench" \
    --benchmark_min_time=0.3 --benchmark_out="$WORK/micro.json" --benchmark_out_format=json \
    >"$WORK/micro.txt" 2>&1 || log "micro-benchmarks failed (see below)"
}

# --- Set-up: time, CPU and memory to start watching a tree --------------------

measure_setup() {  # NAME TREE SIZE REP
  local name=$1 tree=$2 size=$3 out=$WORK/setup.out err=$WORK/setup.err start
  now_us; start=$NOW
  start_watcher "$name" "$tree" "$out" "$err"
  # Settled and every folder watched: a watcher that pauses in the middle of
  # its walk is waited for again.
  local settled=no watches=0 tries
  for tries in $(seq 20); do
    wait_settled "$PID" 400 300 || break
    watches=$(watch_count "$PID")
    [ "$watches" -gt "$size" ] && { settled=yes; break; }
  done
  if [ "$settled" != yes ]; then
    log "$name did not settle on $size folders ($watches watches): $(tail -n 2 "$err")"
    stop_process "$PID"
    record setup "$name" "$size" "$4" NA NA NA NA "$watches"
    return
  fi
  local wall_ms=$(( (SETTLED_US - start) / 1000 ))
  cpu_ns "$PID"; local cpu_ms=$(( CPU / 1000000 ))
  status_kb "$PID" VmRSS; local rss=$KB
  status_kb "$PID" VmHWM; local hwm=$KB
  stop_process "$PID"
  # The programs built here also time their own set-up, without process start.
  local own
  own=$(sed -n 's/.* in \([0-9.]*\) ms$/\1/p' "$err" | head -n 1)
  record setup "$name" "$size" "$4" "$wall_ms" "$cpu_ms" "$rss" "$hwm" "$watches" "${own:-NA}"
}

# --- Idle: wake-ups and CPU over IDLE_SECONDS after set-up --------------------

AGENT_HOME=$WORK/agent-home
AGENT_LOG=$WORK/agent-log

start_bus() {
  # The socket lives in the work folder, where no clean-up of /tmp reaches it.
  cat >"$WORK/bus.conf" <<EOF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:dir=$WORK</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
EOF
  local lines
  lines=$(dbus-daemon --config-file="$WORK/bus.conf" --fork --nopidfile --print-address=1 --print-pid=1)
  export DBUS_SESSION_BUS_ADDRESS=${lines%%$'\n'*}
  BUS_PID=${lines##*$'\n'}
  "$PY" -m dbusmock --template notification_daemon -l "$WORK/notify-calls.log" >/dev/null 2>&1 &
  for _ in $(seq 100); do
    dbus-send --session --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.NameHasOwner \
      string:org.freedesktop.Notifications 2>/dev/null | grep -q 'boolean true' && return 0
    nap 0.1
  done
  log "the notification mock did not come up"
  return 1
}

# start_agent FOLDER: the real agent watching FOLDER, with desktop
# notifications on and sounds off, its log in AGENT_LOG; PID is set.
start_agent() {
  rm -rf "$AGENT_HOME"
  mkdir -p "$AGENT_HOME/.config" "$AGENT_LOG"
  "$PY" - "$AGENT_HOME/.config/com.morvane.Quillon.plist" "$1" <<'EOF'
import plistlib, sys
with open(sys.argv[1], "wb") as out:
    plistlib.dump({"watchFolders": [sys.argv[2]], "notifyGrowl": 1, "notifySound": 0}, out)
EOF
  env -u XDG_CONFIG_HOME -u XDG_STATE_HOME -u XDG_CACHE_HOME -u XDG_DATA_HOME HOME="$AGENT_HOME" \
    unshare --mount sh -c 'mount -t tmpfs tmpfs /var/log && mkdir -p /var/log/Morvane &&
      mount --bind "$0" /var/log/Morvane && exec "$@"' "$AGENT_LOG" "$BIN/quillon-helper" \
    >"$WORK/agent.out" 2>&1 &
  PID=$!
}

measure_idle() {  # TREE SIZE
  local tree=$1 size=$2 name
  # One at a time: a watcher's own reads of the tree are events for the others.
  # agent-one: the agent as most users run it, on one render folder.
  mkdir -p "$WORK/one-folder"
  for name in quillon agent agent-one inotifywait fswatch; do
    log "idle: $name, $IDLE_SECONDS s"
    if [ "$name" = agent ]; then
      start_agent "$tree"
    elif [ "$name" = agent-one ]; then
      start_agent "$WORK/one-folder"
    else
      start_watcher "$name" "$tree" "$WORK/idle-$name.out" "$WORK/idle-$name.err"
    fi
    local pid=$PID
    wait_settled "$pid" 700 30 || log "$name did not settle within 30 s; measuring from now"
    switches "$pid"; local vol0=$VOL invol0=$INVOL
    cpu_ns "$pid"; local cpu0=$CPU
    sleep "$IDLE_SECONDS"
    switches "$pid"; cpu_ns "$pid"; status_kb "$pid" VmRSS; local rss=$KB
    pss_kb "$pid"
    record idle "$name" "$size" "$IDLE_SECONDS" $((VOL - vol0)) $((INVOL - invol0)) $(( (CPU - cpu0) / 1000 )) "$rss" "$KB"
    stop_process "$pid"
  done
}

# --- Burst: 10,000 files into 100 folders in about two seconds ---------------

write_burst() {  # LIST TAG: prints the folders written into, one per line, to WORK/burst.folders
  "$PY" - "$1" "$2" "$WORK/burst.folders" <<'EOF'
import os, sys, time
folders = open(sys.argv[1]).read().split()
step = max(1, len(folders) // 100)
chosen = folders[::step][:100]
with open(sys.argv[3], "w") as out:
    out.write("\n".join(chosen) + "\n")
chunk = b"\0" * 16384
start = time.monotonic()
for round in range(100):
    # One file per folder per round, written in four pieces as a render is.
    for folder in chosen:
        with open(os.path.join(folder, "burst-%s-%03d.mov" % (sys.argv[2], round)), "wb") as f:
            for _ in range(4):
                f.write(chunk)
    pause = start + (round + 1) * 0.02 - time.monotonic()
    if pause > 0:
        time.sleep(pause)
EOF
}

count_burst() {  # NAME OUT -> "reported expected overflows"
  "$PY" - "$1" "$2" "$WORK/burst.folders" "$3" <<'EOF'
import sys
name, out, folder_list, tag = sys.argv[1:5]
folders = [f.rstrip("/") for f in open(folder_list).read().split()]
wanted_files = {"%s/burst-%s-%03d.mov" % (f, tag, r) for f in folders for r in range(100)}
wanted_folders = set(folders)
seen, overflows = set(), 0
for line in open(out, errors="replace"):
    line = line.rstrip("\n")
    if name == "quillon":
        flag, _, path = line.partition(" ")
        try:
            if int(flag, 16) & 0x4:
                overflows += 1
        except ValueError:
            pass
        seen.add(path.rstrip("/"))
    elif name == "inotifywait":
        if "Q_OVERFLOW" in line:
            overflows += 1
        parts = line.split(" ")
        if len(parts) >= 3:
            seen.add(parts[0] + parts[2])
    else:  # fswatch prints one path per line
        if "verflow" in line:
            overflows += 1
        seen.add(line)
wanted = wanted_folders if name == "quillon" else wanted_files
print(len(seen & wanted), len(wanted), overflows)
EOF
}

measure_burst() {  # TREE SIZE
  local tree=$1 size=$2 name
  for name in quillon inotifywait fswatch; do
    log "burst: $name"
    local out=$WORK/burst-$name.out err=$WORK/burst-$name.err
    start_watcher "$name" "$tree" "$out" "$err"
    wait_settled "$PID" 500 30 || log "$name did not settle within 30 s; writing anyway"
    cpu_ns "$PID"; local cpu0=$CPU
    local started; now_us; started=$NOW
    write_burst "$tree.list" "$name"
    # Delivered when the output has not grown for 3 s (both batch for 1 s);
    # a watcher that keeps printing is cut off after 60 s.
    local last_size=-1 quiet=0 polls=0
    while [ "$quiet" -lt 30 ] && [ "$polls" -lt 600 ] && kill -0 "$PID" 2>/dev/null; do
      polls=$((polls + 1))
      local now_size; now_size=$(stat -c %s "$out")
      if [ "$now_size" = "$last_size" ]; then quiet=$((quiet + 1)); else quiet=0 last_size=$now_size; fi
      nap 0.1
    done
    local alive=yes
    kill -0 "$PID" 2>/dev/null || alive=no
    cpu_ns "$PID"; local cpu_ms=$(( (CPU - cpu0) / 1000000 ))
    [ "$alive" = yes ] || cpu_ms=NA
    stop_process "$PID"
    local counts; counts=$(count_burst "$name" "$out" "$name")
    grep -qi overflow "$err" && counts="${counts% *} $(( ${counts##* } + 1 ))"
    record burst "$name" "$size" $counts "$cpu_ms" "$alive"
    # Remove the burst's files so the next watcher starts on the same tree.
    xargs -d '\n' -I{} sh -c 'rm -f "$1"/burst-*.mov' _ {} <"$WORK/burst.folders"
  done
}

# --- Notification delay: last write of a render to the Notify call ----------

# A render: 2 MB in 20 pieces, 90 ms apart. Prints the time of the first
# write (the stream's first delivery: the first change after a quiet period
# is delivered at once) and of the end of the last write.
write_render() {
  "$PY" - "$1" <<'EOF'
import sys, time
piece = b"\x42" * (100 * 1024)
first = time.time()
with open(sys.argv[1], "wb", buffering=0) as f:
    for i in range(20):
        f.write(piece)
        if i < 19:
            time.sleep(0.09)
last = time.time()
print("%.6f %.6f" % (first, last))
EOF
}

measure_latency() {
  local renders=$WORK/renders
  mkdir -p "$renders"
  start_agent "$renders"
  local agent=$PID
  for _ in $(seq 200); do grep -q "Watch folders:" "$AGENT_LOG/quillon-helper.1.log" 2>/dev/null && break; nap 0.1; done
  sleep 2
  local run
  for run in $(seq "$LATENCY_RUNS"); do
    local name="render-$run.mov"
    local times; times=$(write_render "$renders/$name")
    local notified=
    for _ in $(seq 300); do
      notified=$(grep -m1 "Notify.*File: $name" "$WORK/notify-calls.log" 2>/dev/null | cut -d' ' -f1)
      [ -n "$notified" ] && break
      nap 0.05
    done
    if [ -z "$notified" ]; then
      log "no notification for $name"
      record latency "$run" NA NA NA
    else
      "$PY" - $times "$notified" "$run" <<'EOF' >>"$RESULTS"
import math, sys
first, last, notified = map(float, sys.argv[1:4])
latency = 1.0  # the stream's latency
# The stream delivers at first, first + 1 s, first + 2 s, ... while writes
# continue; the last write waits for the next of these, then the 3 s
# debounce and the 3 s size test.
written = last - first
floor = latency * math.ceil(written / latency) - written + 3.0 + 3.0
print("latency\t%s\t%.3f\t%.3f\t%.3f" % (sys.argv[4], notified - last, floor,
                                         notified - last - floor))
EOF
    fi
    # The dispatcher does not repeat a notification within 5 s.
    sleep 6
  done
  stop_process "$agent"
}

# --- Mail: one message through a loopback relay, with msmtp ------------------

measure_mail() {
  local port=28025
  "$PY" -m aiosmtpd -n -l "127.0.0.1:$port" -c aiosmtpd.handlers.Sink >/dev/null 2>&1 &
  local relay=$!
  for _ in $(seq 50); do (exec 3<>/dev/tcp/127.0.0.1/$port) 2>/dev/null && break; nap 0.1; done
  printf 'From: render@example.com\r\nTo: editor@example.com\r\nSubject: Documentary Final v12.mov Render Finished\r\n\r\nThe render "Documentary Final v12.mov" on computer "Suite 3" has now finished.\r\n' \
    >"$WORK/message.txt"
  # Both send the same message to the same relay, without TLS or login;
  # each run is a whole process, as when a user's hook calls msmtp (hyperfine
  # subtracts the cost of the shell that starts them).
  local senders=("msmtp --host=127.0.0.1 --port=$port --auth=off --tls=off --from=render@example.com editor@example.com <$WORK/message.txt")
  [ -x "$BIN/quillon-mail-bench" ] &&
    senders=("$BIN/quillon-mail-bench 127.0.0.1 $port render@example.com editor@example.com" "${senders[@]}")
  if hyperfine --warmup 3 --runs 30 --export-json "$WORK/mail.json" \
    "${senders[@]}" >"$WORK/mail.txt" 2>&1; then
    "$PY" - "$WORK/mail.json" >>"$RESULTS" <<'EOF'
import json, sys
for r in json.load(open(sys.argv[1]))["results"]:
    name = "quillon-mail" if "quillon-mail-bench" in r["command"] else "msmtp"
    print("mail\t%s\t%.2f\t%.2f" % (name, r["median"] * 1000, (r["user"] + r["system"]) * 1000))
EOF
  else
    log "mail: $(tail -n 3 "$WORK/mail.txt")"
  fi
  kill "$relay" 2>/dev/null
}

# --- Run --------------------------------------------------------------------

phase() { [[ " $PHASES " == *" $1 "* ]]; }

[ -n "${SKIP_MICRO:-}" ] || ! phase micro || run_micro

if phase setup; then
  for size in $SIZES; do
    log "tree of $size folders"
    make_tree "$WORK/tree-$size" "$size"
    find "$WORK/tree-$size" -type d >/dev/null  # every tool starts with warm caches
    for rep in $(seq "$REPEAT"); do
      for name in $WATCHERS; do measure_setup "$name" "$WORK/tree-$size" "$size" "$rep"; done
    done
  done
fi

BURST_SIZE=10000
if phase idle || phase burst || phase latency; then
  [ -d "$WORK/tree-$BURST_SIZE" ] || make_tree "$WORK/tree-$BURST_SIZE" "$BURST_SIZE"
  start_bus || exit 1
fi
phase idle && measure_idle "$WORK/tree-$BURST_SIZE" "$BURST_SIZE"
phase burst && measure_burst "$WORK/tree-$BURST_SIZE" "$BURST_SIZE"
if phase latency; then
  log "notification delay ($LATENCY_RUNS renders)"
  measure_latency
fi
if phase mail; then
  log "mail"
  measure_mail
fi

# --- The table --------------------------------------------------------------

{
  echo "Quillon benchmarks, $(date -u '+%Y-%m-%d %H:%M UTC')"
  echo "Machine: $(nproc) cores, $(awk '/MemTotal/ {printf "%.1f GB", $2 / 1048576}' /proc/meminfo), kernel $(uname -r)," \
    "$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')"
  echo "Load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)"
  echo
  if [ -s "$WORK/micro.txt" ]; then
    echo "Micro-benchmarks (Google Benchmark, Release build):"
    grep -E '^(BM_|-|Benchmark)' "$WORK/micro.txt"
    echo
  fi
  "$PY" - "$RESULTS" "$IDLE_SECONDS" <<'EOF'
import collections, statistics, sys
rows = [line.rstrip("\n").split("\t") for line in open(sys.argv[1]) if line.strip()]
idle_seconds = sys.argv[2]
label = {"floor": "fswalk-floor (kernel floor)", "quillon": "Quillon event stream", "agent": "quillon-helper (agent)",
         "agent-one": "quillon-helper, one folder", "inotifywait": "inotifywait -r -m", "fswatch": "fswatch -r",
         "msmtp": "msmtp", "quillon-mail": "Quillon SMTP client"}

def num(values):
    values = [float(v) for v in values if v != "NA"]
    return statistics.median(values) if values else None

def fmt(value, digits=0):
    return "n/a" if value is None else "%.*f" % (digits, value)

def of(kind):
    return [r for r in rows if r[0] == kind]

setup = collections.defaultdict(list)
for r in of("setup"):
    setup[(r[1], int(r[2]))].append(r[4:])
sizes = sorted({size for _, size in setup})
if sizes:
    print("Set-up on a tree of N folders, median of %d runs. wall: from starting the process to the end of its"
          % max(len(v) for v in setup.values()))
    print("set-up; own: the set-up as the program times it itself, without process start; CPU: all threads;")
    print("RSS after set-up; x floor: wall / the floor's wall")
    print("%-28s %8s %8s %7s %7s %8s %8s %8s %7s" % ("watcher", "folders", "wall ms", "own ms", "CPU ms", "RSS KB",
                                                     "peak KB", "watches", "x floor"))
    for size in sizes:
        floor = num([v[0] for v in setup.get(("floor", size), [])])
        for name in ["floor", "quillon", "inotifywait", "fswatch"]:
            runs = setup.get((name, size))
            if not runs:
                continue
            column = lambda i: num([v[i] for v in runs if len(v) > i])
            wall = column(0)
            ratio = wall / floor if wall is not None and floor else None
            print("%-28s %8d %8s %7s %7s %8s %8s %8s %7s" % (label[name], size, fmt(wall), fmt(column(5)), fmt(column(1)),
                  fmt(column(2)), fmt(column(3)), fmt(column(4)), fmt(ratio, 2)))
    print()

if of("idle"):
    print("Idle for %s s after set-up, 10,000-folder tree (and the agent on one folder). wake-ups: voluntary"
          % idle_seconds)
    print("context switches; preempted: non-voluntary ones; both summed over the threads; PSS counts a shared")
    print("library page in part, as one of the processes that map it")
    print("%-28s %9s %10s %9s %8s %8s" % ("watcher", "wake-ups", "preempted", "CPU us", "RSS KB", "PSS KB"))
    for r in of("idle"):
        print("%-28s %9s %10s %9s %8s %8s" % (label[r[1]], r[4], r[5], r[6], r[7], r[8] if len(r) > 8 else "n/a"))
    print()

if of("burst"):
    print("Burst: 10,000 files (64 KB in four writes each) into 100 folders in about 2 s, 10,000-folder tree.")
    print("The stream reports folders, the others files; CPU from the first write to 3 s of silence")
    print("%-28s %22s %10s %8s %6s" % ("watcher", "reported / expected", "overflows", "CPU ms", "alive"))
    for r in of("burst"):
        unit = "folders" if r[1] == "quillon" else "files"
        print("%-28s %22s %10s %8s %6s" % (label[r[1]], "%s / %s %s" % (r[3], r[4], unit), r[5], r[6], r[7]))
    print()

lat = [r for r in of("latency") if r[2] != "NA"]
if of("latency"):
    print("Notification delay: end of the last write of a 2 MB render (20 writes, 90 ms apart) to the Notify")
    print("call. floor: wait for the stream's next delivery (latency 1 s) + 3 s debounce + 3 s size test")
    print("%-8s %9s %9s %9s" % ("render", "delay s", "floor s", "over ms"))
    for r in of("latency"):
        if r[2] == "NA":
            print("%-8s %9s" % (r[1], "no notification"))
        else:
            print("%-8s %9s %9s %9.0f" % (r[1], r[2], r[3], float(r[4]) * 1000))
    if lat:
        print("%-8s %9.3f %9.3f %9.0f" % ("median", statistics.median(float(r[2]) for r in lat),
              statistics.median(float(r[3]) for r in lat), statistics.median(float(r[4]) for r in lat) * 1000))
    print()

if of("mail"):
    print("Mail: one message to a loopback relay (aiosmtpd), whole process, median of 30 (hyperfine)")
    for r in of("mail"):
        print("%-28s %8s ms wall %7s ms CPU" % (label.get(r[1], r[1]), r[2], r[3]))
    print()

# The project's aims, each with the figure it is judged on.
aims = []
if sizes:
    big = max(sizes)
    column = lambda name, i: num([v[i] for v in setup.get((name, big), [])])
    q, f, qr, ir = column("quillon", 0), column("floor", 0), column("quillon", 2), column("inotifywait", 2)
    if q and f:
        aims.append(("set-up on %d folders within 10%% of the floor" % big, "%.2f x floor" % (q / f), q / f <= 1.10))
    if qr and ir:
        aims.append(("memory on %d folders at most half of inotifywait's" % big, "%.2f x inotifywait" % (qr / ir),
                     qr / ir <= 0.5))
for r in of("idle"):
    if r[1].startswith("agent"):
        where = "10,000 folders" if r[1] == "agent" else "one folder"
        aims.append(("no wake-ups while idle (agent on %s, %s s)" % (where, r[3]), "%s wake-ups" % r[4], r[4] == "0"))
        aims.append(("idle agent under 10 MB resident (%s)" % where, "%.1f MB" % (int(r[7]) / 1024),
                     int(r[7]) < 10240))
for r in of("burst"):
    if r[1] == "quillon":
        met = r[3] == r[4] and r[5] == "0" and r[6] != "NA" and int(r[6]) < 1000
        aims.append(("10,000-file burst without loss, under 1 s of CPU",
                     "%s/%s folders, %s overflows, %s ms" % tuple(r[3:7]), met))
if lat:
    over = statistics.median(float(r[4]) for r in lat) * 1000
    aims.append(("notification within 100 ms of the timer floor", "%+.0f ms" % over, over <= 100))
if aims:
    print("Aims")
    for text, figure, met in aims:
        print("  %-6s %-56s %s" % ("met" if met else "MISSED", text, figure))
EOF
} | tee "${BENCH_OUT:-/dev/null}"

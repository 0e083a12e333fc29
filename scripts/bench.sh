#!/usr/bin/env bash
# Builds the benchmarks in Release (build-bench/), runs the micro-benchmarks
# and then the whole-process comparison with inotifywait, fswatch and msmtp,
# and prints one table. Takes several minutes; needs root (it raises the
# inotify watch limit for the run and restores it).
#
# Environment:
#   IDLE_SECONDS=10   shorten the idle measurement (default 60) for a trial
#   SIZES="1000"      tree sizes to set up (default "1000 10000 100000")
#   SKIP_MICRO=1      skip the micro-benchmarks
#   POLL_BENCH=0      skip the comparison of pollers on bindfs mounts
#   BENCH_OUT=FILE    also write the table to FILE
#   BENCH_BUILD_DIR=D build and measure in D instead of build-bench (a folder
#                     of your own that may also hold the tests: its test
#                     setting is left as it is)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
quillon_install_packages "${QUILLON_BUILD_PACKAGES[@]}" libbenchmark-dev \
  inotify-tools fswatch hyperfine msmtp procps util-linux \
  dbus dbus-daemon python3-dbusmock python3-aiosmtpd bindfs fuse3 python3-watchdog || exit 1

BUILD=${BENCH_BUILD_DIR:-build-bench}
TEST_OPTION=-DQUILLON_BUILD_TESTS=OFF
if [ -n "${BENCH_BUILD_DIR:-}" ]; then TEST_OPTION=; fi
cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=Release $TEST_OPTION -DQUILLON_BUILD_BENCH=ON >"$BUILD.configure.log" 2>&1 ||
  { tail -n 30 "$BUILD.configure.log"; exit 1; }
cmake --build "$BUILD" -j "${JOBS:-$(nproc)}" --target quillon-helper quillon-microbench quillon-watch-bench quillon-mail-bench fswalk-floor

bash bench/run-bench.sh "$BUILD/bin"
# Polling shares beside fswatch's and watchdog's pollers (POLL_BENCH=0 skips it).
if [ "${POLL_BENCH:-1}" != 0 ]; then exec bash bench/poll-bench.sh "$BUILD/bin"; fi

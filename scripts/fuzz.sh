#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang-14 in build-fuzz and runs
# each of them: first on every saved crash input in fuzz/regressions/<target>/,
# then for a fixed time from its seed corpus fuzz/corpus/<target>/. Prints one
# line per target and exits non-zero when a target crashes (or leaks, or
# hangs on one input) or when the build fails.
#
#   bash scripts/fuzz.sh                         # 10 seconds per target
#   FUZZ_SECONDS=600 bash scripts/fuzz.sh        # ten minutes per target
#   FUZZ_TARGETS="fcset base64" bash scripts/fuzz.sh
#   FUZZ_BUILD_DIR=/tmp/fuzz bash scripts/fuzz.sh  # another build folder
#
# A crash leaves its input in build-fuzz/crashes/<target>/. Once the bug is
# fixed, copy that file to fuzz/regressions/<target>/ so every run replays it.
# Inputs the fuzzer finds useful accumulate in build-fuzz/corpus/<target>/
# and make later runs start from further on.
set -uo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
set +e
quillon_install_packages "${QUILLON_BUILD_PACKAGES[@]}" clang-14 libclang-rt-14-dev || exit 1

SECONDS_EACH=${FUZZ_SECONDS:-10}
BUILD=${FUZZ_BUILD_DIR:-build-fuzz}
JOBS=${JOBS:-$(nproc)}
ALL_TARGETS="settings_plist history_plist fcset monitor_xml premiere_xml escape_query base64 ame_log log_format smtp_replies movie_atoms"
TARGETS=${FUZZ_TARGETS:-$ALL_TARGETS}

echo "=== fuzz build ($BUILD)"
if ! cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUILLON_BUILD_TESTS=OFF \
    -DCMAKE_CXX_COMPILER=clang++-14 -DCMAKE_C_COMPILER=clang-14 -DQUILLON_FUZZ=ON >"$BUILD.configure.log" 2>&1; then
  tail -n 30 "$BUILD.configure.log"; echo "fuzz: configure failed"; exit 1
fi
if ! cmake --build "$BUILD" -j "$JOBS" --target quillon_fuzzers >"$BUILD.build.log" 2>&1; then
  grep -E "error|Error" "$BUILD.build.log" | head -n 40; echo "fuzz: build failed"; exit 1
fi

# The input, what went wrong and the first frame in Quillon's own code.
explain() {
  grep -m1 -E "^Running: " "$1"
  grep -m1 -E "Assertion|ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error" "$1"
  grep -m1 -E " in .* [^ ]*/(SharedFiles|smtp|app|fuzz)/[^ /]+\.(cpp|h):[0-9]+" "$1"
}

status=0
for target in $TARGETS; do
  binary="$BUILD/fuzz/fuzz_$target"
  if [ ! -x "$binary" ]; then echo "fuzz_$target: FAILED (no such target)"; status=1; continue; fi
  log="$BUILD/fuzz_$target.log"
  crashes="$BUILD/crashes/$target/"
  corpus="$BUILD/corpus/$target"
  mkdir -p "$crashes" "$corpus"
  options=(-timeout=10 -rss_limit_mb=2048 -artifact_prefix="$crashes")

  regressions=(fuzz/regressions/"$target"/*)
  if [ -e "${regressions[0]}" ]; then
    if ! "$binary" "${options[@]}" "${regressions[@]}" >"$log" 2>&1; then
      echo "fuzz_$target: FAILED on a saved regression input (see $log)"
      explain "$log"
      status=1
      continue
    fi
  fi

  # The code under test writes console messages to standard error on many
  # inputs; libFuzzer keeps its own report stream when it closes them.
  "$binary" "${options[@]}" -close_fd_mask=3 -max_total_time="$SECONDS_EACH" -print_final_stats=1 \
    "$corpus" "fuzz/corpus/$target" >"$log" 2>&1
  rc=$?
  runs=$(grep -oE "^Done [0-9]+ runs" "$log" | grep -oE "[0-9]+")
  coverage=$(grep -oE "cov: [0-9]+ ft: [0-9]+ corp: [0-9]+" "$log" | tail -n 1)
  if [ "$rc" -ne 0 ]; then
    artifact=$(grep -oE "Test unit written to [^ ]+" "$log" | tail -n 1 | sed 's/Test unit written to //')
    echo "fuzz_$target: CRASHED, input ${artifact:-unknown} (see $log)"
    # Once more with standard error open, for messages such as a failed assertion.
    if [ -n "$artifact" ]; then
      "$binary" "$artifact" >"$log.replay" 2>&1
      explain "$log.replay"
    else
      explain "$log"
    fi
    status=1
  else
    echo "fuzz_$target: ok, ${runs:-0} runs in ${SECONDS_EACH}s, ${coverage:-no coverage line}"
  fi
done
exit $status

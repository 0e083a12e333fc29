#!/usr/bin/env bash
# Builds Quillon and runs every test: a plain build, then AddressSanitizer
# with UndefinedBehaviorSanitizer, then ThreadSanitizer. The last line says
# how many tests passed and failed over all three.
set -uo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
quillon_install_packages "${QUILLON_BUILD_PACKAGES[@]}" "${QUILLON_TEST_PACKAGES[@]}" || exit 1

JOBS=${JOBS:-$(nproc)}
# Rebuilds after a small change reuse the objects of the last run.
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
VARIANTS=${QUILLON_TEST_VARIANTS:-"plain asan tsan fuzz"}
total_passed=0
total_failed=0
status=0

run_variant() {
  local name=$1 dir=$2 sanitize=$3
  echo "=== $name build ($dir)"
  if ! cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Debug -DQUILLON_SANITIZE="$sanitize" "${launcher[@]}" >"$dir.configure.log" 2>&1; then
    tail -n 30 "$dir.configure.log"; echo "$name: configure failed"; status=1; total_failed=$((total_failed + 1)); return
  fi
  if ! cmake --build "$dir" -j "$JOBS" >"$dir.build.log" 2>&1; then
    grep -E "error|Error" "$dir.build.log" | head -n 40; echo "$name: build failed"; status=1; total_failed=$((total_failed + 1)); return
  fi
  local log="$dir.ctest.log"
  (cd "$dir" && ctest -j "$JOBS" --output-on-failure --timeout 600) 2>&1 | tee "$log" | grep -vE "^ +[0-9]+/[0-9]+ Test +#[0-9]+: .* Passed" || true
  local line passed failed all
  line=$(grep -E "tests passed, [0-9]+ tests failed out of [0-9]+" "$log" | tail -n 1)
  if [ -z "$line" ]; then echo "$name: no test summary"; status=1; total_failed=$((total_failed + 1)); return; fi
  failed=$(sed -E 's/.*tests passed, ([0-9]+) tests failed out of ([0-9]+).*/\1/' <<<"$line")
  all=$(sed -E 's/.*tests passed, ([0-9]+) tests failed out of ([0-9]+).*/\2/' <<<"$line")
  passed=$((all - failed))
  total_passed=$((total_passed + passed))
  total_failed=$((total_failed + failed))
  [ "$failed" -eq 0 ] || status=1
}

for v in $VARIANTS; do
  case $v in
    plain) run_variant plain build "" ;;
    asan) ASAN_OPTIONS=detect_leaks=1 LSAN_OPTIONS="suppressions=$PWD/tests/lsan.supp" UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 run_variant "asan+ubsan" build-asan "address,undefined" ;;
    tsan) TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/tests/tsan.supp" run_variant tsan build-tsan thread ;;
    fuzz)
      # Each fuzz target counts as one test: its saved crash inputs replayed,
      # then a short fixed run from its seed corpus.
      echo "=== fuzz targets"
      bash scripts/fuzz.sh 2>&1 | tee build-fuzz.run.log
      fuzz_ok=$(grep -cE "^fuzz_[a-z_0-9]+: ok" build-fuzz.run.log || true)
      fuzz_bad=$(grep -cE "^fuzz(_[a-z_0-9]+)?: (FAILED|CRASHED|configure failed|build failed)" build-fuzz.run.log || true)
      if [ "$fuzz_ok" -eq 0 ] && [ "$fuzz_bad" -eq 0 ]; then fuzz_bad=1; fi
      total_passed=$((total_passed + fuzz_ok))
      total_failed=$((total_failed + fuzz_bad))
      [ "$fuzz_bad" -eq 0 ] || status=1
      ;;
  esac
done

echo "Summary: $total_passed passed, $total_failed failed"
exit $status

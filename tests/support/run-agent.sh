#!/bin/sh
# Usage: run-agent.sh LOGDIR AGENT [ARGUMENT...]: the agent in a private mount namespace where
# /var/log is a fresh tmpfs and /var/log/Morvane is LOGDIR; exec all the way, so the pid stays the
# agent's. Faults: QUILLON_TEST_LOG_FAULT=readonly or =full (a small file system filled up; LOGDIR
# stays empty); QUILLON_TEST_DROP_DAC=1 (no right to ignore file modes, as a user's agent).
logdir=$1
shift
exec unshare --mount sh -c '
  mount -t tmpfs tmpfs /var/log &&
  mkdir -p /var/log/Morvane || exit 125
  case "$QUILLON_TEST_LOG_FAULT" in
    full)
      mount -t tmpfs -o size=64k tmpfs /var/log/Morvane || exit 125
      cat /dev/zero >/var/log/Morvane/filler 2>/dev/null ;;
    readonly)
      mount --bind "$0" /var/log/Morvane && mount -o remount,bind,ro /var/log/Morvane || exit 125 ;;
    *)
      mount --bind "$0" /var/log/Morvane || exit 125 ;;
  esac
  unset QUILLON_TEST_LOG_FAULT
  if [ -n "$QUILLON_TEST_DROP_DAC" ]; then
    unset QUILLON_TEST_DROP_DAC
    exec setpriv --bounding-set -dac_override,-dac_read_search -- "$@"
  fi
  exec "$@"' "$logdir" "$@"

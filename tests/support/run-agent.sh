#!/bin/sh
# Runs the agent as root without touching the machine's /var/log: in a
# private mount namespace, /var/log is a fresh tmpfs and its Morvane folder
# is LOGDIR, so the test reads the agent's log there while it runs and after
# it has ended. The process keeps its pid from here to the agent (exec all
# the way), so the caller can signal it and collect its exit status.
#
# Usage: run-agent.sh LOGDIR AGENT [ARGUMENT...]
#
# Faults, for tests that need them:
#   QUILLON_TEST_LOG_FAULT=readonly  the log folder is mounted read-only
#   QUILLON_TEST_LOG_FAULT=full      the log folder is a small file system
#                                    filled to the last block (LOGDIR stays empty)
#   QUILLON_TEST_DROP_DAC=1          the agent runs as root without the right
#                                    to ignore file modes, as a user would
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

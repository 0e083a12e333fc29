#!/bin/sh
# Runs the agent as root without touching the machine's /var/log: in a
# private mount namespace, /var/log is a fresh tmpfs and its Morvane folder
# is LOGDIR, so the test reads the agent's log there while it runs and after
# it has ended. The process keeps its pid from here to the agent (exec all
# the way), so the caller can signal it and collect its exit status.
#
# Usage: run-agent.sh LOGDIR AGENT [ARGUMENT...]
logdir=$1
shift
exec unshare --mount sh -c '
  mount -t tmpfs tmpfs /var/log &&
  mkdir -p /var/log/Morvane &&
  mount --bind "$0" /var/log/Morvane &&
  exec "$@"' "$logdir" "$@"

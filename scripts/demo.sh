#!/usr/bin/env bash
# Runs the job messenger for a few event kinds and shows what it prints into a job's log.
# Usage: scripts/demo.sh <folder of the built programs>
# No agent listens on the demo port: the messenger prints its report and, for lack of an
# agent, ends without sending anything.
set -u
bin="${1:?usage: demo.sh <bin folder>}"
jpmd="$bin/qx_jpmd"
[ -x "$jpmd" ] || { echo "no $jpmd; build first" >&2; exit 1; }

agent=(IPA=127.0.0.1 PNR=1 RETRY=1 TIMEOUT=1)

show() {
  echo
  echo "\$ qx_jpmd $*"
  "$jpmd" "$@"
  echo "(exit status $?)"
}

show -V
show "${agent[@]}" JNR=4711 TYP=S "TXT=nightly backup"
show "${agent[@]}" JNR=4711 TYP=O OUTFILE=/var/log/backup.out ULOGIN=Y
show "${agent[@]}" JNR=4711 TYP=V NAME=FILES VALUE=1234 VTYPE=N
show "${agent[@]}" JNR=4711 TYP=0
show "${agent[@]}" JNR=4711 TYP=E RET=3 "TXT=nightly backup"
show "CMD=echo a command run by the messenger"

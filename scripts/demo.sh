#!/usr/bin/env bash
# Runs the job messenger against the agent simulator for the events of a job's life and shows
# what each run prints into the job's log beside what the agent received.
# Usage: scripts/demo.sh <folder of the built programs>
set -u
bin="${1:?usage: demo.sh <bin folder>}"
jpmd="$bin/qx_jpmd"
sim="$bin/qx_agentsim"
for p in "$jpmd" "$sim"; do
  [ -x "$p" ] || { echo "no $p; build first"; exit 1; }
done

work=$(mktemp -d)
agent_log="$work/agent.log"
"$sim" --port 0 > "$agent_log" &
sim_pid=$!
trap 'kill "$sim_pid" 2>/dev/null; wait "$sim_pid" 2>/dev/null; rm -rf "$work"' EXIT

# The simulator's first line names the port it got: "listening on 127.0.0.1 port N".
for _ in $(seq 50); do
  [ -s "$agent_log" ] && break
  sleep 0.1
done
port=$(head -n 1 "$agent_log" | awk '{print $NF}')
[ -n "$port" ] || { echo "the agent simulator did not start"; exit 1; }
echo "agent simulator: $(head -n 1 "$agent_log")"

agent=(IPA=127.0.0.1 "PNR=$port" JNR=4711 MNR=1 RETRY=1 TIMEOUT=5)

# One run: the command, the job's log (the messenger's standard output), its exit status and
# the event as the agent printed it. The simulator prints an event before it answers, so the
# line is there when the messenger has ended.
show() {
  local seen
  seen=$(wc -l < "$agent_log")
  echo
  echo "\$ qx_jpmd ${agent[*]} $*"
  "$jpmd" "${agent[@]}" "$@"
  echo "(exit status $?)"
  echo "agent received:"
  tail -n "+$((seen + 1))" "$agent_log" | sed 's/^/    /'
}

show TYP=S "TXT=nightly backup"
show TYP=O OUTFILE=/var/log/backup.out ULOGIN=Y
show TYP=V NAME=FILES VALUE=1234 VTYPE=N
show TYP=E RET=3 "TXT=nightly backup"

echo
echo "\$ qx_jpmd -V"
"$jpmd" -V
echo
echo "\$ qx_jpmd \"CMD=echo a command run by the messenger\""
"$jpmd" "CMD=echo a command run by the messenger"
echo "(exit status $?)"

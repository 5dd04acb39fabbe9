#!/bin/sh
# An example job script: it reports its start, does its work, offers the work's output for
# viewing, registers a variable and reports its end with the work's return code, which is
# also the script's exit status.
#
# The agent is AGENT_HOST:AGENT_PORT (127.0.0.1:2217 unless given), the job number JOBNR.
# To try it without an agent, start the agent simulator and run the script against it:
#
#   qx_agentsim --port 0 > agent.log &
#   sleep 1; AGENT_PORT=$(head -n 1 agent.log | awk '{print $NF}') sh job.sh
#   kill %1; cat agent.log
#
# QX_JPMD names the messenger to run (qx_jpmd from PATH unless given).
QX_JPMD=${QX_JPMD:-qx_jpmd}
AGENT="IPA=${AGENT_HOST:-127.0.0.1} PNR=${AGENT_PORT:-2217} JNR=${JOBNR:-4711} MNR=1"

"$QX_JPMD" $AGENT TYP=S "TXT=example job"

# The job's work: here, a listing of the root folder into a file of its own.
out=$(mktemp "${TMPDIR:-/tmp}/job.XXXXXX") || exit 1
ls -l / > "$out" 2>&1
rc=$?

"$QX_JPMD" $AGENT TYP=O "OUTFILE=$out" ULOGIN=Y
"$QX_JPMD" $AGENT TYP=V NAME=LINES "VALUE=$(wc -l < "$out")" VTYPE=N

"$QX_JPMD" $AGENT TYP=E RET=$rc "TXT=example job"
exit $?

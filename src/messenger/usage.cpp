// The messenger's usage text.
#include "messenger/usage.h"

#include <stdio.h>
#include <string.h>

const char kUsageText[] =
    "usage: qx_jpmd KEY=value ...\n"
    "       qx_jpmd -V | --help | -h\n"
    "\n"
    "Reports one event of a job: a report on standard output, then the event to the\n"
    "agent at IPA:PNR. Keys are not case-sensitive; unknown keys and arguments without\n"
    "\"=\" are ignored; the last of a repeated key wins.\n"
    "\n"
    "  IPA=host      agent host name or address\n"
    "  PNR=port      agent port\n"
    "  JNR=n         job number\n"
    "  MNR=n         client number\n"
    "  TYP=t         S start, E end, 0 snooze, 1 wake-up, O output file, V variable;\n"
    "                anything else is a restart (the default)\n"
    "  RET=n         the job's return code (TYP=E), also the exit status\n"
    "  TXT=text      text of the event (at most 63 characters)\n"
    "  RETRY=n       connection attempts, 120 seconds apart (default 3)\n"
    "  WAIT=n        accepted and ignored\n"
    "  TIMEOUT=s     seconds to wait for each answer of the agent (default 60, also\n"
    "                for a value above 600; NONE: do not wait)\n"
    "  TRC=n         anything but 0 traces the run on standard output\n"
    "  OUTFILE=path  output file to register (TYP=O)\n"
    "  ULOGIN=Y      login check for the output file (default N)\n"
    "  NAME=name     variable name (TYP=V)\n"
    "  VALUE=text    variable value (TYP=V)\n"
    "  VTYPE=c       variable type (TYP=V)\n"
    "  CMD=command   run the command instead of reporting (scrambled passwords in it\n"
    "                are made clear first; see qx_scramble(1))\n"
    "\n"
    "Exit status: RET for TYP=E (its low 8 bits), 0 for any other event, also when\n"
    "the agent cannot be reached; for CMD 0 when the command succeeded, else 1;\n"
    "1 when memory runs out; 0 for -V, --help and -h; 2 without arguments.\n"
    "Nothing is written to standard error. The manual: man qx_jpmd (qx_jpmd(1)).\n";

int answer_usage(int argc, char** argv) {
  int status = -1;
  if (argc <= 1) {
    status = 2;
  } else if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
    status = 0;
  }
  if (status >= 0) {
    fputs(kUsageText, stdout);
    fflush(stdout);
  }
  return status;
}

// The job report on standard output.
#include "messenger/report.h"

#include <stdio.h>
#include <unistd.h>

#include "common/dates.h"
#include "common/trace_log.h"

namespace {

constexpr const char* kFrame =
    "************************************************************************";

}  // namespace

int printMelder(PCX* pcx) {
  QX_TRACE("%s() -->", __func__);
  DATUM_BUFF dt;
  GetDatumZeit2(nullptr, &dt);
  char local[64];
  snprintf(local, sizeof local, "%02i.%02i.%02i / %02i:%02i:%02i", dt.dt_tag, dt.dt_mon, dt.dt_jahr,
           dt.dt_std, dt.dt_min, dt.dt_sek);
  // The process shown is the job script that runs the messenger.
  wPid = getppid();
  const int pid = static_cast<int>(wPid);

  mprintf("%s", kFrame);
  mprintf("**  %-10s version %-24s changelist %-8i **", pcx->program_name, kQxVersionText,
          kQxChangelist);
  switch (pcx->melder_type) {
    case kMelderWakeup:
      mprintf("**  WAKEUP-Message, TCP/IP = '%-15s' PNR=%i             **", pcx->ipAddr,
              pcx->portnri);
      break;
    case kMelderSnooze:
      mprintf("**  SNOOZE-Message, TCP/IP = '%-15s' PNR=%i             **", pcx->ipAddr,
              pcx->portnri);
      break;
    case kMelderEnd:
      mprintf("**  JOB %08i (ProcID:%010i) ENDED AT   %s **", pcx->jobnri, pid, local);
      break;
    case kMelderStart:
      mprintf("**  JOB %08i (ProcID:%010i) START AT   %s **", pcx->jobnri, pid, local);
      break;
    default:
      mprintf("**  JOB %08i (ProcID:%010i) RESTART AT %s **", pcx->jobnri, pid, local);
      break;
  }
  mprintf("**                                   UTC TIME   %02i.%02i.%02i / %02i:%02i:%02i **",
          dt.utc_tag, dt.utc_mon, dt.utc_jahr, dt.utc_std, dt.utc_min, dt.utc_sek);
  // The type is compared as a signed character: NUL, other control and punctuation
  // characters and bytes from 0x80 up all fall below '0' and get the plain TEXT line.
  const signed char type = static_cast<signed char>(pcx->melder_type);
  if (type == kMelderSnooze || type == kMelderWakeup) {
    mprintf("**  %-20s : RETRY=%02i, WAIT=%02i                        **", "parameters",
            pcx->connect_retry, pcx->connect_wait);
  } else if (type == kMelderEnd) {
    mprintf("**  TEXT=\"%-32s\"  RETCODE=%02i               **", pcx->info_text, pcx->reti);
  } else {
    mprintf("**  TEXT=\"%-32s\"                           **", pcx->info_text);
  }
  mprintf("%s", kFrame);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int printOutputViewReport(PCX* pcx) {
  QX_TRACE("%s(filename=%s,login=%c) -->", __func__, pcx->output_file, pcx->output_login);
  if (pcx->output_file[0] == '\0') {
    QX_TRACE("%s <-- (filename not defined)", __func__);
    return -1;
  }
  char stamp[32];
  GetDtChar2(nullptr, stamp, sizeof stamp);
  mprintf("%s QX7 messenger '%s', login check '%c', registered output file '%s'\n", stamp,
          pcx->program_name, pcx->output_login, pcx->output_file);
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int printRegisteredVariable(PCX* pcx) {
  QX_TRACE("%s() -->", __func__);
  // The type is written as the byte itself: letters and digits as they are, a byte from 0x80
  // up unchanged (no wide-character conversion that could fail on it), and no type at all
  // (NUL) as nothing between the quotes, so the rest of the line is still written.
  char type[2] = {pcx->var_type, '\0'};
  mprintf("Registered variable: '%s' %s=%s", type,
          pcx->var_name[0] != '\0' ? pcx->var_name : "NULL",
          pcx->var_value[0] != '\0' ? pcx->var_value : "NULL");
  QX_TRACE("%s <-- (OK)", __func__);
  return 0;
}

int print_report(PCX* pcx) {
  switch (pcx->melder_type) {
    case kMelderOutputView:
      return printOutputViewReport(pcx);
    case kMelderVariable:
      return printRegisteredVariable(pcx);
    default:
      return printMelder(pcx);
  }
}

// The messenger driver.
#include "messenger/driver.h"

#include <errno.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include "common/standard_fds.h"
#include "common/strutil.h"
#include "common/trace_log.h"
#include "messenger/agent_session.h"
#include "messenger/arguments.h"
#include "messenger/hooks.h"
#include "messenger/report.h"
#include "messenger/usage.h"

PCX spcx;
PCX* pcx = nullptr;
pid_t wPid = 0;

void signal_handler_common(int /*signalID*/) {}

int initialize_messenger(PCX* pcx) {
  memset(pcx, 0, sizeof *pcx);
  pcx->running_mode = kMessengerRunningMode;
  pcx->status = 'R';
  pcx->melder_type = kMelderDefault;
  pcx->IoTimeOut = 60;
  pcx->connect_retry = 3;
  pcx->connect_wait = 120;
  pcx->output_login = 'N';

  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = signal_handler_common;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  if (sigaction(SIGUSR1, &action, nullptr) != 0) {
    const int err = errno;
    QX_TRACE("%s <-- (sigaction(%d) error %d-%s)", __func__, SIGUSR1, err, strerror(err));
    return -1;
  }
  sigset_t set;
  sigemptyset(&set);
  if (sigaddset(&set, SIGUSR1) != 0) {
    const int err = errno;
    QX_TRACE("%s <-- (sigaddset(%d) error %d-%s)", __func__, SIGUSR1, err, strerror(err));
    return -1;
  }
  const int rc = pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  if (rc != 0) {
    QX_TRACE("%s <-- (sigprocmask(SIG_SETMASK,...) error %d-%s)", __func__, rc, strerror(rc));
    return -1;
  }
  return 0;
}

int run_messenger(int argc, char** argv) {
  // Descriptors 0, 1 and 2 are open before anything else is: otherwise the connection
  // manager's wake-up pipes or the agent's socket would take a closed one's number and the
  // report and trace lines would be written into them.
  ensure_standard_descriptors();
  // A write to a standard output whose reader is gone fails with EPIPE instead of ending the
  // run: the event still goes out and the exit status stays the job's. The disposition is
  // for the whole run; a command run by CMD gets the default one back.
  signal(SIGPIPE, SIG_IGN);
  // A run has two threads and a handful of allocations: one malloc arena serves both. A
  // second arena would cost the network thread a 64 MiB address reservation, trimmed again
  // at once, and its first page faults on every run.
  mallopt(M_ARENA_MAX, 1);
  // Message areas (64 KiB and more) come straight from fresh mapped pages, which are zero
  // already: their zero fill costs nothing, and only the pages a message really uses are
  // ever touched (a few of 17). A run holds two or three of them.
  mallopt(M_MMAP_THRESHOLD, 64 * 1024);
  // Numbered events of the layers below reach the job's log through the messenger's logger.
  __log_set_logger(messenger_logger);
  pcx = &spcx;
  initialize_messenger(pcx);
  if (argc > 0 && argv[0] != nullptr) {
    StringCopy(pcx->program_name, sizeof pcx->program_name, GetPName(argv[0]));
  }
  if (const int usage_status = answer_usage(argc, argv); usage_status >= 0) return usage_status;
  if (argc == 2 && strcmp(argv[1], "-V") == 0) {
    mprintf("QX7 Agent \"%s\" version %s, changelist '%i'", pcx->program_name, kQxVersionText,
            kQxChangelist);
    return 0;
  }
  parse_arguments(pcx, argc, argv);
  print_report(pcx);
  // Connection, job message, reply and shutdown; the exit status of the run.
  return run_agent_session(pcx);
}

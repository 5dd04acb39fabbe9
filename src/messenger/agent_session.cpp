#include "messenger/agent_session.h"

#include <errno.h>
#include <sched.h>
#include <string.h>
#include <time.h>

#include <algorithm>

#include "ccm/ccm.h"
#include "common/dates.h"
#include "common/trace_log.h"
#include "messenger/job_messages.h"

ccm_context_t* ccm = nullptr;
ccm_msg_t* ccmmsg = nullptr;
int ccmID = 0;

namespace {

// Every trace line of the run's driver carries this function name.
constexpr const char* kMain = "main";

// The messenger's kind of channel and the time it allows a connection.
constexpr int kAgentChannelType = CCM_CHTYPE_MESSENGER;
constexpr int kConnectWaitSecs = 60;

// The agent's greeting: a native message whose payload came under key 4.
constexpr unsigned char kGreetingKey = 4;

// The channel a received message or notice belongs to: the channel a close notice is about,
// or the channel the message was read from. -1 for any other internal message.
int channel_of(const ccm_msg_t* msg) {
  return msg->type == CCM_MSG_IPC ? ccm_close_notice_channelID(msg) : msg->addr.src_ID;
}

bool is_close_notice(const ccm_msg_t* msg) {
  return msg->type == CCM_MSG_IPC;
}

enum class WaitResult { kMessage, kTimeout, kFailed };

// Called on every step of a wait; tests set it through the session's timing.
void (*wait_step_hook)() = nullptr;

// Waits until `deadline` (monotonic milliseconds) for a message or notice of channel
// `channelID`. Whatever belongs to another channel (a close notice of an earlier attempt, a
// late frame on a rejected connection) is given back and traced. So are the first `*early`
// messages taken, when given: they were received before the caller sent anything, so none
// of them answers it (a close notice still ends the wait). The deadline holds however many
// messages keep arriving; but what was queued when the wait began is always looked at, so a
// deadline in the past (TIMEOUT=NONE) looks at exactly that.
WaitResult wait_channel_message(int channelID, long long deadline, ccm_msg_t** out,
                                int* early = nullptr) {
  *out = nullptr;
  int queued_at_start = ccm_get_recvq_count(ccm);
  // After a message was set aside: whether the wait is over although more may be queued.
  auto past_deadline = [&] { return queued_at_start-- <= 0 && MonotonicMs() >= deadline; };
  for (;;) {
    if (wait_step_hook != nullptr) wait_step_hook();
    ccm_error_t err{};
    ccm_msg_t* msg = nullptr;
    const long long left = deadline - MonotonicMs();
    int r = ccm_receive_message_ms(ccm, left, &msg, &err);
    if (r < 0) return WaitResult::kFailed;
    if (r > 0 && msg != nullptr) {
      int id = channel_of(msg);
      bool taken_early = early != nullptr && *early > 0;
      if (taken_early) (*early)--;
      if (id == channelID && taken_early && !is_close_notice(msg)) {
        QX_TRACE("%s:      discarded a message of channel %d that came before the job message",
                 kMain, id);
        ccm_msg_free(ccm, msg);
        if (past_deadline()) return WaitResult::kTimeout;
        continue;
      }
      if (id == channelID) {
        *out = msg;
        return WaitResult::kMessage;
      }
      QX_TRACE("%s:      discarded %s of channel %d (waiting for channel %d)", kMain,
               is_close_notice(msg) ? "close notice" : "message", id, channelID);
      ccm_msg_free(ccm, msg);
      if (past_deadline()) return WaitResult::kTimeout;
      continue;
    }
    if (left <= 0) return WaitResult::kTimeout;
  }
}

// Lets the network thread write what is still queued for the agent, until `deadline`.
// Returns true when nothing is left to write. In a run whose reply came this returns at the
// first look: the reply proves the job message was written.
bool drain_send_queues(int agentID, long long deadline) {
  switch (ccm_drain_sendq(ccm, agentID, deadline - MonotonicMs())) {
    case -1:
      QX_TRACE("%s:      job message not written: the connection to the agent failed", kMain);
      return false;
    case 0:
      QX_TRACE("%s:      job message not written within the time-out", kMain);
      return false;
    default:
      return true;
  }
}

// Keeps the run's two threads on the processor the run started on, for as long as it lives,
// and gives the caller its former processor set back at the end. The threads hand every step
// to each other (connect, greeting, job message, reply, stop); on one processor each hand-over
// is a switch between them there, where a hand-over to another processor first has to wake
// that one up. A run is a few milliseconds of mostly waiting, so one processor is plenty. The
// connection manager's spin locks are held for a few instructions and never across a wake-up
// of the other thread: a thread finds its partner holding one only when a timer tick preempted
// the partner right there, and then spins for at most one scheduling slice.
// Without a processor number or the right to choose, the run goes on where the system puts it.
class OneProcessorForTheRun {
 public:
  OneProcessorForTheRun() {
    const int cpu = sched_getcpu();
    if (cpu < 0 || cpu >= CPU_SETSIZE) return;
    if (sched_getaffinity(0, sizeof former_, &former_) != 0) return;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    pinned_ = sched_setaffinity(0, sizeof one, &one) == 0;
  }
  ~OneProcessorForTheRun() {
    if (pinned_) sched_setaffinity(0, sizeof former_, &former_);
  }
  OneProcessorForTheRun(const OneProcessorForTheRun&) = delete;
  OneProcessorForTheRun& operator=(const OneProcessorForTheRun&) = delete;

 private:
  cpu_set_t former_{};
  bool pinned_ = false;
};

int exit_status(const PCX* pcx) {
  return pcx->melder_type == kMelderEnd ? pcx->reti : 0;
}

void trace_end(const PCX* pcx) {
  if (pcx->abnormal_end) {
    QX_TRACE("%s:      Program QX7 Messenger Version \"%s\" ended abnormally", kMain,
             kQxVersionText);
  } else {
    QX_TRACE("%s:      Program QX7 Messenger Version \"%s\" ended normally", kMain, kQxVersionText);
  }
}

void send_job_message(PCX* pcx) {
  switch (pcx->melder_type) {
    case kMelderOutputView:
      SendOutputViewMsg(ccm, pcx);
      break;
    case kMelderVariable:
      SendRegVariableMsg(ccm, pcx);
      break;
    default:
      SendJpMd(ccm, pcx);
      break;
  }
}

// Step 5 of a run: up to `connect_retry` attempts, each a connect and a wait of at most the
// time-out for the agent's greeting. True once the greeting came (the agent's channel is then
// in `agentID`).
bool connect_and_greet(PCX* pcx, long long pause, long long timeout_ms) {
  ccm_error_t err{};
  // A negative number of attempts counts as none.
  const int attempts = std::max(pcx->connect_retry, 0);
  for (int attempt = 0; attempt < attempts && !pcx->abnormal_end; attempt++) {
    QX_TRACE("%s:      connection attempt #%d", kMain, attempt);
    if (attempt > 0) {
      QX_TRACE("%s:      wait %d seconds before retry connecting", kMain, pcx->connect_wait);
      SleepMs(pause);
    }
    ccmID = ccm_connect(ccm, pcx->ipAddr, pcx->portnri, kAgentChannelType, nullptr,
                        kConnectWaitSecs, &err);
    if (ccmID < 0) {
      QX_TRACE("%s:      connect failed", kMain);
      continue;
    }
    if (wait_channel_message(ccmID, MonotonicMs() + timeout_ms, &ccmmsg) != WaitResult::kMessage) {
      pcx->abnormal_end = 1;
      return false;
    }
    if (ccmmsg->type == CCM_MSG_NATIVE && ccmmsg->protocol_key == kGreetingKey) {
      pcx->agentID = ccmmsg->addr.src_ID;
      return true;
    }
    // The channel of a rejected attempt is read no more: it is deleted at once (a peer that
    // floods it meets a closed connection, not a growing queue). Its close notice comes later
    // and is set aside by the next wait.
    QX_TRACE("%s:      invalid answer", kMain);
    ccm_msg_free(ccm, ccmmsg);
    ccmmsg = nullptr;
    ccm_channel_deletebyID(ccm, ccmID);
    ccm_wakeup_network(ccm);
  }
  return false;
}

// Steps 6 and 7: the job message, and the wait for the reply. The reply and the writing of
// the job message share one time-out. A reply comes only after the job message was written,
// so once it is there nothing waits any more. When it does not come (or the wait fails), what
// is still queued gets the rest of the time-out to reach the wire before the connection is
// closed.
void send_and_await_reply(PCX* pcx, long long timeout_ms) {
  QX_TRACE("%s:      executordata arrived", kMain);
  ccm_msg_free(ccm, ccmmsg);
  ccmmsg = nullptr;
  // Frames the agent sent along with its greeting are already queued: no reply among them.
  int early = ccm_get_recvq_count(ccm);
  send_job_message(pcx);
  const long long deadline = MonotonicMs() + timeout_ms;
  WaitResult r = wait_channel_message(pcx->agentID, deadline, &ccmmsg, &early);
  if (r == WaitResult::kMessage && is_close_notice(ccmmsg)) {
    QX_TRACE("%s:      the agent closed the connection without a reply", kMain);
  }
  if (ccmmsg != nullptr) {
    ccm_msg_free(ccm, ccmmsg);
    ccmmsg = nullptr;
  }
  drain_send_queues(pcx->agentID, deadline);
}

}  // namespace

int run_agent_session(PCX* pcx, const AgentSessionTiming* timing) {
  ccm_error_t err{};
  const long long pause = timing != nullptr ? timing->pause_ms : pcx->connect_wait * 1000LL;
  wait_step_hook = timing != nullptr ? timing->on_wait_step : nullptr;
  // "TIMEOUT=NONE" gives 0: each wait only looks at what is queued. A negative value acts
  // the same.
  const long long timeout_ms = std::max(pcx->IoTimeOut, 0) * 1000LL;

  // The network thread, started below, inherits the processor set of this thread.
  OneProcessorForTheRun one_processor;
  ccm = nullptr;
  ccmmsg = nullptr;
  // Without a context or a network thread there is nothing to connect with: the run ends
  // with its exit status and touches no context that was not made.
  if (ccm_session_open(pcx, &ccm, &err) != 0) {
    if (ccm == nullptr) {
      QX_TRACE("%s:      connection manager could not be opened (%d: %s)", kMain, err.msgnr,
               err.msginsert);
    } else {
      QX_TRACE("%s:      network thread could not be started (%d: %s)", kMain, err.msgnr,
               err.msginsert);
      ccm_session_close(ccm, &err);
    }
    ccm = nullptr;
    pcx->abnormal_end = 1;
    trace_end(pcx);
    return exit_status(pcx);
  }
  if (connect_and_greet(pcx, pause, timeout_ms)) send_and_await_reply(pcx, timeout_ms);

  // Step 8, shutdown: the agent's channel, the network thread, every other channel, the
  // context.
  if (pcx->agentID != 0) ccm_channel_deletebyID(ccm, pcx->agentID);
  ccm_session_close(ccm, &err);
  ccm = nullptr;
  trace_end(pcx);
  return exit_status(pcx);
}

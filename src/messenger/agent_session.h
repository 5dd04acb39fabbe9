// The agent session: the part of a messenger run that talks to the agent. It opens the
// connection manager, connects with a bounded number of attempts, waits for the agent's
// greeting, sends the one job message, waits for the reply, takes everything down in order
// and returns the run's exit status.
//
// Ownership: the session makes the connection manager context (the global `ccm`) and closes
// it again before it returns; `ccm` is null outside the session. Messages it receives are
// given back before it returns.
//
// Threads: main thread only. The connection manager's network thread runs from the start of
// the session until its shutdown.
#ifndef QX_MESSENGER_AGENT_SESSION_H_
#define QX_MESSENGER_AGENT_SESSION_H_

#include "ccm/context.h"
#include "ccm/message.h"
#include "messenger/context.h"

extern ccm_context_t* ccm;  // the connection manager context of the run; null outside it
extern ccm_msg_t* ccmmsg;   // the message last received; null when none was there
extern int ccmID;           // result of the last ccm_connect

// How long the session pauses before every connection attempt but the first. The command
// line cannot change it; a program passes null and gets `connect_wait` seconds. Tests pass a
// short pause to exercise the attempts in-process.
// Tests may also have a function called on every step of every wait for the agent, before
// the step looks at the receive queue (for example to queue unrelated messages at will).
struct AgentSessionTiming {
  int pause_ms;
  void (*on_wait_step)() = nullptr;
};

// Runs the session for the parsed and reported context. Returns the exit status of the run:
// `reti` for an end event, else 0, whatever happened on the network.
int run_agent_session(PCX* pcx, const AgentSessionTiming* timing = nullptr);

#endif  // QX_MESSENGER_AGENT_SESSION_H_

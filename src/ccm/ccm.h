// The connection manager for applications: one include for the context, messages, channels,
// outgoing connections, address resolution and internal messages.
//
// Layers, bottom up. A module (a header with its .cpp) includes only modules of the layers
// below it, or of its own layer in the order listed; none includes one above it:
//   records      fdset.h, context_record.h, message_record.h, channel_record.h: types and
//                constants only, no operations;
//   services     internal (allocation seam, error records, queue and flag helpers), locks (the
//                spin locks and their guards), wakeup (the two wake-up pipes), address;
//   objects      message, ipc (the close notice), channel;
//   context      context (ccm_open, ccm_close; its header also brings locks and wakeup);
//   transfer     wire, receive, connect, send, io, ipc_dispatch;
//   threads      listen, net_thread, session;
//   application  ccm.h.
#ifndef QX_CCM_CCM_H_
#define QX_CCM_CCM_H_

#include "ccm/address.h"
#include "ccm/channel.h"
#include "ccm/connect.h"
#include "ccm/context.h"
#include "ccm/io.h"
#include "ccm/ipc.h"
#include "ccm/ipc_dispatch.h"
#include "ccm/listen.h"
#include "ccm/locks.h"
#include "ccm/message.h"
#include "ccm/net_thread.h"
#include "ccm/receive.h"
#include "ccm/send.h"
#include "ccm/session.h"
#include "ccm/wire.h"

#endif  // QX_CCM_CCM_H_
